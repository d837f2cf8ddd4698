#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "kvcore/kv_bitstream.h"

namespace mpegcore {

// CRC-32/MPEG-2 lookup table: polynomial 0x04C11DB7, not reflected.
extern const std::array<uint32_t, 256> g_MPEG2_PSI_CRC_32_Lookup;

// CRC-32/MPEG-2 of `size` bytes, continuing from `crc` (initial value 0xFFFFFFFF, no
// final XOR). Over a whole section including its CRC field the result is 0.
uint32_t crc32_mpeg2(const uint8_t* data, size_t size, uint32_t crc = 0xFFFFFFFF);

class KVDescriptorList;

// Reads a descriptor loop of `length` bytes at the reader's position into `list` through a
// reader bounded to the loop, then moves the reader behind the loop. A zero length reads
// nothing. Fails when the loop runs past the data. A descriptor that runs past the loop
// fails the read too, unless `lenient` is set: then the list ends there (the descriptors
// before it stay), so that one damaged descriptor does not cost the whole section.
bool read_descriptor_loop(KVSDK::KVBSReader& r, uint16_t length, KVDescriptorList& list,
                          bool lenient = false);

// Ends a section that `w` wrote from the start of `buffer` (`capacity` bytes): the CRC over
// the section's first section_length - 1 bytes (all but the CRC field; with
// section_length 1 it is 0xFFFFFFFF) goes into `crc` and is written behind whatever `w`
// wrote if four bytes are still free, and is left out otherwise. `size` becomes the
// section's size, section_length + 3, limited to `capacity`. Returns whether the CRC was
// written.
bool finish_rendered_section(KVSDK::KVBSWriter& w, const uint8_t* buffer, size_t capacity,
                             uint16_t section_length, uint32_t& crc, size_t& size);

// Base of every PSI/SI table: the common section header, a raw-byte scratch buffer and
// the read/write interface that each table fills in.
class CBaseMpegTable {
public:
    // Uses `buffer` of `size` bytes as scratch buffer, or allocates and owns `size` bytes
    // when `buffer` is null.
    explicit CBaseMpegTable(uint8_t* buffer = nullptr, size_t size = 1024);
    virtual ~CBaseMpegTable();

    CBaseMpegTable(const CBaseMpegTable&) = delete;
    CBaseMpegTable& operator=(const CBaseMpegTable&) = delete;

    // Zeroes the scratch buffer and empties it. Derived tables also empty their contents.
    virtual void Clear();

    // Reads the common header: table_id (8), section_syntax_indicator (1), zero (1),
    // reserved (2), section_length (12). Stops early, leaving the rest unchanged, when the
    // data runs out; returns true. Derived tables read their body and return false when
    // the section is incomplete or corrupt.
    virtual bool read(KVSDK::KVBSReader& r);

    // Writes the common header with section_length taken from calc_section_length().
    // Returns false when the writer ran out of room.
    virtual bool write(KVSDK::KVBSWriter& w);

    // Bytes that follow the section_length field: header fields, body and the 4-byte CRC.
    virtual uint16_t calc_section_length() { return section_length; }

    // Appends raw bytes to the scratch buffer. Refuses (false) when there is no buffer
    // or when the bytes would not leave at least one byte free.
    bool AddData(const uint8_t* data, size_t n);
    const uint8_t* GetBuffer() const { return m_pDataTable; }
    uint8_t* GetBuffer() { return m_pDataTable; }
    size_t GetSizeBuffer() const { return m_lSizeTable; }

    uint8_t table_id = 0;
    uint8_t section_syntax_indicator = 0;
    uint8_t zero = 0;
    uint8_t reserved = 0;
    uint16_t section_length = 0;

protected:
    // Reads the common header and checks that the whole section is at hand and that its
    // CRC is good. The section starts at the reader's position; the reader is left behind
    // the header. Returns false for an incomplete or corrupt section.
    bool read_section_header(KVSDK::KVBSReader& r);

