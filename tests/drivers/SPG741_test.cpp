// SPDX-License-Identifier: Apache-2.0
// The SPG741 driver against a scripted meter: a memory image served over a
// pseudo-terminal in the older M4 dialect (RAM reads 0x45, flash page reads 0x52).
#include "drivers/logika/CmtdSPG741.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <functional>
#include <map>

#include "core/Exceptions.h"
#include "support/ArchiveCollector.h"
#include "protocols/LogikaTestKit.h"

using logika_test::Bytes;
using logika_test::FakePause;
using logika_test::LogCapture;
using logika_test::PtyMeter;

namespace {

constexpr uint8_t kNT = 3;
constexpr time_t kNow = 1714558500;  // 2024-05-01 10:15:00, the meter clock at UTC+0
constexpr unsigned kHourSlots = 1080;

void putFloat(uint8_t* p, float f) {
    uint32_t b;
    std::memcpy(&b, &f, sizeof b);
    p[0] = b & 0xFF;
    p[1] = (b >> 8) & 0xFF;
    p[2] = static_cast<uint8_t>((b >> 31) << 7 | ((b >> 16) & 0x7F));
    p[3] = (b >> 23) & 0xFF;
}

void putTime(uint8_t* p, time_t t) {
    struct tm tm {};
    gmtime_r(&t, &tm);
    const int v[6] = {tm.tm_year - 100, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec};
    for (int i = 0; i < 6; ++i)
        p[i] = static_cast<uint8_t>(v[i]);
}

uint8_t cs(const Bytes& f, size_t from, size_t to) {
    unsigned s = 0;
    for (size_t i = from; i < to; ++i)
        s += f[i];
    return static_cast<uint8_t>(~s);
}

// The meter's memory and its answers; `fault` may rewrite or drop (empty) the n-th answer.
struct Meter {
    Bytes ram = Bytes(256, 0);
    Bytes flash = Bytes(0x310 * 64, 0xFF);
    uint8_t ident[3] = {0x47, 0x29, 0x21};
    std::function<Bytes(Bytes, int)> fault;

    Meter(uint32_t serial = 741001, uint8_t unit = 1) {
        putTime(&ram[0], kNow);
        ram[8] = 0x05;  // faults 0 and 2
        const float cur[8] = {0.25f, 12.5f, 40.0f, 95.0f, 0.5f, 3.0f, 0.0f, 0.0f};
        for (int i = 0; i < 8; ++i)
            putFloat(&ram[0x10 + 4 * i], cur[i]);
        ram[0x30] = 0x40, ram[0x31] = 0xE2, ram[0x32] = 0x01;  // 123456 + 0.75 m3
        putFloat(&ram[0x34], 0.75f);
        std::memset(&ram[0x50], 0xFF, 6);
        flash[0] = serial & 0xFF, flash[1] = (serial >> 8) & 0xFF, flash[2] = (serial >> 16) & 0xFF;
        flash[4] = 10, flash[5] = 1, flash[6] = unit;
    }
    // Hourly records stamped t0, t0 + 1 h, ... from `slot` on (wrapping).
    void hourly(unsigned slot, time_t t0, int count) {
        for (int i = 0; i < count; ++i, slot = (slot + 1) % kHourSlots) {
            uint8_t* p = &flash[0x10 * 64 + slot * 32];
            putTime(p, t0 + 3600 * i);
            putFloat(p + 6, static_cast<float>(i));
            putFloat(p + 14, 0.5f);  // P1, MPa
            p[30] = static_cast<uint8_t>(i), p[31] = 0;
            ram[0x50] = slot & 0xFF, ram[0x51] = static_cast<uint8_t>(slot >> 8);
        }
    }
    Bytes answer(const Bytes& r, int n) {
        Bytes a = {0x10, r[1], r[2]};
        size_t at = r[3] | r[4] << 8, len = r[5];
        if (r[7] != cs(r, 1, 7))
            return {};
        if (r[2] == 0x3F)
            a.insert(a.end(), ident, ident + 3);
        else if (r[2] == 0x45 && at + len <= ram.size())
            a.insert(a.end(), ram.begin() + static_cast<long>(at), ram.begin() + static_cast<long>(at + len));
        else if (r[2] == 0x52 && (at + len) * 64 <= flash.size())
            a.insert(a.end(), flash.begin() + static_cast<long>(at * 64), flash.begin() + static_cast<long>((at + len) * 64));
        else
            a = {0x10, r[1], 0x21, 0x00};
        a.push_back(cs(a, 1, a.size()));
        a.push_back(0x16);
        return fault ? fault(a, n) : a;
    }
};

struct Rig {
    LogCapture log;
    Meter& meter;
    PtyMeter pty;
    CConnector conn;
    FakePause pauses;
    CmtdSPG741 driver;
    std::string dir;

