// SPDX-License-Identifier: Apache-2.0
#include "transport/CModbusConnectorItself.h"

#include <gtest/gtest.h>
#include <modbus.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <thread>

#include "TransportTestSupport.h"

namespace {

using namespace mtdtest;
using std::chrono::milliseconds;

constexpr int kSlave = 1;
constexpr int kRegisters = 64;

// A libmodbus RTU slave on the master end of the pseudo-terminal, in a thread
// of the test. It ends when the line hangs up (every slave-side fd closed).
class ModbusSlave {
public:
    explicit ModbusSlave(int masterFd)
        : m_ctx(modbus_new_rtu("/dev/null", 9600, 'N', 8, 1)),
          m_map(modbus_mapping_new(0, 0, kRegisters, kRegisters)) {
        modbus_set_socket(m_ctx, masterFd);
        modbus_set_slave(m_ctx, kSlave);
        for (int i = 0; i < kRegisters; ++i)
            m_map->tab_input_registers[i] = static_cast<uint16_t>(0x1000 + i);
        m_thread = std::thread([this] { serve(); });
    }
    ~ModbusSlave() {
        join();
        modbus_set_socket(m_ctx, -1);  // the pty master belongs to the test
        modbus_free(m_ctx);
        modbus_mapping_free(m_map);
    }
    void join() {
        if (m_thread.joinable())
            m_thread.join();
    }
    int requests() const { return m_requests.load(); }
    uint16_t holding(int i) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_map->tab_registers[i];
    }
    void setHolding(int i, uint16_t v) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_map->tab_registers[i] = v;
    }

private:
    void serve() {
        uint8_t query[MODBUS_RTU_MAX_ADU_LENGTH];
        for (;;) {
            int rc = modbus_receive(m_ctx, query);
            if (rc > 0) {
                ++m_requests;
                std::lock_guard<std::mutex> lock(m_mutex);
                modbus_reply(m_ctx, query, rc, m_map);
            } else if (rc == -1 && (errno == EIO || errno == EBADF)) {
                return;
            }
        }
    }
    modbus_t* m_ctx;
    modbus_mapping_t* m_map;
    std::mutex m_mutex;
    std::atomic<int> m_requests{0};
    std::thread m_thread;
};

class ModbusConnectorTest : public ::testing::Test {
protected:
    void SetUp() override {
        log.log().setLevel(logger::INFO);  // libmodbus stays quiet below debug
        modbus = std::make_unique<CModbusConnectorItself>(
            PortSettings::parse({{"protocol", "modbus"}, {"name", pty.slavePath}, {"timeout", "100"}}), ledsIn(dir));
        ASSERT_TRUE(modbus->open_device());
        slave = std::make_unique<ModbusSlave>(pty.master.get());
    }
    void TearDown() override {
        modbus.reset();
        pty.slave.reset();  // last slave-side fd: the slave thread sees the hang-up
        slave.reset();
    }

    LogCapture log;
    TempDir dir;
    PtyPair pty;
    std::unique_ptr<CModbusConnectorItself> modbus;
    std::unique_ptr<ModbusSlave> slave;
};

TEST_F(ModbusConnectorTest, EveryTransactionAgainstARealSlave) {
    EXPECT_EQ(1, modbus->WriteRegister(kSlave, 5, 0x1234, false));
    EXPECT_EQ(0x1234, slave->holding(5));

    const uint16_t words[] = {0x0A0B, 0x0C0D, 0x0E0F};
    EXPECT_EQ(3, modbus->WriteRegisters(kSlave, 10, 3, words, false));

    uint16_t got[8] = {};
    EXPECT_EQ(3, modbus->ReadHoldingRegisters(kSlave, 10, 3, got, false));
    EXPECT_EQ(0x0C0D, got[1]);

    EXPECT_EQ(2, modbus->ReadInputRegisters(kSlave, 4, 2, got, false));
    EXPECT_EQ(0x1005, got[1]);

    const uint16_t more[] = {7, 8};
    EXPECT_EQ(3, modbus->WriteAndReadRegisters(kSlave, 20, 2, more, 19, 3, got, false));
    EXPECT_EQ(0u, got[0]);
    EXPECT_EQ(8u, got[2]);

    uint8_t id[64] = {};
    int idLength = modbus->ReportSlaveId(kSlave, sizeof id, id, false);
    ASSERT_GT(idLength, 5);
    EXPECT_EQ(0xFF, id[1]);  // libmodbus's slave: its id byte, run indicator on, "LMB" and its version
    EXPECT_EQ("LMB", std::string(reinterpret_cast<char*>(id) + 2, 3));

    // Read holding register 10 as a raw PDU; the confirmation replaces the request.
    slave->setHolding(10, 0xBEEF);
    uint8_t raw[CModbusConnectorItself::kMaxAdu] = {kSlave, 0x03, 0x00, 0x0A, 0x00, 0x01};
    ASSERT_EQ(7, modbus->RawRequest(kSlave, raw, 6, false));  // address, function, count, 2 bytes, CRC
    EXPECT_EQ(0x03, raw[1]);
    EXPECT_EQ(2, raw[2]);
    EXPECT_EQ(0xBE, raw[3]);
    EXPECT_EQ(0xEF, raw[4]);

    // A confirmation that does not fit the caller's buffer is refused.
    uint8_t small[CModbusConnectorItself::kMaxAdu] = {kSlave, 0x03, 0x00, 0x0A, 0x00, 0x01};
    EXPECT_EQ(-1, modbus->RawRequest(kSlave, small, 6, false, 4));

    // The slave's exception reply: register beyond its map.
    EXPECT_EQ(-1, modbus->ReadHoldingRegisters(kSlave, kRegisters, 1, got, false));
    EXPECT_EQ(EMBXILADD, errno);
    EXPECT_EQ(9, slave->requests());
}

