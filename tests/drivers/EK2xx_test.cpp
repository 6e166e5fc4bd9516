// SPDX-License-Identifier: Apache-2.0
// The EK2xx/TC2xx driver's device operations against the simulated corrector.
#include "drivers/ek2xx/CmtdEK2xxTC2xx.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/Exceptions.h"
#include "support/ArchiveCollector.h"
#include "support/DriverRig.h"
#include "storage/GasFileConnector.h"
#include "core/logger.h"
#include "tools/metersim/CMeterSim.h"
#include "transport/CConnector.h"

namespace {

constexpr std::time_t kStart = 1714558500;  // 2024-05-01,10:15:00 on the device clock (UTC)

class Log {
public:
    Log() : m_log("/dev/null", false) {
        m_log.setLevel(logger::DEBUG);
        m_log.setObserver([this](int, const std::string& text) {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (std::getenv("MTD_TEST_LOG"))
                std::fprintf(stderr, "%s\n", text.c_str());
            m_lines.push_back(text);
        });
        m_previous = g_logger;
        g_logger = &m_log;
    }
    ~Log() { g_logger = m_previous; }
    int count(const std::string& part) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        int n = 0;
        for (const auto& l : m_lines)
            n += l.find(part) != std::string::npos;
        return n;
    }

private:
    logger m_log;
    logger* m_previous;
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

struct Rig {
    Log log;
    std::string dir;
    CMeterSim sim;
    std::unique_ptr<CConnector> conn;
    CmtdEK2xxTC2xx driver;

