// SPDX-License-Identifier: Apache-2.0
// The SPG741 driver against the simulated meter (mtd_m4sim's spg741 model,
// written from the meter's public facts). Where the meter's memory map is not
// public the simulator and the driver share an assumed number, and these
// tests judge the structure only: the frames, the settings database, the
// header rings, the flash indexes, the journal records, the units.
#include "drivers/logika/CmtdSPG741.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "core/Exceptions.h"
#include "support/ArchiveCollector.h"
#include "support/DriverRig.h"
#include "tools/m4sim/CM4Sim.h"

namespace {

using test_support::byName;

constexpr std::time_t kStart = 1714558500;  // 2024-05-01,10:15:00 UTC
constexpr double kKpa = 0.0101971621, kMpa = 10.1971621;  // to kgf/cm2

struct Rig {
    M4SimOptions options;
    CM4Sim sim;
    std::unique_ptr<test_support::DriverLine> line;
    CmtdSPG741 driver;

    static M4SimOptions meter(time_t start, int holeHours) {
        M4SimOptions o;
        o.model = "spg741";
        o.nt = 3;
        o.serial = 741001;
        o.rateHour = 10;
        o.contractDay = 1;
        o.archiveDays = 50;  // more than the hourly ring holds
        o.start = start;
        o.seed = 5;
        o.holeHours = holeHours;
        return o;
    }
    static M4SimServerOptions server(int silentAfterArchive, double faultShare) {
        M4SimServerOptions s;
        s.line.timing = false;
        s.faultShare = faultShare;
        s.faultSeed = 7;
        s.clockScale = 1e-9;  // the device clock stands still
        s.silentAfter = silentAfterArchive;
        s.silentInArchive = silentAfterArchive > 0;
        return s;
    }

    explicit Rig(time_t start = kStart, const std::string& serial = "741001", int silentAfterArchive = 0,
                 int holeHours = 0, double faultShare = 0)
        : options(meter(start, holeHours)),
          sim(makeM4SimModel("spg741", options), options, server(silentAfterArchive, faultShare)) {
        EXPECT_TRUE(sim.open());
        EXPECT_TRUE(sim.start());
        line = std::make_unique<test_support::DriverLine>(sim.slavePath(), "2400");
        EXPECT_TRUE(line->opened);
        CDeviceConfig config;
        config.params = {{"address", "3"}, {"systems", "2;"}, {"manufacturer", "spg741"}};
        config.serial_text = serial;
        line->attach(driver, config);
        driver.setTiming(M4::Timing(), [](std::chrono::milliseconds) {});
    }

    // The meter's own list of what it holds at its clock: one map a record,
    // "time" the Unix seconds. An interval's record is there once it ended.
    std::vector<std::map<std::string, std::string>> dump(int archive) const {
        std::ostringstream out;
        const time_t length = archive == CM4SimModel::Hourly ? 3600 : archive == CM4SimModel::Daily ? 86400 : 0;
        makeM4SimModel("spg741", options)->dumpArchive(archive, options.start - length, out);
        std::vector<std::map<std::string, std::string>> records;
        std::istringstream in(out.str());
        for (std::string l; std::getline(in, l);) {
            std::istringstream words(l);
            std::map<std::string, std::string> r;
            words >> r["time"];
            for (std::string w; words >> w;)
                r[w.substr(0, w.find('='))] = w.substr(w.find('=') + 1);
            records.push_back(r);
        }
        return records;
    }
    // The same from `from` on.
    std::vector<std::map<std::string, std::string>> since(int archive, time_t from) const {
        std::vector<std::map<std::string, std::string>> records;
        for (const auto& r : dump(archive))
            if (std::atoll(r.at("time").c_str()) >= from)
                records.push_back(r);
        return records;
    }
};

std::map<std::string, std::string> fields(const ArchiveRecord& r) {
    std::map<std::string, std::string> m(r.fields.begin(), r.fields.end());
    m["time"] = std::to_string(r.timestamp);
    return m;
}

// The driver's records equal the meter's `want`, in order; pressure in kgf/cm2.
void expectSame(const std::vector<ArchiveRecord>& got, const std::vector<std::map<std::string, std::string>>& want) {
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) {
        auto g = fields(got[i]);
        const auto& w = want[i];
        SCOPED_TRACE("record " + std::to_string(i) + " at " + w.at("time"));
        EXPECT_EQ(g["time"], w.at("time"));
        EXPECT_EQ(g["DateTime"], w.at("t"));
        if (w.count("on")) {
            EXPECT_EQ(g["NS"], w.at("NS"));
            EXPECT_EQ(g["state"], w.at("on") == "1" ? "on" : "off");
            continue;
        }
        for (const char* n : {"Vstd1", "Vw1", "T1", "Vstd2", "Vw2"})
            EXPECT_NEAR(std::atof(g[n].c_str()), std::atof(w.at(n).c_str()), 2e-5) << n;
        EXPECT_NEAR(std::atof(g["P1"].c_str()), std::atof(w.at("P1").c_str()) * kKpa, 2e-5);
        EXPECT_EQ(std::strtol(g["NS"].c_str(), nullptr, 16), std::atol(w.at("NS").c_str()));
    }
}

// One archive read from `from` to the meter's clock equals the meter's
// records since `from`, at least `atLeast` of them.
struct ArchiveRead {
    int arch, dump;
    time_t from;
    size_t atLeast;
};
void expectArchive(Rig& rig, const ArchiveRead& r) {
    SCOPED_TRACE(archTypeName(r.arch));
    std::vector<ArchiveRecord> out;
    test_support::readArchive(rig.driver, r.arch, r.from, rig.options.start, out);
    expectSame(out, rig.since(r.dump, r.from));
    EXPECT_GE(out.size(), r.atLeast);
}

