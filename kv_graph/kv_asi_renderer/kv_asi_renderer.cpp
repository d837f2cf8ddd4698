#include "kv_asi_renderer/kv_asi_renderer.h"

#include <cerrno>

#include "kv_asi_renderer/kv_asi_pad.h"
#include "kv_asi_renderer/kv_gst_asi_renderer.h"

kv_asi_renderer::kv_asi_renderer(_gstKVASIRenderer* pElement, GstElementClass* pParentClass)
    : m_pElement(pElement), m_pParentClass(pParentClass), m_renderer(m_alarmDispatcher) {
    if (!pElement) {
        return;
    }
    gst_element_add_pad(GST_ELEMENT(pElement), kv_asi_new_sink_pad());
    m_renderer.set_eos_callback([this] { post_eos(); });
    m_renderer.set_message_callback([this](const kv_asi_message& m) { post_message(m); });
}

namespace {

// The bus message's error domain and code for what the engine reports.
void error_of(const kv_asi_message& m, GQuark& domain, gint& code) {
    domain = GST_RESOURCE_ERROR;
    switch (m.eTopic) {
        case kv_asi_topic::device_open:
            code = m.nErrno == ENOENT                      ? GST_RESOURCE_ERROR_NOT_FOUND
                   : m.nErrno == EACCES || m.nErrno == EPERM ? GST_RESOURCE_ERROR_NOT_AUTHORIZED
                   : m.nErrno == EBUSY                     ? GST_RESOURCE_ERROR_BUSY
                                                           : GST_RESOURCE_ERROR_OPEN_READ_WRITE;
            break;
        case kv_asi_topic::device_setup:
        case kv_asi_topic::settings:
            code = GST_RESOURCE_ERROR_SETTINGS;
            break;
        case kv_asi_topic::fifo:
            code = GST_RESOURCE_ERROR_NO_SPACE_LEFT;
            break;
        case kv_asi_topic::device_fault:
        case kv_asi_topic::device_gone:
        case kv_asi_topic::skipped:
            code = GST_RESOURCE_ERROR_WRITE;
            break;
        case kv_asi_topic::timing:
        case kv_asi_topic::rate:
            domain = GST_STREAM_ERROR;
            code = GST_STREAM_ERROR_FORMAT;
            break;
        case kv_asi_topic::reset:
        case kv_asi_topic::alarm:
        case kv_asi_topic::state:
        default:
            domain = GST_STREAM_ERROR;
            code = GST_STREAM_ERROR_FAILED;
            break;
    }
}

GstDebugLevel debug_level_of(kv_asi_level e) {
    switch (e) {
        case kv_asi_level::error:
            return GST_LEVEL_ERROR;
        case kv_asi_level::warning:
            return GST_LEVEL_WARNING;
        case kv_asi_level::info:
            return GST_LEVEL_INFO;
        case kv_asi_level::debug:
            return GST_LEVEL_DEBUG;
        case kv_asi_level::log:
        default:
            return GST_LEVEL_LOG;
    }
}

}  // namespace

void kv_asi_renderer::post_message(const kv_asi_message& m) {
    // The hint is part of what the user reads; the OS error number is for developers.
    const std::string strText = m.strDetail.empty() ? m.strText : m.strText + " (" + m.strDetail + ")";
    if (gst_kv_asi_renderer_debug != nullptr) {
        GST_CAT_LEVEL_LOG(gst_kv_asi_renderer_debug, debug_level_of(m.eLevel), m_pElement, "%s",
                          strText.c_str());
    }
    if (m_pElement == nullptr || m.eLevel > kv_asi_level::warning) {
        return;
    }
    GQuark domain = 0;
    gint code = 0;
    error_of(m, domain, code);
    gchar* debug = m.nErrno != 0 ? g_strdup_printf("errno %d", m.nErrno) : nullptr;
    gst_element_message_full(GST_ELEMENT(m_pElement),
                             m.eLevel == kv_asi_level::error ? GST_MESSAGE_ERROR
                                                             : GST_MESSAGE_WARNING,
                             domain, code, g_strdup(strText.c_str()), debug, __FILE__,
                             GST_FUNCTION, __LINE__);
}

bool kv_asi_renderer::open() {
    m_renderer.set_pll_limit_ppm(m_nPllLimitPpm);
    // What the engine formats for the debug log follows the category's level at open.
    const GstDebugLevel level = gst_kv_asi_renderer_debug != nullptr
                                    ? gst_debug_category_get_threshold(gst_kv_asi_renderer_debug)
                                    : GST_LEVEL_NONE;
    m_renderer.set_log_level(level >= GST_LEVEL_LOG     ? kv_asi_level::log
                             : level >= GST_LEVEL_DEBUG ? kv_asi_level::debug
                             : level >= GST_LEVEL_INFO  ? kv_asi_level::info
                                                        : kv_asi_level::warning);
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
    if (gst_kv_asi_renderer_debug != nullptr) {
        GST_CAT_INFO_OBJECT(gst_kv_asi_renderer_debug, m_pElement, "state change %s to %s",
                            gst_element_state_get_name(GST_STATE_TRANSITION_CURRENT(transition)),
                            gst_element_state_get_name(GST_STATE_TRANSITION_NEXT(transition)));
    }
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
