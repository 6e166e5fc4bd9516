// SPDX-License-Identifier: Apache-2.0
// The SPG761 driver against the SPbus simulator (written from the meter's
// public description), and against a scripted meter for replies the
// simulator never sends. The pipeline parameter and archive numbers are not
// public: the simulator's guess equals the driver's, so these tests cannot
// judge those numbers, only the layouts around them.
#include "drivers/logika/CmtdSPG761.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "core/Exceptions.h"
#include "protocols/Crc16.h"
#include "protocols/LogikaTestKit.h"
#include "support/ArchiveCollector.h"
#include "support/DriverRig.h"
#include "tools/spbussim/CSpbusSim.h"

namespace {

using test_support::byName;

using logika_test::Bytes;
constexpr std::time_t kStart = 1714558500;  // 2024-05-01 10:15:00 on the device clock

CDeviceConfig meterConfig(const std::string& manufacturer, const std::string& serial) {
    CDeviceConfig config;
    config.meter_id = "761";
    config.params = {{"speed", "9600"}, {"systems", "1;"}, {"manufacturer", manufacturer}};
    config.serial_text = serial;
    return config;
}

// The simulator's pseudo-terminal, opened first so that the line can take it.
std::string opened(CSpbusSim& sim) {
    EXPECT_TRUE(sim.open());
    return sim.slavePath();
}

struct Rig {
    logika_test::LogCapture log;
    CSpbusSim sim;
    test_support::DriverLine line;
    CmtdSPG761 driver;

    explicit Rig(SSpbusSimConfig cfg, int model = 0, const std::string& serial = "76100042")
        : sim([&] {
              cfg.timing = false;
              cfg.now = kStart;
              cfg.clockScale = 1e-9;  // the device clock stands still
              return cfg;
          }()),
          line(opened(sim), "9600", "200", "mtd_spg761"),
          driver(model) {
        EXPECT_TRUE(sim.start());
        EXPECT_TRUE(line.opened);
        line.attach(driver, meterConfig(model == 1 ? "spg761.1" : "spg761", serial));
    }
};

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
        out.push_back(std::to_string(r.time) + " " + r.text);
    return out;
}

TEST(SPG761, SystemAndCurrentValuesOfBothGenerations) {
    struct Case {
        const char* simModel;
        int driverModel;
        const char* model;
        const char* firmware;
    } cases[] = {{"761", 0, "761", "02.05"}, {"761.1", 1, "761.1", "03.01"}, {"761.2", 1, "761.2", "03.01"}};
    for (const auto& c : cases) {
        for (const char* unit : {"kgf/cm2", "MPa", "kPa", "bar"}) {
            SCOPED_TRACE(std::string(c.simModel) + " " + unit);
            SSpbusSimConfig cfg;
            cfg.pressureUnit = unit;
            cfg.model = c.simModel;
            cfg.rateHour = 10;
            cfg.rateDay = 3;
            Rig rig(cfg, c.driverModel);
            ASSERT_TRUE(rig.driver.init());
            auto sys = byName(rig.driver.get_all_system_values());
            // The new generation's serial is element 1 of 099; 008 is not it.
            EXPECT_EQ(sys["SerialNumber"].value, "76100042");
            EXPECT_EQ(sys["MeterModel"].value, c.model);
            EXPECT_EQ(sys["Firmware"].value, c.firmware);
            EXPECT_EQ(sys["RateHour"].value, "10");
            EXPECT_EQ(sys["RateDay"].value, "3");
            EXPECT_EQ(sys["EngUnits"].value, "0");
            EXPECT_EQ(sys.count("PassS"), 0u);
            EXPECT_FALSE(rig.log.contains("METER REPORTS MODEL"));

            auto cur = byName(rig.driver.get_all_curtime_cur_integ_values());
            EXPECT_EQ(cur["DateTime"].value, "2024-05-01,10:15:00");
            EXPECT_EQ(cur["DateTime"].timestamp, kStart);
            EXPECT_EQ(cur["P"].dim, "kgs/sm2 (atm)");
            EXPECT_NEAR(std::stod(cur["P"].value), 1.6234, 2e-4);
            EXPECT_EQ(cur["T"].value, "-3.25");
            EXPECT_EQ(cur["Kcorr"].value, "1.5504");
            EXPECT_EQ(cur.size(), 8u);
        }
    }
    // A new-generation meter configured as the old one is read, with a warning.
    SSpbusSimConfig cfg;
    cfg.model = "761.2";
    Rig rig(cfg, 0);
    ASSERT_TRUE(rig.driver.init());
    EXPECT_EQ(byName(rig.driver.get_all_system_values())["SerialNumber"].value, "76100042");
    EXPECT_TRUE(rig.log.contains("METER REPORTS MODEL '761.2v03.01', CONFIGURED SPG761"));

    Rig wrong(SSpbusSimConfig(), 0, "99999999");
    ASSERT_TRUE(wrong.driver.init());
    EXPECT_THROW(wrong.driver.get_all_system_values(), CWrongPacketException);
    EXPECT_TRUE(wrong.log.contains("READ SERIAL '76100042' != GIVEN SERIAL '99999999'"));
}

