#pragma once

// GStreamer for the tests that load the element: the process's set-up on the build tree's
// plugin, an alarm manager as a host writes one, the bus's errors and warnings, and the
// element's live statistics as a host reads them.

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kv_asi_renderer/kv_base_statistics.h"
#include "kv_asi_renderer/kv_i_alarm_manager.h"

namespace kvtest {

// GStreamer is set up once per process on the build tree's plugin alone, with a registry
// file of its own. Scanning happens in-process: the scanner cannot load a sanitized module.
class GstEnvironment : public testing::Environment {
public:
    void SetUp() override {
        setenv("GST_PLUGIN_PATH", KV_PLUGIN_DIR, 1);
        setenv("GST_PLUGIN_SYSTEM_PATH", KV_PLUGIN_DIR, 1);
        setenv("GST_REGISTRY", KV_REGISTRY_FILE, 1);
        setenv("GST_REGISTRY_FORK", "no", 1);
        gst_init(nullptr, nullptr);
    }
    void TearDown() override { gst_deinit(); }
};

inline testing::Environment* const g_gst_environment =
    testing::AddGlobalTestEnvironment(new GstEnvironment);

// An alarm manager as a host writes one: keeps what it is given.
class recording_manager : public kv_i_alarm_manager {
public:
    void register_alarm(std::shared_ptr<kv_i_alarm_event> alarm) override {
        std::lock_guard<std::mutex> lock(m_cs);
        m_alarms.push_back(std::move(alarm));
    }
    void unregister_alarm(std::shared_ptr<kv_i_alarm_event> alarm) override {
        std::lock_guard<std::mutex> lock(m_cs);
        m_alarms.erase(std::remove(m_alarms.begin(), m_alarms.end(), alarm), m_alarms.end());
    }
    std::vector<kv_alarm_data> alarms() {
        std::lock_guard<std::mutex> lock(m_cs);
        std::vector<kv_alarm_data> out;
        for (const auto& a : m_alarms) {
            out.push_back(a->get_data());
        }
        return out;
    }
    uint32_t count(KVAlarmCode code) {
        uint32_t n = 0;
        for (const kv_alarm_data& d : alarms()) {
            n += d.code == code ? d.count : 0;
        }
        return n;
    }

private:
    std::mutex m_cs;
    std::vector<std::shared_ptr<kv_i_alarm_event>> m_alarms;
};

// Errors and warnings taken off a bus, as "domain code: text", oldest first. Both kinds
// come off in one pass: popping one kind drops every other message before it.
struct bus_log {
    std::vector<std::string> errors, warnings;

    void take(GstBus* bus) {
        const auto both = static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_WARNING);
        for (GstMessage* m; (m = gst_bus_pop_filtered(bus, both)) != nullptr;) {
            GError* err = nullptr;
            const bool bError = GST_MESSAGE_TYPE(m) == GST_MESSAGE_ERROR;
            if (bError) {
                gst_message_parse_error(m, &err, nullptr);
            } else {
                gst_message_parse_warning(m, &err, nullptr);
            }
            (bError ? errors : warnings)
                .push_back(std::string(g_quark_to_string(err->domain)) + " " +
                           std::to_string(err->code) + ": " + err->message);
            g_clear_error(&err);
            gst_message_unref(m);
        }
    }
};
// The text bus_log gives a message of this domain and code.
inline std::string bus_text(GQuark domain, int code, const std::string& text) {
    return std::string(g_quark_to_string(domain)) + " " + std::to_string(code) + ": " + text;
}

// The live statistics as a host that only knows the display interface sees them (the
// object's single base, at its start).
inline const kv_base_statistics* statistics(GstElement* el) {
    gpointer p = nullptr;
    g_object_get(el, "statistics", &p, nullptr);
    return static_cast<const kv_base_statistics*>(p);
}
inline std::string stat(GstElement* el, const std::string& name) {
    for (const auto& row : statistics(el)->get_items()) {
        if (row.first == name) {
            return row.second;
        }
    }
    return "<missing>";
}

}  // namespace kvtest
