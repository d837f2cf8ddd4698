// Helpers of the comparisons with libdvbpsi: both decoders' tables are rendered to the same
// text, one line per table header or loop entry, each with its descriptors as tag and body.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

// clang-format off
#include <dvbpsi/dvbpsi.h>
#include <dvbpsi/psi.h>
#include <dvbpsi/descriptor.h>
#include <dvbpsi/demux.h>
// clang-format on

#include "mpegcore/kvdescriptorlist.h"

#include "ts_test_util.h"

namespace oracle {

using ts_test::Bytes;

inline std::string line(std::initializer_list<uint64_t> fields,
                        const std::string& descriptors = "") {
    std::string s;
    for (uint64_t f : fields) {
        s += std::to_string(f) + " ";
    }
    return s + "[" + descriptors + "]\n";
}

inline std::string descriptor(unsigned tag, const uint8_t* body, size_t n) {
    std::string s = " " + std::to_string(tag) + ":";
    for (size_t i = 0; i < n; ++i) {
        s += std::to_string(body[i]) + ".";
    }
    return s;
}

// The core's descriptors as they write themselves back, so their typed fields count too.
inline std::string ours(const mpegcore::KVDescriptorList& list) {
    std::string s;
    for (const auto& d : list.descriptor) {
        uint8_t buffer[260] = {};
        KVSDK::KVBSWriter w(buffer, sizeof(buffer));
        EXPECT_TRUE(d->write(w));
        w.flush();
        s += descriptor(d->descriptor_tag, buffer + 2, buffer[1]);
    }
    return s;
}

inline std::string theirs(const dvbpsi_descriptor_t* d) {
    std::string s;
    for (; d != nullptr; d = d->p_next) {
        s += descriptor(d->i_tag, d->p_data, d->i_length);
    }
    return s;
}

// Keeps a table only when it differs from the one before.
inline void add_changed(std::vector<std::string>& list, const std::string& table) {
    if (list.empty() || list.back() != table) {
        list.push_back(table);
    }
}

// Feeds every packet of `pid` to a fresh handle that `attach` prepared.
template <class Attach, class Detach>
void push_pid(const Bytes& ts, unsigned pid, Attach attach, Detach detach) {
    dvbpsi_t* handle = dvbpsi_new(nullptr, DVBPSI_MSG_NONE);
    ASSERT_NE(handle, nullptr);
    ASSERT_TRUE(attach(handle));
    uint8_t packet[188];
    for (size_t at = 0; at + 188 <= ts.size(); at += 188) {
        std::memcpy(packet, &ts[at], 188);
        if (packet[0] == 0x47 && unsigned((packet[1] & 0x1F) << 8 | packet[2]) == pid) {
            dvbpsi_packet_push(handle, packet);
        }
    }
    detach(handle);
    dvbpsi_delete(handle);
}

// The same through a demultiplexer that `on_subtable` attaches decoders to.
inline void push_demux(const Bytes& ts, unsigned pid, dvbpsi_demux_new_cb_t on_subtable,
                       void* data) {
    push_pid(
        ts, pid, [&](dvbpsi_t* h) { return dvbpsi_AttachDemux(h, on_subtable, data); },
        [](dvbpsi_t* h) { dvbpsi_DetachDemux(h); });
}

}  // namespace oracle
