// SPDX-License-Identifier: Apache-2.0
#pragma once
// CRC-16/ARC (polynomial 0x8005 reflected = 0xA001, initial value 0, no final
// XOR). The volume correctors protect each archive record with it: the check
// sum column holds the CRC of the record text from its first "(" up to and
// including the ")" before the check sum, as four upper-case hex digits.
// Check value: "123456789" -> 0xBB3D.

#include <cstddef>
#include <cstdint>
#include <string>

namespace Crc16Arc {

uint16_t compute(const uint8_t* data, size_t length);
// Four upper-case hex digits of compute() over `text`.
std::string hex(const std::string& text);

}  // namespace Crc16Arc
