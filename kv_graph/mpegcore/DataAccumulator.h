#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace mpegcore {

// Growable byte buffer that collects the payload of one payload unit (a PES packet or a
// run of PSI sections). It only grows; clear() keeps the capacity.
class CDataAccumulator {
public:
    // Capacity `size` bytes, or 4095 when `size` is 0.
    explicit CDataAccumulator(size_t size = 0);
    virtual ~CDataAccumulator() = default;

    CDataAccumulator(const CDataAccumulator&) = delete;
    CDataAccumulator& operator=(const CDataAccumulator&) = delete;

    // Appends `n` bytes. When they do not fit, the buffer is replaced by one of
    // n + length + 4095 bytes holding the old bytes followed by the new ones.
    void addData(const uint8_t* data, size_t n);

    size_t getSize() const { return m_Size; }
    size_t getLength() const { return m_Length; }
    const uint8_t* get() const { return m_pData.get(); }
    uint8_t* get() { return m_pData.get(); }
    void clear() { m_Length = 0; }

private:
    static constexpr size_t kGrowth = 4095;

    std::unique_ptr<uint8_t[]> m_pData;
    size_t m_Size = 0;    // capacity
    size_t m_Length = 0;  // bytes held
};

}  // namespace mpegcore
