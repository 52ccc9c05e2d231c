# The image's first bytes: the Multiboot version 1 header and the entry point. The loader enters in
# 32-bit protected mode without paging, the magic in EAX and the boot information's address in EBX.

.set MULTIBOOT_MAGIC,    0x1BADB002
.set MULTIBOOT_FLAGS,    0x00000003     # modules on page boundaries, memory information
.set MULTIBOOT_CHECKSUM, -(MULTIBOOT_MAGIC + MULTIBOOT_FLAGS)
.set BOOT_STACK_BYTES,   16384

.section .multiboot, "ax"
.balign 4
    .long MULTIBOOT_MAGIC
    .long MULTIBOOT_FLAGS
    .long MULTIBOOT_CHECKSUM
    .long 0

.globl _start
.type _start, @function
_start:
    movl $stack_top, %esp
    xorl %ebp, %ebp                     # ends the chain of frame pointers
    cld
    pushl %ebx
    pushl %eax
    call kernel_main
1:  cli
    hlt
    jmp 1b
.size _start, . - _start

.section .bss
.balign 16
.globl stack_bottom
.globl stack_top
stack_bottom:
    .skip BOOT_STACK_BYTES
stack_top:

.section .note.GNU-stack, "", @progbits