    Rig(SMeterSimConfig cfg, int model, const std::string& serial = "12345678", const ConfigMap& extra = {},
        const std::string& timeoutMs = "300")
        : sim([&] {
              cfg.timing = false;
              cfg.now = kStart;
              cfg.archiveDays = 2;
              cfg.clockScale = 1e-9;  // the device clock stands still
              return cfg;
          }()),
          driver(model) {
        char tmpl[] = "/tmp/mtd_ek2xx_XXXXXX";
        dir = mkdtemp(tmpl);
        EXPECT_TRUE(sim.open());
        EXPECT_TRUE(sim.start());
        LedPaths leds;
        leds.transmit = leds.receive = dir + "/led";
        PortParams port{{"name", sim.slavePath()}, {"speed", "9600"}, {"timeout", timeoutMs}};
        conn = std::make_unique<CConnector>(port, leds);
        EXPECT_TRUE(conn->open_device());
        CDeviceConfig config;
        config.meter_id = "42";
        config.params = {{"speed", "9600"}, {"systems", "3;"}, {"manufacturer", "ek270"}};
        for (const auto& kv : extra)
            config.params[kv.first] = kv.second;
        config.speed = 9600;
        config.password1 = "00000000";
        config.password2 = "11111111";
        config.serial_text = serial;
        driver.save_init_params(config);
        DriverPaths paths;
        paths.controlDir = dir + "/";
        paths.storageRoot = dir + "/storage/";
        driver.setPaths(paths);
        driver.SaveConnector(conn.get());
    }
    ~Rig() {
        driver.StopPolling();
        std::system(("rm -rf '" + dir + "'").c_str());
    }
    // The protocol's pauses between send and reply, skipped (the simulator answers at once).
    void noPauses() { driver.protocol()->setSleep([](std::chrono::milliseconds) {}); }
    // Runs the driver's polling thread on a clock standing at the device's start time.
    // `pauses`: keep the protocol's pauses, so frames reach the simulator one by
    // one (the queue flushed before each send could otherwise cut one short).
    void startThread(bool pauses = false) {
        std::system(("mkdir -p '" + dir + "/storage'").c_str());
        driver.setClock(std::make_shared<test_support::StillClock>(kStart));
        if (!pauses)
            noPauses();
        driver.Start();
    }
    bool runCycle() {
        driver.GiveTurn();
        return driver.WaitTurnReturned(std::chrono::seconds(60));
    }
    // The simulator's count of session ends once it has taken in what was sent.
    int breaksSeen(int expected) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (sim.breaksSeen() < expected && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        return sim.breaksSeen();
    }
    time_t lastStored(int type) {
        return GasFileConnector("42", dir + "/storage/", dir + "/").GetLastTimestamp(type);
    }
};

std::map<std::string, CValueRecord> byName(const std::vector<CValueRecord>& v) {
    std::map<std::string, CValueRecord> m;
    for (const auto& r : v)
        m[r.name] = r;
    return m;
}

std::vector<std::string> names(const std::vector<CValueRecord>& v) {
    std::vector<std::string> out;
    for (const auto& r : v)
        out.push_back(r.name);
    return out;
}

TEST(EK2xx, Ek270SessionSystemAndCurrentValues) {
    SMeterSimConfig cfg;
    cfg.maxSpeedSymbol = '6';
    cfg.errorRegisters = {"12:314.0"};
    Rig rig(cfg, CmtdEK2xxTC2xx::EK270);
    ASSERT_TRUE(rig.driver.init());
    EXPECT_EQ(rig.conn->settings().speed, 19200);
    EXPECT_EQ(rig.sim.currentBaud(), 19200);
    EXPECT_EQ(rig.sim.registerValue("4:170.0"), "1");

    auto sys = byName(rig.driver.get_all_system_values());
    EXPECT_EQ(sys["SerialNumber"].value, "12345678");
    EXPECT_EQ(sys["RateHour"].value, "6");
    EXPECT_EQ(sys["ArchivePeriod"].value, "60");
    EXPECT_EQ(sys["KcMode"].value, "2");

    auto cur = rig.driver.get_all_curtime_cur_integ_values();
    EXPECT_EQ(names(cur), (std::vector<std::string>{"DateTime", "Vstd", "Vw", "Vstd.crash", "Vw.crash", "Vstd.sum",
                                                    "Vw.sum", "T", "P", "Kcorr", "Kcomp", "PassT", "PassP", "PassCO2",
                                                    "PassN2", "PassS"}));
    auto m = byName(cur);
    EXPECT_EQ(m["DateTime"].value, "2024-05-01,10:15:00");
    EXPECT_EQ(m["DateTime"].timestamp, kStart);
    EXPECT_EQ(m["Vstd"].dim, "m3");
    EXPECT_EQ(m["T"].dim, "grad");
    EXPECT_EQ(m["T"].value, "12.34");
    EXPECT_EQ(m["P"].dim, "kgs/sm2 (atm)");
    EXPECT_NEAR(std::stod(m["P"].value), 1.7 * 1.0197162, 1e-4);  // 1.7 bar
    EXPECT_EQ(m["Kcorr"].dim, "");
    EXPECT_EQ(m["PassCO2"].dim, "procent");
    EXPECT_EQ(m["Vstd"].quality, 192);
    EXPECT_EQ(m["Vstd"].sys, "3");
    EXPECT_EQ(rig.log.count("DEVICE RETURNS ERROR CODE '#0001' !!!"), 1);
    EXPECT_EQ(rig.log.count(">>> CAN'T GET CURRENT PARAMETER 'Read PassH2'"), 1);
}

TEST(EK2xx, ArchivesInWindowWithCheckedRecordsAndEvents) {
    Rig rig(SMeterSimConfig(), CmtdEK2xxTC2xx::EK270);
    ASSERT_TRUE(rig.driver.init());
    rig.driver.get_all_system_values();

    std::vector<ArchiveRecord> hourly;
    test_support::readArchive(rig.driver, ARCH_HOURLY, kStart - 5 * 3600, kStart + 3600, hourly);
    ASSERT_EQ(hourly.size(), 5u);  // 06:00 .. 10:00; the end is clipped to the device time
    EXPECT_EQ(hourly.front().timestamp, kStart - 4 * 3600 - 900);
    EXPECT_EQ(hourly.back().timestamp, kStart - 900);
    EXPECT_EQ(hourly[0].sys, 3);
    ASSERT_EQ(hourly[0].fields.size(), 15u);
    EXPECT_EQ(hourly[0].fields[2].first, "DateTime");
    EXPECT_EQ(hourly[0].fields[14].first, "check sum");
    EXPECT_EQ(rig.log.count("end_dt = curr_dt because end_dt > curr_dt"), 1);
    EXPECT_EQ(rig.log.count("stop by device !!!"), 1);

    std::vector<ArchiveRecord> daily;
    test_support::readArchive(rig.driver, ARCH_DAILY, kStart - 2 * 86400, kStart, daily);
    ASSERT_EQ(daily.size(), 2u);
    EXPECT_EQ(daily.back().timestamp, kStart - 4 * 3600 - 900);  // 06:00, the rate hour

    std::vector<ArchiveRecord> events;
    test_support::readArchive(rig.driver, ARCH_JOURNAL_EVENT, kStart - 2 * 86400, kStart, events);
    ASSERT_FALSE(events.empty());
    for (const auto& e : events) {
        ASSERT_EQ(e.fields.size(), 8u);
        EXPECT_EQ(e.fields[3].first, "Event");
    }
    EXPECT_EQ(rig.log.count("this archive doen't support units !!!"), 1);

    std::vector<ArchiveRecord> none;
    test_support::readArchive(rig.driver, ARCH_JOURNAL_INTERVENT, kStart - 86400, kStart, none);
    EXPECT_TRUE(none.empty());
    EXPECT_EQ(rig.log.count("ARCHIVE TYPE 3 (Journal_Intervent_JSONRPC) NOT SUPPORTED !!!"), 1);
}

// Every timestamp of `records` once and one period after the other.
void expectWhole(const std::vector<ArchiveRecord>& records, size_t count, time_t period, const char* legend) {
    ASSERT_EQ(records.size(), count) << legend;
    for (size_t i = 1; i < records.size(); ++i)
        EXPECT_EQ(records[i].timestamp, records[i - 1].timestamp + period) << legend << " at " << i;
}

// One fault on the line (or in what the meter heard) during an hourly transfer
// of one record per block: the master NAKs what did not come whole, takes a
// repeated block once, and reads again from the last good record after a hole.
TEST(EK2xx, LineFaultsInAnArchiveTransferLoseAndRepeatNothing) {
    using F = CLineFaults;
    const struct {
        const char* legend;
        std::map<int, int> faults;
        const char* logPart;
        int model = CmtdEK2xxTC2xx::EK270;
    } rows[] = {
        {"end byte lost", {{3, F::LostEndByte}}, "Send: <NACK>"},
        {"block cut short", {{3, F::Truncated}}, "Send: <NACK>"},
        {"block lost, the meter moved on", {{3, F::NoAnswer}}, "Send: <NACK>"},
        {"ACK garbled, the NAK brings the last block again", {{3, F::IgnoredRequest}}, "is here already"},
        {"a byte changed", {{3, F::ChangedByte}}, "ATTEMPT N0 IS FAILED"},
        // Usually a failed attempt; taken as it is when the byte is there by the time it is looked for.
        {"check byte late", {{3, F::LateCheck}}, ""},
        {"noise before the block", {{3, F::Noise}}, "Recv #1: 1ST MUST BE"},
        {"lost three times running", {{3, F::NoAnswer}, {4, F::NoAnswer}, {5, F::NoAnswer}}, "read again from"},
        {"ACK heard twice, a block skipped", {{3, SMeterSimConfig::kHeardTwice}}, "HOLE IN THE ARCHIVE BEFORE RECORD"},
        {"TC220: ten records skipped", {{2, SMeterSimConfig::kHeardTwice}}, "HOLE IN THE ARCHIVE BEFORE RECORD",
         CmtdEK2xxTC2xx::TC220},
    };
    for (const auto& row : rows) {
        SMeterSimConfig cfg;
        cfg.blockFaults = row.faults;
        cfg.archiveDays = 3;
        if (row.model == CmtdEK2xxTC2xx::TC220)
            cfg.model = "TC220";
        Rig rig(cfg, row.model);
        ASSERT_TRUE(rig.driver.init()) << row.legend;
        rig.driver.get_all_system_values();
        std::vector<ArchiveRecord> hourly;
        const time_t from = kStart - 900 - 29 * 3600;
        test_support::readArchive(rig.driver, ARCH_HOURLY, from, kStart, hourly);
        expectWhole(hourly, 30, 3600, row.legend);
        if (!hourly.empty()) {
            EXPECT_EQ(hourly.front().timestamp, from) << row.legend;
        }
        EXPECT_GE(rig.log.count(row.logPart), 1) << row.legend;
        EXPECT_EQ(rig.log.count("ARCHIVE TRANSFER BROKEN"), 0) << row.legend;
    }
}

// Journal entries come in pairs sharing a second; a code nobody can read is
// kept; a line that stays dead ends the read with whole seconds only.
TEST(EK2xx, JournalKeepsOddCodesAndWholeSecondsOnABrokenLine) {
    {
        SMeterSimConfig cfg;
        cfg.oddEventCodeEvery = 3;
        Rig rig(cfg, CmtdEK2xxTC2xx::EK270);
        ASSERT_TRUE(rig.driver.init());
        std::vector<ArchiveRecord> events;
        test_support::readArchive(rig.driver, ARCH_JOURNAL_EVENT, kStart - 2 * 86400, kStart, events);
        ASSERT_EQ(events.size(), rig.sim.archiveRecords(4, kStart - 2 * 86400, kStart).size());
        int odd = 0;
        for (const auto& e : events) {
            if (e.fields[3].second == "0x8G01") {
                ++odd;
                EXPECT_EQ(e.fields[5].second, "unknown");
            }
        }
        EXPECT_EQ(odd, rig.log.count("WRONG EVENT CODE = '0x8G01'"));
        EXPECT_GE(odd, 2);
    }
    SMeterSimConfig cfg;
    for (int block = 4; block < 40; ++block)
        cfg.blockFaults[block] = CLineFaults::NoAnswer;
    Rig rig(cfg, CmtdEK2xxTC2xx::EK270);
    ASSERT_TRUE(rig.driver.init());
    std::vector<ArchiveRecord> events;
    test_support::readArchive(rig.driver, ARCH_JOURNAL_EVENT, kStart - 2 * 86400, kStart, events);
    EXPECT_EQ(rig.log.count("ARCHIVE TRANSFER BROKEN"), 1);
    ASSERT_EQ(events.size(), 2u);  // the third entry's partner never came
    EXPECT_EQ(events[0].timestamp, events[1].timestamp);
}

// A meter that never sends its last block is not acknowledged for ever, and
// a stop is honoured between blocks.
TEST(EK2xx, TransferIsBoundedAndStopsBetweenBlocks) {
    {
        SMeterSimConfig cfg;
        cfg.endlessArchive = true;
        Rig rig(cfg, CmtdEK2xxTC2xx::EK270);
        ASSERT_TRUE(rig.driver.init());
        std::vector<ArchiveRecord> hourly;
        test_support::readArchive(rig.driver, ARCH_HOURLY, kStart - 900 - 4 * 3600, kStart, hourly);
        expectWhole(hourly, 5, 3600, "endless");
        EXPECT_EQ(rig.log.count("MORE THAN 15 BLOCKS FOR THIS WINDOW - TRANSFER STOPPED !!!"), 1);
    }
    // A stop in the middle of a long transfer ends it within a block, with
    // what came whole kept and nothing logged as broken.
    SMeterSimConfig cfg;
    cfg.endlessArchive = true;
    Rig rig(cfg, CmtdEK2xxTC2xx::EK270);
    ASSERT_TRUE(rig.driver.init());
    const int before = rig.sim.requestsSeen();
    std::thread stopper([&] {
        while (rig.sim.requestsSeen() < before + 6)
            std::this_thread::yield();
        rig.driver.StopPolling();
    });
    std::vector<ArchiveRecord> hourly;
    test_support::readArchive(rig.driver, ARCH_HOURLY, kStart - 900 - 400 * 3600, kStart, hourly);
    stopper.join();
    ASSERT_FALSE(hourly.empty());
    EXPECT_LT(hourly.size(), 100u);
    EXPECT_EQ(rig.log.count("MORE THAN"), 0);
    EXPECT_EQ(rig.log.count("ARCHIVE TRANSFER BROKEN"), 0);
}

TEST(EK2xx, WrongSerialThrowsAndTc220HasItsOwnTable) {
    {
        Rig rig(SMeterSimConfig(), CmtdEK2xxTC2xx::EK260, "99999999");
        ASSERT_TRUE(rig.driver.init());
        EXPECT_THROW(rig.driver.get_all_system_values(), CWrongPacketException);
        EXPECT_EQ(rig.log.count("READ SERIAL '12345678' != GIVEN SERIAL '99999999'"), 1);
    }
    SMeterSimConfig cfg;
    cfg.model = "TC220";
    cfg.pressureUnit = "kPa";
    Rig rig(cfg, CmtdEK2xxTC2xx::TC220);
    ASSERT_TRUE(rig.driver.init());
    rig.driver.get_all_system_values();
    auto cur = rig.driver.get_all_curtime_cur_integ_values();
    EXPECT_EQ(names(cur), (std::vector<std::string>{"DateTime", "Vstd", "Vw", "Vstd.crash", "Vw.crash", "T", "P",
                                                    "Kcorr", "Kcomp", "PassT", "PassP", "PassCO2", "PassH2", "PassN2",
                                                    "PassS"}));
    EXPECT_NEAR(std::stod(byName(cur)["P"].value), 170.0 * 0.0101972, 1e-3);
    std::vector<ArchiveRecord> hourly, daily;
    test_support::readArchive(rig.driver, ARCH_HOURLY, kStart - 3 * 3600, kStart, hourly);
    ASSERT_EQ(hourly.size(), 3u);
    EXPECT_EQ(hourly[0].fields.size(), 11u);
    test_support::readArchive(rig.driver, ARCH_DAILY, kStart - 3 * 86400, kStart, daily);
    EXPECT_TRUE(daily.empty());  // a TC2xx archives hourly or daily, this one hourly
}

TEST(EK2xx, GasPassportWrittenBehindTheSupplierLock) {
    Rig rig(SMeterSimConfig(), CmtdEK2xxTC2xx::EK270);
    std::ofstream(rig.dir + "/gmd_set_value_42") << R"({"PassCO2": "0.8", "PassP": "1.0332"})";
    ASSERT_TRUE(rig.driver.init());
    rig.driver.get_all_system_values();
    rig.driver.writeGasPasport();
    EXPECT_EQ(rig.sim.registerValue("11:314.0"), "0.8");
    EXPECT_NEAR(std::stod(rig.sim.registerValue("7:314_1.0")), 1.0332 / 1.0197162, 1e-4);  // bar
    EXPECT_EQ(rig.log.count("CAN'T WRITE"), 0);
    EXPECT_EQ(rig.sim.registerValue("3:170.0"), "1");
}

// A device that keeps no event journal (its headers come back as an error
// code): the daily and hourly archives are still read and stored, and the
// cycle ends with the session closed.
TEST(EK2xx, DeviceWithoutOneArchiveStillReadsTheOthersAndClosesTheSession) {
    SMeterSimConfig cfg;
    cfg.errorRegisters = {"4:V.2"};
    Rig rig(cfg, CmtdEK2xxTC2xx::EK270);
    rig.startThread();
    ASSERT_TRUE(rig.runCycle());
    EXPECT_TRUE(rig.driver.CycleDone());
    EXPECT_EQ(rig.lastStored(ARCH_DAILY), kStart - 4 * 3600 - 900);   // today's 06:00
    EXPECT_EQ(rig.lastStored(ARCH_HOURLY), kStart - 900);             // 10:00
    EXPECT_EQ(rig.lastStored(ARCH_JOURNAL_EVENT), 0);
    EXPECT_EQ(rig.log.count("CAN'T READ Journal_Event_JSONRPC HEADERS, ARCHIVE SKIPPED"), 1);
    EXPECT_EQ(rig.breaksSeen(1), 1);
    EXPECT_EQ(rig.sim.registerValue("4:170.0"), "0");
}

// A stop while the meter keeps the driver waiting for an answer: the read is
// cut short, the session is closed, and the stop does not sit out the 20 s
// read time-out (three attempts of it).
TEST(EK2xx, StopInTheMiddleOfACycleClosesTheSessionPromptly) {
    SMeterSimConfig cfg;
    cfg.silentAfter = 5;  // the sixth request and its two repeats go unanswered
    cfg.silentCount = 3;
    Rig rig(cfg, CmtdEK2xxTC2xx::EK270, "12345678", {}, "20000");
    rig.startThread(true);
    rig.driver.GiveTurn();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (rig.sim.requestsSeen() < 6 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    ASSERT_GE(rig.sim.requestsSeen(), 6);
    const auto stopAt = std::chrono::steady_clock::now();
    rig.driver.StopPolling();
    EXPECT_LT(std::chrono::steady_clock::now() - stopAt, std::chrono::seconds(10));
    EXPECT_EQ(rig.breaksSeen(1), 1);
}

// The passport is written only in a K calculation mode that uses it (EK270:
// 2 or 7, EK260: 2 or 1); otherwise nothing reaches the device, and the
// request file is removed all the same.
TEST(EK2xx, PassportWriteFollowsTheKCalculationMode) {
    const struct {
        int model;
        const char* simModel;
        int kMode;
        bool written;
        const char* line;
    } rows[] = {
        {CmtdEK2xxTC2xx::EK270, "EK270", 3, false, "EK270 - NO GAS PASSPORT IN _KcMode = 3. Must be 2 or 7."},
        {CmtdEK2xxTC2xx::EK270, "EK270", 7, true, nullptr},
        {CmtdEK2xxTC2xx::EK260, "EK260", 1, true, nullptr},
        {CmtdEK2xxTC2xx::EK260, "EK260", 7, false, "EK260 - NO GAS PASSPORT IN _KcMode = 7. Must be 2 or 1."},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.simModel) + " mode " + std::to_string(row.kMode));
        SMeterSimConfig cfg;
        cfg.model = row.simModel;
        cfg.kMode = row.kMode;
        Rig rig(cfg, row.model);
        rig.noPauses();
        const std::string before = rig.sim.registerValue("11:314.0");
        std::ofstream(rig.dir + "/gmd_set_value_42") << R"({"PassCO2": "0.8"})";
        ASSERT_TRUE(rig.driver.init());
        rig.driver.get_all_system_values();
        rig.driver.writeGasPasport();
        EXPECT_EQ(rig.sim.registerValue("11:314.0"), row.written ? "0.8" : before);
        EXPECT_EQ(rig.sim.registerValue("3:170.0"), row.written ? "1" : "0");
        if (row.line) {
            EXPECT_EQ(rig.log.count(std::string("writeGasPasport() - ") + row.line), 1);
        }
        EXPECT_FALSE(std::ifstream(rig.dir + "/gmd_set_value_42").good());
    }
}

