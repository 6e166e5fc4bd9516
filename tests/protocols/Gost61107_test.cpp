// SPDX-License-Identifier: Apache-2.0
#include "protocols/CGost61107.h"

#include <gtest/gtest.h>
#include <termios.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "LogikaTestKit.h"
#include "protocols/Crc16Arc.h"

using logika_test::Bytes;
using logika_test::LogCapture;
using logika_test::PtyMeter;

namespace {

constexpr uint8_t SOH = 0x01, STX = 0x02, ETX = 0x03, EOT = 0x04, ACK = 0x06, NAK = 0x15;

Bytes bytesOf(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

uint8_t xorOf(const Bytes& b, size_t from) {
    uint8_t x = 0;
    for (size_t i = from; i < b.size(); ++i)
        x ^= b[i];
    return x;
}

// A command frame as the meter or the master writes it: SOH ... ETX BCC.
Bytes withBcc(Bytes b) {
    b.push_back(xorOf(b, 1));
    return b;
}

// Requests end with LF (sign-on, option select), with the BCC after ETX, or are a lone ACK.
size_t iecFrameSize(const Bytes& f) {
    if (f.empty())
        return 0;
    if ((f[0] == ACK || f[0] == NAK) && f.size() == 1)
        return 1;
    for (size_t i = 0; i < f.size(); ++i) {
        if (f[0] == SOH && f[i] == ETX)
            return i + 2 <= f.size() ? i + 2 : 0;
        if (f[0] != SOH && f[i] == 0x0A)
            return i + 1;
    }
    return 0;
}

SGost61107Request req(uint32_t kind, std::string address = "", std::string data = "") {
    SGost61107Request r;
    r.name = "Test Request";
    r.kind = kind;
    r.address = std::move(address);
    r.data = std::move(data);
    return r;
}

TEST(Gost61107Packet, FramesAndReplyExpectations) {
    Bytes read = withBcc(bytesOf("\x01R1\x02" "4:170.0()\x03"));
    struct Row {
        const char* legend;
        SGost61107Request request;
        unsigned wakeCount;
        Bytes expected;
        uint8_t first, end, altEnd;
    } rows[] = {
        {"sign-on with address", req(0, "12345678"), 0, bytesOf("/?12345678!\r\n"), '/', 0x0A, 0},
        {"sign-on without address", req(0), 0, bytesOf("/?!\r\n"), '/', 0x0A, 0},
        {"sign-on after wake-up fill", req(0), 3, bytesOf(std::string("\0\0\0/?!\r\n", 8)), '/', 0x0A, 0},
        {"option select 9600", req(1), 0, {0x06, 0x30, 0x35, 0x31, 0x0D, 0x0A}, SOH, ETX, 0},
        {"read R1 of 4:170.0", req(2, "4:170.0"), 0, read, STX, ETX, EOT},
        {"read R3 of an archive", req(3, "3:V.2"), 0, withBcc(bytesOf("\x01R3\x02" "3:V.2()\x03")), STX, ETX, EOT},
        {"write W1 of a password", req(4, "4:171.0", "00000000"), 0,
         withBcc(bytesOf("\x01W1\x02" "4:171.0(00000000)\x03")), 0xFF, ETX, EOT},
        {"acknowledge", req(6), 0, {ACK}, STX, ETX, EOT},
    };
    for (const auto& row : rows) {
        CGost61107Connector c(7, "EK270");
        c.setSpeedSymbol('5');
        c.setWakeUp(0x00, row.wakeCount);
        ASSERT_TRUE(c.makePacket(row.request)) << row.legend;
        EXPECT_EQ(Bytes(c.txBuffer(), c.txBuffer() + c.txLength()), row.expected) << row.legend;
        EXPECT_EQ(c.expectedFirst(), row.first) << row.legend;
        EXPECT_EQ(c.expectedEnd(), row.end) << row.legend;
        EXPECT_EQ(c.expectedAltEnd(), row.altEnd) << row.legend;
    }
    // The read's check byte is the XOR of 'R' through ETX.
    uint8_t x = 0;
    for (char ch : std::string("R1\x02" "4:170.0()\x03"))
        x ^= static_cast<uint8_t>(ch);
    EXPECT_EQ(read.back(), x);
}

TEST(Gost61107Packet, BreakKeepsExpectationsAndBadRequestsFail) {
    LogCapture log;
    CGost61107Connector c(7, "EK270");
    ASSERT_TRUE(c.makePacket(req(2, "1:180.0")));
    ASSERT_TRUE(c.makePacket(req(5)));
    EXPECT_EQ(Bytes(c.txBuffer(), c.txBuffer() + c.txLength()), withBcc({SOH, 'B', '0', ETX}));
    EXPECT_EQ(c.expectedFirst(), STX);

    c.setSpeedSymbol('7');
    EXPECT_FALSE(c.makePacket(req(1)));
    EXPECT_TRUE(log.contains("[7][EK270] CGost61107Connector::makePacket('Test Request') - WRONG BAUD RATE '7' !!!"));
    EXPECT_FALSE(c.makePacket(req(9)));
    EXPECT_TRUE(log.contains("makePacket('Test Request') - 9 UNKNOWN MESSAGE !!!"));
}

TEST(Gost61107Packet, PrintableFormAndArchiveCrc) {
    Bytes read = withBcc(bytesOf("\x01R1\x02" "4:170.0()\x03"));
    char bcc[16];
    std::snprintf(bcc, sizeof bcc, "<BCC=0x%02X>", read.back());
    EXPECT_EQ(CGost61107Connector::printable(read.data(), read.size(), true),
              std::string("<SOH>R1<STX>4:170.0()<ETX>") + bcc);
    Bytes ack = {ACK, NAK, 0x0D, 0x07};
    EXPECT_EQ(CGost61107Connector::printable(ack.data(), ack.size(), false), "<ACK><NACK><CR><0x07>");

    EXPECT_EQ(Crc16Arc::hex("123456789"), "BB3D");
    EXPECT_EQ(Crc16Arc::hex(""), "0000");
}

TEST(Gost61107Parse, ValuesOfReplies) {
    PortParams none;
    CConnector conn(none, PtyMeter::noLeds());
    CGost61107 p(conn, 7, "EK270");
    struct Row {
        const char* legend;
        uint32_t kind;
        std::string reply;
        bool ok;
        std::vector<std::string> values;
    } rows[] = {
        {"identification", 0, "/EKM6EK270\r\n", true, {"EKM"}},
        {"one value with unit", 2, "\x02" "6:210.0(1.70000*bar)\x03", true, {"1.70000*bar"}},
        {"archive record", 3, "\x02(1)(2)(2024-05-01,06:00:00)(3FCE)\r\n\x04", true,
         {"1", "2", "2024-05-01,06:00:00", "3FCE"}},
        {"empty value", 2, "\x02" "1:180.0()\x03", true, {""}},
        {"close without open", 2, "\x02" "1:180.0)\x03", false, {}},
        {"open without close", 2, "\x02" "1:180.0(12\x03", false, {}},
    };
    for (const auto& row : rows) {
        LogCapture log;
        ASSERT_TRUE(p.makePacket(req(row.kind, "1:180.0")));
        std::vector<std::string> values = {"stale"};
        bool ok = p.parse(req(row.kind), values, reinterpret_cast<const uint8_t*>(row.reply.data()), row.reply.size());
        EXPECT_EQ(ok, row.ok) << row.legend;
        EXPECT_EQ(values, row.values) << row.legend;
    }
    LogCapture log;
    ASSERT_TRUE(p.makePacket(req(4, "4:171.0", "x")));
    std::vector<std::string> values;
    EXPECT_TRUE(p.parse(req(4), values, reinterpret_cast<const uint8_t*>("\x06"), 1));
    EXPECT_TRUE(log.contains("CGost61107::parse('Test Request'): will not parse response"));
}

// The master against a scripted meter on a pseudo-terminal.
TEST(Gost61107Io, RepliesAndFirstByteRules) {
    Bytes data = withBcc(bytesOf("\x02" "1:180.0(12345678)\x03"));
    Bytes p0 = withBcc(bytesOf("\x01P0\x02(12345678)\x03"));
    Bytes badP0 = p0;
    badP0.back() ^= 0x20;
    // "<STX>8:310.0(0.9978)<ETX>" as a bad line delivered it: still a value, but not the meter's.
    Bytes changed = withBcc(bytesOf("\x02" "8:310.0(0.9978)\x03"));
    changed[1] ^= 0x38;
    struct Row {
        const char* legend;
        SGost61107Request request;
        Bytes answer;  // given to every attempt
        bool ok;
        size_t attempts;
        Bytes reply;
        const char* logPart;
    } rows[] = {
        {"write acknowledged", req(4, "4:171.0", "00000000"), {ACK}, true, 1, {ACK}, "Recv: <ACK>"},
        {"write refused is still a reply", req(4, "4:171.0", "1"), {NAK}, true, 1, {NAK}, "Recv: <NACK>"},
        {"three garbage bytes then STX", req(2, "1:180.0"), [&] {
             Bytes b = {'x', 0x00, 0x7F};
             b.insert(b.end(), data.begin(), data.end());
             return b;
         }(), true, 1, data, "Recv #3: 1ST MUST BE 0x02"},
        // The fourth wrong byte fails the attempt. The block behind it is
        // discarded before the next attempt is sent, so a reply to an old
        // request never answers a new one: every attempt meets the garbage.
        {"four garbage bytes fail the attempt", req(2, "1:180.0"), [&] {
             Bytes b = {'x', 'y', 'z', 'w'};
             b.insert(b.end(), data.begin(), data.end());
             return b;
         }(), false, 3, {}, "Recv #4: 1ST MUST BE 0x02('.'), BUT GOT 0x77('w')"},
        {"block ended by EOT", req(3, "3:V.0"), withBcc(bytesOf("\x02(1)\r\n\x04")), true, 1,
         withBcc(bytesOf("\x02(1)\r\n\x04")), ""},
        {"option select with its BCC", req(1), p0, true, 1, p0, "<BCC=0x"},
        {"wrong BCC fails every attempt", req(1), badP0, false, 3, {}, "Recv: WRONG BCC - GOT 0x"},
        {"silent meter", req(2, "1:180.0"), {}, false, 3, {}, "RECV: TIMEOUT !!! ReadAll = 0"},
        {"STX reply with a changed byte", req(2, "8:310.0"), changed, false, 3, {},
         "Recv: WRONG BCC OF STX REPLY - GOT 0x"},
        {"STX reply without its check byte", req(2, "1:180.0"), bytesOf("\x02" "1:180.0(12345678)\x03"), false, 3, {},
         "Recv: CAN'T GET BCC !!!"},
        {"missing BCC", req(1), bytesOf("\x01P0\x02()\x03"), false, 3, {}, "Recv: CAN'T GET BCC !!!"},
    };
    for (const auto& row : rows) {
        LogCapture log;
        PtyMeter meter(iecFrameSize, [&](const Bytes&, int) { return row.answer; });
        CConnector conn(meter.params(), PtyMeter::noLeds());
        ASSERT_TRUE(conn.open_device());
        CGost61107 p(conn, 7, "EK270");
        std::vector<uint8_t> reply;
        EXPECT_EQ(p.SendRequest(row.request, reply), row.ok) << row.legend;
        if (row.ok)
            EXPECT_EQ(reply, row.reply) << row.legend;
        else
            EXPECT_TRUE(log.contains("CGost61107::SendRequest('Test Request') - CAN'T SEND REQUEST !!!")) << row.legend;
        EXPECT_EQ(meter.requests().size(), row.attempts) << row.legend;
        EXPECT_TRUE(log.contains(row.logPart)) << row.legend;
        EXPECT_EQ(log.contains("ATTEMPT N0 IS FAILED !!!", logger::WARNING), row.attempts > 1) << row.legend;
    }
}

// A block that did not come whole is asked for again with NAK: an ACK would
// make the meter move on and the block would be lost.
TEST(Gost61107Io, FailedNextBlockIsAskedForAgainWithNak) {
    LogCapture log;
    Bytes block = withBcc(bytesOf("\x02(7)(2024-05-01,06:00:00)\r\n\x04"));
    PtyMeter meter(iecFrameSize, [&](const Bytes&, int n) {
        return n < 2 ? Bytes(block.begin(), block.end() - 2) : block;  // the first two lose their end
    });
    CConnector conn(meter.params(), PtyMeter::noLeds());
    ASSERT_TRUE(conn.open_device());
    CGost61107 p(conn, 7, "EK270");
    std::vector<uint8_t> reply;
    ASSERT_TRUE(p.SendRequest(req(6), reply));
    EXPECT_EQ(reply, block);
    EXPECT_EQ(p.values(), (std::vector<std::string>{"7", "2024-05-01,06:00:00"}));
    EXPECT_EQ(meter.requests(), (std::vector<Bytes>{{ACK}, {NAK}, {NAK}}));
}

// A read takes whatever the line has queued, so bytes behind a reply (a late
// or doubled ACK) can be in hand when the reply is done. They belong to the old
// exchange and must go with the flush, not answer the next request.
// Blocks as long as the one before are read in slices, but the reply is the same.
TEST(Gost61107Io, BytesReadAheadAreDroppedAndLongBlocksComeInSlices) {
    LogCapture log;
    Bytes value = withBcc(bytesOf("\x02" "1:180.0(12345678)\x03"));
    Bytes block = withBcc(bytesOf("\x02(7)(2024-05-01,06:00:00)(1234567.8912)(0.9978)(21.5)\r\n\x04"));
    PtyMeter meter(iecFrameSize, [&](const Bytes& r, int) {
        if (r[0] == ACK)
            return block;
        if (r.size() > 2 && r[1] == 'W')
            return Bytes();  // the write gets no answer at all
        Bytes b = value;
        b.push_back(ACK);  // a stray ACK right behind the reply
        return b;
    });
    CConnector conn(meter.params(), PtyMeter::noLeds());
    ASSERT_TRUE(conn.open_device());
    CGost61107 p(conn, 7, "EK270");
    std::vector<std::chrono::milliseconds> pauses;
    p.setSleep([&](std::chrono::milliseconds d) { pauses.push_back(d); });
    std::vector<uint8_t> reply;
    ASSERT_TRUE(p.SendRequest(req(2, "1:180.0"), reply));
    EXPECT_EQ(reply, value);
    EXPECT_FALSE(p.SendRequest(req(4, "4:171.0", "00000000"), reply));
    EXPECT_TRUE(log.contains("RECV: TIMEOUT !!! ReadAll = 0"));

    const std::chrono::milliseconds slice(8);  // eight characters at 9600 Bd
    for (int n = 0; n < 3; ++n) {
        ASSERT_TRUE(p.SendRequest(req(6), reply)) << n;
        EXPECT_EQ(reply, block) << n;
    }
    EXPECT_GE(std::count(pauses.begin(), pauses.end(), slice), 1);
    EXPECT_EQ(p.values()[0], "7");
}

TEST(Gost61107Io, BreakWaitsForNothingAndValuesAreParsed) {
    LogCapture log;
    PtyMeter meter(iecFrameSize, [](const Bytes& r, int) {
        return r[1] == 'R' ? withBcc(bytesOf("\x02" "2:300.0(1234.5678*m3)\x03")) : Bytes();
    });
    CConnector conn(meter.params(), PtyMeter::noLeds());
    ASSERT_TRUE(conn.open_device());
    CGost61107 p(conn, 7, "EK270");
    std::vector<uint8_t> reply;
    ASSERT_TRUE(p.SendRequest(req(2, "2:300.0"), reply));
    EXPECT_EQ(p.values(), std::vector<std::string>{"1234.5678*m3"});
    p.setExpectedReply(0, 0);
    EXPECT_TRUE(p.SendRequest(req(5), reply));
    EXPECT_TRUE(log.contains("receive('Test Request'): will not wait response"));
}

TEST(Gost61107Io, ChangeBaudRateReopensThePort) {
    LogCapture log;
    PtyMeter meter(iecFrameSize, [](const Bytes&, int) { return Bytes(); });
    CConnector conn(meter.params(), PtyMeter::noLeds());
    ASSERT_TRUE(conn.open_device());
    CGost61107 p(conn, 7, "EK270");

    EXPECT_TRUE(p.ChangeBaudRate('5'));
    EXPECT_TRUE(log.contains("CURRENT BAUD RATE 9600 == DESIRED BAUD RATE 9600. NO ACTION."));
    EXPECT_TRUE(p.ChangeBaudRate('6'));
    EXPECT_EQ(conn.settings().speed, 19200);
    EXPECT_TRUE(log.contains("CGost61107::ChangeSpeed() - CHANGE BAUD RATE FROM 9600 TO 19200 - Ok"));
    int fd = ::open(meter.path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    struct termios tio {};
    ASSERT_EQ(tcgetattr(fd, &tio), 0);
    EXPECT_EQ(cfgetospeed(&tio), static_cast<speed_t>(B19200));
    ::close(fd);

    EXPECT_TRUE(p.ChangeBaudRate('9'));
    EXPECT_TRUE(log.contains("SpeedSymbolToBaudRate('9') - UNKNOWN SPEED SYMBOL !!! WILL RETURN 0."));
    EXPECT_TRUE(log.contains("UNKNOWN SPEED SYMBOL '9'. CHANGING IS IMPOSSIBLE"));
    EXPECT_EQ(conn.settings().speed, 19200);
    conn.setSpeed(0);
    EXPECT_TRUE(p.ChangeBaudRate(4800));
    EXPECT_TRUE(log.contains("ZERO DEVICE BAUD RATE. CHANGING IS IMPOSSIBLE"));
}

}  // namespace
