// SPDX-License-Identifier: Apache-2.0
#include "protocols/M4.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "LogikaTestKit.h"
#include "core/Exceptions.h"
#include "protocols/Crc16.h"

using logika_test::Bytes;
using logika_test::FakePause;
using logika_test::LogCapture;
using logika_test::PtyMeter;
using namespace std::chrono_literals;

namespace {

constexpr uint8_t kNT = 0x07;

// Length of the request at the start of `f` (0 while unknown).
size_t m4FrameSize(const Bytes& f) {
    if (f.empty())
        return 0;
    if (f[0] == 0xFF)
        return 20;  // wake-up
    if (f.size() < 3)
        return 0;
    if (f[2] == 0x3F)
        return 9;
    if (f.size() < 7)
        return 0;
    return 7u + (f[5] | f[6] << 8) + 2u;
}

Bytes m4Reply(uint8_t nt, uint8_t id, const Bytes& body) {
    Bytes r(7 + body.size());
    r[0] = 0x10, r[1] = nt, r[2] = 0x90, r[3] = id, r[4] = 0x00;
    r[5] = static_cast<uint8_t>(body.size() & 0xFF);
    r[6] = static_cast<uint8_t>(body.size() >> 8);
    std::copy(body.begin(), body.end(), r.begin() + 7);
    uint16_t crc = Crc16::xmodem(r.data() + 1, r.size() - 1);
    r.push_back(static_cast<uint8_t>(crc >> 8));
    r.push_back(static_cast<uint8_t>(crc & 0xFF));
    return r;
}

Bytes sessionReply(uint8_t nt) {
    Bytes r = {0x10, nt, 0x3F, 0x00, 0x00, 0x00, 0x00, 0x00};
    r[6] = static_cast<uint8_t>(~(nt + 0x3F));
    return r;
}

LogikaRequest readParam(uint16_t param = 0x0123) {
    LogikaRequest r;
    r.name = "volume";
    r.function = M4::kFnReadParam;
    r.channel = 1;
    r.param = param;
    return r;
}

// A good read-parameter answer: one float element.
const Bytes kFloatBody = {0x72, 0x43, 0x04, 0x00, 0x00, 0x80, 0x3F};

struct Line {
    LogCapture log;
    FakePause pause;
    PtyMeter meter;
    CConnector conn;
    M4::CM4 m4;
    explicit Line(PtyMeter::Respond respond)
        : meter(m4FrameSize, std::move(respond)),
          conn(meter.params(), PtyMeter::noLeds()),
          m4(conn, kNT, 42, "spg742", M4::Timing(), pause.fn()) {
        EXPECT_TRUE(conn.open_device());
    }
};

Bytes frameOf(const M4::CM4& m4) { return Bytes(m4.sendBuffer(), m4.sendBuffer() + m4.sendLength()); }

}  // namespace

TEST(M4Crc, PublishedCheckValues) {
    const char* s = "123456789";
    EXPECT_EQ(0x31C3, Crc16::xmodem(reinterpret_cast<const uint8_t*>(s), 9));
    EXPECT_EQ(0x4B37, Crc16::modbus(reinterpret_cast<const uint8_t*>(s), 9));
}

