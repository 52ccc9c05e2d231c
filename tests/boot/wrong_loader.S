# The entry of an image whose loader is none that the kernel knows: it jumps to the real entry with
# another magic in EAX than a Multiboot loader leaves there.

.text
.globl wrong_loader
.type wrong_loader, @function
wrong_loader:
    movl $0xBAD10AD, %eax
    jmp _start
.size wrong_loader, . - wrong_loader

.section .note.GNU-stack, "", @progbits
