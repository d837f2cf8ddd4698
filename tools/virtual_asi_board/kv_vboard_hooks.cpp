// The C library calls the board intercepts. Calls on the board's nodes and descriptors
// go to the registry; every other call goes straight on to the C library. These
// definitions take the place of the C library's, either from a preloaded shared library
// or linked into a program. No exception leaves them.

// The definitions below must keep the plain names and signatures of the C library.
#undef _FORTIFY_SOURCE
#undef _FILE_OFFSET_BITS

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "kv_vboard_real.h"
#include "kv_vboard_registry.h"

namespace kvvb {

namespace {

// A sanitizer linked into the program wraps these calls under the same names, and our
// definitions replace its wrappers; going through the wrappers it exports keeps its
// view of descriptors and mappings right. Otherwise the next definition is the C
// library's.
void* resolve(const char* name) {
    char wrapped[64];
    snprintf(wrapped, sizeof(wrapped), "__interceptor_%s", name);
    void* p = dlsym(RTLD_DEFAULT, wrapped);
    return p ? p : dlsym(RTLD_NEXT, name);
}

template <typename F>
void bind(F& f, const char* name) {
    f = reinterpret_cast<F>(resolve(name));
}

real_calls load() {
    real_calls r{};
    bind(r.open, "open");
    bind(r.open64, "open64");
    bind(r.openat, "openat");
    bind(r.openat64, "openat64");
    bind(r.close, "close");
    bind(r.ioctl, "ioctl");
    bind(r.mmap, "mmap");
    bind(r.mmap64, "mmap64");
    bind(r.munmap, "munmap");
    if (!r.open64) {
        r.open64 = r.open;
    }
    if (!r.openat64) {
        r.openat64 = r.openat;
    }
    if (!r.mmap64) {
        r.mmap64 = r.mmap;
    }
    return r;
}

bool needs_mode(int flags) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

bool board_open(const char* path, int flags, int* pResult) {
    try {
        return hook_open(path, flags, pResult);
    } catch (...) {
        errno = ENOMEM;
        *pResult = -1;
        return true;
    }
}

// Only paths that name a node as given are the board's; a path relative to another
// directory descriptor never is.
bool board_openat(int dirfd, const char* path, int flags, int* pResult) {
    if (!path || (path[0] != '/' && dirfd != AT_FDCWD)) {
        return false;
    }
    return board_open(path, flags, pResult);
}

}  // namespace

const real_calls& real() {
    static const real_calls r = load();
    return r;
}

}  // namespace kvvb

using kvvb::real;

extern "C" {

int open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if (kvvb::needs_mode(flags)) {
        va_list ap;
        va_start(ap, flags);
        mode = va_arg(ap, mode_t);
        va_end(ap);
    }
    int result = -1;
    if (kvvb::board_open(path, flags, &result)) {
        return result;
    }
    return real().open(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
    mode_t mode = 0;
    if (kvvb::needs_mode(flags)) {
        va_list ap;
        va_start(ap, flags);
        mode = va_arg(ap, mode_t);
        va_end(ap);
    }
    int result = -1;
    if (kvvb::board_open(path, flags, &result)) {
        return result;
    }
    return real().open64(path, flags, mode);
}

int openat(int dirfd, const char* path, int flags, ...) {
    mode_t mode = 0;
    if (kvvb::needs_mode(flags)) {
        va_list ap;
        va_start(ap, flags);
        mode = va_arg(ap, mode_t);
        va_end(ap);
    }
    int result = -1;
    if (kvvb::board_openat(dirfd, path, flags, &result)) {
        return result;
    }
    return real().openat(dirfd, path, flags, mode);
}

int openat64(int dirfd, const char* path, int flags, ...) {
    mode_t mode = 0;
    if (kvvb::needs_mode(flags)) {
        va_list ap;
        va_start(ap, flags);
        mode = va_arg(ap, mode_t);
        va_end(ap);
    }
    int result = -1;
    if (kvvb::board_openat(dirfd, path, flags, &result)) {
        return result;
    }
    return real().openat64(dirfd, path, flags, mode);
}

// The checking variants that programs built with source fortification call.
int __open_2(const char* path, int flags) {
    int result = -1;
    if (kvvb::board_open(path, flags, &result)) {
        return result;
    }
    return real().open(path, flags, 0);
}

int __open64_2(const char* path, int flags) {
    int result = -1;
    if (kvvb::board_open(path, flags, &result)) {
        return result;
    }
    return real().open64(path, flags, 0);
}

int __openat_2(int dirfd, const char* path, int flags) {
    int result = -1;
    if (kvvb::board_openat(dirfd, path, flags, &result)) {
        return result;
    }
    return real().openat(dirfd, path, flags, 0);
}

int __openat64_2(int dirfd, const char* path, int flags) {
    int result = -1;
    if (kvvb::board_openat(dirfd, path, flags, &result)) {
        return result;
    }
    return real().openat64(dirfd, path, flags, 0);
}

int close(int fd) {
    int result = 0;
    try {
        kvvb::hook_close(fd, &result);
    } catch (...) {
    }
    return real().close(fd);
}

int ioctl(int fd, unsigned long request, ...) __THROW {
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    int result = -1;
    try {
        if (kvvb::hook_ioctl(fd, request, arg, &result)) {
            return result;
        }
    } catch (...) {
        errno = ENOMEM;
        return -1;
    }
    return real().ioctl(fd, request, arg);
}

void* mmap(void* addr, size_t len, int prot, int flags, int fd, off_t offset) __THROW {
    void* result = MAP_FAILED;
    try {
        if (kvvb::hook_mmap(addr, len, prot, flags, fd, offset, &result)) {
            return result;
        }
    } catch (...) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    return real().mmap(addr, len, prot, flags, fd, offset);
}

void* mmap64(void* addr, size_t len, int prot, int flags, int fd, off_t offset) __THROW {
    void* result = MAP_FAILED;
    try {
        if (kvvb::hook_mmap(addr, len, prot, flags, fd, offset, &result)) {
            return result;
        }
    } catch (...) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    return real().mmap64(addr, len, prot, flags, fd, offset);
}

int munmap(void* addr, size_t len) __THROW {
    try {
        kvvb::hook_munmap(addr);
    } catch (...) {
    }
    return real().munmap(addr, len);
}

}  // extern "C"
