// SPDX-License-Identifier: Apache-2.0
#pragma once
// Walks an M4 reply body element by element, into containers (tag 0x30) up to
// eight levels deep, as a driver would. An element that GetParamValue accepts
// must never reach past the body it came from.

#include <cstddef>
#include <cstdint>

#include "fuzz/FuzzLog.h"
#include "protocols/M4.h"

inline void walkM4Body(const M4::CM4& m4, const uint8_t* data, size_t size, int depth = 0) {
    while (size > 0) {
        M4::ParamValue v;
        if (!m4.GetParamValue(data, size, v))
            return;
        if (v.size() > size)
            __builtin_trap();
        if (fuzzReportSink()) {
            char line[160];
            std::snprintf(line, sizeof line, "element %d tag %02X length %u header %zu kind %d number %.9g integer %u "
                          "date %d-%d-%d %d:%d:%d ",
                          depth, v.tag, v.length, v.headerSize, static_cast<int>(v.kind), v.number, v.integer, v.year,
                          v.month, v.day, v.hour, v.minute, v.second);
            fuzzReportSink()(line + v.text);
        }
        if (v.tag == 0x30 && depth < 8)
            walkM4Body(m4, data + v.headerSize, v.length, depth + 1);
        data += v.size();
        size -= v.size();
    }
}
