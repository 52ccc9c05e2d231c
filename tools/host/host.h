// The kernel's filesystem and codecs as code of a host program: what the library of tools/host puts
// in place of the kernel below them. One program has one volume and one thread.
//
//   kmalloc, mutexes, ticks, events     the C library; no locks, no events
//   kprintf                             the receiver set here
//   blk_read, blk_write                 an image file (image.h)
#pragma once

/// Sets what receives each text that the kernel's code prints (null: nobody, the default).
void host_set_print(void (*print)(const char* text));
