#ifndef KV_VBOARD_H
#define KV_VBOARD_H

/* In-process control of the virtual ASI board, for tests that link kv_vboard_static.
 * Every node is configured from the KV_VBOARD_* environment variables at first use;
 * these calls add, replace and steer nodes afterwards. All calls are thread-safe.
 * Calls naming a node return -1 when no such node is configured. */

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct kv_vboard_config {
    char node[256];          /* device node path the board answers for */
    int mplane;              /* 1: multi-planar output only (single-plane G_FMT fails) */
    uint32_t sizeimage;      /* bytes per buffer reported by the format (675000) */
    uint32_t buffers;        /* count granted by REQBUFS, 1..32 (6) */
    uint32_t first_sequence; /* sequence of the first buffer handed back after STREAMON (2) */
    double ppm;              /* board clock offset against CLOCK_MONOTONIC (0) */
    int freerun;             /* 1: no wall-clock waits; the clock advances by frames */
    uint32_t counter_start;  /* counter value when the node is opened (0) */
    uint32_t sequence_restart; /* 0: none; else frame slot N after the first STREAMON carries
                                  first_sequence again, the count running on from there (0) */
    char capture[512];       /* capture file path ("%i": node index), empty for none */
};

/* Fills cfg with the defaults (node "/dev/kvasi0", no capture). */
void kv_vboard_default_config(struct kv_vboard_config* cfg);
/* Adds a node, or replaces the node with that path (descriptors already open keep the
 * board they opened). Returns 0, or -1 for an invalid configuration. */
int kv_vboard_add(const struct kv_vboard_config* cfg);
/* Forgets every node; descriptors already open keep working until closed. */
void kv_vboard_remove_all(void);

enum kv_vboard_call {
    KV_VB_OPEN,
    KV_VB_G_FMT,
    KV_VB_S_FMT,
    KV_VB_REQBUFS,
    KV_VB_QUERYBUF,
    KV_VB_MMAP,
    KV_VB_QBUF,
    KV_VB_DQBUF,
    KV_VB_STREAMON,
    KV_VB_COUNTER
};

/* The call fails with errno err from its from_nth call (1-based, counted from now) for
 * count calls (0 = always). A failing call has no other effect. */
int kv_vboard_set_fault(const char* node, enum kv_vboard_call call, uint32_t from_nth,
                        uint32_t count, int err);
void kv_vboard_clear_faults(const char* node);
/* The node disappears: open fails with ENOENT, calls on open descriptors fail with
 * ENODEV (close still succeeds), the line stops. */
int kv_vboard_vanish(const char* node);

struct kv_vboard_counters {
    uint64_t frames_sent;     /* frames that carried a host buffer */
    uint64_t idle_frames;     /* frames sent all idle because no buffer was queued */
    uint64_t word_violations; /* words neither data (0x100 | byte) nor idle (0) */
    uint64_t packets;         /* whole 188-byte packets seen on the line */
    uint64_t bytes_partial;   /* data bytes that did not end up in a whole packet */
    uint64_t qbuf, dqbuf, streamon, streamoff; /* successful calls */
};

/* Counters since the node was added (they survive close and reopen). The line is
 * brought up to date first, so frames due by now are counted. */
int kv_vboard_get_counters(const char* node, struct kv_vboard_counters* out);
/* The next counter reading returns value; the counter runs on from there. */
int kv_vboard_set_counter_value(const char* node, uint32_t value);
/* The next n frame slots on the line go out idle even if buffers are queued, as if the
 * host had been late: the host sees a sequence gap of n. */
int kv_vboard_insert_idle_frames(const char* node, uint32_t n);
/* While streaming: the next frame slot on the line carries sequence value and the count
 * runs on from there, as a driver that restarts its count does (a value below the
 * current count steps back). STREAMON restarts the count at first_sequence anyway. */
int kv_vboard_restart_sequence(const char* node, uint32_t value);

#ifdef __cplusplus
}
#endif

#endif /* KV_VBOARD_H */
