// Walks an M4 reply body the way a driver does: element after element, and
// into containers, feeding each to CM4::GetParamValue. Any byte string must
// give a defined result without reading past the end.

#include <cstddef>
#include <cstdint>

#include "protocols/M4.h"
#include "transport/CConnector.h"

namespace {

void walk(const M4::CM4& m4, const uint8_t* data, size_t size, int depth) {
    while (size > 0) {
        M4::ParamValue v;
        if (!m4.GetParamValue(data, size, v))
            return;
        if (v.tag == 0x30 && depth < 8)
            walk(m4, data + v.headerSize, v.length, depth + 1);
        data += v.size();
        size -= v.size();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static CConnector conn(PortParams{{"name", "/nonexistent"}},
                           LedPaths{"/nonexistent-mtd-fuzz/tx", "/nonexistent-mtd-fuzz/rx"});
    static M4::CM4 m4(conn, 0, 0, "fuzz");
    uint32_t length = 0;
    size_t fieldSize = 0;
    if (M4::CM4::decodeLength(data, size, length, fieldSize) && fieldSize > size)
        __builtin_trap();
    walk(m4, data, size, 0);
    return 0;
}
