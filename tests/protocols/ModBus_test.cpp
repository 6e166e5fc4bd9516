// SPDX-License-Identifier: Apache-2.0
#include "protocols/ModBus.h"

#include <gtest/gtest.h>

#include "LogikaTestKit.h"
#include "protocols/Crc16.h"

using logika_test::Bytes;
using logika_test::FakePause;
using logika_test::LogCapture;
using logika_test::PtyMeter;

namespace {

Bytes withCrc(Bytes b) {
    uint16_t crc = Crc16::modbus(b.data(), b.size());
    b.push_back(static_cast<uint8_t>(crc & 0xFF));
    b.push_back(static_cast<uint8_t>(crc >> 8));
    return b;
}

// Every request in these tests is 8 bytes, or a 0x10 with its byte count.
size_t mbFrameSize(const Bytes& f) {
    if (f.size() < 2)
        return 0;
    if (f[1] == 0x11)
        return 4;
    if (f[1] == 0x10)
        return f.size() < 7 ? 0 : 9u + f[6];
    return 8;
}

struct Line {
    LogCapture log;
    FakePause pause;
    PtyMeter meter;
    CConnector conn;
    ModBus mb;
    explicit Line(PtyMeter::Respond respond)
        : meter(mbFrameSize, std::move(respond)),
          conn(meter.params(), PtyMeter::noLeds()),
          mb(conn, 0x11, 3, "flowsic", std::chrono::milliseconds(1000), pause.fn()) {
        EXPECT_TRUE(conn.open_device());
    }
};

const ModBusRequest kRead{"flow", ModBus::kReadHoldingRegisters, 0x006B, 3, {}};
const Bytes kReadReply = withCrc({0x11, 0x03, 0x06, 0x02, 0x2B, 0x00, 0x00, 0x00, 0x64});

}  // namespace

TEST(ModBusPacket, Frames) {
    LogCapture log;
    PortParams none{{"name", "/nonexistent"}};
    CConnector conn(none, PtyMeter::noLeds());
    ModBus mb(conn, 0x01, 3, "mb");
    struct {
        ModBusRequest request;
        Bytes frame;
    } rows[] = {
        {{"read", 0x03, 0x0000, 10, {}}, {0x01, 0x03, 0x00, 0x00, 0x00, 0x0A, 0xC5, 0xCD}},
        {{"input", 0x04, 0x0008, 1, {}}, withCrc({0x01, 0x04, 0x00, 0x08, 0x00, 0x01})},
        {{"write", 0x06, 0x0001, 1, {0x0003}}, {0x01, 0x06, 0x00, 0x01, 0x00, 0x03, 0x98, 0x0B}},
        {{"many", 0x10, 0x0001, 2, {0x000A, 0x0102}},
         withCrc({0x01, 0x10, 0x00, 0x01, 0x00, 0x02, 0x04, 0x00, 0x0A, 0x01, 0x02})},
        {{"id", 0x11, 0, 0, {}}, {0x01, 0x11, 0xC0, 0x2C}},
    };
    for (const auto& row : rows) {
        ASSERT_TRUE(mb.makePacket(row.request)) << row.request.name;
        EXPECT_EQ(row.frame, Bytes(mb.sendBuffer(), mb.sendBuffer() + mb.sendLength())) << row.request.name;
    }
    EXPECT_FALSE(mb.makePacket({"odd", 0x2B, 0, 1, {}}));
    EXPECT_TRUE(log.contains("[3][mb] ModBus::makePacket('odd') - 43 (0x2B) UNKNOWN MODBUS FUNCTION !!!", logger::ERR));
    EXPECT_FALSE(mb.makePacket({"too many", 0x03, 0, 126, {}}));
    EXPECT_FALSE(mb.makePacket({"short", 0x10, 0, 3, {1, 2}}));
}

TEST(ModBusLine, ReadRegisters) {
    Line line([](const Bytes&, int) { return kReadReply; });
    ASSERT_TRUE(line.mb.SendRequest(kRead));
    EXPECT_EQ(0x022B, line.mb.registerAt(0));
    EXPECT_EQ(0x0064, line.mb.registerAt(2));
    EXPECT_EQ(withCrc({0x11, 0x03, 0x00, 0x6B, 0x00, 0x03}), line.meter.requests().at(0));
}

TEST(ModBusLine, BadReplyIsRetried) {
    struct {
        const char* legend;
        Bytes first;
        const char* message;
    } rows[] = {
        {"address", withCrc({0x12, 0x03, 0x06, 0x02, 0x2B, 0x00, 0x00, 0x00, 0x64}), "WRONG ADDRESS: WAIT 0x11, GOT 0x12"},
        {"function", withCrc({0x11, 0x04, 0x06, 0x02, 0x2B, 0x00, 0x00, 0x00, 0x64}), "WRONG FUNCTION: WAIT 0x03, GOT 0x04"},
        {"crc", {0x11, 0x03, 0x06, 0x02, 0x2B, 0x00, 0x00, 0x00, 0x64, 0x12, 0x34},
         "[3][flowsic] ModBus::SendRequest('flow') - CRC ERROR: read crc 0x3412 != calc crc 0x"},
        {"byte count", withCrc({0x11, 0x03, 0x04, 0x02, 0x2B, 0x00, 0x00}), "WRONG BYTE COUNT: WAIT 6, GOT 4"},
        {"short", {0x11, 0x03, 0x06, 0x02}, "TIMEOUT: WANT 11 BYTES, GOT 4"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.legend);
        Line line([&](const Bytes&, int index) { return index == 0 ? row.first : kReadReply; });
        EXPECT_TRUE(line.mb.SendRequest(kRead));
        EXPECT_TRUE(line.log.contains(row.message, logger::ERR));
        EXPECT_EQ(2u, line.meter.requests().size());
        EXPECT_EQ(1u, line.pause.calls.size());
    }
}

TEST(ModBusLine, ExceptionReplyIsFinal) {
    Line line([](const Bytes&, int) { return withCrc({0x11, 0x83, 0x02}); });
    EXPECT_FALSE(line.mb.SendRequest(kRead));
    EXPECT_EQ(0x02, line.mb.exceptionCode());
    EXPECT_EQ(1u, line.meter.requests().size());
}
