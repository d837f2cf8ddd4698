#include "mpegcore/BaseMpegProgram.h"

namespace mpegcore {

void CBaseMpegProgram::copyTo(CBaseMpegProgram& to) const {
    to.program_number = program_number;
    to.reserved = reserved;
    to.map_PID = map_PID;
    to.m_bValid = m_bValid;
}

}  // namespace mpegcore
