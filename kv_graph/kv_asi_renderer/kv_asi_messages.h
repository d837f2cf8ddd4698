#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

// What the engine tells the application, and the rate limit of its standard-output lines.
//
// The engine and the device know nothing of GStreamer: they describe what happened as a
// kv_asi_message, and the element turns it into a bus message (errors and warnings) and
// a line in its debug category (every level).

// How bad it is. error: the element cannot run (the state change fails); warning: it
// runs on, something is lost or at risk; info, debug, log: for the debug log only
// (log is per-frame detail).
enum class kv_asi_level { error, warning, info, debug, log };

// What it is about; the element picks the bus message's domain and code from it.
enum class kv_asi_topic {
    device_open,   // the node cannot be opened
    device_setup,  // format, buffers or mapping refused
    fifo,          // the FIFO cannot be made
    settings,      // a property value that cannot work
    device_fault,  // a driver call failed while playing; retried
    device_gone,   // the node went away; reopened when it is back
    skipped,       // frames or packets that did not go out
    reset,         // output reset, with its reason
    timing,        // no PCR or no usable time stamp
    rate,          // a stream faster than the line
    alarm,         // an alarm was raised
    state,         // start, stop, anchoring and the like
};

struct kv_asi_message {
    kv_asi_level eLevel = kv_asi_level::info;
    kv_asi_topic eTopic = kv_asi_topic::state;
    int nErrno = 0;           // the OS error behind it, 0 if none
    std::string strText;      // one sentence for the user
    std::string strDetail;    // what to do about it, or details for a developer; may be empty
};

using kv_asi_message_fn = std::function<void(const kv_asi_message&)>;

// The OS error text of nErrno and, where one helps, what to do about it, for a node
// that failed to open or to work.
std::string kv_errno_text(int nErrno);
std::string kv_errno_hint(int nErrno);

// Prints diagnostic lines with g_print, each line at most once a second: a line that
// comes again sooner (numbers aside: "skip pkt = 3" repeats "skip pkt = 16") is counted
// instead, and the count goes with the next such line printed ("... [N more in 2.3 s]").
// Thread-safe; one per object that prints, so that two devices do not hide each other's
// lines.
class kv_print_limiter {
public:
    static constexpr std::chrono::milliseconds kInterval{1000};

    void print(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

    // Lines held back so far.
    uint64_t get_suppressed() const;

private:
    static constexpr size_t kKeySize = 96;
    struct slot {
        bool bUsed = false;
        char key[kKeySize] = {};
        std::chrono::steady_clock::time_point tLast{};
        uint64_t nHeld = 0;
    };
    static constexpr int kSlots = 16;
    mutable std::mutex m_cs;
    slot m_slots[kSlots];
    uint64_t m_nSuppressed = 0;
};
