// Descriptor lists and the descriptor classes: every class read from its bytes, its fields
// as it names them, written back and deep-copied (golden cases), the tag tables of both
// list kinds, loop bounds and lengths recomputed on writing.

#include <cxxabi.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "mpegcore/descriptors_dvb.h"
#include "mpegcore/descriptors_mpeg.h"
#include "mpegcore/descriptors_scte35.h"
#include "mpegcore/kvdescriptorlist.h"
#include "ts_test_util.h"

namespace {

using namespace mpegcore;
using namespace ts_test;

bool read_list(KVDescriptorList& list, const Bytes& b) {
    KVSDK::KVBSReader r(b.data(), b.size());
    return list.read(r);
}

// Writes into a buffer of exactly getSize() bytes, so a size that disagrees with what
// write() produces shows up as a failed write or a short count.
Bytes write_list(KVDescriptorList& list) {
    Bytes out(list.getSize());
    KVSDK::KVBSWriter w(out.data(), out.size());
    EXPECT_TRUE(list.write(w));
    w.flush();
    EXPECT_EQ(w.getWritedBytes(), out.size());
    return out;
}

Bytes write_one(base_descriptor& d) {
    Bytes out(2 + d.body_size());
    KVSDK::KVBSWriter w(out.data(), out.size());
    EXPECT_TRUE(d.write(w));
    w.flush();
    EXPECT_EQ(w.getWritedBytes(), out.size());
    return out;
}

std::string class_name(const base_descriptor& d) {
    int status = 0;
    char* name = abi::__cxa_demangle(typeid(d).name(), nullptr, nullptr, &status);
    std::string s = name != nullptr ? name : typeid(d).name();
    std::free(name);
    return s.substr(s.rfind(':') + 1);
}

// A new descriptor of a class that no list produces, by its name.
std::shared_ptr<base_descriptor> alone(const std::string& name) {
    const std::shared_ptr<base_descriptor> classes[] = {
        std::make_shared<hierarchy_descriptor>(),
        std::make_shared<data_stream_alignment_descriptor>(),
        std::make_shared<target_background_grid_descriptor>(),
        std::make_shared<video_window_descriptor>(),
        std::make_shared<system_clock_descriptor>(),
        std::make_shared<copyright_descriptor>(),
        std::make_shared<maximum_bitrate_descriptor>(),
        std::make_shared<private_data_indicator_descriptor>(),
        std::make_shared<ibp_descriptor>(),
        std::make_shared<satellite_delivery_system_descriptor>(),
        std::make_shared<cable_delivery_system_descriptor>(),
        std::make_shared<component_descriptor>(),
        std::make_shared<terrestrial_delivery_system_descriptor>(),
        std::make_shared<scte35_time_descriptor>(),
    };
    for (const auto& c : classes) {
        if (class_name(*c) == name) {
            return c->create();
        }
    }
    ADD_FAILURE() << "no class " << name;
    return nullptr;
}

// The fields as the class names them, then the body bytes it keeps raw behind them (all of
// them for a class without fields).
std::string fields_of(const base_descriptor& d) {
    std::string text = view_text(d);
    if (d.descriptor_data.size() > 0) {
        text += (text.empty() ? "raw=" : " raw=") +
                format_hex(d.descriptor_data.data(), d.descriptor_data.size());
    }
    return text;
}

// One golden line, split at " | " into kind, bytes, class and fields.
std::vector<std::string> columns(const std::string& line) {
    std::vector<std::string> c;
    for (size_t from = 0;;) {
        const size_t to = line.find(" |", from);
        std::string part = line.substr(from, to - from);
        c.push_back(part.substr(part.find_first_not_of(' ') == std::string::npos
                                    ? part.size()
                                    : part.find_first_not_of(' ')));
        if (to == std::string::npos) {
            break;
        }
        from = to + 2;
    }
    c.resize(4);
    return c;
}

}  // namespace

