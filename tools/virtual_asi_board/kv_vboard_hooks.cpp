// The C library calls the board intercepts. Calls on the board's nodes and descriptors
// go to the registry; every other call goes straight on to the C library. These
// definitions take the place of the C library's, either from a preloaded shared library
// or linked into a program. No exception leaves them.

// The definitions below must keep the plain names and signatures of the C library.
#undef _FORTIFY_SOURCE
#undef _FILE_OFFSET_BITS

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <type_traits>

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
    bind(r.poll, "poll");
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

// The mode argument, present only when `flags` create a file.
mode_t mode_arg(int flags, va_list ap) {
    const bool needed = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return needed ? va_arg(ap, mode_t) : 0;
}

using real_open_fn = int (*)(const char*, int, ...);

// Opens a node of the board, or passes the call on to `real_fn`: one of the C library's
// open calls, with or without a directory descriptor (open and open64 pass AT_FDCWD).
// Only paths that name a node as given are the board's; a path relative to another
// directory descriptor never is.
template <typename Real>
int intercept_open(int dirfd, const char* path, int flags, mode_t mode, Real real_fn) {
    if (path && (path[0] == '/' || dirfd == AT_FDCWD)) {
        int result = -1;
        try {
            if (hook_open(path, flags, &result)) {
                return result;
            }
        } catch (...) {
            errno = ENOMEM;
            return -1;
        }
    }
    if constexpr (std::is_same_v<Real, real_open_fn>) {
        return real_fn(path, flags, mode);
    } else {
        return real_fn(dirfd, path, flags, mode);
    }
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
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = kvvb::mode_arg(flags, ap);
    va_end(ap);
    return kvvb::intercept_open(AT_FDCWD, path, flags, mode, real().open);
}

int open64(const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = kvvb::mode_arg(flags, ap);
    va_end(ap);
    return kvvb::intercept_open(AT_FDCWD, path, flags, mode, real().open64);
}

int openat(int dirfd, const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = kvvb::mode_arg(flags, ap);
    va_end(ap);
    return kvvb::intercept_open(dirfd, path, flags, mode, real().openat);
}

int openat64(int dirfd, const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = kvvb::mode_arg(flags, ap);
    va_end(ap);
    return kvvb::intercept_open(dirfd, path, flags, mode, real().openat64);
}

// The checking variants that programs built with source fortification call.
int __open_2(const char* path, int flags) {
    return kvvb::intercept_open(AT_FDCWD, path, flags, 0, real().open);
}

int __open64_2(const char* path, int flags) {
    return kvvb::intercept_open(AT_FDCWD, path, flags, 0, real().open64);
}

int __openat_2(int dirfd, const char* path, int flags) {
    return kvvb::intercept_open(dirfd, path, flags, 0, real().openat);
}

int __openat64_2(int dirfd, const char* path, int flags) {
    return kvvb::intercept_open(dirfd, path, flags, 0, real().openat64);
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

// A poll of one descriptor of a node waits on the board; any other goes to the C library.
// The C library declares the array write-only, which it is not: the caller's events are
// read, as the kernel reads them.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
int poll(struct pollfd* fds, nfds_t n, int timeout) {
    if (n == 1 && fds != nullptr) {
        int result = 0;
        try {
            if (kvvb::hook_poll(fds[0].fd, fds[0].events, &fds[0].revents, timeout, &result)) {
                return result;
            }
        } catch (...) {
            errno = ENOMEM;
            return -1;
        }
    }
    return real().poll(fds, n, timeout);
}

int munmap(void* addr, size_t len) __THROW {
    try {
        kvvb::hook_munmap(addr);
    } catch (...) {
    }
    return real().munmap(addr, len);
}

}  // extern "C"
