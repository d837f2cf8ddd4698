// Stands in for the element towards a separately built host: owns the renderer's alarms and
// statistics, hands out plain pointers as the element's properties do, and drives them.

#include <utility>

#include "kv_asi_renderer/kv_alarms_dispatcher.h"
#include "kv_asi_renderer/kv_asi_renderer_statistics.h"

namespace {

struct stub_element {
    kv_alarms_dispatcher alarms;
    kv_asi_renderer_statistics statistics;
};

}  // namespace

extern "C" {

void* kv_stub_element_new(const char* source_name, void* alarm_manager) {
    auto* e = new stub_element;
    e->alarms.set_source_name(source_name);
    e->alarms.set_alarm_manager(static_cast<kv_i_alarm_manager*>(alarm_manager));
    return e;
}

void* kv_stub_element_statistics(void* element) {
    return &static_cast<stub_element*>(element)->statistics;
}

// Starts the alarms and plays a little: three underflows, one overflow, an hour of output.
void kv_stub_element_play(void* element) {
    auto* e = static_cast<stub_element*>(element);
    e->alarms.start();
    for (int i = 0; i < 3; ++i) {
        e->alarms.fifo_underflow_event();
    }
    e->alarms.fifo_overflow_event();
    e->statistics.set_device_time(36000000000ULL);
    e->statistics.add_skip_ts_packets(5);
    e->statistics.set_last_error("Fifo emptied");
    kv_asi_renderer_statistics::jitter_map jitters;
    jitters[0x100].m_nJitter = 1350;
    e->statistics.set_jitters(std::move(jitters));
}

void kv_stub_element_stop_and_free(void* element) {
    auto* e = static_cast<stub_element*>(element);
    e->alarms.stop();
    delete e;
}

}  // extern "C"