TEST(SPG761, SliceArchivesAndTheJournalMatchTheMeter) {
    SSpbusSimConfig cfg;
    cfg.archiveDays = 2;
    cfg.pressureUnit = "MPa";
    Rig rig(cfg);
    ASSERT_TRUE(rig.driver.init());
    rig.driver.get_all_system_values();

    // 13 hours asked; the end is clipped to the device clock, 10:00 is not closed.
    std::vector<ArchiveRecord> hourly;
    test_support::readArchive(rig.driver, ARCH_HOURLY, kStart - 12 * 3600 - 900, kStart + 7200, hourly);
    EXPECT_EQ(asDump(hourly), simDump(rig.sim, CSpbusSim::kHourly, kStart - 12 * 3600 - 900, kStart));
    ASSERT_EQ(hourly.size(), 12u);
    EXPECT_EQ(hourly.back().timestamp, kStart - 3600 - 900);  // 09:00, closed at 10:00
    EXPECT_EQ(hourly[0].fields[0].first, "DateTime");
    EXPECT_EQ(hourly[0].fields[5].first, "NS");
    EXPECT_TRUE(rig.log.contains("end_dt = curr_dt because end_dt > curr_dt"));

    // Two days and more, from before the meter's history began: days at the contract hour.
    std::vector<ArchiveRecord> daily;
    test_support::readArchive(rig.driver, ARCH_DAILY, kStart - 4 * 86400, kStart, daily);
    EXPECT_EQ(asDump(daily), simDump(rig.sim, CSpbusSim::kDaily, kStart - 4 * 86400, kStart));
    ASSERT_EQ(daily.size(), 2u);
    EXPECT_EQ(daily.back().timestamp, kStart - 86400 - 900);

    // A long hourly window goes in blocks of slices; all of them, in order.
    hourly.clear();
    test_support::readArchive(rig.driver, ARCH_HOURLY, kStart - 3 * 86400, kStart, hourly);
    EXPECT_EQ(asDump(hourly), simDump(rig.sim, CSpbusSim::kHourly, kStart - 3 * 86400, kStart));
    EXPECT_EQ(hourly.size(), 58u);

    std::vector<ArchiveRecord> events;
    test_support::readArchive(rig.driver, ARCH_JOURNAL_EVENT, kStart - 2 * 86400, kStart, events);
    EXPECT_EQ(asDump(events), simDump(rig.sim, CSpbusSim::kEvents, kStart - 2 * 86400, kStart));
    EXPECT_GT(events.size(), 4u);

    std::vector<ArchiveRecord> none;
    test_support::readArchive(rig.driver, ARCH_JOURNAL_INTERVENT, kStart - 86400, kStart, none);
    EXPECT_TRUE(none.empty());
}

TEST(SPG761, AJournalLongerThanOneReplyIsReadWhole) {
    SSpbusSimConfig cfg;
    cfg.archiveDays = 12;
    cfg.eventEvery = 1;  // entries every hour: the window does not fit in one reply
    Rig rig(cfg);
    ASSERT_TRUE(rig.driver.init());
    const int before = rig.sim.requestsSeen();
    std::vector<ArchiveRecord> events;
    test_support::readArchive(rig.driver, ARCH_JOURNAL_EVENT, kStart - 12 * 86400, kStart, events);
    EXPECT_EQ(asDump(events), simDump(rig.sim, CSpbusSim::kEvents, kStart - 12 * 86400, kStart));
    EXPECT_GT(events.size(), 300u);
    EXPECT_GE(rig.sim.requestsSeen() - before, 2 + 3);  // the clock, then three replies or more
}

TEST(SPG761, SilentMeterMidArchiveKeepsTheBlocksBefore) {
    SSpbusSimConfig cfg;
    cfg.archiveDays = 3;
    // init's date; date, time and rate hour; the columns; 25 slices
    cfg.silentAfter = 1 + 3 + 1 + 25;
    Rig rig(cfg);
    ASSERT_TRUE(rig.driver.init());
    std::vector<ArchiveRecord> hourly;
    const std::time_t from = kStart - 900 - 3 * 86400 + 86400;
    EXPECT_THROW(test_support::readArchive(rig.driver, ARCH_HOURLY, from, kStart, hourly), CDisconnectException);
    EXPECT_EQ(asDump(hourly), simDump(rig.sim, CSpbusSim::kHourly, from, from + 24 * 3600 - 1));
}

// A meter on a script: slices and journal replies in turn from the lists.
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

// A slice of 2024-05-01 at `at` with the interval before at `prev`.
std::string slice(const char* at, const char* prev,
                  const std::string& values = "\t1.5\f\t1.1\f\t0.16\f\t2.0\f\t0\f") {
    return std::string("\t0\t65\f\t01\t05\t2024\t10\t00\t00\f\t01\t05\t2024\t") + at + "\f\t01\t05\t2024\t" + prev +
           "\f" + values;
}
const std::string kNoData = "\t\x8D\xA5\xE2 \xA4\xA0\xAD\xAD\xEB\xE5?\f";  // Нет данных?

