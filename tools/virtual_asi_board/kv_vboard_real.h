#pragma once

// The C library's own versions of the calls the board intercepts. When the program runs
// under a sanitizer, these are the sanitizer's wrappers, so that it keeps seeing the
// descriptors and mappings that pass through.

#include <poll.h>
#include <sys/types.h>

#include <cstddef>

namespace kvvb {

struct real_calls {
    int (*open)(const char*, int, ...);
    int (*open64)(const char*, int, ...);
    int (*openat)(int, const char*, int, ...);
    int (*openat64)(int, const char*, int, ...);
    int (*close)(int);
    int (*ioctl)(int, unsigned long, ...);
    void* (*mmap)(void*, size_t, int, int, int, off_t);
    void* (*mmap64)(void*, size_t, int, int, int, off_t);
    int (*munmap)(void*, size_t);
    int (*poll)(struct pollfd*, unsigned long, int);
};

const real_calls& real();

}  // namespace kvvb
