#include "mpegcore/DataAccumulator.h"

#include <cstring>

namespace mpegcore {

CDataAccumulator::CDataAccumulator(size_t size)
    : m_pData(new uint8_t[size != 0 ? size : kGrowth]), m_Size(size != 0 ? size : kGrowth) {}

void CDataAccumulator::addData(const uint8_t* data, size_t n) {
    if (n == 0) {
        return;
    }
    if (m_Length + n > m_Size) {
        const size_t size = n + m_Length + kGrowth;
        std::unique_ptr<uint8_t[]> grown(new uint8_t[size]);
        if (m_Length != 0) {
            std::memcpy(grown.get(), m_pData.get(), m_Length);
        }
        m_pData = std::move(grown);
        m_Size = size;
    }
    std::memcpy(m_pData.get() + m_Length, data, n);
    m_Length += n;
}

}  // namespace mpegcore
