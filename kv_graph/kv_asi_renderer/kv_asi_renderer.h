#pragma once

#include <gst/gst.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "kv_asi_renderer/kv_alarms_dispatcher.h"
#include "kv_asi_renderer/kv_asi_process_renderer.h"
#include "mpegcore/fifo/kv_mpegts_fifo.h"

struct _gstKVASIRenderer;

// The object behind each kv_asi_renderer element instance. It keeps the property values,
// owns the sink pad's behaviour, maps the element's state changes onto the output engine
// and owns the alarms dispatcher that the host's alarm manager is handed to.
//
// NULL to READY opens the engine (device opened, FIFO created), READY to PAUSED starts
// the statistics afresh, PAUSED to PLAYING starts (or resumes) output and the alarms,
// PLAYING to PAUSED pauses output (the line goes idle after what the device has queued,
// the FIFO keeps filling) and stops the alarms, PAUSED to READY stops the output thread
// and empties the FIFO, READY to NULL closes everything. End of stream is played out
// before EOS is posted on the bus; a flush empties the FIFO. "latency" is the time from
// a packet's arrival to the line, at least the device's read-ahead (a smaller value is
// raised, with a warning). In stamp pacing a buffer's time is that of its last packet. Device, FIFO and pacing settings are only stored by the property setters
// and take effect at the next NULL to READY; the alarm source name and the alarm manager
// go to the dispatcher at once.
//
// What the engine reports goes on the bus (ERROR when the element cannot run, and the
// state change fails; WARNING for what it survives) and into the "kv_asi_renderer" debug
// category at every level; state changes are logged there too.
//
// Threads: properties, state changes and destruction come from the application thread
// (serialised by GStreamer); chain from the upstream streaming thread, into the
// internally locked FIFO. Property setters take no lock.
class kv_asi_renderer {
public:
    static constexpr guint kDefaultCapacity = 38797312;  // FIFO bytes (0x2500000)
    static constexpr guint kDefaultLatencyMs = 1000;
    static constexpr guint kMaxLatencyMs = 10000;
    static constexpr guint kDefaultPllLimitPpm = 100;
    static constexpr guint kMaxPllLimitPpm = 1000;

    // With a null element the object has no pad and cannot chain state changes up.
    kv_asi_renderer(_gstKVASIRenderer* pElement, GstElementClass* pParentClass);

    kv_asi_renderer(const kv_asi_renderer&) = delete;
    kv_asi_renderer& operator=(const kv_asi_renderer&) = delete;

    // Opens the device and creates the FIFO with the current property values.
    bool open();
    // Destroys the FIFO and closes the device.
    void close();
    // Starts the output thread and the alarms; false when the device is not open.
    bool start();
    // Stops the alarms and joins the output thread; device and FIFO stay as they are.
    void stop();

    void set_property(guint id, const GValue* value, GParamSpec* pspec);
    void get_property(guint id, GValue* value, GParamSpec* pspec);
    // Stores the address of the engine's live statistics object in value (a pointer
    // GValue); nothing is copied. A null value is ignored.
    void get_statistics(GValue* value);

    GstStateChangeReturn change_state(GstStateChange transition);

    // One buffer from upstream: its bytes go to the engine stamped with the buffer's DTS,
    // else its PTS, in 100 ns units (neither: no time of its own). Takes the buffer
    // reference and always returns GST_FLOW_OK: trouble below surfaces through bus
    // warnings, statistics and alarms, never as a flow error.
    GstFlowReturn chain(GstPad* pad, GstBuffer* buffer);
    // One event from upstream: EOS plays the stream out and posts EOS on the bus once the
    // last packet is on the line; FLUSH_START/FLUSH_STOP empty the FIFO. Takes the event
    // reference; always TRUE.
    gboolean event(GstEvent* event);

private:
    void warn_invalid_property(guint id, GParamSpec* pspec);
    // Posts EOS on the bus; runs on the output thread.
    void post_eos();
    // The engine's message as a bus ERROR or WARNING and a line in the debug category
    // (any level); runs on the thread that hit the event.
    void post_message(const kv_asi_message& m);

    _gstKVASIRenderer* m_pElement;
    GstElementClass* m_pParentClass;
    std::string m_strV4l2Name;
    int64_t m_nLatency = kDefaultLatencyMs;  // milliseconds
    size_t m_nCapacity = kDefaultCapacity;
    // Starts off although the "pll" property advertises TRUE: without an explicit
    // setting the FIFO runs without the device clock.
    bool m_bPLL = false;
    bool m_bResetWhenEmpty = false;
    mpegcore::kv_fifo_time_control m_eTimeControl = mpegcore::pcr_time_type;
    guint m_nPllLimitPpm = kDefaultPllLimitPpm;
    std::atomic<uint32_t> m_nEosSeqnum{0};  // of the EOS event being played out
    // Declared before the engine, which keeps a reference to it: the dispatcher outlives
    // the engine, so an engine destroyed with its output thread running can still stop
    // the alarms.
    kv_alarms_dispatcher m_alarmDispatcher;
    kv_asi_process_renderer m_renderer;
};
