// SPDX-License-Identifier: Apache-2.0
#include "transport/CRSConnector.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <termios.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "TransportTestSupport.h"
#include "transport/CConnector.h"

namespace {

using namespace mtdtest;
using Clock = std::chrono::steady_clock;

long elapsedMs(Clock::time_point since) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

const char* const kCycleTimeout = "CRSConnector::ReadBufferCycle - Timeout receiving data.";

class RSConnectorTest : public ::testing::Test {
protected:
    PortParams paramsWith(PortParams extra) {
        extra["name"] = pty.slavePath;
        return extra;
    }
    std::unique_ptr<CRSConnector> openWith(PortParams extra) {
        auto c = std::make_unique<CRSConnector>(PortSettings::parse(paramsWith(std::move(extra))), ledsIn(dir));
        EXPECT_TRUE(c->open_device());
        return c;
    }
    termios lineSettings() const {
        termios tio{};
        EXPECT_EQ(0, tcgetattr(pty.slave.get(), &tio));
        return tio;
    }

    LogCapture log;
    TempDir dir;
    PtyPair pty;
};

// The character format, which a pseudo-terminal cannot carry (it forces CS8
// and clears PARENB), checked on the settings the port is given.
TEST(RSConnectorLine, CharacterFormatFromDataParityStop) {
    const struct {
        const char* legend;
        PortParams params;
        tcflag_t size, parity, stop;
    } rows[] = {
        {"nothing given: 8N1", {}, CS8, 0, 0},
        {"7E1", {{"data", "7"}, {"parity", "E"}, {"stop", "1"}}, CS7, PARENB, 0},
        {"8O2", {{"data", "8"}, {"parity", "O"}, {"stop", "2"}}, CS8, PARENB | PARODD, CSTOPB},
        {"7N2", {{"data", "7"}, {"parity", "N"}, {"stop", "2"}}, CS7, 0, CSTOPB},
        {"6 and 5 data bits", {{"data", "6"}}, CS6, 0, 0},
        {"5 data bits", {{"data", "5"}}, CS5, 0, 0},
        {"9 data bits give 8", {{"data", "9"}}, CS8, 0, 0},
        {"4 data bits give 8", {{"data", "4"}}, CS8, 0, 0},
        {"lower-case e is no parity", {{"data", "7"}, {"parity", "e"}}, CS7, 0, 0},
        {"lower-case o is no parity", {{"parity", "o"}}, CS8, 0, 0},
        {"stop 1.5 is one stop bit", {{"stop", "1.5"}}, CS8, 0, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.legend);
        termios tio;
        CRSConnector::lineSettings(PortSettings::parse(row.params), 5000, tio);
        EXPECT_EQ(row.size, tio.c_cflag & CSIZE);
        EXPECT_EQ(row.parity, tio.c_cflag & (PARENB | PARODD));
        EXPECT_EQ(row.stop, tio.c_cflag & CSTOPB);
        EXPECT_EQ(tcflag_t(CLOCAL | CREAD), tio.c_cflag & (CLOCAL | CREAD));
        EXPECT_EQ(0u, tio.c_iflag);
        EXPECT_EQ(0u, tio.c_lflag);
    }
}

// A pseudo-terminal keeps the odd-parity and stop-bit flags, the speed and
// VTIME: those are read back from the open port.
constexpr tcflag_t kPtyKeeps = PARODD | CSTOPB;

TEST_F(RSConnectorTest, LineSettingsFromParameters) {
    struct Row {
        const char* legend;
        PortParams params;
        speed_t speed;
        tcflag_t cflags;  // what the port asks for; see kPtyKeeps
        cc_t vtime;
    } rows[] = {
        {"defaults 8N1 9600, 5000 ms", {}, B9600, CS8, 50},
        {"9600", {{"speed", "9600"}}, B9600, CS8, 50},
        {"rate not in the table", {{"speed", "12345"}}, B9600, CS8, 50},
        {"not a number", {{"speed", "fast"}}, B9600, CS8, 50},
        {"115200", {{"speed", "115200"}}, B115200, CS8, 50},
        {"odd, two stop bits", {{"data", "8"}, {"parity", "O"}, {"stop", "2"}}, B9600, CS8 | PARENB | PARODD | CSTOPB,
         50},
        {"250 ms: VTIME 2", {{"timeout", "250"}}, B9600, CS8, 2},
        {"long time-out clamps VTIME", {{"timeout", "60000"}}, B9600, CS8, 255},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.legend);
        auto c = openWith(row.params);
        termios tio = lineSettings();
        EXPECT_EQ(row.speed, cfgetospeed(&tio));
        EXPECT_EQ(row.speed, cfgetispeed(&tio));
        EXPECT_EQ(row.cflags & kPtyKeeps, tio.c_cflag & kPtyKeeps);
        EXPECT_EQ(tcflag_t(CLOCAL | CREAD), tio.c_cflag & (CLOCAL | CREAD));
        EXPECT_EQ(row.vtime, tio.c_cc[VTIME]);
        EXPECT_EQ(0, tio.c_cc[VMIN]);
        EXPECT_EQ(0u, tio.c_lflag & (ICANON | ECHO | ISIG));
        EXPECT_EQ(0u, tio.c_oflag & OPOST);
    }
}

