// SPDX-License-Identifier: Apache-2.0
// Walks an M4 reply body the way a driver does: element after element, and
// into containers, feeding each to CM4::GetParamValue. Any byte string must
// give a defined result without reading past the end.

#include <cstddef>
#include <cstdint>

#include "fuzz/M4Walk.h"
#include "protocols/M4.h"
#include "transport/CConnector.h"


extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static CConnector conn(PortParams{{"name", "/nonexistent"}},
                           LedPaths{"/nonexistent-mtd-fuzz/tx", "/nonexistent-mtd-fuzz/rx"});
    static M4::CM4 m4(conn, 0, 0, "fuzz");
    uint32_t length = 0;
    size_t fieldSize = 0;
    if (M4::CM4::decodeLength(data, size, length, fieldSize) && fieldSize > size)
        __builtin_trap();
    walkM4Body(m4, data, size);
    return 0;
}
