#pragma once

#include <gst/gst.h>

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
// NULL to READY opens the engine (device opened, FIFO created), PAUSED to PLAYING starts
// the output thread and the alarms, PLAYING to PAUSED stops them, READY to NULL closes
// everything. Device, FIFO and pacing settings are only stored by the property setters
// and take effect at the next NULL to READY; the alarm source name and the alarm manager
// go to the dispatcher at once.
//
// Threads: properties, state changes and destruction come from the application thread
// (serialised by GStreamer); chain from the upstream streaming thread, into the
// internally locked FIFO. Property setters take no lock.
class kv_asi_renderer {
public:
    static constexpr guint kDefaultCapacity = 38797312;  // FIFO bytes (0x2500000)
    static constexpr guint kDefaultLatencyMs = 1000;
    static constexpr guint kMaxLatencyMs = 10000;

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
    // else its PTS, in 100 ns units. Takes the buffer reference and always returns
    // GST_FLOW_OK: trouble below surfaces only through statistics and alarms.
    GstFlowReturn chain(GstPad* pad, GstBuffer* buffer);

private:
    void warn_invalid_property(guint id, GParamSpec* pspec);

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
    // Declared before the engine, which keeps a reference to it: the dispatcher outlives
    // the engine, so an engine destroyed with its output thread running can still stop
    // the alarms.
    kv_alarms_dispatcher m_alarmDispatcher;
    kv_asi_process_renderer m_renderer;
};