// Flash reads are 0x45 and come one frame a page, RAM reads are 0x52; the
// contract hour and day are texts of the settings database; each pressure has
// its sensor's unit in the two low bits of a binary byte; the totals are in
// flash; date and time are apart.
TEST(SPG741, SessionSettingsAndCurrentValues) {
    Rig rig;
    ASSERT_TRUE(rig.driver.init());
    auto sys = byName(rig.driver.get_all_system_values());
    EXPECT_EQ(sys["SerialNumber"].value, "741001");  // the fourth byte is the meter's check, not the number's
    EXPECT_EQ(sys["MeterModel"].value, "SPG741");
    EXPECT_EQ(sys["Firmware"].value, "21");
    EXPECT_EQ(sys["RateHour"].value, "10");
    EXPECT_EQ(sys["RateDay"].value, "1");
    EXPECT_EQ(sys["SerialNumber"].timestamp, kStart);

    auto cur = byName(rig.driver.get_all_curtime_cur_integ_values());
    EXPECT_EQ(cur["DateTime"].value, "2024-05-01,10:15:00");
    EXPECT_EQ(cur["Vstd1"].value, "65000.00000");  // 50 days of 12.5 m3 an hour, up to the last full hour
    EXPECT_EQ(cur["Vstd2"].value, "1000.25000");
    EXPECT_EQ(cur["Vstd1"].dim, "m3");
    EXPECT_NEAR(std::stod(cur["P1"].value), 312.5 * kKpa, 1e-4);  // [P1] is kPa
    EXPECT_NEAR(std::stod(cur["P2"].value), 0.25 * kMpa, 1e-4);   // [P2] is MPa
    EXPECT_EQ(cur["P1"].dim, "kgs/sm2 (atm)");
    EXPECT_EQ(cur["T1"].value, "7.50000");
    EXPECT_EQ(cur["T1"].sys, "2");
    EXPECT_EQ(cur["Qstd1"].dim, "m3/h");

    time_t t = 0;
    int rateHour = -1;
    ASSERT_TRUE(rig.driver.GetTimestamps(t, rateHour));
    EXPECT_EQ(t, kStart);
    EXPECT_EQ(rateHour, 10);
}

TEST(SPG741, WrongSerialEndsTheCycle) {
    Rig rig(kStart, "741002");
    ASSERT_TRUE(rig.driver.init());
    EXPECT_THROW(rig.driver.get_all_system_values(), CWrongPacketException);
}

// Hourly records read back from the flash index through the header ring,
// across the end of the ring; daily records stamped at the contract hour;
// journal records with their 0x10 mark and the began/ended bit.
TEST(SPG741, ArchivesEqualTheMetersRecords) {
    const time_t start = kStart + 20 * 3600;  // the hourly ring went round a few hours before
    Rig rig(start);
    ASSERT_TRUE(rig.driver.init());
    const ArchiveRead reads[] = {{ARCH_HOURLY, CM4SimModel::Hourly, start - 30 * 3600, 29},
                                 {ARCH_DAILY, CM4SimModel::Daily, start - 10 * 86400, 9},
                                 {ARCH_JOURNAL_EVENT, CM4SimModel::Events, start - 3 * 86400, 14}};
    for (const auto& r : reads)
        expectArchive(rig, r);
}

// A damaged byte anywhere in a block of page frames, a lost end byte, a
// request the meter never saw: the block is read again whole, and the records
// are the meter's.
TEST(SPG741, NoisyLineReadsTheMetersRecords) {
    Rig rig(kStart, "741001", 0, 0, 0.15);
    ASSERT_TRUE(rig.driver.init());
    const ArchiveRead reads[] = {{ARCH_HOURLY, CM4SimModel::Hourly, kStart - 2 * 86400, 47},
                                 {ARCH_JOURNAL_EVENT, CM4SimModel::Events, kStart - 3 * 86400, 14}};
    for (const auto& r : reads)
        expectArchive(rig, r);
    EXPECT_EQ(rig.sim.faultSummary().find("changed_byte=0 "), std::string::npos) << rig.sim.faultSummary();
}

// The meter falls silent in the middle of the records: the cycle ends, and
// what was read before is whole and in order.
TEST(SPG741, SilentMeterMidArchiveKeepsWhatCameBefore) {
    Rig rig(kStart, "741001", 4);  // the index, two header blocks, one record block
    ASSERT_TRUE(rig.driver.init());
    std::vector<ArchiveRecord> out;
    const time_t from = kStart - 6 * 86400;
    EXPECT_THROW(test_support::readArchive(rig.driver, ARCH_HOURLY, from, kStart, out), CDisconnectException);
    auto want = rig.since(CM4SimModel::Hourly, from);
    EXPECT_EQ(out.size(), 15u);  // up to the end of the eighth page
    want.resize(std::min(want.size(), out.size()));
    expectSame(out, want);
}

// An hour the meter did not record has no slot: the records after it are in
// the next slots, and the walk back through the headers finds all of them.
TEST(SPG741, MissingHourIsNotASlot) {
    Rig rig(kStart, "741001", 0, 10);
    ASSERT_TRUE(rig.driver.init());
    expectArchive(rig, {ARCH_HOURLY, CM4SimModel::Hourly, kStart - 2 * 86400, 46});
    EXPECT_EQ(rig.since(CM4SimModel::Hourly, kStart - 2 * 86400).size(), 46u);  // 47 hours less the missing one
}

}  // namespace
