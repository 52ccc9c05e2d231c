# Entry stubs of the interrupt gates. Each stub completes the frame that the processor began to the
# layout of registers_t (kernel/core/interrupt.h) and calls the dispatcher with its address; IRET
# then restores whatever the dispatcher left in the frame.

.set KERNEL_DATA, 0x10

# The processor pushed no error code: a zero stands in for it.
.macro stub name, vector, common
.globl \name
.type \name, @function
\name:
    pushl $0
    pushl $\vector
    jmp \common
.size \name, . - \name
.endm

# The processor pushed an error code.
.macro stub_with_code name, vector, common
.globl \name
.type \name, @function
\name:
    pushl $\vector
    jmp \common
.size \name, . - \name
.endm

# C++ expects the direction flag clear, whatever was interrupted.
.macro common name, dispatcher
.globl \name
.type \name, @function
\name:
    pushal
    pushl %ds
    pushl %es
    pushl %fs
    pushl %gs
    movl $KERNEL_DATA, %eax
    movl %eax, %ds
    movl %eax, %es
    movl %eax, %fs
    movl %eax, %gs
    cld
    pushl %esp
    call \dispatcher
.globl \name\()_return
\name\()_return:
    addl $4, %esp
    popl %gs
    popl %fs
    popl %es
    popl %ds
    popal
    addl $8, %esp
    iret
.size \name, . - \name
.endm

.text

    common isr_common, isr_handler
    common irq_common, irq_handler

.irp n, 0, 1, 2, 3, 4, 5, 6, 7, 9, 15, 16, 18, 19, 20, 22, 23, 24, 25, 26, 27, 28, 31
    stub isr\n, \n, isr_common
.endr
.irp n, 8, 10, 11, 12, 13, 14, 17, 21, 29, 30
    stub_with_code isr\n, \n, isr_common
.endr
    stub isr128, 0x80, isr_common

.irp n, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
    stub irq\n, 32+\n, irq_common
.endr
    stub isr_lapic_ipi, 0xFE, irq_common

# Nothing was delivered, so nothing is acknowledged.
.globl isr_lapic_spurious
.type isr_lapic_spurious, @function
isr_lapic_spurious:
    iret
.size isr_lapic_spurious, . - isr_lapic_spurious

.section .rodata
.balign 4
.globl isr_stubs
isr_stubs:
.irp n, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
    .long isr\n
.endr
.irp n, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31
    .long isr\n
.endr
.size isr_stubs, . - isr_stubs

.globl irq_stubs
irq_stubs:
.irp n, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
    .long irq\n
.endr
.size irq_stubs, . - irq_stubs

.section .note.GNU-stack, "", @progbits
