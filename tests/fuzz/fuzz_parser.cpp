// The input as a transport stream fed to a parser that overrides every hook, in chunks
// whose sizes the input chooses. The hooks look into everything they are handed, so that a
// table or packet that points at freed or foreign memory is caught by the sanitizers.
//
// Input: a flags byte (bit 0: carry partial packets between calls; bit 1: Clear() half
// way; bits 2-4: how many chunk-size bytes follow, 0 for a single call), the chunk-size
// bytes (a chunk is 1 + 3 x byte long, the sizes repeating), then the stream. With tails
// and without Clear(), the hooks must see the same as with the whole stream in one call.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "mpegcore/BaseMpegParser.h"

using namespace mpegcore;

namespace {

class TouchingParser : public CBaseMpegParser {
public:
    explicit TouchingParser(bool tails) : CBaseMpegParser(tails) {}

    // A digest of everything the hooks saw, in order.
    uint64_t seen = 0;

    void on_scrambler_pid(uint16_t pid) override { pid_hook(pid); }
    void on_tei_pid(uint16_t pid) override { pid_hook(pid); }
    void on_ts_sync_lost() override { note(1); }
    void on_sync_byte_error() override { note(1); }
    void on_pat_error(uint16_t code) override { note(code); }
    void on_cc_error(uint16_t pid) override { pid_hook(pid); }
    void on_pmt_error(uint16_t pid, uint16_t code) override {
        pid_hook(pid);
        note(code);
    }
    void on_pid_error(uint16_t pid) override { pid_hook(pid); }

    void OnPreProcess(unsigned int, const transport_packet& packet) override { touch(&packet); }
    void OnProcess(unsigned int, transport_packet& packet) override {
        analyze_packet(packet);
        touch(&packet);
    }

    void OnPAT(CPAT* pat) override {
        for (const auto& entry : pat->program_map) {
            note(entry.first + entry.second.program_number);
        }
        note(pat->RenderTable().size());
    }
    void OnPMT(CBaseMpegProgram* program, CPMT* pmt) override {
        note(program->program_number + pmt->PCR_PID + pmt->RenderTable().size());
        touch(pmt->descriptors);
        for (const auto& stream : pmt->stream_map) {
            touch(stream.second->descriptors);
        }
    }
    void OnCAT(CCAT* cat) override { touch(cat->descriptors); }
    void OnTSDT(CTSDT* tsdt) override { touch(tsdt->descriptors); }
    void OnSDT(CSDT* sdt) override {
        for (const auto& service : sdt->sds) {
            touch(service.second->descriptors);
        }
    }
    void OnEIT(CEIT* eit) override {
        for (const auto& event : eit->eventInfo) {
            note(event->start_time);
            touch(event->descriptors);
        }
    }
    void OnNIT(CNIT* nit) override {
        touch(nit->descriptors);
        for (const auto& stream : nit->transport_stream) {
            touch(stream->descriptors);
        }
    }
    void OnTDT(CTDT* tdt) override { note(tdt->UTC_time); }
    void OnTOT(CTOT* tot) override { touch(tot->descriptors); }
    void OnBAT(CBAT* bat) override {
        touch(bat->descriptors);
        for (const CBouquetAssociationStream* stream : bat->BouquetAssociationStreamList) {
            touch(stream->descriptors);
        }
    }

    void OnPES(uint16_t pmt_pid, const CBaseStreamTypeMap* stream,
               transport_packet* packet) override {
        note(pmt_pid + (stream != nullptr ? stream->stream_type : 0));
        touch(packet);
    }
    void OnPES(uint16_t pmt_pid, CBaseStreamTypeMap* stream, const uint8_t* data,
               size_t length) override {
        note(pmt_pid + stream->stream_type);
        for (size_t i = 0; i < length; ++i) {
            note(data[i]);
        }
    }
    void OnPES(uint16_t pmt_pid, uint16_t program_number, const CBaseStreamTypeMap* stream,
               transport_packet* packet) override {
        note(pmt_pid + program_number + stream->elementary_PID);
        touch(packet);
    }
    void OnPCR(transport_packet* packet) override { touch(packet); }
    void OnEMM(transport_packet* packet) override { touch(packet); }
    void OnECM(transport_packet* packet) override { touch(packet); }
    void OnNULL(transport_packet* packet) override { touch(packet); }
    void onOtherPid(transport_packet* packet) override { touch(packet); }

private:
    void note(uint64_t x) { seen = (seen ^ x) * 1099511628211ull; }
    void pid_hook(uint16_t pid) {
        if (pid > TS_MAX_PID) {
            __builtin_trap();
        }
        note(pid);
    }
    void touch(const KVDescriptorList& list) {
        for (const auto& d : list.descriptor) {
            note(d->descriptor_tag + d->descriptor_length);
        }
        note(list.getSize());
    }
    // The payload cursor must stay inside its 188-byte packet, whose bytes are all read.
    void touch(const transport_packet* packet) {
        if (packet->lCurrSizePkt < 0 || packet->lCurrSizePkt > 184 ||
            packet->pCurrDataPkt + packet->lCurrSizePkt != packet->pStartDataPkt + TS_PACKET_SIZE) {
            __builtin_trap();
        }
        for (size_t i = 0; i < TS_PACKET_SIZE; ++i) {
            note(packet->pStartDataPkt[i]);
        }
    }
};

// Feeds the stream in chunks of the given sizes (repeating), calling Clear() half way when
// asked, and returns the digest of the hooks.
uint64_t run(TouchingParser& parser, const uint8_t* stream, size_t length,
             const std::vector<size_t>& chunks, bool clear_half_way) {
    parser.Clear();
    parser.seen = 0;
    for (size_t at = 0, i = 0; at < length; ++i) {
        const size_t n = std::min(chunks[i % chunks.size()], length - at);
        const size_t consumed = parser.Process(stream + at, n);
        if (consumed > n + TS_PACKET_SIZE - 1) {
            __builtin_trap();  // more than the chunk and the longest carried tail
        }
        const bool half = at < length / 2 && at + n >= length / 2;
        at += n;
        if (clear_half_way && half) {
            parser.Clear();
        }
    }
    return parser.seen;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    const bool tails = (data[0] & 1) != 0;
    const bool clear = (data[0] & 2) != 0;
    const size_t count = std::min<size_t>((data[0] >> 2) & 7, size - 1);
    std::vector<size_t> chunks;
    for (size_t i = 0; i < count; ++i) {
        chunks.push_back(1 + 3 * size_t(data[1 + i]));
    }
    const uint8_t* stream = data + 1 + count;
    const size_t length = size - 1 - count;
    const std::vector<size_t> whole{std::max<size_t>(length, 1)};
    if (chunks.empty()) {
        chunks = whole;
    }

    // Building the 8192 PID states for every input would cost more than parsing it; Clear()
    // returns a parser to its constructed state.
    static TouchingParser with_tails(true), without_tails(false);
    TouchingParser& parser = tails ? with_tails : without_tails;
    const uint64_t chunked = run(parser, stream, length, chunks, clear);
    // Carrying partial packets over, the chunking must not change what the hooks see.
    if (tails && !clear && run(parser, stream, length, whole, false) != chunked) {
        __builtin_trap();
    }
    return 0;
}