    explicit Rig(Meter& m, const std::string& serial = "741001")
        : meter(m),
          pty([](const Bytes& f) { return f.size() >= 9 ? size_t(9) : size_t(0); },
              [this](const Bytes& r, int n) { return meter.answer(r, n); }),
          conn(pty.params(), PtyMeter::noLeds()) {
        char tmpl[] = "/tmp/mtd_spg741_XXXXXX";
        dir = mkdtemp(tmpl);
        EXPECT_TRUE(conn.open_device());
        CDeviceConfig config;
        config.meter_id = "7";
        config.params = {{"address", std::to_string(kNT)}, {"systems", "2;"}, {"manufacturer", "spg741"}};
        config.serial_text = serial;
        driver.save_init_params(config);
        DriverPaths paths;
        paths.controlDir = dir + "/";
        paths.storageRoot = dir + "/storage/";
        driver.setPaths(paths);
        driver.setTiming(M4::Timing(), pauses.fn());
        driver.SaveConnector(&conn);
    }
    ~Rig() { std::system(("rm -rf '" + dir + "'").c_str()); }
};

std::map<std::string, CValueRecord> byName(const std::vector<CValueRecord>& v) {
    std::map<std::string, CValueRecord> m;
    for (const auto& r : v)
        m[r.name] = r;
    return m;
}

TEST(SPG741, SessionSystemAndCurrentValues) {
    Meter meter;
    Rig rig(meter);
    ASSERT_TRUE(rig.driver.init());
    EXPECT_TRUE(rig.log.contains("SPG741 driver version 01.00, compiled: "));
    EXPECT_EQ(rig.pty.requests()[0], (Bytes{0x10, kNT, 0x3F, 0, 0, 0, 0, cs({0, kNT, 0x3F}, 1, 3), 0x16}));

    auto sys = byName(rig.driver.get_all_system_values());
    EXPECT_EQ(sys["SerialNumber"].value, "741001");
    EXPECT_EQ(sys["MeterModel"].value, "SPG741");
    EXPECT_EQ(sys["Firmware"].value, "21");
    EXPECT_EQ(sys["RateHour"].value, "10");
    EXPECT_EQ(sys["SerialNumber"].timestamp, kNow);

    auto cur = byName(rig.driver.get_all_curtime_cur_integ_values());
    EXPECT_EQ(cur["DateTime"].value, "2024-05-01,10:15:00");
    EXPECT_EQ(cur["Vstd1"].value, "123456.75000");
    EXPECT_EQ(cur["Vstd1"].dim, "m3");
    EXPECT_NEAR(std::stod(cur["P1"].value), 0.25 * 10.197162, 1e-4);  // MPa -> kgf/cm2
    EXPECT_EQ(cur["P1"].dim, "kgs/sm2 (atm)");
    EXPECT_EQ(cur["T1"].value, "12.50000");
    EXPECT_EQ(cur["Qstd1"].dim, "m3/h");
    EXPECT_EQ(cur["Qstd2"].value, "0.00000");
    EXPECT_EQ(cur["NS"].value, "0x00000005");
    EXPECT_EQ(cur["T1"].sys, "2");

    time_t t = 0;
    int rateHour = -1;
    ASSERT_TRUE(rig.driver.GetTimestamps(t, rateHour));
    EXPECT_EQ(t, kNow);
    EXPECT_EQ(rateHour, 10);
    EXPECT_EQ(rig.driver.sync_time(1000), 1000 + 604800);
}

TEST(SPG741, RefusedDevicesAndSerials) {
    struct Case {
        const char* legend;
        uint8_t identLow;
        std::string serial;
        bool initThrows, systemThrows;
    } cases[] = {
        {"wrong serial", 0x29, "741002", false, true},
        {"not an SPG741", 0x2A, "741001", true, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.legend);
        Meter meter;
        meter.ident[1] = c.identLow;
        Rig rig(meter, c.serial);
        if (c.initThrows) {
            EXPECT_THROW(rig.driver.init(), CWrongPacketException);
            continue;
        }
        ASSERT_TRUE(rig.driver.init());
        EXPECT_THROW(rig.driver.get_all_system_values(), CWrongPacketException);
        EXPECT_TRUE(rig.log.contains("READ SERIAL '741001' != GIVEN SERIAL '741002'"));
    }
}

TEST(SPG741, HourlyWindowAcrossTheRingEnd) {
    Meter meter;
    const time_t t0 = kNow - 900 - 29 * 3600;  // 30 records up to 10:00, the ring wrapping after slot 1079
    meter.hourly(kHourSlots - 20, t0, 30);
    Rig rig(meter);
    ASSERT_TRUE(rig.driver.init());
    std::vector<ArchiveRecord> out;
    test_support::readArchive(rig.driver, ARCH_HOURLY, t0 + 5 * 3600, t0 + 25 * 3600, out);
    ASSERT_EQ(out.size(), 21u);
    for (size_t i = 0; i < out.size(); ++i)
        EXPECT_EQ(out[i].timestamp, t0 + static_cast<time_t>(5 + i) * 3600);
    ASSERT_EQ(out[0].fields.size(), 8u);
    EXPECT_EQ(out[0].fields[1], (std::pair<std::string, std::string>("Vstd1", "5.00000")));
    EXPECT_EQ(out[0].fields[3].first, "P1");
    EXPECT_NEAR(std::stod(out[0].fields[3].second), 0.5 * 10.197162, 1e-4);
    EXPECT_EQ(out[0].fields[7].second, "0x0005");

    // Nothing newer than the newest record; an empty ring reads nothing.
    out.clear();
    test_support::readArchive(rig.driver, ARCH_HOURLY, kNow, kNow + 3600, out);
    test_support::readArchive(rig.driver, ARCH_DAILY, 0, kNow, out);
    EXPECT_TRUE(out.empty());
}

TEST(SPG741, LineFaultsRetryRefuseOrEndBeforeAHole) {
    const time_t t0 = kNow - 900 - 39 * 3600;
    struct Case {
        const char* legend;
        std::function<Bytes(Bytes, int)> fault;
        size_t records;  // read before the transfer ended
        bool throws;
    } cases[] = {
        {"bad check byte once", [](Bytes a, int n) { if (n == 4) a[a.size() - 2] ^= 0x40; return a; }, 40, false},
        {"lost end byte once", [](Bytes a, int n) { if (n == 5) a.pop_back(); return a; }, 40, false},
        {"silent from the 7th answer", [](Bytes a, int n) { return n >= 6 ? Bytes() : a; }, 16, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.legend);
        Meter meter;
        meter.hourly(0, t0, 40);
        meter.fault = c.fault;
        Rig rig(meter);
        ASSERT_TRUE(rig.driver.init());
        std::vector<ArchiveRecord> out;
        if (c.throws)
            EXPECT_THROW(test_support::readArchive(rig.driver, ARCH_HOURLY, t0, kNow, out), CDisconnectException);
        else
            test_support::readArchive(rig.driver, ARCH_HOURLY, t0, kNow, out);
        ASSERT_EQ(out.size(), c.records);
        for (size_t i = 0; i < out.size(); ++i)
            EXPECT_EQ(out[i].timestamp, t0 + static_cast<time_t>(i) * 3600);  // no hole
    }
}

TEST(SPG741, JournalAndRefusal) {
    Meter meter;
    uint8_t* j = &meter.flash[0x300 * 64];
    for (int i = 0; i < 3; ++i) {
        putTime(j + 8 * (126 + i) % (128 * 8), kNow - 3000 + 1000 * i);
        j[(8 * (126 + i) + 6) % (128 * 8)] = static_cast<uint8_t>(i + 4);
        j[(8 * (126 + i) + 7) % (128 * 8)] = i != 1;
    }
    meter.ram[0x54] = 0, meter.ram[0x55] = 0;  // newest journal slot 0, after 126 and 127
    meter.ram[0x50] = 0x00, meter.ram[0x51] = 0x10;  // a broken hourly index
    Rig rig(meter);
    ASSERT_TRUE(rig.driver.init());
    std::vector<ArchiveRecord> out;
    test_support::readArchive(rig.driver, ARCH_JOURNAL_EVENT, kNow - 2500, kNow, out);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0].timestamp, kNow - 2000);
    EXPECT_EQ(out[0].fields[1].second, "5");
    EXPECT_EQ(out[0].fields[2].second, "off");
    EXPECT_EQ(out[1].fields[2].second, "on");

    out.clear();
    test_support::readArchive(rig.driver, ARCH_HOURLY, 0, kNow, out);
    EXPECT_TRUE(out.empty());
    EXPECT_TRUE(rig.log.contains("WRONG Hourly INDEX 4096 OF 1080"));
}

}  // namespace