    // One past the last byte of the section that read_section_header() accepted last.
    const uint8_t* section_end() const { return m_pSectionEnd; }

    // Copies the common header fields (not the scratch buffer).
    void copyHeaderTo(CBaseMpegTable& to) const;
    bool sameHeader(const CBaseMpegTable& other) const;

    uint8_t* m_pDataTable = nullptr;
    size_t m_lSizeTable = 0;
    size_t m_lMaxSize = 0;
    bool m_bSelfAlloc = false;

private:
    // One past the last byte of the section being read; only meaningful inside read().
    const uint8_t* m_pSectionEnd = nullptr;
};

class table_view;

// Mechanics shared by every table class.
//
// T describes what follows its section_length once, as `template <class IO> bool
// fields(IO& io)`, a run of calls on `io` in wire order (see table_io.h); reading, writing,
// the section length and the views are all driven by that one description, so they cannot
// disagree. B is the class T extends. The members are defined in table_io.h and
// instantiated once per class in the table sources.
template <class T, class B = CBaseMpegTable>
class table_of : public B {
public:
    using B::B;

    // Refuses an incomplete section or one with a bad CRC (the table id is not checked),
    // and one whose fields refuse (a descriptor loop that runs past the data, ...).
    bool read(KVSDK::KVBSReader& r) override;
    // Writes the whole section behind the writer's position, CRC included: section_length
    // and the length fields that the description computes are recomputed from what they
    // count and stored back. Fields that do not fit are dropped; returns true when all
    // fitted.
    bool write(KVSDK::KVBSWriter& w) override;
    // The bytes the fields and the CRC take.
    uint16_t calc_section_length() override { return fields_length(); }
    // table_id, section_syntax_indicator and section_length, then the fields by name.
    void view(table_view& v) const;

protected:
    uint16_t fields_length() const;
    // Writes the section as write() does into the scratch buffer, where
    // GetBuffer()/GetSizeBuffer() then hold it; the CRC is left out when it does not fit.
    bool render_into_buffer();

private:
    bool write_section(KVSDK::KVBSWriter& w, const uint8_t* start, size_t capacity, size_t& size);
};

// Two tables of one type: the one being parsed and the last complete one, so that the
// last complete table stays readable while the next section is parsed.
template <class T>
class CPacketWrapper {
public:
    CPacketWrapper() : m_pCurrent(new T()), m_pLast(new T()) {}

    CPacketWrapper(const CPacketWrapper&) = delete;
    CPacketWrapper& operator=(const CPacketWrapper&) = delete;

    // Parses a section into the current table. On success the tables swap places, the
    // new current one is cleared and the wrapper becomes valid; on failure nothing else
    // changes and the last complete table stays in place.
    bool Parser(KVSDK::KVBSReader& r) {
        if (!m_pCurrent->read(r)) {
            return false;
        }
        m_pCurrent.swap(m_pLast);
        m_pCurrent->Clear();
        m_IsValid = true;
        return true;
    }

    bool AddData(const uint8_t* data, size_t n) { return m_pCurrent->AddData(data, n); }

    // Makes a copy of `table` the last complete table.
    void set(const T& table) {
        table.copyTo(*m_pLast);
        m_IsValid = true;
    }

    bool IsValid() const { return m_IsValid; }

    void Clear() {
        m_IsValid = false;
        m_pCurrent->Clear();
        m_pLast->Clear();
    }

    // Last complete table (meaningful while IsValid()).
    T* GetLast() { return m_pLast.get(); }
    const T* GetLast() const { return m_pLast.get(); }
    // Table being parsed.
    T* GetCurrent() { return m_pCurrent.get(); }

private:
    bool m_IsValid = false;
    std::unique_ptr<T> m_pCurrent;
    std::unique_ptr<T> m_pLast;
};

}  // namespace mpegcore