// A supplier lock check that gets no answer says nothing about that lock: the
// consumer lock's "0" earlier in the session must not make the driver send the
// supplier password.
TEST(EK2xx, SupplierPasswordOnlyForASupplierLockReportedClosed) {
    SMeterSimConfig cfg;
    cfg.silentAfter = 11;  // sign-on .. K mode answered, then silence for the supplier check
    Rig rig(cfg, CmtdEK2xxTC2xx::EK270);
    rig.noPauses();
    std::ofstream(rig.dir + "/gmd_set_value_42") << R"({"PassCO2": "0.8"})";
    ASSERT_TRUE(rig.driver.init());
    EXPECT_EQ(rig.log.count("lock status = '0'"), 1);  // the consumer lock, then opened with its password
    rig.driver.get_all_system_values();
    rig.driver.writeGasPasport();
    EXPECT_EQ(rig.log.count("CAN'T OPEN SUPPLIER LOCK"), 1);
    EXPECT_EQ(rig.log.count("send('Write Supplier Password')"), 0);
}

// The device clock runs on local time (pu_TZ hours east of UTC): its readings
// become Unix times by taking the offset off, and archive windows go to the
// device with it added.
TEST(EK2xx, MeterTimeZoneOffsetBothWays) {
    for (int tz : {3, -5}) {
        SCOPED_TRACE("pu_TZ " + std::to_string(tz));
        const time_t offset = static_cast<time_t>(tz) * 3600;
        Rig rig(SMeterSimConfig(), CmtdEK2xxTC2xx::EK270, "12345678", {{"pu_TZ", std::to_string(tz)}});
        rig.noPauses();
        ASSERT_TRUE(rig.driver.init());
        auto cur = byName(rig.driver.get_all_curtime_cur_integ_values());
        EXPECT_EQ(cur["DateTime"].value, "2024-05-01,10:15:00");
        EXPECT_EQ(cur["DateTime"].timestamp, kStart - offset);

        // 07:00 .. 09:00 on the device clock, asked for in Unix time.
        std::vector<ArchiveRecord> hourly;
        test_support::readArchive(rig.driver, ARCH_HOURLY, kStart - 900 - 3 * 3600 - offset, kStart - 900 - 3600 - offset, hourly);
        ASSERT_EQ(hourly.size(), 3u);
        EXPECT_EQ(hourly.front().timestamp, kStart - 900 - 3 * 3600 - offset);
        EXPECT_EQ(hourly.back().timestamp, kStart - 900 - 3600 - offset);
        EXPECT_EQ(rig.log.count("is out of"), 0);  // the device sent only what was asked for
    }
}

}  // namespace
