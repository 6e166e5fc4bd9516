// SPDX-License-Identifier: Apache-2.0
// mtd_modbussim's own reading of Modbus, against the published check value
// and answers written out by hand from the protocol (not from the driver).
#include "tools/modbussim/CModbusSim.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

TEST(ModbusSim, CrcCheckValue) {
    const std::string text = "123456789";
    // The published check value of CRC-16/MODBUS.
    EXPECT_EQ(CModbusSim::crc(reinterpret_cast<const uint8_t*>(text.data()), text.size()), 0x4B37);
    // The request of the Modbus serial-line guide's worked example: 01 03 00 00 00 0A, CRC C5 CD on the wire.
    const Bytes req = {0x01, 0x03, 0x00, 0x00, 0x00, 0x0A};
    EXPECT_EQ(CModbusSim::crc(req.data(), req.size()), 0xCDC5);
}

TEST(ModbusSim, AnswersAsASlaveWould) {
    SModbusSimConfig c;
    c.templateFile = std::string(MTD_TEST_SOURCE_DIR) + "/tests/data/modbus/swapped-meter.json";
    c.now = 1714558500;  // 2024-05-01,10:15:00
    c.clockScale = 1e-9;
    c.serial = "SW26";
    c.refuse = {1012};
    CModbusSim sim(c);
    std::string error;
    ASSERT_TRUE(sim.load(error)) << error;
    const struct {
        const char* legend;
        Bytes pdu, answer;
    } rows[] = {
        // Unix clock, u32 low word first: 1714558500 = 0x6632 1624.
        {"clock", {0x04, 0x01, 0xF4, 0x00, 0x02}, {0x04, 0x04, 0x16, 0x24, 0x66, 0x32}},
        {"text serial, two characters a register", {0x03, 0x00, 0x28, 0x00, 0x04},
         {0x03, 0x08, 'S', 'W', '2', '6', ' ', ' ', ' ', ' '}},
        {"a register outside the map", {0x03, 0x00, 0x29, 0x00, 0x04}, {0x83, 0x02}},
        {"a refused register", {0x03, 0x03, 0xF4, 0x00, 0x01}, {0x83, 0x02}},
        {"too many registers", {0x03, 0x03, 0xE8, 0x00, 0x7E}, {0x83, 0x03}},
        {"a coil", {0x01, 0x00, 0x03, 0x00, 0x01}, {0x01, 0x01, 0x01}},  // 10:15: the tenth-minute toggle is on
        {"a write outside any select register", {0x10, 0x00, 0x00, 0x00, 0x01, 0x02, 0x00, 0x00}, {0x90, 0x02}},
        {"an unknown function", {0x2B, 0x0E, 0x01, 0x00}, {0xAB, 0x01}},
    };
    for (const auto& r : rows)
        EXPECT_EQ(sim.answer(r.pdu), r.answer) << r.legend;
    // Temperature as s32 hundredths with offset -273.15, low word first.
    const Bytes t = sim.answer({0x03, 0x03, 0xF2, 0x00, 0x02});
    ASSERT_EQ(t.size(), 6u);
    const int32_t raw = static_cast<int32_t>(static_cast<uint32_t>(t[4] << 24 | t[5] << 16 | t[2] << 8 | t[3]));
    EXPECT_NEAR(raw * 0.01 - 273.15, sim.modelValue("T", c.now), 0.01);
}

}  // namespace