TEST(M4Packet, SessionStartCarriesTheOldChecksum) {
    LogCapture log;
    PortParams none{{"name", "/nonexistent"}};
    CConnector conn(none, PtyMeter::noLeds());
    M4::CM4 m4(conn, 0x00, 1, "m4");
    LogikaRequest r{"session", M4::kFnSessionStart, 0, 0, {}};
    ASSERT_TRUE(m4.makePacket(r));
    EXPECT_EQ((Bytes{0x10, 0x00, 0x3F, 0x00, 0x00, 0x00, 0x00, 0xC0, 0x16}), frameOf(m4));
    EXPECT_EQ(0xFF, m4.packetId());
    // Session close: the same short frame with 0x71; the identifier stays.
    ASSERT_TRUE(m4.makePacket(LogikaRequest{"close", M4::kFnSessionClose, 0, 0, {}}));
    EXPECT_EQ((Bytes{0x10, 0x00, 0x71, 0x00, 0x00, 0x00, 0x00, 0x8E, 0x16}), frameOf(m4));
    EXPECT_EQ(0xFF, m4.packetId());

    // the identifier advances by one per frame and wraps to 0x00
    ASSERT_TRUE(m4.makePacket(readParam(0x8123)));
    Bytes f = frameOf(m4);
    ASSERT_EQ(15u, f.size());
    EXPECT_EQ((Bytes{0x10, 0x00, 0x90, 0x00, 0x00, 0x06, 0x00, 0x72, 0x4A, 0x03, 0x01, 0x23, 0x01}),
              Bytes(f.begin(), f.begin() + 13));  // top bit of 0x8123 dropped
    uint16_t crc = Crc16::xmodem(f.data() + 1, 12);
    EXPECT_EQ(crc >> 8, f[13]);
    EXPECT_EQ(crc & 0xFF, f[14]);
    ASSERT_TRUE(m4.makePacket(readParam()));
    EXPECT_EQ(0x01, m4.sendBuffer()[3]);

    LogikaRequest wake{"wake", M4::kFnWakeUp, 0, 0, {}};
    ASSERT_TRUE(m4.makePacket(wake));
    EXPECT_EQ(Bytes(20, 0xFF), frameOf(m4));

    LogikaRequest bad{"bogus", 0x55, 0, 0, {}};
    EXPECT_FALSE(m4.makePacket(bad));
    EXPECT_TRUE(log.contains("[1][m4] M4::makePacket('bogus') - 0x55 UNKNOWN COMMAND !!!", logger::ERR));
}

TEST(M4Packet, ArchiveReadUsesLocalTime) {
    struct tm a {}, b {};
    a.tm_year = 124, a.tm_mon = 2, a.tm_mday = 31, a.tm_hour = 10, a.tm_min = 5, a.tm_sec = 9, a.tm_isdst = -1;
    b = a;
    b.tm_mday = 1, b.tm_mon = 3, b.tm_hour = 23;
    LogikaRequest r{"hourly", M4::kFnReadArchive, 2, 0,
                    {0x41, 0x00, static_cast<uint32_t>(mktime(&a)), static_cast<uint32_t>(mktime(&b))}};
    PortParams none{{"name", "/nonexistent"}};
    CConnector conn(none, PtyMeter::noLeds());
    M4::CM4 m4(conn, 0x03, 1, "m4");
    ASSERT_TRUE(m4.makePacket(r));
    Bytes f = frameOf(m4);
    ASSERT_EQ(33u, f.size());
    Bytes body(f.begin() + 7, f.begin() + 31);
    EXPECT_EQ((Bytes{0x61, 0x04, 0x05, 0xFF, 0xFF, 0x02, 0x41, 0x00, 0x49, 0x06, 24, 3, 31, 10, 5, 9, 0x49, 0x06, 24,
                     4, 1, 23, 5, 9}),
              body);
    EXPECT_EQ(0x18, f[5]);
    uint16_t crc = Crc16::xmodem(f.data() + 1, 30);
    EXPECT_EQ(crc, f[31] << 8 | f[32]);
}

TEST(M4Elements, LengthField) {
    struct {
        Bytes bytes;
        bool ok;
        uint32_t length;
        size_t fieldSize;
    } rows[] = {
        {{0x05}, true, 5, 1},
        {{0x7F}, true, 127, 1},
        {{0x80}, true, 128, 1},
        {{0x81, 0xC8}, true, 200, 2},
        {{0x82, 0x01, 0x00}, true, 256, 3},
        {{0x82, 0x01}, false, 0, 0},           // truncated
        {{0x85, 1, 2, 3, 4, 5}, false, 0, 0},  // longer than 32 bits
        {{}, false, 0, 0},
    };
    for (const auto& row : rows) {
        uint32_t length = 0;
        size_t fieldSize = 0;
        bool ok = M4::CM4::decodeLength(row.bytes.data(), row.bytes.size(), length, fieldSize);
        EXPECT_EQ(row.ok, ok) << testing::PrintToString(row.bytes);
        if (ok) {
            EXPECT_EQ(row.length, length);
            EXPECT_EQ(row.fieldSize, fieldSize);
        }
    }
}