std::string entry(const char* time, const char* code) {
    return std::string("\t") + code + "\t\x8D\x91" + code + "\t01-05-24/" + time + "\f";
}

const std::string kDescriptor =
    "\t0\t65\f\tV1\t\xAC" "3\t1\t160\f\tVr1\t\t1\t161\f\tP1\t\x8C\x8F\xA0\t1\t150\f\tt1\t\xF8" "C\t1\t151\f\tNS\t\t0\t95\f";
const std::string kJournal = "\t0\t96\f\t01\t05\t2024\t10\t15\t00\f\t01\t05\t2024\t06\t00\t00\f";

TEST(SPG761, RepliesThatBreakTheLayoutEndTheTransfer) {
    struct Case {
        const char* legend;
        int arch;
        std::vector<std::string> replies;
        size_t kept;
        bool throws;
    } cases[] = {
        {"slices back to the window's start", ARCH_HOURLY,
         {slice("09\t00\t00", "08\t00\t00"), slice("08\t00\t00", "07\t00\t00"), slice("07\t00\t00", "06\t00\t00"),
          slice("06\t00\t00", "05\t00\t00")},
         4, false},
        // an hour the meter holds nothing for is its own hole, not the line's
        {"an empty slice between", ARCH_HOURLY,
         {slice("09\t00\t00", "08\t00\t00"), slice("08\t00\t00", "07\t00\t00", kNoData + kNoData + kNoData + kNoData + kNoData),
          slice("07\t00\t00", "06\t00\t00"), slice("06\t00\t00", "05\t00\t00")},
         3, false},
        // the slices older than it stay
        {"slice off the hour", ARCH_HOURLY,
         {slice("09\t30\t00", "08\t00\t00"), slice("08\t00\t00", "07\t00\t00"), slice("07\t00\t00", "06\t00\t00"),
          slice("06\t00\t00", "05\t00\t00")},
         3, true},
        {"slice later than the time asked", ARCH_HOURLY, {slice("11\t00\t00", "10\t00\t00")}, 0, true},
        {"pointer that does not go back", ARCH_HOURLY, {slice("09\t00\t00", "09\t00\t00")}, 0, true},
        {"slice newer than the one before", ARCH_HOURLY, {slice("09\t00\t00", "08\t00\t00"), slice("09\t00\t00", "07\t00\t00")},
         0, true},
        {"no time could be read", ARCH_HOURLY, {"\t0\t65\f\t\x84\xA0\xE2\xA0/\xA2\xE0\xA5\xAC\xEF?\f"}, 0, true},
        {"journal newest first, a unit left empty", ARCH_JOURNAL_EVENT,
         {kJournal + entry("09:10:00", "02") + "\t03\t\t01-05-24/09:10:00\f" + entry("07:00:00", "01")}, 3, false},
        {"journal going forward", ARCH_JOURNAL_EVENT, {kJournal + entry("07:00:00", "01") + entry("09:10:00", "02")}, 0,
         true},
        {"journal entry of two fields", ARCH_JOURNAL_EVENT, {kJournal + "\t01\t01-05-24/07:00:00\f"}, 0, true},
        {"meter can't take the window", ARCH_JOURNAL_EVENT,
         {"\t0\t96\f\t01\t05\t2024\t10\t15\t00\f\t01\t05\t2024\t06\t00\t00\f\t\x84\xA0\xE2\xA0/\xA2\xE0\xA5\xAC\xEF?\f"}, 0,
         false},
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
                if (req[4] == 0x19)
                    return frame(0x21, kDescriptor);
                if (req[4] == 0x18 || req[4] == 0x0E) {
                    const size_t n = static_cast<size_t>(archiveReplies++);
                    return n < c.replies.size() ? frame(req[4] == 0x18 ? 0x20 : 0x16, c.replies[n]) : Bytes();
                }
                if (text.find("\t060\f") != std::string::npos)
                    return frame(0x03, "\t0\t060\f\t01-05-24\t\f");
                if (text.find("\t061\f") != std::string::npos)
                    return frame(0x03, "\t0\t061\f\t10:15:00\t\f");
                return frame(0x03, "\t0\t024\f\t10\t\f");
            });
        test_support::DriverLine line(meter.path(), "9600", "200", "mtd_spg761");
        CmtdSPG761 driver(0);
        line.attach(driver, meterConfig("spg761", ""));
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
        if (c.arch == ARCH_JOURNAL_EVENT && c.kept == 3) {
            // oldest first; the empty unit is the entry's before
            EXPECT_EQ(asDump(out)[0], std::to_string(kStart - 3 * 3600 - 900) + " 01 \xD0\x9D\xD0\xA1" "01");
            EXPECT_EQ(asDump(out)[1], std::to_string(kStart - 3900) + " 03 \xD0\x9D\xD0\xA1" "02");
        }
    }
}

}  // namespace
