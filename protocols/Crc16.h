// SPDX-License-Identifier: Apache-2.0
#pragma once
// 16-bit cyclic checks used on the meter lines.
//
// Logika M4 and SPbus: polynomial 0x1021, initial value 0, no reflection, no
// final XOR, most significant bit first (the XMODEM form); the meters append it
// high byte first. Check value: "123456789" -> 0x31C3.
//
// Modbus RTU: polynomial 0x8005 reflected (0xA001), initial value 0xFFFF; it is
// sent low byte first. Check value: "123456789" -> 0x4B37.

#include <cstddef>
#include <cstdint>

namespace Crc16 {

uint16_t xmodem(const uint8_t* data, size_t length, uint16_t crc = 0x0000);
uint16_t modbus(const uint8_t* data, size_t length, uint16_t crc = 0xFFFF);

}  // namespace Crc16
