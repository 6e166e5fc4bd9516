// SPDX-License-Identifier: Apache-2.0
// mtd_m4sim's own reading of M4 bytes, against published check values and
// frames written out by hand (not against the daemon's protocol layer).
#include "tools/m4sim/M4SimWire.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

TEST(M4SimWire, CheckSums) {
    const std::string text = "123456789";
    // The published check value of CRC-16/XMODEM.
    EXPECT_EQ(m4sim::crc(reinterpret_cast<const uint8_t*>(text.data()), text.size()), 0x31C3);
    const Bytes start = {0x10, 0x00, 0x3F, 0x00, 0x00, 0x00, 0x00};
    EXPECT_EQ(m4sim::sumCheck(start.data() + 1, 5), 0xC0);
}

TEST(M4SimWire, FrameReader) {
    const Bytes session = {0x10, 0x00, 0x3F, 0x00, 0x00, 0x00, 0x00, 0xC0, 0x16};
    const Bytes read = m4sim::longFrame(0x05, 0x07, {0x72, 0x4A, 0x03, 0x00, 0x40, 0x20});
    Bytes badCrc = read;
    badCrc.back() ^= 0x01;
    Bytes badEnd = session;
    badEnd.back() = 0x17;
    const struct {
        const char* legend;
        std::vector<Bytes> chunks;  // as the line delivers them
        std::vector<uint8_t> functions;  // frames taken, in order
    } rows[] = {
        {"session start", {session}, {0x3F}},
        {"wake-up bytes and noise before a read", {{0xFF, 0xFF, 0xFF, 0x42}, read}, {0x72}},
        {"frame split across reads",
         {Bytes(read.begin(), read.begin() + 5), Bytes(read.begin() + 5, read.end())},
         {0x72}},
        {"bad CRC dropped, next frame taken", {badCrc, session}, {0x3F}},
        {"bad end byte dropped", {badEnd}, {}},
        {"truncated frame waits", {Bytes(read.begin(), read.end() - 1)}, {}},
    };
    for (const auto& row : rows) {
        m4sim::FrameReader reader;
        std::vector<uint8_t> got;
        m4sim::Frame f;
        for (const auto& chunk : row.chunks) {
            reader.feed(chunk.data(), chunk.size());
            while (reader.next(f))
                got.push_back(f.function);
        }
        EXPECT_EQ(got, row.functions) << row.legend;
    }
}

TEST(M4SimWire, CalendarMatchesTheCLibrary) {
    for (time_t t : {static_cast<time_t>(0), static_cast<time_t>(951782400) /* 2000-02-29 */,
                     static_cast<time_t>(1709251199) /* 2024-02-29 23:59:59 */, static_cast<time_t>(4102444800)}) {
        struct tm want {};
        gmtime_r(&t, &want);
        const struct tm got = m4sim::civil(t);
        EXPECT_EQ(got.tm_year, want.tm_year) << t;
        EXPECT_EQ(got.tm_mon, want.tm_mon) << t;
        EXPECT_EQ(got.tm_mday, want.tm_mday) << t;
        EXPECT_EQ(got.tm_hour * 3600 + got.tm_min * 60 + got.tm_sec, want.tm_hour * 3600 + want.tm_min * 60 + want.tm_sec);
        EXPECT_EQ(m4sim::fromCivil(got.tm_year + 1900, got.tm_mon + 1, got.tm_mday, got.tm_hour, got.tm_min, got.tm_sec), t);
    }
}

}  // namespace
