// The kernel's own functions whose names the C library also has. In the host build they carry the
// prefix vorn_ (own_symbols.txt), so a test that means ours calls these.
#pragma once

#include <stddef.h>

extern "C" {
void* vorn_memset(void* s, int c, size_t n);
void* vorn_memcpy(void* dest, const void* src, size_t n);
void* vorn_memmove(void* dest, const void* src, size_t n);
int vorn_memcmp(const void* a, const void* b, size_t n);
size_t vorn_strlen(const char* s);
int vorn_strcmp(const char* a, const char* b);
int vorn_strncmp(const char* a, const char* b, size_t n);
char* vorn_strcpy(char* dest, const char* src);
char* vorn_strncpy(char* dest, const char* src, size_t n);
char* vorn_strcat(char* dest, const char* src);
char* vorn_strchr(const char* s, int c);
char* vorn_strrchr(const char* s, int c);
char* vorn_strstr(const char* haystack, const char* needle);
int vorn_atoi(const char* s);
const char* vorn_strerror(int err);
}
