# The task switch, and where new tasks start. A saved context is, from its stack pointer upwards:
# EDI, ESI, EBX, EBP, flags, return address.

.set EFLAGS_IF,          0x200
.set SELECTOR_USER_CODE, 0x1B
.set SELECTOR_USER_DATA, 0x23

.section .text

# void context_switch(uintptr_t* save_esp, uintptr_t load_esp)
# The flags come back with interrupts masked: the lock may be held until the task has returned into
# its scheduling pass or its trampoline, and both unmask by themselves.
.globl context_switch
.type context_switch, @function
context_switch:
    movl 4(%esp), %eax
    movl 8(%esp), %edx
    pushfl
    pushl %ebp
    pushl %ebx
    pushl %esi
    pushl %edi
    movl %esp, (%eax)
    movl %edx, %esp
    popl %edi
    popl %esi
    popl %ebx
    popl %ebp
    andl $~EFLAGS_IF, (%esp)
    popfl
    ret
.size context_switch, . - context_switch

.globl task_entry_trampoline
.type task_entry_trampoline, @function
task_entry_trampoline:
    pushl $0                            # ends the chain of return addresses
    jmp task_enter
.size task_entry_trampoline, . - task_entry_trampoline

# task_enter_user() returns the stack pointer in EAX and the entry point in EDX.
.globl task_entry_trampoline_user
.type task_entry_trampoline_user, @function
task_entry_trampoline_user:
    call task_enter_user
    movl $SELECTOR_USER_DATA, %ecx
    movw %cx, %ds
    movw %cx, %es
    movw %cx, %fs
    movw %cx, %gs
    pushl %ecx                          # SS
    pushl %eax                          # ESP
    pushfl
    orl $EFLAGS_IF, (%esp)
    pushl $SELECTOR_USER_CODE           # CS
    pushl %edx                          # EIP
    xorl %eax, %eax                     # nothing of the kernel's goes along
    xorl %ecx, %ecx
    xorl %edx, %edx
    iretl
.size task_entry_trampoline_user, . - task_entry_trampoline_user

.section .note.GNU-stack, "", @progbits
