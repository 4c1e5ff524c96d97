// Preloaded into kemdctl: reading the second page of a file whose name begins with "bad" fails, or
// the one byte that BAD_BYTE names.
#define _GNU_SOURCE
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

__attribute__((visibility("default"))) ssize_t pread(int fd, void* to, size_t length, off_t offset);

ssize_t pread(int fd, void* to, size_t length, off_t offset) {
    char link[64], name[256] = {0};
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const int isBad = readlink(link, name, sizeof name - 1) > 0 && strstr(name, "/bad") != NULL;
    const char* const byte = getenv("BAD_BYTE");
    const off_t from = byte == NULL ? 4096 : atol(byte);
    const off_t end = byte == NULL ? 8192 : from + 1;
    if (isBad && offset < end && offset + (off_t)length > from) {
        if (offset >= from) {
            errno = EIO;
            return -1;
        }
        length = (size_t)(from - offset);
    }
    return syscall(SYS_pread64, fd, to, length, offset);
}
