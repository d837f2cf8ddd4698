#include "kvcore/kv_bitstream.h"

namespace KVSDK {

// Entry n has the n low bits set.
const uint64_t mask_impl[65] = {
    0x0000000000000000ULL,  // 0
    0x0000000000000001ULL,  // 1
    0x0000000000000003ULL,  // 2
    0x0000000000000007ULL,  // 3
    0x000000000000000fULL,  // 4
    0x000000000000001fULL,  // 5
    0x000000000000003fULL,  // 6
    0x000000000000007fULL,  // 7
    0x00000000000000ffULL,  // 8
    0x00000000000001ffULL,  // 9
    0x00000000000003ffULL,  // 10
    0x00000000000007ffULL,  // 11
    0x0000000000000fffULL,  // 12
    0x0000000000001fffULL,  // 13
    0x0000000000003fffULL,  // 14
    0x0000000000007fffULL,  // 15
    0x000000000000ffffULL,  // 16
    0x000000000001ffffULL,  // 17
    0x000000000003ffffULL,  // 18
    0x000000000007ffffULL,  // 19
    0x00000000000fffffULL,  // 20
    0x00000000001fffffULL,  // 21
    0x00000000003fffffULL,  // 22
    0x00000000007fffffULL,  // 23
    0x0000000000ffffffULL,  // 24
    0x0000000001ffffffULL,  // 25
    0x0000000003ffffffULL,  // 26
    0x0000000007ffffffULL,  // 27
    0x000000000fffffffULL,  // 28
    0x000000001fffffffULL,  // 29
    0x000000003fffffffULL,  // 30
    0x000000007fffffffULL,  // 31
    0x00000000ffffffffULL,  // 32
    0x00000001ffffffffULL,  // 33
    0x00000003ffffffffULL,  // 34
    0x00000007ffffffffULL,  // 35
    0x0000000fffffffffULL,  // 36
    0x0000001fffffffffULL,  // 37
    0x0000003fffffffffULL,  // 38
    0x0000007fffffffffULL,  // 39
    0x000000ffffffffffULL,  // 40
    0x000001ffffffffffULL,  // 41
    0x000003ffffffffffULL,  // 42
    0x000007ffffffffffULL,  // 43
    0x00000fffffffffffULL,  // 44
    0x00001fffffffffffULL,  // 45
    0x00003fffffffffffULL,  // 46
    0x00007fffffffffffULL,  // 47
    0x0000ffffffffffffULL,  // 48
    0x0001ffffffffffffULL,  // 49
    0x0003ffffffffffffULL,  // 50
    0x0007ffffffffffffULL,  // 51
    0x000fffffffffffffULL,  // 52
    0x001fffffffffffffULL,  // 53
    0x003fffffffffffffULL,  // 54
    0x007fffffffffffffULL,  // 55
    0x00ffffffffffffffULL,  // 56
    0x01ffffffffffffffULL,  // 57
    0x03ffffffffffffffULL,  // 58
    0x07ffffffffffffffULL,  // 59
    0x0fffffffffffffffULL,  // 60
    0x1fffffffffffffffULL,  // 61
    0x3fffffffffffffffULL,  // 62
    0x7fffffffffffffffULL,  // 63
    0xffffffffffffffffULL,  // 64
};

}  // namespace KVSDK
