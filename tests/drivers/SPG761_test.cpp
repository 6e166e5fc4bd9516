// SPDX-License-Identifier: Apache-2.0
// The SPG761 driver against the SPbus simulator, and against a scripted meter
// for replies the simulator never sends.
#include "drivers/logika/CmtdSPG761.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "core/Exceptions.h"
#include "support/ArchiveCollector.h"
#include "protocols/Crc16.h"
#include "protocols/LogikaTestKit.h"
#include "tools/spbussim/CSpbusSim.h"
#include "transport/CConnector.h"

namespace {

using logika_test::Bytes;
constexpr std::time_t kStart = 1714558500;  // 2024-05-01 10:15:00 on the device clock

void configure(CmtdSPG761& driver, const std::string& dir, const std::string& serial) {
    CDeviceConfig config;
    config.meter_id = "761";
    config.params = {{"speed", "9600"}, {"systems", "1;"}, {"manufacturer", "spg761"}};
    config.serial_text = serial;
    driver.save_init_params(config);
    DriverPaths paths;
    paths.controlDir = dir + "/";
    paths.storageRoot = dir + "/storage/";
    driver.setPaths(paths);
}

struct Rig {
    logika_test::LogCapture log;
    std::string dir;
    CSpbusSim sim;
    std::unique_ptr<CConnector> conn;
    CmtdSPG761 driver;

