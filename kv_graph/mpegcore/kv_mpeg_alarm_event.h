#pragma once

#include <cstdint>

namespace mpegcore {

// Receiver of transport-stream errors found while packets are parsed.
//
// Every operation does nothing by default, so a receiver overrides only the errors it
// cares about. The base parser derives from this interface and hands itself to every
// PID state as the receiver of continuity errors.
class kv_mpeg_alarm_event {
public:
    kv_mpeg_alarm_event() = default;
    virtual ~kv_mpeg_alarm_event() = default;

    // A packet of `PID` is marked as scrambled (scrambling control 1).
    virtual void on_scrambler_pid(uint16_t /*PID*/) {}
    // A packet of `PID` has its transport error indicator set.
    virtual void on_tei_pid(uint16_t /*PID*/) {}
    // Packet synchronisation was lost.
    virtual void on_ts_sync_lost() {}
    // One byte was skipped while searching for the sync byte 0x47.
    virtual void on_sync_byte_error() {}
    virtual void on_pat_error(uint16_t /*code*/) {}
    // The continuity counter of `PID` did not follow on from the previous packet.
    virtual void on_cc_error(uint16_t /*PID*/) {}
    virtual void on_pmt_error(uint16_t /*PID*/, uint16_t /*code*/) {}
    virtual void on_pid_error(uint16_t /*PID*/) {}
};

}  // namespace mpegcore