TEST(M4Elements, EveryTag) {
    LogCapture log;
    PortParams none{{"name", "/nonexistent"}};
    CConnector conn(none, PtyMeter::noLeds());
    M4::CM4 m4(conn, 0, 9, "m4");
    struct {
        const char* legend;
        Bytes bytes;
        bool ok;
        std::string text;
        M4::ParamValue::Kind kind;
        double number;
    } rows[] = {
        {"null", {0x05, 0x00}, true, "! null", M4::ParamValue::None, 0},
        {"string", {0x16, 0x03, 'A', 'b', '1'}, true, "Ab1", M4::ParamValue::None, 0},
        {"container", {0x30, 0x82, 0x01, 0x00}, false, "! error", M4::ParamValue::None, 0},  // 256 bytes not there
        {"container", {0x30, 0x04, 0x41, 0x02, 0x01, 0x00}, true, "4", M4::ParamValue::Integer, 4},
        {"integer", {0x41, 0x04, 0x78, 0x56, 0x34, 0x12}, true, "305419896", M4::ParamValue::Integer, 0x12345678},
        {"float", {0x43, 0x04, 0x00, 0x00, 0xC0, 0x3F}, true, "1.500000", M4::ParamValue::Number, 1.5},
        {"int+float", {0x44, 0x08, 0x10, 0x27, 0, 0, 0x00, 0x00, 0x00, 0x3F}, true, "10000.500000",
         M4::ParamValue::Number, 10000.5},
        {"time", {0x47, 0x04, 99, 5, 7, 23}, true, "23:07:05", M4::ParamValue::DateTime, 0},
        {"date", {0x48, 0x03, 9, 12, 24}, true, "09.12.2024", M4::ParamValue::DateTime, 0},
        {"datetime", {0x49, 0x06, 24, 2, 29, 1, 2, 3}, true, "29.02.2024 01:02:03", M4::ParamValue::DateTime, 0},
        {"bits", {0x4B, 0x04, 0x01, 0x80, 0x00, 0xA0}, true, "0xA0008001", M4::ParamValue::Integer, 0xA0008001},
        {"unknown", {0x99, 0x01, 0x00}, false, "! error", M4::ParamValue::None, 0},
        // A contract hour or a unit code comes as one or two bytes; three are no integer width.
        {"1-byte integer", {0x41, 0x01, 0x09}, true, "9", M4::ParamValue::Integer, 9},
        {"2-byte integer", {0x41, 0x02, 0x01, 0x02}, true, "513", M4::ParamValue::Integer, 513},
        {"3-byte integer", {0x41, 0x03, 0x01, 0x02, 0x03}, false, "! error", M4::ParamValue::None, 0},
        // The archive's date-time: with milliseconds, cut to a month, or empty (no next record).
        {"datetime+ms", {0x49, 0x08, 24, 2, 29, 1, 2, 3, 0xE7, 0x03}, true, "29.02.2024 01:02:03",
         M4::ParamValue::DateTime, 0},
        {"year+month", {0x49, 0x02, 24, 3}, true, "01.03.2024 00:00:00", M4::ParamValue::DateTime, 0},
        {"no datetime", {0x49, 0x00}, true, "", M4::ParamValue::None, 0},
        {"value cut", {0x43, 0x04, 0x00, 0x00}, false, "! error", M4::ParamValue::None, 0},
        {"tag only", {0x43}, false, "! error", M4::ParamValue::None, 0},
    };
    for (const auto& row : rows) {
        M4::ParamValue v;
        EXPECT_EQ(row.ok, m4.GetParamValue(row.bytes.data(), row.bytes.size(), v)) << row.legend;
        EXPECT_EQ(row.text, v.text) << row.legend;
        EXPECT_EQ(row.kind, v.kind) << row.legend;
        if (row.kind == M4::ParamValue::Number) {
            EXPECT_DOUBLE_EQ(row.number, v.number) << row.legend;
        }
        if (row.kind == M4::ParamValue::Integer) {
            EXPECT_EQ(static_cast<uint32_t>(row.number), v.integer) << row.legend;
        }
        if (row.ok) {
            EXPECT_EQ(row.bytes.size(), v.size()) << row.legend;
        }
    }
    EXPECT_TRUE(log.contains("[9][m4] M4::GetParamValue(): ERROR - UNKNOWN PARAM TAG = 0x99 !", logger::ERR));

    M4::ParamValue dt;
    Bytes b = {0x49, 0x06, 24, 2, 29, 1, 2, 3};
    ASSERT_TRUE(m4.GetParamValue(b.data(), b.size(), dt));
    EXPECT_EQ(2024, dt.year);
    EXPECT_EQ(2, dt.month);
    EXPECT_EQ(29, dt.day);
    EXPECT_EQ(1, dt.hour);
    EXPECT_EQ(2, dt.minute);
    EXPECT_EQ(3, dt.second);
}

