// SPDX-License-Identifier: Apache-2.0
// Pause and force-update control files and the status file, against a driver
// that only counts what the polling thread asks of it and a hand-moved clock.
// The main loop's 5 s step is played by calling GetArchActual().
#include <gtest/gtest.h>

#include "support/DriverRig.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include <json/json.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "framework/CMtdBaseDriver.h"
#include "core/Exceptions.h"
#include "core/logger.h"
#include "storage/GasFileConnector.h"

namespace {

using std::chrono::seconds;

// 2024-03-10 12:30:00 UTC
constexpr time_t kNow = 1710028800 + 12 * 3600 + 1800;

class CountingDriver : public CMtdBaseDriver {
public:
    ~CountingDriver() override { StopPolling(); }
    bool init() override {
        ++lineUses;
        // What a protocol layer notes on a lost reply and a repeated request.
        CLinkStats::noteTimeout();
        CLinkStats::noteRetry();
        if (throwInInit)
            throw CDisconnectException("no answer to sign-on");
        return true;
    }
    std::vector<CValueRecord> get_all_curtime_cur_integ_values() override {
        CValueRecord v;
        v.name = "Vb";
        v.value = "123.4";
        v.dim = "m3";
        return {v};
    }
    void get_arch_values(CArchiveSink& sink) override {
        if (sink.type() != ARCH_HOURLY)
            return;
        hourlyFrom.push_back(sink.from());
        ArchiveRecord r;
        r.timestamp = kNow - kNow % 3600 - 3600;
        r.fields = {{"V", "1.0"}};
        sink.add(r);
    }
    std::atomic<int> lineUses{0};
    std::atomic<bool> throwInInit{false};
    std::vector<time_t> hourlyFrom;  // read only while the driver holds no turn
};


struct Fixture {
    test_support::TempDir tmp{"mtd_ops"};
    std::string dir = tmp.path;
    std::unique_ptr<test_support::LogCapture> log;
    Fixture() {
        mkdir((dir + "control").c_str(), 0700);
        mkdir((dir + "store").c_str(), 0700);
        log = std::make_unique<test_support::LogCapture>(dir + "log");
    }
    ~Fixture() { log.reset(); }
    std::string control(const std::string& name) const { return dir + "control/" + name; }
    void touch(const std::string& name) const { std::ofstream(control(name)).put('\n'); }
    bool exists(const std::string& name) const {
        struct stat st;
        return stat(control(name).c_str(), &st) == 0;
    }
    void start(CountingDriver& d, const std::string& id, const std::string& dataRate) {
        CDeviceConfig config;
        config.meter_id = id;
        config.params = {{"data_rate", dataRate}, {"manufacturer", "ek270"}};
        d.save_init_params(config);
        d.setPaths(DriverPaths{dir + "store/", dir + "control/"});
        d.setClock(std::make_shared<test_support::StillClock>(kNow));
        d.Start();
    }
    Json::Value status(const std::string& id) const {
        std::ifstream in(control("mtd_status_" + id + ".json"));
        Json::Value doc;
        Json::CharReaderBuilder builder;
        std::string errors;
        EXPECT_TRUE(Json::parseFromStream(builder, in, &doc, &errors)) << errors;
        return doc;
    }
};

// One main-loop step: hand the turn out, tick, wait until it is back.
bool turn(CMtdBaseDriver& d) {
    d.GiveTurn();
    d.GetArchActual();
    return d.WaitTurnReturned(seconds(5));
}

TEST(OperatorControls, PauseFileKeepsTheLineQuietAndTheScheduleInPlace) {
    const char* files[] = {"pause_gmd_all", "pause_gmd", "pause_gmd_3001"};
    for (const char* file : files) {
        Fixture f;
        CountingDriver d;
        f.touch(file);
        f.start(d, "3001", "0");
        for (int step = 0; step < 3; ++step)
            ASSERT_TRUE(turn(d)) << file;
        EXPECT_EQ(d.lineUses.load(), 0) << file;
        EXPECT_TRUE(d.Paused()) << file;
        EXPECT_EQ(f.log->countContaining("paused by a control file", logger::NOTICE), 1) << file;
        EXPECT_EQ(f.status("3001")["state"].asString(), "paused") << file;
        EXPECT_TRUE(f.status("3001")["paused"].asBool()) << file;

        std::remove(f.control(file).c_str());
        ASSERT_TRUE(turn(d)) << file;
        EXPECT_EQ(d.lineUses.load(), 1) << file;
        EXPECT_EQ(f.log->countContaining("pause ended", logger::NOTICE), 1) << file;
        // Read from where the schedule stood before the pause: nothing skipped.
        ASSERT_EQ(d.hourlyFrom.size(), 1u) << file;
        EXPECT_EQ(d.hourlyFrom[0], kNow - kNow % 86400 - 15 * 86400) << file;
    }
}

TEST(OperatorControls, PauseOfAnotherMeterDoesNotHoldThisOne) {
    Fixture f;
    CountingDriver d;
    f.touch("pause_gmd_3999");
    f.start(d, "3002", "0");
    ASSERT_TRUE(turn(d));
    EXPECT_EQ(d.lineUses.load(), 1);
    EXPECT_EQ(f.log->countContaining("paused", logger::NOTICE), 0);
}

TEST(OperatorControls, ForceUpdateFileEndsTheDataRateWaitAndIsRemoved) {
    Fixture f;
    CountingDriver d;
    f.start(d, "3003", "300");
    ASSERT_TRUE(turn(d));
    EXPECT_EQ(d.lineUses.load(), 1);

    // The clock never moves: only the file can end the 300 s wait.
    f.touch("gmd_force_update_3003");
    ASSERT_TRUE(turn(d));
    EXPECT_EQ(d.lineUses.load(), 2);
    EXPECT_FALSE(f.exists("gmd_force_update_3003"));
    EXPECT_EQ(f.log->countContaining("force-update file removed", logger::NOTICE), 1);
}

TEST(OperatorControls, StatusFileAfterGoodAndFailedCycles) {
    Fixture f;
    CountingDriver d;
    f.start(d, "3004", "0");
    ASSERT_TRUE(turn(d));
    Json::Value s = f.status("3004");
    EXPECT_EQ(s["meter_id"].asString(), "3004");
    EXPECT_EQ(s["model"].asString(), "ek270");
    EXPECT_EQ(s["state"].asString(), "waiting");
    EXPECT_EQ(s["last_cycle"]["outcome"].asString(), "ok");
    EXPECT_EQ(s["last_good_read"].asInt64(), kNow);
    EXPECT_EQ(s["values"][0]["name"].asString(), "Vb");
    EXPECT_EQ(s["values"][0]["value"].asString(), "123.4");
    EXPECT_EQ(s["archives"]["hourly"]["lag"].asInt64(), 1800 + 3600);
    EXPECT_TRUE(s["archives"]["daily"]["lag"].isNull());
    EXPECT_EQ(s["counters"]["records_stored"].asUInt64(), 1u);
    EXPECT_EQ(s["counters"]["timeouts"].asUInt64(), 1u);
    EXPECT_EQ(s["counters"]["retries"].asUInt64(), 1u);
    EXPECT_GT(s["rss_kb"].asInt64(), 0);

    d.throwInInit = true;
    ASSERT_TRUE(turn(d));
    s = f.status("3004");
    EXPECT_EQ(s["state"].asString(), "failing");
    EXPECT_EQ(s["last_cycle"]["outcome"].asString(), "CDisconnectException: no answer to sign-on");
    EXPECT_EQ(s["counters"]["cycles"].asUInt64(), 2u);
    EXPECT_EQ(s["counters"]["failed_cycles"].asUInt64(), 1u);
    EXPECT_EQ(s["counters"]["timeouts"].asUInt64(), 2u);
    EXPECT_FALSE(f.exists(".mtd_status_3004.json.tmp"));
}

}  // namespace
