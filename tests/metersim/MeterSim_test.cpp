// SPDX-License-Identifier: Apache-2.0
// The IEC 61107 master against the simulated volume corrector.
#include "tools/metersim/CMeterSim.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "protocols/CGost61107.h"
#include "protocols/Crc16Arc.h"
#include "core/logger.h"
#include "transport/CConnector.h"

namespace {

constexpr std::time_t kStart = 1714558500;  // 2024-05-01,10:15:00

struct Session {
    CMeterSim sim;
    std::unique_ptr<CConnector> conn;
    std::unique_ptr<CGost61107> master;
    std::vector<uint8_t> reply;

    explicit Session(SMeterSimConfig cfg) : sim(std::move(cfg)) {
        EXPECT_TRUE(sim.open());
        EXPECT_TRUE(sim.start());
        LedPaths leds;
        leds.transmit = leds.receive = "/nonexistent-mtd-test/led";
        conn = std::make_unique<CConnector>(
            PortParams{{"name", sim.slavePath()}, {"speed", "9600"}, {"timeout", "300"}, {"data", "7"}, {"parity", "E"}},
            leds);
        EXPECT_TRUE(conn->open_device());
        master = std::make_unique<CGost61107>(*conn, 1, "EK270");
    }
    bool send(uint32_t kind, const std::string& address = "", const std::string& data = "") {
        SGost61107Request r;
        r.name = address.empty() ? "request" : address;
        r.kind = kind;
        r.address = address;
        r.data = data;
        return master->SendRequest(r, reply);
    }
    std::vector<std::string> values() const { return master->values(); }
};

SMeterSimConfig fastConfig() {
    SMeterSimConfig cfg;
    cfg.timing = false;
    cfg.now = kStart;
    cfg.archiveDays = 2;
    return cfg;
}

speed_t ttySpeed(int fd) {
    struct termios tio {};
    tcgetattr(fd, &tio);
    return cfgetospeed(&tio);
}

TEST(MeterSim, SessionLocksAndBaudChangeOnBothEnds) {
    Session s(fastConfig());
    ASSERT_TRUE(s.send(SGost61107Request::SignOn));
    EXPECT_EQ(std::string(s.reply.begin(), s.reply.end()), "/EKM6EK270\r\n");
    s.master->setSpeedSymbol('6');
    ASSERT_TRUE(s.send(SGost61107Request::OptionSelect));
    EXPECT_EQ(s.values(), std::vector<std::string>{"12345678"});
    ASSERT_TRUE(s.master->ChangeBaudRate('6'));
    // The meter switches once its answer is out, which the master may have
    // read a moment before: wait for the switch, boundedly.
    for (int i = 0; i < 400 && s.sim.currentBaud() != 19200; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(s.sim.currentBaud(), 19200);
    EXPECT_EQ(ttySpeed(s.sim.masterFd()), static_cast<speed_t>(B19200));
    int slave = ::open(s.sim.slavePath().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(slave, 0);
    EXPECT_EQ(ttySpeed(slave), static_cast<speed_t>(B19200));
    ::close(slave);

    ASSERT_TRUE(s.send(SGost61107Request::ReadR1, "1:180.0"));
    EXPECT_EQ(s.values(), std::vector<std::string>{"12345678"});
    ASSERT_TRUE(s.send(SGost61107Request::ReadR1, "1:400.0"));
    EXPECT_EQ(s.values(), std::vector<std::string>{"2024-05-01,10:15:00"});

    // Passport writes wait for the supplier lock; a wrong password is an error block.
    ASSERT_TRUE(s.send(SGost61107Request::WriteW1, "11:314.1", "0.7"));
    EXPECT_EQ(s.reply.front(), 0x02);
    ASSERT_TRUE(s.send(SGost61107Request::WriteW1, "3:171.0", "bad"));
    EXPECT_EQ(std::string(s.reply.begin(), s.reply.end() - 1), "\x02" "3:171.0(#0018)\x03");
    ASSERT_TRUE(s.send(SGost61107Request::ReadR1, "3:170.0"));
    EXPECT_EQ(s.values(), std::vector<std::string>{"0"});
    ASSERT_TRUE(s.send(SGost61107Request::WriteW1, "3:171.0", "11111111"));
    EXPECT_EQ(s.reply, std::vector<uint8_t>{0x06});
    ASSERT_TRUE(s.send(SGost61107Request::ReadR1, "3:170.0"));
    EXPECT_EQ(s.values(), std::vector<std::string>{"1"});
    ASSERT_TRUE(s.send(SGost61107Request::WriteW1, "11:314.1", "0.7"));
    EXPECT_EQ(s.reply, std::vector<uint8_t>{0x06});
    EXPECT_EQ(s.sim.registerValue("11:314.0"), "0.7");

    // The break ends the session: back to the line's own speed, locks closed.
    s.master->setExpectedReply(0, 0);
    ASSERT_TRUE(s.send(SGost61107Request::Break));
    ASSERT_TRUE(s.master->ChangeBaudRate(9600));
    ASSERT_TRUE(s.send(SGost61107Request::SignOn));
    EXPECT_EQ(s.sim.currentBaud(), 9600);
    EXPECT_EQ(s.sim.registerValue("3:170.0"), "0");
}

TEST(MeterSim, ArchiveBlocksCarryCheckedRecords) {
    Session s(fastConfig());
    ASSERT_TRUE(s.send(SGost61107Request::SignOn));
    ASSERT_TRUE(s.send(SGost61107Request::OptionSelect));
    ASSERT_TRUE(s.send(SGost61107Request::ReadR3, "3:V.2"));
    EXPECT_EQ(s.values().size(), 15u);
    ASSERT_TRUE(s.send(SGost61107Request::ReadR3, "4:V.3"));
    EXPECT_EQ(s.values(), std::vector<std::string>{"#0013"});

    ASSERT_TRUE(s.send(SGost61107Request::ReadR3, "3:V.0", "3;2024-05-01,00:00:00;2024-05-01,12:00:00;4"));
    std::vector<std::string> all;
    int blocks = 1;
    auto endByte = [&] { return s.reply[s.reply.size() - 2]; };
    while (endByte() == 0x04) {
        for (auto& v : s.values())
            all.push_back(v);
        ASSERT_TRUE(s.send(SGost61107Request::Acknowledge));
        ++blocks;
    }
    EXPECT_EQ(endByte(), 0x03);
    for (auto& v : s.values())
        all.push_back(v);
    // 00:00 .. 10:00 (the device clock is at 10:15): 11 records, 15 fields each, 4 per block.
    ASSERT_EQ(all.size(), 11u * 15u);
    EXPECT_EQ(blocks, 3);
    EXPECT_EQ(all[2], "2024-05-01,00:00:00");
    EXPECT_EQ(all[10 * 15 + 2], "2024-05-01,10:00:00");
    for (size_t r = 0; r < 11; ++r) {
        std::string text;
        for (size_t f = 0; f < 14; ++f)
            text += "(" + all[r * 15 + f] + ")";
        EXPECT_EQ(Crc16Arc::hex(text), all[r * 15 + 14]) << r;
    }
    // The same window gives the same records.
    EXPECT_EQ(s.sim.archiveRecords(3, kStart - 3600, kStart), s.sim.archiveRecords(3, kStart - 3600, kStart));
}

TEST(MeterSim, InjectedFaults) {
    struct Row {
        const char* legend;
        void (*tune)(SMeterSimConfig&);
        bool signOn, options, readSerial;
        const char* serial;
    } rows[] = {
        {"error code instead of a value", [](SMeterSimConfig& c) { c.errorRegisters = {"1:180.0"}; }, true, true, true,
         "#0001"},
        {"corrupted BCC of the option reply", [](SMeterSimConfig& c) { c.badBccEvery = 2; }, true, false, false, ""},
        {"silent after two requests", [](SMeterSimConfig& c) { c.silentAfter = 2; }, true, true, false, ""},
        {"silent for three requests, then back", [](SMeterSimConfig& c) {
             c.silentAfter = 2;
             c.silentCount = 3;
         }, true, true, true, "12345678"},
    };
    for (const auto& row : rows) {
        SMeterSimConfig cfg = fastConfig();
        row.tune(cfg);
        Session s(cfg);
        EXPECT_EQ(s.send(SGost61107Request::SignOn), row.signOn) << row.legend;
        EXPECT_EQ(s.send(SGost61107Request::OptionSelect), row.options) << row.legend;
        if (!row.options)
            continue;
        bool ok = s.send(SGost61107Request::ReadR1, "1:180.0");
        if (!ok && row.readSerial)  // three attempts lost in the silence; the next request gets through
            ok = s.send(SGost61107Request::ReadR1, "1:180.0");
        EXPECT_EQ(ok, row.readSerial) << row.legend;
        if (ok) {
            EXPECT_EQ(s.values(), std::vector<std::string>{row.serial}) << row.legend;
        }
    }
}

TEST(MeterSim, LineTimingFollowsTheBaudRate) {
    SMeterSimConfig cfg = fastConfig();
    cfg.timing = true;
    cfg.baud = 1200;
    Session s(cfg);
    s.conn->setSpeed(1200);
    ASSERT_TRUE(s.send(SGost61107Request::SignOn));
    s.master->setSpeedSymbol('2');
    ASSERT_TRUE(s.send(SGost61107Request::OptionSelect));
    auto t0 = std::chrono::steady_clock::now();
    ASSERT_TRUE(s.send(SGost61107Request::ReadR3, "3:V.2"));
    auto took = std::chrono::steady_clock::now() - t0;
    // 82 bytes with the check byte, 10 bits each at 1200 Bd: 683 ms on a real line.
    EXPECT_EQ(s.reply.size(), 82u);
    EXPECT_GE(took, std::chrono::milliseconds(650));
}

}  // namespace
