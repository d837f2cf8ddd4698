#include "kv_asi_renderer/kv_asi_renderer.h"

#include "kv_asi_renderer/kv_asi_pad.h"
#include "kv_asi_renderer/kv_gst_asi_renderer.h"

kv_asi_renderer::kv_asi_renderer(_gstKVASIRenderer* pElement, GstElementClass* pParentClass)
    : m_pElement(pElement), m_pParentClass(pParentClass), m_renderer(m_alarmDispatcher) {
    if (!pElement) {
        return;
    }
    gst_element_add_pad(GST_ELEMENT(pElement), kv_asi_new_sink_pad());
    m_renderer.set_eos_callback([this] { post_eos(); });
}

bool kv_asi_renderer::open() {
    m_renderer.set_pll_limit_ppm(m_nPllLimitPpm);
    if (!m_renderer.init(m_strV4l2Name, m_nCapacity, m_nLatency, m_eTimeControl, m_bPLL,
                         m_bResetWhenEmpty)) {
        return false;
    }
    // 0 asks for the smallest latency; any other value the device cannot honour is
    // raised, which the user should hear about.
    const int64_t nReadAhead = m_renderer.get_read_ahead_ms();
    if (m_nLatency != 0 && m_nLatency < nReadAhead) {
        g_print("kv_asi_renderer: latency %lld ms is below the device's read-ahead of %lld ms; "
                "using %lld ms\n",
                static_cast<long long>(m_nLatency), static_cast<long long>(nReadAhead),
                static_cast<long long>(nReadAhead));
        if (m_pElement) {
            GST_ELEMENT_WARNING(m_pElement, RESOURCE, SETTINGS,
                                ("\"latency\" %lld ms is below the device's read-ahead of %lld ms "
                                 "and was raised to it",
                                 static_cast<long long>(m_nLatency),
                                 static_cast<long long>(nReadAhead)),
                                ("the device queues %lld ms of frames ahead of the line",
                                 static_cast<long long>(nReadAhead)));
        }
    }
    return true;
}

void kv_asi_renderer::post_eos() {
    if (!m_pElement) {
        return;
    }
    GstMessage* msg = gst_message_new_eos(GST_OBJECT(m_pElement));
    const uint32_t nSeqnum = m_nEosSeqnum.load();
    if (nSeqnum != 0) {
        gst_message_set_seqnum(msg, nSeqnum);
    }
    gst_element_post_message(GST_ELEMENT(m_pElement), msg);
}

void kv_asi_renderer::close() {
    m_renderer.deinit();
}

bool kv_asi_renderer::start() {
    return m_renderer.start();
}

void kv_asi_renderer::stop() {
    m_renderer.stop();
}

namespace {

// A string property set to NULL reads as empty: no node (READY is then refused) or no
// alarm source (no alarms are made).
std::string string_of(const GValue* value) {
    const gchar* s = g_value_get_string(value);
    return s ? std::string(s) : std::string();
}

}  // namespace

void kv_asi_renderer::warn_invalid_property(guint id, GParamSpec* pspec) {
    if (m_pElement) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(m_pElement, id, pspec);
    } else {
        g_warning("kv_asi_renderer: invalid property id %u", id);
    }
}

void kv_asi_renderer::set_property(guint id, const GValue* value, GParamSpec* pspec) {
    switch (id) {
        case PROP_V4L2:
            m_strV4l2Name = string_of(value);
            break;
        case PROP_BUFFER_SIZE:
            m_nCapacity = g_value_get_uint(value);
            break;
        case PROP_LATENCY:
            m_nLatency = g_value_get_uint(value);
            break;
        case PROP_PLL:
            m_bPLL = g_value_get_boolean(value) != FALSE;
            break;
        case PROP_TIME_CONTROL:
            m_eTimeControl = static_cast<mpegcore::kv_fifo_time_control>(g_value_get_uint(value));
            break;
        case PROP_RESET_WHEN_EMPTY:
            m_bResetWhenEmpty = g_value_get_boolean(value) != FALSE;
            break;
        case PROP_PLL_LIMIT:
            m_nPllLimitPpm = g_value_get_uint(value);
            break;
        case PROP_ALARM_SOURCE_NAME:
            m_alarmDispatcher.set_source_name(string_of(value));
            break;
        case PROP_ALARM_MANAGER:
            m_alarmDispatcher.set_alarm_manager(
                static_cast<kv_i_alarm_manager*>(g_value_get_pointer(value)));
            break;
        default:
            warn_invalid_property(id, pspec);
            break;
    }
}

void kv_asi_renderer::get_property(guint id, GValue* value, GParamSpec* pspec) {
    switch (id) {
        case PROP_V4L2:
            g_value_set_string(value, m_strV4l2Name.c_str());
            break;
        case PROP_BUFFER_SIZE:
            g_value_set_uint(value, static_cast<guint>(m_nCapacity));
            break;
        case PROP_LATENCY:
            g_value_set_uint(value, static_cast<guint>(m_nLatency));
            break;
        case PROP_PLL:
            g_value_set_boolean(value, m_bPLL);
            break;
        case PROP_TIME_CONTROL:
            g_value_set_uint(value, static_cast<guint>(m_eTimeControl));
            break;
        case PROP_RESET_WHEN_EMPTY:
            g_value_set_boolean(value, m_bResetWhenEmpty);
            break;
        case PROP_STATISTICS:
            get_statistics(value);
            break;
        case PROP_PLL_LIMIT:
            g_value_set_uint(value, m_nPllLimitPpm);
            break;
        default:
            // The alarm source name is declared readable but is kept only by the
            // dispatcher; reading it warns like an unknown id.
            warn_invalid_property(id, pspec);
            break;
    }
}

void kv_asi_renderer::get_statistics(GValue* value) {
    if (value) {
        g_value_set_pointer(value, m_renderer.statistics());
    }
}

GstStateChangeReturn kv_asi_renderer::change_state(GstStateChange transition) {
    switch (transition) {
        case GST_STATE_CHANGE_NULL_TO_READY:
            if (!open()) {
                return GST_STATE_CHANGE_FAILURE;
            }
            break;
        case GST_STATE_CHANGE_PAUSED_TO_PLAYING:
            if (!start()) {
                return GST_STATE_CHANGE_FAILURE;
            }
            break;
        default:
            break;
    }

    GstStateChangeReturn ret = GST_STATE_CHANGE_SUCCESS;
    if (m_pElement && m_pParentClass && m_pParentClass->change_state) {
        ret = m_pParentClass->change_state(GST_ELEMENT(m_pElement), transition);
    }
    if (ret == GST_STATE_CHANGE_FAILURE) {
        return ret;
    }

    switch (transition) {
        case GST_STATE_CHANGE_READY_TO_PAUSED:
            // A new stream: its statistics start from zero, and they count on across
            // pauses. A live sink: it plays what arrives and never waits for a first
            // buffer.
            m_renderer.reset_statistics();
            ret = GST_STATE_CHANGE_NO_PREROLL;
            break;
        case GST_STATE_CHANGE_PLAYING_TO_PAUSED:
            m_renderer.pause();
            break;
        case GST_STATE_CHANGE_PAUSED_TO_READY:
            // Output stops and what was buffered is dropped, as after a flush.
            stop();
            m_renderer.flush_start();
            m_renderer.flush_stop();
            break;
        case GST_STATE_CHANGE_READY_TO_NULL:
            close();
            break;
        default:
            break;
    }
    return ret;
}
