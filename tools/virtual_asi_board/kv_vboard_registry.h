#pragma once

// The process-wide table of emulated nodes, of the descriptors opened on them and of the
// buffer mappings handed out, and the entry points the interposed C library calls use.
// Each hook returns true when the call concerned the board (the result is then in
// *pResult and errno is set on failure) and false when it must go to the C library.

#include <sys/types.h>

#include <cstddef>

namespace kvvb {

bool hook_open(const char* path, int flags, int* pResult);
bool hook_close(int fd, int* pResult);
bool hook_ioctl(int fd, unsigned long request, void* arg, int* pResult);
// A poll() of one descriptor of a node: fills revents and the result.
bool hook_poll(int fd, short events, short* pRevents, int timeout_ms, int* pResult);
bool hook_mmap(void* addr, size_t len, int prot, int flags, int fd, off_t offset, void** pResult);
// Forgets a buffer mapping the host is about to unmap; the caller unmaps.
void hook_munmap(void* addr);

}  // namespace kvvb
