#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "kv_asi_renderer/kv_alarms_dispatcher.h"
#include "kv_asi_renderer/kv_asi_frame_filler.h"
#include "kv_asi_renderer/kv_asi_renderer_statistics.h"
#include "kv_asi_renderer/kv_v4l2_asi_output_device.h"
#include "mpegcore/fifo/kv_mpegts_fifo.h"
#include "mpegcore/fifo/kv_mpegts_item.h"

// The output engine behind the element. It owns the ASI device and the timed FIFO. The
// streaming thread pushes time-stamped transport-stream bytes into the FIFO; the output
// thread waits until the FIFO holds the configured latency, anchors the FIFO's time line
// to the device's frame clock and then, one device frame (1/50 s) at a time, takes the
// packets due in the frame from the FIFO and lays them out as ten-bit ASI words. It also
// watches the FIFO's health, raises the underflow and overflow alarms and keeps the
// statistics.
//
// Threads: init, deinit, start and stop come from the application thread, serialised,
// and init/deinit only while stopped; push_data comes from the streaming thread (the
// FIFO locks itself); the output thread runs work_thread, fill_asi_data and reset. The
// carry state of the fill belongs to the output thread while it runs.
class kv_asi_process_renderer {
public:
    // Output thread polls while the FIFO is filling, empty or failing, and after a
    // failed map.
    static constexpr std::chrono::milliseconds kPollInterval{5};
    // For this long after each start no underflow alarm is raised (the bound is
    // included: 31 s minus 1 ns).
    static constexpr std::chrono::nanoseconds kWarmUp{30'999'999'999};

    // The dispatcher must outlive the engine.
    explicit kv_asi_process_renderer(kv_alarms_dispatcher& alarmDispatcher);
    // Stops a running output thread and closes FIFO and device.
    ~kv_asi_process_renderer();

    kv_asi_process_renderer(const kv_asi_process_renderer&) = delete;
    kv_asi_process_renderer& operator=(const kv_asi_process_renderer&) = delete;

    // Opens the device (nLatencyMs of stream must be buffered before output starts)
    // and creates the FIFO with nCapacity bytes. The device is the FIFO's clock when
    // bPLL is set. False, with a message, when either fails; nothing stays open then.
    bool init(const std::string& name, size_t nCapacity, int64_t nLatencyMs,
              mpegcore::kv_fifo_time_control eTimeControl, bool bPLL, bool bResetWhenEmpty);
    // Destroys the FIFO and closes the device.
    void deinit();

    // Starts the output thread and the alarms. False, with a message, when the device
    // is not open. Starting twice without stop in between is a programming error and
    // ends the process.
    bool start();
    // Stops the alarms and the output thread. The device keeps streaming and the FIFO
    // keeps its content.
    void stop();

    // The FIFO asked for a reset: reopens and restarts the device, resets the FIFO and
    // the fill's carry state, counts the reset. Called by the output thread.
    void reset();

    // Stream bytes with their time in 100 ns units.
    void push_data(int64_t tTime, const uint8_t* pData, size_t nSize);

    // The live statistics; the element hands this pointer to the host.
    kv_asi_renderer_statistics* statistics() { return &m_statistics; }

    // Time of word nIndex of a frame [tBegin, tEnd).
    uint64_t index_to_time(uint64_t tBegin, uint64_t tEnd, size_t nIndex);

    // Fills one device frame [tBegin, tEnd) of nSize bytes with the items, continuing
    // the carry of the previous frame; packets that miss the frame are counted in the
    // statistics. Returns false, writing nothing and dropping the items, when the
    // buffer is too small for a frame.
    bool fill_asi_data(uint64_t tBegin, uint64_t tEnd, uint8_t* pData, size_t nSize,
                       mpegcore::kv_mpegts_items& items);

    // Length of the underflow alarm's silence after each start; kWarmUp unless changed.
    // Takes effect at the next start.
    void set_warm_up(std::chrono::nanoseconds tWarmUp) { m_tWarmUp = tWarmUp; }

    // FIFO time of the oldest packet when output started, the origin of the output time
    // line (0 until the output thread has anchored it). Read while stopped.
    int64_t get_start_fifo_time() const { return m_tStartFifo; }

private:
    void work_thread(std::future<void>&& fExit);

    std::shared_ptr<kv_v4l2_asi_output_device> m_pDevice;
    mpegcore::kv_mpegts_fifo m_fifo;
    std::thread m_thread;
    std::shared_ptr<std::promise<void>> m_fExit;
    kv_alarms_dispatcher& m_alarmDispatcher;
    kv_asi_renderer_statistics m_statistics;
    int64_t m_nLatency = 0;  // 100 ns units
    // Carry state between frames: the packet cut at the end of the previous frame and
    // the idle words still owed after it.
    kv_asi_frame_filler m_filler;
    std::atomic<uint64_t> m_nSkipped{0};  // packets the current fill dropped
    int64_t m_tStartFifo = 0;             // origin of the output time line
    int64_t m_tStartTime = 0;             // device clock when output started
    std::string m_strDeviceName;
    std::chrono::nanoseconds m_tWarmUp = kWarmUp;
};