TEST(M4Line, SessionThenReadEchoesTheIdentifier) {
    Line line([](const Bytes& req, int) {
        if (req[2] == 0x3F)
            return sessionReply(kNT);
        return m4Reply(kNT, req[3], kFloatBody);
    });
    LogikaRequest session{"session", M4::kFnSessionStart, 0, 0, {}};
    ASSERT_TRUE(line.m4.SendRequest(session));
    ASSERT_TRUE(line.m4.SendRequest(readParam()));
    EXPECT_FALSE(line.m4.isError());
    EXPECT_EQ(0xFF, line.m4.errorCode());
    ASSERT_EQ(kFloatBody.size(), line.m4.bodyLength());
    M4::ParamValue v;
    ASSERT_TRUE(line.m4.GetParamValue(line.m4.body() + 1, line.m4.bodyLength() - 1, v));
    EXPECT_DOUBLE_EQ(1.0, v.number);
    auto reqs = line.meter.requests();
    ASSERT_EQ(2u, reqs.size());
    EXPECT_EQ(0x00, reqs[1][3]);
    EXPECT_EQ((std::vector<std::chrono::milliseconds>{1000ms, 1000ms}), line.pause.calls);
}

// The first reply is spoilt in one way, the second is good.
TEST(M4Line, BadReplyIsRetried) {
    struct {
        const char* legend;
        std::function<void(Bytes&)> spoil;
        const char* message;
    } rows[] = {
        {"address", [](Bytes& r) { r[1] = 0x08; r = m4Reply(0x08, r[3], Bytes(r.begin() + 7, r.end() - 2)); },
         "[42][spg742] M4::SendRequest('volume'): Recv - WRONG netAddr, WAIT 0x07, BUT GET 0x08 !!!"},
        {"id", [](Bytes& r) { r = m4Reply(kNT, r[3] + 5, Bytes(r.begin() + 7, r.end() - 2)); },
         "[42][spg742] M4::SendRequest('volume'): Recv - WRONG ID, WAIT 0x00, BUT GET 0x05 !!!"},
        {"function", [](Bytes& r) { r = m4Reply(kNT, r[3], {0x73, 0x05, 0x00}); },
         "[42][spg742] M4::SendRequest('volume'): Recv - WRONG FUNCTION, WAIT 0x72, BUT GET 0x73 !!!"},
        {"crc", [](Bytes& r) { r.back() ^= 0x01; }, "M4::SendRequest('volume'): Recv - WRONG CRC, WAIT 0x"},
        {"tail", [](Bytes& r) { r.resize(10); },
         "[42][spg742] M4::SendRequest('volume'): Tail Recv - TIMEOUT !!! WANT READ 8 BYTES, BUT GET ONLY 2 BYTES"},
        {"header", [](Bytes& r) { r.resize(5); },
         "[42][spg742] M4::SendRequest('volume'): Header Recv - CAN'T READ HEADER !!! WANT READ 8 BYTES, BUT GET "
         "ONLY 5 BYTES"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.legend);
        Line line([&](const Bytes& req, int index) {
            Bytes r = m4Reply(kNT, req[3], kFloatBody);
            if (index == 0)
                row.spoil(r);
            return r;
        });
        // the identifier starts from 0xFF, so the first frame carries 0x00
        EXPECT_TRUE(line.m4.SendRequest(readParam()));
        EXPECT_TRUE(line.log.contains(row.message, logger::ERR));
        auto reqs = line.meter.requests();
        ASSERT_EQ(2u, reqs.size());
        EXPECT_EQ(0x01, reqs[1][3]) << "a new attempt is a new frame";
        EXPECT_EQ((std::vector<std::chrono::milliseconds>{1000ms, 1000ms, 1000ms}), line.pause.calls);
    }
}

