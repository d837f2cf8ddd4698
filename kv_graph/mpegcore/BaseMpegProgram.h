#pragma once

#include <cstdint>

namespace mpegcore {

// One entry of the PAT: a program and the PID of its PMT, or for program number 0 the
// network PID.
class CBaseMpegProgram {
public:
    union MAP_PID {
        uint16_t network_PID;      // program_number 0
        uint16_t program_map_PID;  // any other program_number
    };

    CBaseMpegProgram() { map_PID.program_map_PID = 0; }
    virtual ~CBaseMpegProgram() = default;

    bool IsValid() const { return m_bValid; }
    void SetValid(bool valid = true) { m_bValid = valid; }
    void copyTo(CBaseMpegProgram& to) const;

    // The 13-bit PID of the entry, whichever meaning it has.
    uint16_t getPID() const { return map_PID.program_map_PID; }
    bool isNetwork() const { return program_number == 0; }

    // Its layout in the PAT (see table_io.h).
    template <class IO>
    bool fields(IO& io) {
        return io("program_number", program_number, 16) && io.reserved(reserved, 3) &&
               io(isNetwork() ? "network_PID" : "program_map_PID", map_PID.program_map_PID, 13);
    }

    uint16_t program_number = 0;  // 16 bits
    uint8_t reserved = 0;         // 3
    MAP_PID map_PID;              // 13
    bool m_bValid = false;
};

}  // namespace mpegcore