TEST_F(ModbusConnectorTest, InvalidSlaveIdSendsNothingAndDoesNotBlink) {
    FileWatch tx(dir / "led_tx");
    uint16_t got[2];
    EXPECT_EQ(-1, modbus->ReadHoldingRegisters(248, 0, 1, got, true));
    EXPECT_EQ(-1, modbus->ReadHoldingRegisters(-1, 0, 1, got, true));
    EXPECT_FALSE(tx.changesWithin(milliseconds(50)));
    // The next valid request is the first the slave sees.
    EXPECT_EQ(1, modbus->ReadHoldingRegisters(kSlave, 0, 1, got, true));
    EXPECT_EQ(1, slave->requests());
    EXPECT_TRUE(tx.waitContents("010", milliseconds(2000)));
}

TEST_F(ModbusConnectorTest, SilentSlaveTimesOutAfterTheResponseTimeout) {
    uint16_t got[2];
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, modbus->ReadHoldingRegisters(kSlave + 1, 0, 1, got, false));  // nobody answers id 2
    EXPECT_EQ(ETIMEDOUT, errno);
    auto ms = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GE(ms, 200);  // response time-out = 2 x 100 ms
    EXPECT_LT(ms, 2000);
}

TEST(ModbusConnector, TimeoutFigures) {
    TempDir dir;
    PtyPair pty;
    struct Row {
        const char* legend;
        const char* timeout;  // nullptr: parameter absent
        uint32_t setAfterOpen;  // 0: none
        CModbusConnectorItself::LibTimeouts want;
    } rows[] = {
        {"default 60000 ms", nullptr, 0, {60, 0, 120, 0}},
        {"1500 ms", "1500", 0, {1, 500000, 3, 0}},
        {"SetTimeout(250)", "1500", 250, {0, 250000, 0, 500000}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.legend);
        PortParams params{{"name", pty.slavePath}};
        if (row.timeout)
            params["timeout"] = row.timeout;
        CModbusConnectorItself c(PortSettings::parse(params), ledsIn(dir));
        CModbusConnectorItself::LibTimeouts t;
        EXPECT_FALSE(c.ReadBackTimeouts(t));
        ASSERT_TRUE(c.open_device());
        if (row.setAfterOpen)
            c.SetTimeout(row.setAfterOpen);
        ASSERT_TRUE(c.ReadBackTimeouts(t));
        EXPECT_EQ(row.want.byteSec, t.byteSec);
        EXPECT_EQ(row.want.byteUsec, t.byteUsec);
        EXPECT_EQ(row.want.responseSec, t.responseSec);
        EXPECT_EQ(row.want.responseUsec, t.responseUsec);
    }
}

// libmodbus prints its frames on standard output in debug mode.
std::string stdoutOfRequestAtLevel(int level) {
    TempDir dir;
    PtyPair pty;
    LogCapture log;
    log.log().setLevel(level);
    CModbusConnectorItself c(PortSettings::parse({{"name", pty.slavePath}, {"timeout", "100"}}), ledsIn(dir));
    std::fflush(stdout);
    CUniqueFd saved(dup(STDOUT_FILENO));
    CUniqueFd capture(::open((dir / "stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    dup2(capture.get(), STDOUT_FILENO);
    if (c.open_device()) {
        uint16_t got[1];
        c.ReadHoldingRegisters(kSlave, 0, 1, got, false);  // nobody answers: a time-out
    }
    std::fflush(stdout);
    dup2(saved.get(), STDOUT_FILENO);
    return readFile(dir / "stdout");
}

TEST(ModbusConnector, LibraryDebugOutputOnlyAtLevel7) {
    EXPECT_EQ("", stdoutOfRequestAtLevel(logger::INFO));
    EXPECT_NE(std::string::npos, stdoutOfRequestAtLevel(logger::DEBUG).find("[01][03]"));
}

TEST(ModbusConnector, OpenFailureAndClosedContext) {
    TempDir dir;
    LogCapture log;
    const std::string path = dir / "no_such_tty";
    CModbusConnectorItself c(PortSettings::parse({{"name", path}}), ledsIn(dir));
    EXPECT_FALSE(c.open_device());
    EXPECT_FALSE(c.is_open());
    EXPECT_EQ(1, log.count(logger::CRIT, "CModbusConnectorItself::open_device - Connection failed. Unable to open device " +
                                             path + "."));

    CModbusConnectorItself empty(PortSettings::parse({{"name", ""}}), ledsIn(dir));
    EXPECT_FALSE(empty.open_device());
    EXPECT_EQ(1, log.count(logger::CRIT,
                           "CModbusConnectorItself::open_device - Unable to allocate libmodbus context and open device ."));

    uint16_t got[1];
    unsigned char bytes[4] = {};
    EXPECT_EQ(-1, c.ReadHoldingRegisters(kSlave, 0, 1, got, true));
    EXPECT_EQ(-1, c.FlushBuffers());
    EXPECT_EQ(-1, c.WriteBuffer(bytes, sizeof bytes, true));
    EXPECT_EQ(-1, c.ReadBufferCycle(bytes, sizeof bytes, true, 0));
    c.close_device();
    c.close_device();
}

}  // namespace