TEST(M4Line, SilentMeterGivesUpAfterThreeAttempts) {
    Line line([](const Bytes&, int) { return Bytes(); });
    EXPECT_FALSE(line.m4.SendRequest(readParam()));
    EXPECT_EQ(3u, line.meter.requests().size());
    EXPECT_TRUE(line.log.contains("WANT READ 8 BYTES, BUT GET ONLY 0 BYTES"));
    EXPECT_TRUE(line.log.contains("[42][spg742] M4::SendRequest('volume'): CAN'T SEND REQUEST !!!", logger::ERR));
    EXPECT_EQ(6u, line.pause.calls.size());
}

TEST(M4Line, SessionStartChecks) {
    struct {
        const char* legend;
        int byte;
        uint8_t value;
        bool ok;
    } rows[] = {
        {"good", 0, 0x10, true},
        {"byte 7 is not checked", 7, 0x55, true},
        {"address", 1, 0x08, false},
        {"function", 2, 0x3E, false},
        {"checksum", 6, 0x00, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.legend);
        Line line([&](const Bytes&, int) {
            Bytes r = sessionReply(kNT);
            r[row.byte] = row.value;
            return r;
        });
        LogikaRequest session{"session", M4::kFnSessionStart, 0, 0, {}};
        EXPECT_EQ(row.ok, line.m4.SendRequest(session));
        EXPECT_EQ(row.ok ? 1u : 3u, line.meter.requests().size());
        if (!row.ok) {
            EXPECT_TRUE(line.log.contains("M4::SendRequest('session'): Recv - WRONG CRC, WAIT 0x"));
        }
    }
}

TEST(M4Line, ErrorReplyWithEachCode) {
    struct {
        uint8_t code;
        const char* text;
    } rows[] = {{0, "Bad request"}, {1, "Write protection"}, {2, "Bad parameter value"},
                {255, "No any errors"}, {7, "! unknown error"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        Line line([&](const Bytes& req, int) { return m4Reply(kNT, req[3], {0x21, row.code}); });
        EXPECT_TRUE(line.m4.SendRequest(readParam()));
        EXPECT_TRUE(line.m4.isError());
        EXPECT_EQ(row.code, line.m4.errorCode());
        EXPECT_STREQ(row.text, M4::CM4::errorText(row.code));
        char expected[160];
        std::snprintf(expected, sizeof expected,
                      "[42][spg742] M4::SendRequest('volume') - GET ERROR RESPONSE WITH ERROR 0x%02x ('%s')", row.code,
                      row.text);
        EXPECT_TRUE(line.log.contains(expected, logger::WARNING));
        EXPECT_EQ(1u, line.meter.requests().size());
    }
}

TEST(M4Line, TooBigPacketThrowsAtOnce) {
    Line line([](const Bytes& req, int) { return Bytes{0x10, kNT, 0x90, req[3], 0x00, 0xF8, 0x0F, 0x72}; });
    EXPECT_THROW(line.m4.SendRequest(readParam()), CWrongPacketException);
    EXPECT_EQ(1u, line.meter.requests().size());
    EXPECT_TRUE(line.log.contains(
        "[42][spg742] M4::SendRequest('volume'): Recv - Packet is too big to fit in memory; packet size 4097, buffer "
        "size 4096"));

    // the largest packet that fits is read
    Line fits([](const Bytes& req, int) { return m4Reply(kNT, req[3], [] {
                                           Bytes body(4096 - 9, 0x00);
                                           body[0] = 0x72;
                                           return body;
                                       }()); });
    EXPECT_TRUE(fits.m4.SendRequest(readParam()));
    EXPECT_EQ(4096u, fits.m4.replyLength());
}

TEST(M4Line, WakeUpWaitsAndReadsNothing) {
    Line line([](const Bytes&, int) { return Bytes(); });
    LogikaRequest wake{"wake", M4::kFnWakeUp, 0, 0, {}};
    EXPECT_TRUE(line.m4.SendRequest(wake));
    EXPECT_EQ((std::vector<std::chrono::milliseconds>{10000ms}), line.pause.calls);
    EXPECT_FALSE(line.log.contains("CAN'T READ HEADER"));
}
