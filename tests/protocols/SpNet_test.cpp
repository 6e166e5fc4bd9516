// SPDX-License-Identifier: Apache-2.0
#include "protocols/SpNet.h"

#include <gtest/gtest.h>

#include <ctime>

#include "LogikaTestKit.h"
#include "protocols/Crc16.h"

using logika_test::Bytes;
using logika_test::LogCapture;
using logika_test::PtyMeter;

namespace {

// Request ends with DLE ETX and two CRC bytes.
size_t spFrameSize(const Bytes& f) {
    for (size_t i = 6; i < f.size(); ++i)
        if (f[i - 1] == 0x10 && f[i] == 0x03)
            return i + 3;
    return 0;
}

// DLE SOH DLE ISI fn DLE STX text DLE ETX crc
Bytes spReply(uint8_t fn, const std::string& text) {
    Bytes r = {0x10, 0x01, 0x10, 0x1F, fn, 0x10, 0x02};
    for (char c : text)
        r.push_back(static_cast<uint8_t>(c));
    r.push_back(0x10);
    r.push_back(0x03);
    uint16_t crc = Crc16::xmodem(r.data() + 2, r.size() - 2);
    r.push_back(static_cast<uint8_t>(crc >> 8));
    r.push_back(static_cast<uint8_t>(crc & 0xFF));
    return r;
}

LogikaRequest readParam() { return LogikaRequest{"pressure", SpNet::kFnReadParam, 0, 0, {0, 65, 0, 0}}; }

struct Line {
    LogCapture log;
    PtyMeter meter;
    CConnector conn;
    SpNet::CSpNet sp;
    explicit Line(PtyMeter::Respond respond)
        : meter(spFrameSize, std::move(respond)), conn(meter.params(), PtyMeter::noLeds()), sp(conn, 5, "spg741") {
        EXPECT_TRUE(conn.open_device());
    }
};

Bytes frameOf(const SpNet::CSpNet& sp) { return Bytes(sp.sendBuffer(), sp.sendBuffer() + sp.sendLength()); }

}  // namespace

TEST(SpNetPacket, Frames) {
    PortParams none{{"name", "/nonexistent"}};
    CConnector conn(none, PtyMeter::noLeds());
    SpNet::CSpNet sp(conn, 5, "spg741");

    ASSERT_TRUE(sp.makePacket(readParam()));
    Bytes f = frameOf(sp);
    ASSERT_EQ(18u, f.size());
    EXPECT_EQ((Bytes{0x10, 0x01, 0x10, 0x1F, 0x1D, 0x10, 0x02, 0x09, '0', 0x09, '0', '6', '5', 0x0C, 0x10, 0x03}),
              Bytes(f.begin(), f.begin() + 16));
    uint16_t crc = Crc16::xmodem(f.data() + 2, 14);
    EXPECT_EQ(crc, f[16] << 8 | f[17]);

    LogikaRequest array{"totals", SpNet::kFnReadArray, 0, 0, {1, 160, 7, 3}};
    ASSERT_TRUE(sp.makePacket(array));
    f = frameOf(sp);
    ASSERT_EQ(23u, f.size());
    EXPECT_EQ((Bytes{0x09, '1', 0x09, '1', '6', '0', 0x09, '0', '7', 0x09, '3', 0x0C, 0x10, 0x03}),
              Bytes(f.begin() + 7, f.begin() + 21));

    struct tm a {};
    a.tm_year = 125, a.tm_mon = 0, a.tm_mday = 2, a.tm_hour = 3, a.tm_min = 4, a.tm_sec = 5, a.tm_isdst = -1;
    uint32_t t = static_cast<uint32_t>(mktime(&a));
    LogikaRequest arch{"daily", SpNet::kFnReadArchive, 0, 0, {0, 65, t, t + 86400}};
    ASSERT_TRUE(sp.makePacket(arch));
    f = frameOf(sp);
    ASSERT_EQ(60u, f.size());
    EXPECT_EQ("<FF><HT>02<HT>01<HT>2025<HT>03<HT>04<HT>05<FF><HT>03<HT>01<HT>2025<HT>03<HT>04<HT>05<FF><DLE><ETX>",
              SpNet::CSpNet::printable(f.data() + 13, 45));
    crc = Crc16::xmodem(f.data() + 2, 56);
    EXPECT_EQ(crc, f[58] << 8 | f[59]);

    // the slice functions: the column list of an archive, the slice at a time
    LogikaRequest columns{"columns", SpNet::kFnReadTableDescriptor, 0, 0, {0, 65, 0, 0}};
    ASSERT_TRUE(sp.makePacket(columns));
    EXPECT_EQ("<DLE><SOH><DLE><ISI><19><DLE><STX><HT>0<HT>065<FF><DLE><ETX>",
              SpNet::CSpNet::printable(sp.sendBuffer(), sp.sendLength() - 2));
    LogikaRequest row{"slice", SpNet::kFnReadTableRow, 0, 0, {0, 66, t, 0}};
    ASSERT_TRUE(sp.makePacket(row));
    f = frameOf(sp);
    EXPECT_EQ("<DLE><SOH><DLE><ISI><18><DLE><STX><HT>0<HT>066<FF><HT>02<HT>01<HT>2025<HT>03<HT>04<HT>05<FF><DLE><ETX>",
              SpNet::CSpNet::printable(f.data(), f.size() - 2));
    EXPECT_EQ(Crc16::xmodem(f.data() + 2, f.size() - 4), f[f.size() - 2] << 8 | f.back());

    // an unknown function leaves the frame as it was
    LogCapture log;
    LogikaRequest bad{"bogus", 0x1E, 0, 0, {}};
    EXPECT_FALSE(sp.makePacket(bad));
    EXPECT_EQ(f, frameOf(sp));
    EXPECT_TRUE(log.contains("[5][spg741] SpNet::makePacket('bogus') - WRONG FUNCTION 0x1E", logger::ERR));
}