TEST_F(RSConnectorTest, ReadBufferReturnsWhatArrivedOrMinusOneAfterTheTimeout) {
    auto c = openWith({{"timeout", "150"}});
    pty.send({0x06, 0x30, 0x31});
    unsigned char buf[16] = {};
    EXPECT_EQ(3, c->ReadBuffer(buf, sizeof buf, true));
    EXPECT_EQ(0x31, buf[2]);

    // The line carries the wait's result and errno as it stands (a time-out leaves it alone).
    auto start = Clock::now();
    errno = EAGAIN;
    EXPECT_EQ(-1, c->ReadBuffer(buf, sizeof buf, true));
    EXPECT_GE(elapsedMs(start), 150);
    EXPECT_LT(elapsedMs(start), 1000);
    EXPECT_EQ(1, log.count(logger::ERR, "CRSConnector::ReadBuffer - Timeout receiving data. 0 - " + std::to_string(EAGAIN)));
}

// A raised abort flag ends a read long before its time-out, whether it was
// raised before the read or while it waits.
TEST_F(RSConnectorTest, AbortFlagCutsAReadShort) {
    auto c = openWith({{"timeout", "20000"}});
    std::atomic<bool> abort{true};
    c->SetAbortFlag(&abort);
    unsigned char buf[4];
    EXPECT_EQ(-1, c->ReadBuffer(buf, sizeof buf, true));
    EXPECT_EQ(1, log.count(logger::ERR, "CRSConnector::ReadBuffer - Timeout receiving data. -1 - " + std::to_string(ECANCELED)));

    abort = false;
    auto start = Clock::now();
    std::thread raise([&] { abort = true; });
    EXPECT_EQ(-1, c->ReadBufferCycle(buf, sizeof buf, true, 0));
    raise.join();
    EXPECT_LT(elapsedMs(start), 5000);

    c->SetAbortFlag(nullptr);
    pty.send({0x06});
    EXPECT_EQ(1, c->ReadBuffer(buf, sizeof buf, true));
}

TEST_F(RSConnectorTest, ReadBufferCycleCountsSilence) {
    struct Row {
        const char* legend;
        std::vector<unsigned char> sent;
        uint16_t asked;
        int lengthByteMode;
        int expected;
        bool waitsForSilence;
    } rows[] = {
        {"complete reply", {1, 2, 3, 4, 5, 6}, 6, 0, 6, false},
        {"3 bytes then silence", {1, 2, 3}, 10, 0, 3, true},
        {"nothing", {}, 10, 0, -1, true},
        {"length byte 20 allows 160: early return", {1, 2, 3, 4, 20, 6, 7, 8}, 100, 1, 8, false},
        {"same reply without the mode", {1, 2, 3, 4, 20, 6, 7, 8}, 100, 0, 8, true},
        {"length byte 0: keep reading", {1, 2, 3, 4, 0, 6, 7, 8}, 100, 1, 8, true},
        {"mode 2 is off", {1, 2, 3, 4, 20, 6, 7, 8}, 100, 2, 8, true},
        {"4 bytes are not enough for the mode", {1, 2, 3, 4}, 100, 1, 4, true},
    };
    auto c = openWith({});
    for (const auto& row : rows) {
        SCOPED_TRACE(row.legend);
        log.clear();
        c->SetLengthByteMode(row.lengthByteMode);
        if (!row.sent.empty())
            pty.send(row.sent);
        unsigned char buf[128] = {};
        auto start = Clock::now();
        EXPECT_EQ(row.expected, c->ReadBufferCycle(buf, row.asked, false, 150));
        if (row.waitsForSilence) {
            EXPECT_GE(elapsedMs(start), 150);
            EXPECT_EQ(1, log.count(logger::ERR, kCycleTimeout));
        } else {
            EXPECT_LT(elapsedMs(start), 150);
            EXPECT_EQ(0, log.count(logger::ERR, kCycleTimeout));
        }
        if (row.expected > 0) {
            EXPECT_TRUE(std::equal(row.sent.begin(), row.sent.end(), buf));
        }
    }
}

