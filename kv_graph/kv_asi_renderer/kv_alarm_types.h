#pragma once

// The alarm vocabulary shared with the host application: codes, levels, the alarm
// record and the abstract alarm a host's alarm manager polls. Installed for hosts;
// includes nothing but the standard library.

#include <cstdint>
#include <mutex>
#include <string>

// Alarm codes, grouped in hundreds by the producing component. The values travel to
// the host and must never change.
enum KVAlarmCode : int32_t {
    eAlarmUnknownCode = 0,
    eAlarmGraphState = 10,
    eAlarmGraphNone = 11,
    eAlarmGraphStopped = 12,
    eAlarmGraphError = 13,
    eAlarmHugeCPU = 22,
    eAlarmHugeMemory = 23,
    eAlarmNoSysMemory = 24,
    eAlarmGraphStateLast = 25,

    eAlarmRemuxerBase = 100,
    eAlarmRemuxerNoInputData = 101,
    eAlarmRemuxerPMT = 103,
    eAlarmRemuxerSDT = 104,
    eAlarmRemuxerEIT = 105,
    eAlarmRemuxerNoInputTDT = 106,
    eAlarmRemuxerNoInputTOT = 107,
    eAlarmRemuxerOutputBuferOverflow = 110,  // spelled so: the host knows it by this name
    eAlarmRemuxerStream = 111,
    eAlarmRemuxerInputCC = 112,
    eAlarmRemuxerInputTEI = 113,
    eAlarmRemuxerInputScrambler = 114,
    eAlarmRemuxerStreamEmpty = 116,
    eAlarmRemuxerOutputUnderflow = 120,
    eAlarmRemuxerOutputReset = 121,
    eAlarmRemuxerOutputOverflow = 122,
    eAlarmRemuxerServiceStateIsReserve = 131,
    eAlarmRemuxerServiceStateIsGOiCHS = 132,

    eAlarmSplicerBase = 200,

    eAlarmRenderBase = 300,
    eAlarmRenderNoVideoInputData = 301,
    eAlarmRenderNoAudioInputData = 302,
    eAlarmRenderNoTeletextInputData = 303,
    eAlarmRenderNoVBIInputData = 304,
    eAlarmRenderOutputRestart = 305,
    eAlarmRenderOutputRepeat = 306,

    eAlarmCaptureBase = 400,
    eAlarmCaptureNoVideoInputData = 401,
    eAlarmCaptureNoAudioInputData = 402,
    eAlarmCaptureNoTeletextInputData = 403,
    eAlarmCaptureNoVBIInputData = 404,
    eAlarmCaptureInputSyncLost = 405,
    eAlarmCaptureInputRepeat = 406,
    eAlarmCaptureInputDrop = 407,

    eAlarmASIInputBase = 500,
    eAlarmASIInputSyncLost = 501,
    eAlarmASIInputRawNoInputData = 502,
    eAlarmASIInputNoInputData = 503,

    eAlarmDeviceBase = 550,
    eAlarmDeviceErrorOnInit = 551,

    eAlarmGPIBase = 600,
    eAlarmGPINotFound = 601,

    eAlarmIPInOutBase = 700,
    eAlarmIPInputLinkDown = 701,
    eAlarmIPOutputLinkDown = 702,

    eAlarmLastCode = 999,
};

enum KVAlarmLevel : int32_t {
    kv_info_alarm = 0,
    kv_warning_alarm = 1,
    kv_error_alarm = 2,
};

// One alarm as the host sees it; copied by value.
struct kv_alarm_data {
    std::string hash;  // identity key: decimal text of a 64-bit hash
    KVAlarmCode code = eAlarmUnknownCode;
    bool active = false;  // within the hold period after the last occurrence
    KVAlarmLevel level = kv_info_alarm;
    std::string source;        // name of the emitting element instance
    std::string reg_time;      // UTC "dd.MM.yyyy hh:mm:ss" of the last inactive-to-active step
    std::string last_time;     // never filled by this plugin
    std::string description;   // human-readable text
    uint32_t count = 0;        // occurrences since construction or reset, wrapping
    uint32_t stream_type = 0;  // 0 when not stream-specific
    uint32_t stream_pid = 0;   // 0 when not stream-specific
};

// An alarm that a host's manager polls. The order of the virtual operations is part of
// the contract with separately built hosts: never reorder, insert or remove one.
//
// Everything here is defined inline so that a host can implement alarms of its own
// without linking this library.
class kv_i_alarm_event {
public:
    kv_i_alarm_event() = default;
    kv_i_alarm_event(const kv_i_alarm_event&) = delete;
    kv_i_alarm_event& operator=(const kv_i_alarm_event&) = delete;

    virtual ~kv_i_alarm_event() = default;

    // A consistent copy of all eleven fields.
    virtual kv_alarm_data get_data() const {
        std::lock_guard<std::mutex> lock(m_csData);
        return m_data;
    }
    // Re-evaluates the hold period; says whether the alarm fired since the last reset.
    virtual bool check() = 0;
    virtual void reset() = 0;
    // Records n occurrences.
    virtual void event(long n) = 0;
    virtual bool active() = 0;
    // The identity key, unique among the alarms of one dispatcher.
    virtual std::string hash() = 0;
    // One log line describing the alarm.
    virtual std::string get_log_message() = 0;

protected:
    // The engine thread raises events while the host's thread polls: m_csData makes
    // every read of m_data see a whole update. It is held only for field copies.
    mutable std::mutex m_csData;
    kv_alarm_data m_data;
};