// Every class: bytes -> read -> class and fields (and any body bytes kept raw) -> write
// gives the same bytes, or the list refuses a body whose lengths point past it; a deep copy made with create() + copyTo() has the same
// fields, writes the same bytes and does not change when the original's raw bytes do.
// The same bytes in both kinds of list show which class each tag gives in each.
TEST(Descriptors, GoldenCasesReadTheirFieldsAndWriteBackIdentically) {
    const std::string path = KV_SOURCE_DIR "/tests/mpegcore/golden/descriptors.txt";
    const bool bUpdate = std::getenv("KV_UPDATE_GOLDEN") != nullptr;
    std::ifstream in(path);
    ASSERT_TRUE(in) << path;
    std::ostringstream updated;
    size_t cases = 0;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') {
            updated << line << '\n';
            continue;
        }
        SCOPED_TRACE(line);
        ++cases;
        std::vector<std::string> c = columns(line);
        const Bytes bytes = hex(c[1]);
        std::shared_ptr<base_descriptor> d;
        if (c[0] == "alone") {
            d = alone(c[2]);
            KVSDK::KVBSReader r(bytes.data(), bytes.size());
            ASSERT_TRUE(d && d->read(r) && r.getLength() == 0);
        } else {
            KVDescriptorList list(c[0] == "ts" ? e_ts_desc_type : e_scte35_desc_type);
            if (!read_list(list, bytes)) {  // a body whose lengths point past it
                c[2] = bUpdate ? "refused" : c[2];
                updated << c[0] << " | " << c[1] << " | " << c[2] << " |\n";
                EXPECT_EQ(c[2], "refused");
                EXPECT_TRUE(list.descriptor.empty());
                continue;
            }
            ASSERT_EQ(list.descriptor.size(), 1u);
            d = list.descriptor.front();
            EXPECT_EQ(write_list(list), bytes);
        }
        if (bUpdate) {
            c[2] = class_name(*d);
            c[3] = fields_of(*d);
        }
        updated << c[0] << " | " << c[1] << " | " << c[2] << " | " << c[3] << '\n';
        EXPECT_EQ(class_name(*d), c[2]);
        EXPECT_EQ(fields_of(*d), c[3]);
        EXPECT_EQ(write_one(*d), bytes);

        std::shared_ptr<base_descriptor> copy = d->create();
        ASSERT_EQ(class_name(*copy), c[2]);
        d->copyTo(*copy);
        EXPECT_EQ(fields_of(*copy), c[3]);
        if (d->descriptor_data.isValid()) {
            std::fill(d->descriptor_data.data(),
                      d->descriptor_data.data() + d->descriptor_data.size(), 0xEE);
        }
        EXPECT_EQ(write_one(*copy), bytes);
    }
    EXPECT_GT(cases, 60u);
    if (bUpdate) {
        std::ofstream(path) << updated.str();
    }
}

TEST(DescriptorList, LoopBoundariesAndRefusals) {
    // A lone empty descriptor (2 bytes) reads as an empty list; so does one at the end.
    KVDescriptorList empty;
    EXPECT_TRUE(read_list(empty, hex("52 00")));
    EXPECT_TRUE(empty.descriptor.empty());
    EXPECT_EQ(empty.getSize(), 0);
    KVDescriptorList tail;
    EXPECT_TRUE(read_list(tail, hex("52 01 42 52 00")));
    EXPECT_EQ(tail.descriptor.size(), 1u);

    // Reading appends to what the list holds.
    EXPECT_TRUE(read_list(tail, hex("52 01 43")));
    ASSERT_EQ(tail.descriptor.size(), 2u);
    EXPECT_EQ(dynamic_cast<stream_identifier_descriptor&>(*tail.descriptor.back()).component_tag,
              0x43);

    // A length one byte past the loop fails the list; the descriptors before it stay.
    KVDescriptorList past;
    EXPECT_FALSE(read_list(past, hex("52 01 42 09 05 0B 00 E1 23")));
    EXPECT_EQ(past.descriptor.size(), 1u);
}

// Lengths are recomputed from the fields when writing, and getSize() agrees with write().
TEST(DescriptorList, WriteRecomputesLengthsFromFields) {
    KVDescriptorList list;
    auto svc = std::make_shared<service_descriptor>();
    svc->service_type = 1;
    svc->service_provider_name = "P";
    svc->service_name = "Name";
    svc->descriptor_length = 99;  // stale on purpose
    list.descriptor.push_back(svc);
    auto dtmf = std::make_shared<scte35_dtmf_descriptor>();
    dtmf->DTMF_chars = "12345678";  // one more than dtmf_count can hold
    EXPECT_EQ(list.getSize(), 2 + 8);
    EXPECT_EQ(write_list(list), hex("48 08 01 01 50 04 " + txt("Name")));
    EXPECT_EQ(svc->descriptor_length, 8);
    EXPECT_EQ(svc->service_name_length, 4);

    Bytes out(32);
    KVSDK::KVBSWriter w(out.data(), out.size());
    EXPECT_FALSE(dtmf->write(w));
    auto big = std::make_shared<network_name_descriptor>();
    big->character.assign(256, 'x');
    EXPECT_FALSE(big->write(w));
    // A writer that runs out of room fails without writing past its buffer.
    Bytes small(5);
    KVSDK::KVBSWriter ws(small.data(), small.size());
    EXPECT_FALSE(list.write(ws));
}