TEST_F(RSConnectorTest, ReadBufferCycleRestartsTheSilenceTimeoutForEveryChunk) {
    auto c = openWith({{"timeout", "300"}});  // 0 below: the connector's read time-out
    pty.send({1, 2, 3});
    // The second chunk comes 200 ms after the first. A call-wide time-out would
    // end the call at 300 ms; restarted before every wait it ends 300 ms after
    // the second chunk.
    std::thread late([this] {
        std::this_thread::sleep_until(Clock::now() + std::chrono::milliseconds(200));
        pty.send({4, 5, 6});
    });
    unsigned char buf[16] = {};
    auto start = Clock::now();
    int got = c->ReadBufferCycle(buf, 10, false, 0);
    late.join();
    EXPECT_EQ(6, got);
    EXPECT_GE(elapsedMs(start), 200 + 300);
}

TEST_F(RSConnectorTest, WriteFlushDrainAndTheTransmitLed) {
    auto c = openWith({});
    FileWatch tx(dir / "led_tx");
    const unsigned char frame[] = {0x2F, 0x3F, 0x21, 0x0D, 0x0A};
    EXPECT_EQ(5, c->WriteBuffer(frame, sizeof frame, true));
    EXPECT_EQ(0, c->DrainOutput());
    EXPECT_EQ(std::vector<unsigned char>(frame, frame + 5), pty.receive(5));
    EXPECT_TRUE(tx.waitContents("010", std::chrono::seconds(2)));

    pty.send({9, 9, 9});
    // The pty hands the bytes over asynchronously: wait until the line holds them.
    pollfd p{pty.slave.get(), POLLIN, 0};
    ASSERT_EQ(1, ::poll(&p, 1, 1000));
    EXPECT_EQ(0, c->FlushBuffers());
    c->SetTimeout(100);
    unsigned char buf[8];
    EXPECT_EQ(-1, c->ReadBuffer(buf, sizeof buf, false));
}

TEST_F(RSConnectorTest, OpenFailureAndClosedPort) {
    PortParams params{{"name", dir / "no_such_tty"}, {"timeout", "5000"}};
    CRSConnector c(PortSettings::parse(params), ledsIn(dir));
    EXPECT_FALSE(c.open_device());
    EXPECT_FALSE(c.is_open());
    EXPECT_EQ(1, log.count(logger::CRIT, "CRSConnector::open_device - Unable open device " + params["name"] + "."));

    // A closed port answers at once, without waiting for the 5 s time-out.
    unsigned char buf[4];
    auto start = Clock::now();
    EXPECT_EQ(-1, c.ReadBuffer(buf, sizeof buf, false));
    EXPECT_EQ(-1, c.ReadBufferCycle(buf, sizeof buf, false, 0));
    EXPECT_EQ(-1, c.WriteBuffer(buf, sizeof buf, false));
    EXPECT_LT(elapsedMs(start), 1000);

    c.close_device();
    c.close_device();
    EXPECT_FALSE(c.is_open());
}

TEST_F(RSConnectorTest, CloseTwiceThenReopen) {
    auto c = openWith({});
    EXPECT_TRUE(c->is_open());
    c->close_device();
    c->close_device();
    EXPECT_FALSE(c->is_open());
    EXPECT_TRUE(c->open_device());
    EXPECT_TRUE(c->is_open());
}

