// Preloaded into kemdctl: reading the second page of a file whose name begins with "bad" fails.
#define _GNU_SOURCE
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

__attribute__((visibility("default"))) ssize_t pread(int fd, void* to, size_t length, off_t offset);

ssize_t pread(int fd, void* to, size_t length, off_t offset) {
    char link[64], name[256] = {0};
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const int isBad = readlink(link, name, sizeof name - 1) > 0 && strstr(name, "/bad") != NULL;
    if (isBad && offset < 8192 && offset + (off_t)length > 4096) {
        if (offset >= 4096) {
            errno = EIO;
            return -1;
        }
        length = (size_t)(4096 - offset);
    }
    return syscall(SYS_pread64, fd, to, length, offset);
}
