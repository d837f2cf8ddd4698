#pragma once

#include <cstdint>

// An output-buffer provider: hands out one device buffer at a time for the output
// engine to fill, then takes it back for output.
class kv_data_provider {
public:
    virtual ~kv_data_provider() = default;

    // Begins streaming.
    virtual bool start() = 0;
    // Ends streaming.
    virtual void stop() = 0;
    // Hands out the next output buffer with the device times (100 ns units) of its
    // first word and of the word after its last.
    virtual bool map(uint64_t& tBegin, uint64_t& tEnd, uint8_t** pData, uint64_t& nSize) = 0;
    // Gives the buffer handed out by map back for output.
    virtual bool unmap() = 0;
    // Ten-bit words per buffer.
    virtual uint64_t get_samples_per_frame() = 0;
};
