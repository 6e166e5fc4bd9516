// SPDX-License-Identifier: Apache-2.0
#include "protocols/Crc16Arc.h"

#include <cstdio>

namespace Crc16Arc {

uint16_t compute(const uint8_t* data, size_t length) {
    uint16_t crc = 0;
    for (size_t i = 0; i < length; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0xA001) : static_cast<uint16_t>(crc >> 1);
    }
    return crc;
}

std::string hex(const std::string& text) {
    char out[8];
    std::snprintf(out, sizeof out, "%04X",
                  compute(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
    return out;
}

}  // namespace Crc16Arc