TEST(SpNetLine, GoodReplyWithEtxInTheHead) {
    // the reply function of a parameter read is 0x03 itself, at byte 4
    Line line([](const Bytes&, int) { return spReply(0x03, "\t0\t065\x0c\t12.5\tkPa\x0c"); });
    ASSERT_TRUE(line.sp.SendRequest(readParam()));
    EXPECT_EQ(spReply(0x03, "\t0\t065\x0c\t12.5\tkPa\x0c"),
              Bytes(line.sp.reply(), line.sp.reply() + line.sp.replyLength()));
    EXPECT_EQ(1u, line.meter.requests().size());
    EXPECT_TRUE(line.log.contains(
        "[5][spg741] CSpNet::SendRequest('pressure'): Send: <DLE><SOH><DLE><ISI><1D><DLE><STX><HT>0<HT>065<FF>"));
}

TEST(SpNetLine, BadReplyIsRetriedWithoutPause) {
    struct {
        const char* legend;
        Bytes first;
        const char* message;
    } rows[] = {
        {"function", spReply(0x14, "\t1\x0c"),
         "[5][spg741] CSpNet::SendRequest(pressure) - WRONG RESPONSE FUNCTION: WAIT 0x03, BUT GOT 0x14"},
        {"crc", [] { Bytes r = spReply(0x03, "\t1\x0c"); r.back() ^= 0x40; return r; }(),
         "[5][spg741] CSpNet::SendRequest(pressure) - WRONG CRC: WAIT = 0x"},
        {"no crc", [] { Bytes r = spReply(0x03, "\t1\x0c"); r.pop_back(); return r; }(),
         "[5][spg741] CSpNet::SendRequest(pressure) - CAN'T GET CRC"},
        {"silence", Bytes{0x10, 0x01}, "[5][spg741] CSpNet::SendRequest(pressure) - RECEIVING TIMEOUT"},
        {"overflow", Bytes(8200, 'x'), "[5][spg741] CSpNet::SendRequest(pressure) - OVERFLOW RESPONSE BUFFER"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.legend);
        Line line([&](const Bytes&, int index) { return index == 0 ? row.first : spReply(0x03, "\t1\x0c"); });
        EXPECT_TRUE(line.sp.SendRequest(readParam()));
        EXPECT_TRUE(line.log.contains(row.message, logger::ERR));
        EXPECT_TRUE(line.log.contains("[5][spg741] SpNet::SendRequest('pressure') - WRONG ATTEMPT N 0", logger::WARNING));
        EXPECT_EQ(2u, line.meter.requests().size());
    }
}

TEST(SpNetLine, SliceRepliesAndRepliesLongerThan4KiB) {
    // 0x19 is answered with 0x21, 0x18 with 0x20; a journal reply may run to about 5500 bytes
    const std::string big = "\t0\t096\f" + std::string(5600, '1') + "\f";
    Line line([&](const Bytes& req, int) {
        return req[4] == 0x19 ? spReply(0x21, "\t0\t065\f") : req[4] == 0x18 ? spReply(0x20, "\t0\t065\f") : spReply(0x16, big);
    });
    EXPECT_TRUE(line.sp.SendRequest(LogikaRequest{"columns", SpNet::kFnReadTableDescriptor, 0, 0, {0, 65, 0, 0}}));
    EXPECT_TRUE(line.sp.SendRequest(LogikaRequest{"slice", SpNet::kFnReadTableRow, 0, 0, {0, 65, 0, 0}}));
    ASSERT_TRUE(line.sp.SendRequest(LogikaRequest{"journal", SpNet::kFnReadArchive, 0, 0, {0, 96, 0, 0}}));
    EXPECT_EQ(spReply(0x16, big), Bytes(line.sp.reply(), line.sp.reply() + line.sp.replyLength()));
    EXPECT_EQ(3u, line.meter.requests().size());
}

TEST(SpNetLine, ThreeFailuresGiveUp) {
    Line line([](const Bytes&, int) { return spReply(0x16, "\t1\x0c"); });
    EXPECT_FALSE(line.sp.SendRequest(readParam()));
    EXPECT_EQ(3u, line.meter.requests().size());
    EXPECT_TRUE(line.log.contains("WRONG ATTEMPT N 2"));
    EXPECT_TRUE(line.log.contains("[5][spg741] SpNet::SendRequest('pressure'): CAN'T SEND REQUEST !!!", logger::ERR));
}

TEST(SpNetLog, LongFramesAreCutIntoShortLines) {
    Line line([&](const Bytes&, int) { return spReply(0x16, std::string(40, '\t')); });
    LogikaRequest arch{"daily", SpNet::kFnReadArchive, 0, 0, {0, 65, 0, 0}};
    ASSERT_TRUE(line.sp.SendRequest(arch));
    std::string sent, received;
    int sendLines = 0;
    for (const auto& l : line.log.lines()) {
        for (auto [tag, text] : {std::pair<const char*, std::string*>{"): Send: ", &sent}, {"): Recv: ", &received}}) {
            auto pos = l.find(tag);
            if (pos == std::string::npos)
                continue;
            std::string chunk = l.substr(pos + 9);
            EXPECT_LE(chunk.size(), 75u) << l;
            *text += chunk;
            sendLines += text == &sent;
        }
    }
    EXPECT_GE(sendLines, 2);
    EXPECT_EQ(SpNet::CSpNet::printable(line.sp.sendBuffer(), line.sp.sendLength()), sent);
    EXPECT_EQ(SpNet::CSpNet::printable(line.sp.reply(), line.sp.replyLength()), received);
}