TEST_F(RSConnectorTest, ConnectorChoosesTheTransportAndReopensAtANewSpeed) {
    struct Row {
        const char* protocol;
        bool modbus;
    } rows[] = {{nullptr, false}, {"", false}, {"Modbus", false}, {"iec", false}, {"modbus", true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.protocol ? row.protocol : "(absent)");
        log.clear();
        PortParams params = paramsWith({});
        if (row.protocol)
            params["protocol"] = row.protocol;
        CConnector c(params, ledsIn(dir));
        EXPECT_EQ(row.modbus, c.modbus() != nullptr);
        EXPECT_EQ(row.modbus ? 1 : 0, log.count(logger::DEBUG, "The CConnector is created in the \"Modbus\" mode."));
        EXPECT_EQ(row.modbus ? 0 : 1, log.count(logger::DEBUG, "The CConnector is created in as simple UART."));
    }

    CConnector c(paramsWith({{"speed", "9600"}}), ledsIn(dir));
    ASSERT_TRUE(c.open_device());
    EXPECT_EQ(9600, c.settings().speed);
    c.setSpeed(19200);
    c.close_device();
    ASSERT_TRUE(c.open_device());
    termios tio = lineSettings();
    EXPECT_EQ(B19200, cfgetospeed(&tio));
    EXPECT_EQ(19200, c.settings().speed);
}

}  // namespace

// "name" comes from the host configuration: only a terminal is opened, and a
// file given instead is never written to. A link to the port is fine.
TEST_F(RSConnectorTest, OpensOnlyATerminal) {
    const std::string state = dir / "state.last";
    {
        std::ofstream(state) << "1700000000\n";
    }
    const std::string fifo = dir / "fifo";
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    for (const std::string& path : {state, fifo, std::string("/dev/null")}) {
        SCOPED_TRACE(path);
        log.clear();
        CRSConnector c(PortSettings::parse({{"name", path}}), ledsIn(dir));
        EXPECT_FALSE(c.open_device());
        EXPECT_FALSE(c.open_device());  // the base retries every second: one line, not one a second
        EXPECT_FALSE(c.is_open());
        const unsigned char signOn[] = {'/', '?', '!', '\r', '\n'};
        EXPECT_EQ(-1, c.WriteBuffer(signOn, sizeof signOn, false));
        EXPECT_EQ(1, log.count(logger::ERR, "CRSConnector::open_device - " + path + " is not a serial port"));
    }
    EXPECT_EQ("1700000000\n", readFile(state));

    const std::string link = dir / "by-id-link";
    ASSERT_EQ(0, ::symlink(pty.slavePath.c_str(), link.c_str()));
    CRSConnector viaLink(PortSettings::parse({{"name", link}}), ledsIn(dir));
    EXPECT_TRUE(viaLink.open_device());
}

// A meter that sends one byte just inside the silence time-out: the reply is
// cut off after its deadline (twice the time-out plus the bytes' line time),
// whether it is read in one call or byte by byte as the Logika layers do.
TEST_F(RSConnectorTest, TricklingReplyIsCutOff) {
    auto c = openWith({{"speed", "9600"}, {"timeout", "200"}});
    std::atomic<bool> stop{false};
    std::thread trickle([&] {
        // 150 ms apart: always inside the 200 ms silence time-out.
        for (auto next = Clock::now(); !stop.load(); next += std::chrono::milliseconds(150)) {
            std::this_thread::sleep_until(next);
            pty.send({0x55});
        }
    });
    const unsigned char request[] = {0x10, 0x01};
    unsigned char buf[64];

    // 2 x 200 ms + (2 + 64) bytes x 4 x 1.15 ms = about 700 ms.
    ASSERT_EQ(2, c->WriteBuffer(request, sizeof request, false));
    auto start = Clock::now();
    const int got = c->ReadBufferCycle(buf, sizeof buf, false, 0);
    const long cycleMs = elapsedMs(start);
    EXPECT_GT(got, 0);
    EXPECT_LT(got, 10);

    // Byte by byte, until the first failed read.
    ASSERT_EQ(2, c->WriteBuffer(request, sizeof request, false));
    start = Clock::now();
    int bytes = 0;
    while (c->ReadBuffer(buf, 1, false) == 1 && bytes < 1000)
        ++bytes;
    const long byteMs = elapsedMs(start);
    stop.store(true);
    trickle.join();

    EXPECT_GE(cycleMs, 400);
    EXPECT_LT(cycleMs, 1500);
    EXPECT_LT(byteMs, 1500);
    EXPECT_LT(bytes, 10);
    EXPECT_EQ(2, log.count(logger::ERR, "CRSConnector - reply too slow for the line, cut off"));
}