    explicit Rig(SSpbusSimConfig cfg, int model = 0, const std::string& serial = "76100042")
        : sim([&] {
              cfg.timing = false;
              cfg.now = kStart;
              cfg.archiveDays = 2;
              cfg.clockScale = 1e-9;  // the device clock stands still
              return cfg;
          }()),
          driver(model) {
        char tmpl[] = "/tmp/mtd_spg761_XXXXXX";
        dir = mkdtemp(tmpl);
        EXPECT_TRUE(sim.open());
        EXPECT_TRUE(sim.start());
        conn = std::make_unique<CConnector>(
            PortParams{{"name", sim.slavePath()}, {"speed", "9600"}, {"timeout", "200"}},
            logika_test::PtyMeter::noLeds());
        EXPECT_TRUE(conn->open_device());
        configure(driver, dir, serial);
        driver.SaveConnector(conn.get());
    }
    ~Rig() { std::system(("rm -rf '" + dir + "'").c_str()); }
};

std::map<std::string, CValueRecord> byName(const std::vector<CValueRecord>& v) {
    std::map<std::string, CValueRecord> m;
    for (const auto& r : v)
        m[r.name] = r;
    return m;
}

// The records as the simulator's own dump shows them: "<time> <v1> <v2> ...".
std::vector<std::string> asDump(const std::vector<ArchiveRecord>& records) {
    std::vector<std::string> out;
    for (const auto& r : records) {
        std::string line = std::to_string(r.timestamp);
        for (size_t i = 1; i < r.fields.size(); ++i)
            line += " " + r.fields[i].second;
        out.push_back(line);
    }
    return out;
}

std::vector<std::string> simDump(const CSpbusSim& sim, int archive, std::time_t from, std::time_t to) {
    std::vector<std::string> out;
    for (const auto& r : sim.records(archive, from, to, kStart))
        out.push_back(std::to_string(r.first) + " " + r.second);
    return out;
}

TEST(SPG761, SystemAndCurrentValuesInEveryPressureUnit) {
    for (const char* unit : {"kgf/cm2", "MPa", "kPa", "bar"}) {
        SCOPED_TRACE(unit);
        SSpbusSimConfig cfg;
        cfg.pressureUnit = unit;
        cfg.model = "761.1";
        Rig rig(cfg, 1);
        ASSERT_TRUE(rig.driver.init());
        EXPECT_TRUE(rig.log.contains("SPG761 driver version 01.00, compiled:"));
        auto sys = byName(rig.driver.get_all_system_values());
        EXPECT_EQ(sys["SerialNumber"].value, "76100042");
        EXPECT_EQ(sys["MeterModel"].value, "761.1");
        EXPECT_EQ(sys["Firmware"].value, "03.01");
        EXPECT_EQ(sys["RateHour"].value, "10");
        EXPECT_EQ(sys["PassS"].value, "0.6800");
        EXPECT_EQ(sys["PassS"].dim, "kg/m3");
        EXPECT_EQ(sys["PassCO2"].value, "0.800");
        EXPECT_FALSE(rig.log.contains("METER REPORTS MODEL"));

        auto cur = byName(rig.driver.get_all_curtime_cur_integ_values());
        EXPECT_EQ(cur["DateTime"].value, "2024-05-01,10:15:00");
        EXPECT_EQ(cur["DateTime"].timestamp, kStart);
        EXPECT_EQ(cur["P"].dim, "kgs/sm2 (atm)");
        EXPECT_NEAR(std::stod(cur["P"].value), 1.6234, 2e-4);
        EXPECT_EQ(cur["T"].value, "-3.25");
        EXPECT_EQ(cur["T"].dim, "grad");
        EXPECT_EQ(cur["Vstd"].dim, "m3");
        EXPECT_EQ(cur["Qstd"].dim, "m3/h");
        EXPECT_EQ(cur["Kcorr"].value, "1.5504");
        EXPECT_EQ(cur.size(), 8u);
    }
}

TEST(SPG761, ArchivesMatchTheMeterAcrossRepliesAndWrongSerialThrows) {
    SSpbusSimConfig cfg;
    cfg.recordsPerReply = 4;
    Rig rig(cfg);
    ASSERT_TRUE(rig.driver.init());
    rig.driver.get_all_system_values();

    // 13 hours in replies of 4; the end is clipped to the device clock.
    std::vector<ArchiveRecord> hourly;
    test_support::readArchive(rig.driver, ARCH_HOURLY, kStart - 12 * 3600 - 900, kStart + 7200, hourly);
    EXPECT_EQ(asDump(hourly), simDump(rig.sim, 65, kStart - 12 * 3600 - 900, kStart));
    ASSERT_EQ(hourly.size(), 12u);
    EXPECT_EQ(hourly.back().timestamp, kStart - 3600 - 900);  // 09:00, closed at 10:00
    EXPECT_EQ(hourly[0].fields[0].first, "DateTime");
    EXPECT_EQ(hourly[0].fields[5].first, "NS");
    EXPECT_TRUE(rig.log.contains("end_dt = curr_dt because end_dt > curr_dt"));

    std::vector<ArchiveRecord> daily;
    test_support::readArchive(rig.driver, ARCH_DAILY, kStart - 3 * 86400, kStart, daily);
    EXPECT_EQ(asDump(daily), simDump(rig.sim, 66, kStart - 3 * 86400, kStart));
    ASSERT_EQ(daily.size(), 2u);  // days from the contract hour 10:00
    EXPECT_EQ(daily.back().timestamp, kStart - 86400 - 900);

    // Journal entries come in replies of 4 and may share a second: each once.
    std::vector<ArchiveRecord> events;
    test_support::readArchive(rig.driver, ARCH_JOURNAL_EVENT, kStart - 2 * 86400, kStart, events);
    EXPECT_EQ(asDump(events), simDump(rig.sim, 96, kStart - 2 * 86400, kStart));
    EXPECT_GT(events.size(), 4u);

    std::vector<ArchiveRecord> none;
    test_support::readArchive(rig.driver, ARCH_JOURNAL_INTERVENT, kStart - 86400, kStart, none);
    EXPECT_TRUE(none.empty());

    Rig wrong(SSpbusSimConfig(), 0, "99999999");
    ASSERT_TRUE(wrong.driver.init());
    EXPECT_THROW(wrong.driver.get_all_system_values(), CWrongPacketException);
    EXPECT_TRUE(wrong.log.contains("READ SERIAL '76100042' != GIVEN SERIAL '99999999'"));
}

TEST(SPG761, SilentMeterMidArchiveKeepsTheRecordsBefore) {
    SSpbusSimConfig cfg;
    cfg.recordsPerReply = 3;
    cfg.silentAfter = 6;  // init's date; date, time and rate hour; two archive replies
    Rig rig(cfg);
    ASSERT_TRUE(rig.driver.init());  // request 1
    std::vector<ArchiveRecord> hourly;
    EXPECT_THROW(test_support::readArchive(rig.driver, ARCH_HOURLY, kStart - 24 * 3600, kStart, hourly), CDisconnectException);
    EXPECT_EQ(asDump(hourly), simDump(rig.sim, 65, kStart - 24 * 3600, kStart - 18 * 3600));
}

// A meter on a script: each archive request gets the next reply body.
Bytes frame(uint8_t fn, const std::string& body) {
    const std::string head = std::string("\x10\x01\x10\x1F") + static_cast<char>(fn) + "\x10\x02";
    Bytes f(head.begin(), head.end());
    for (char c : body)
        f.push_back(static_cast<uint8_t>(c));
    f.push_back(0x10);
    f.push_back(0x03);
    const uint16_t crc = Crc16::xmodem(f.data() + 2, f.size() - 2);
    f.push_back(static_cast<uint8_t>(crc >> 8));
    f.push_back(static_cast<uint8_t>(crc));
    return f;
}

std::string rec(const char* day, const char* hour, const char* vstd = "1.5") {
    return std::string("\t") + day + "\t05\t2024\t" + hour + "\t00\t00\f\t" + vstd + "\t1.1\t1.6\t2.0\t0\f";
}

std::string event(const char* time, const char* code, const char* state) {
    return std::string("\t01\t05\t2024\t") + time + "\f\t" + code + "\t" + state + "\f";
}

// Each case: the archive replies in turn; after them (or at "") the meter is silent.
TEST(SPG761, ArchiveRepliesThatBreakTheOrderEndTheTransfer) {
    const std::string ptr = "\t1\t065\f", journal = "\t0\t096\f";
    struct Case {
        const char* legend;
        int arch;
        std::vector<std::string> replies;
        size_t kept;
        bool throws;
    } cases[] = {
        {"good then empty", ARCH_HOURLY, {ptr + rec("01", "06") + rec("01", "07"), ptr}, 2, false},
        // the good records before the break stay; nothing after it is stored
        {"record off the hour", ARCH_HOURLY, {ptr + rec("01", "06") + "\t01\t05\t2024\t07\t30\t00\f\t1\t1\t1\t1\t0\f"},
         1, true},
        {"record older than the one before", ARCH_HOURLY, {ptr + rec("01", "07") + rec("01", "06")}, 1, true},
        {"record from before the start asked for", ARCH_HOURLY, {ptr + rec("01", "06"), ptr + rec("01", "06")}, 1, true},
        {"record before the window", ARCH_HOURLY, {ptr + rec("01", "04")}, 0, true},
        {"values missing", ARCH_HOURLY, {ptr + "\t01\t05\t2024\t06\t00\t00\f\t1\t1\f"}, 0, true},
        {"time block without values", ARCH_HOURLY, {ptr + rec("01", "06") + "\t01\t05\t2024\t07\t00\t00\f"}, 0, true},
        {"pointer of another archive", ARCH_HOURLY, {"\t1\t066\f" + rec("01", "06")}, 0, true},
        {"journal entries sharing a second, then the end", ARCH_JOURNAL_EVENT,
         {journal + event("06\t10\t00", "01", "+") + event("06\t20\t00", "02", "+"),
          journal + event("06\t20\t00", "02", "+") + event("06\t20\t00", "03", "-"), journal},
         3, false},
        // a break after the reply: the second it ended in is left whole to the next cycle
        {"journal broken after a shared second", ARCH_JOURNAL_EVENT,
         {journal + event("06\t10\t00", "01", "+") + event("06\t20\t00", "02", "+")}, 1, true},
        {"journal going back in time", ARCH_JOURNAL_EVENT,
         {journal + event("06\t20\t00", "01", "+") + event("06\t10\t00", "02", "+")}, 0, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.legend);
        logika_test::LogCapture log;
        int archiveReplies = 0;
        logika_test::PtyMeter meter(
            [](const Bytes& b) -> size_t {
                for (size_t i = 7; i + 3 < b.size() + 1; ++i)
                    if (b[i - 1] == 0x10 && b[i] == 0x03)
                        return i + 3;
                return 0;
            },
            [&](const Bytes& req, int) -> Bytes {
                const std::string text(req.begin(), req.end());
                if (req[4] == 0x0E) {
                    const size_t n = static_cast<size_t>(archiveReplies++);
                    return n < c.replies.size() && !c.replies[n].empty() ? frame(0x16, c.replies[n]) : Bytes();
                }
                if (text.find("\t060\f") != std::string::npos)
                    return frame(0x03, "\t0\t060\f\t01-05-24\t\f");
                if (text.find("\t061\f") != std::string::npos)
                    return frame(0x03, "\t0\t061\f\t10-15-00\t\f");
                return frame(0x03, "\t0\t025\f\t10\t\f");
            });
        CConnector conn(meter.params(), logika_test::PtyMeter::noLeds());
        ASSERT_TRUE(conn.open_device());
        CmtdSPG761 driver(0);
        configure(driver, "/nonexistent-mtd-test", "");
        driver.SaveConnector(&conn);
        ASSERT_TRUE(driver.init());
        std::vector<ArchiveRecord> out;
        bool threw = false;
        try {
            test_support::readArchive(driver, c.arch, kStart - 4 * 3600 - 900, kStart, out);
        } catch (const CDisconnectException&) {
            threw = true;
        }
        EXPECT_EQ(threw, c.throws);
        EXPECT_EQ(out.size(), c.kept);
    }
}

}  // namespace
