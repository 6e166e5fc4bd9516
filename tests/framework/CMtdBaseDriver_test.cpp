// SPDX-License-Identifier: Apache-2.0
// The polling thread against a scripted driver and a hand-moved clock: the
// archive schedule, the data_rate wait, recovery from an exception in the
// middle of a cycle, and turn-taking on one shared line.
#include "framework/CMtdBaseDriver.h"

#include <gtest/gtest.h>

#include "support/TempDir.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdlib.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "core/Exceptions.h"
#include "storage/GasFileConnector.h"

namespace {

using std::chrono::seconds;

using test_support::TempDir;

// A clock the test moves; it tells the test when the driver thread starts
// waiting for a wall-clock time.
class FakeClock : public CMtdClock {
public:
    explicit FakeClock(time_t t) : m_now(t) {}
    time_t now() const override { return m_now.load(); }
    std::chrono::system_clock::time_point deadlineFor(time_t target) const override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_targets.push_back(target);
        }
        m_cv.notify_all();
        return std::chrono::system_clock::now() + std::chrono::hours(1);
    }
    void set(time_t t) { m_now.store(t); }
    // True once the driver thread waits for `target`.
    bool waitsFor(time_t target) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, seconds(5), [&] {
            for (time_t t : m_targets)
                if (t == target)
                    return true;
            return false;
        });
    }

private:
    std::atomic<time_t> m_now;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_cv;
    mutable std::vector<time_t> m_targets;
};

struct ArchCall {
    int type;
    time_t from, to;
};

// The device side: records what the base asks for, returns scripted records.
class ScriptedDriver : public CMtdBaseDriver {
public:
    ~ScriptedDriver() override { StopPolling(); }

    bool init() override {
        if (++(*line) > 1)
            overlap = true;
        ++cycles;
        return true;
    }
    std::vector<CValueRecord> get_all_curtime_cur_integ_values() override {
        --(*line);
        return {};
    }
    void get_arch_values(CArchiveSink& sink) override {
        const int type = sink.type();
        {
            std::lock_guard<std::mutex> lock(mutex);
            calls.push_back({type, sink.from(), sink.to()});
        }
        if (type == ARCH_HOURLY) {
            for (time_t t : hourlyRecords) {
                ArchiveRecord r;
                r.timestamp = t;
                r.fields = {{"V", "1.0"}};
                sink.add(r);
                if (flushBlocks)
                    sink.endBlock();
            }
            if (throwInHourly) {
                throwInHourly = false;
                throw CDisconnectException();
            }
        }
        if (type == ARCH_JOURNAL_EVENT && !eventRecords.empty()) {
            for (time_t t : eventRecords) {
                ArchiveRecord r;
                r.timestamp = t;
                r.fields = {{"Event", "0x8102"}};
                sink.add(r);
            }
            eventRecords.clear();
            throw CDisconnectException();
        }
    }
    void session_close() override {
        ++sessionCloses;
        turnHeldAtClose = HasTurn();
    }
    std::vector<ArchCall> callsOf(int type) {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<ArchCall> result;
        for (const ArchCall& c : calls)
            if (c.type == type)
                result.push_back(c);
        return result;
    }

    std::atomic<int>* line = &ownLine;
    std::atomic<int> ownLine{0};
    std::atomic<bool> overlap{false};
    std::atomic<int> cycles{0};
    std::atomic<int> sessionCloses{0};
    std::atomic<bool> turnHeldAtClose{false};
    std::vector<time_t> hourlyRecords;
    std::atomic<bool> throwInHourly{false};
    std::vector<time_t> eventRecords;  // handed over, then the line breaks
    bool flushBlocks = false;
    std::mutex mutex;
    std::vector<ArchCall> calls;
};

// 2024-03-10 00:00:00 UTC
constexpr time_t kMidnight = 1710028800;

struct Fixture {
    TempDir store, control;
    std::shared_ptr<FakeClock> clock;
    explicit Fixture(time_t now) : clock(std::make_shared<FakeClock>(now)) {}

    void start(ScriptedDriver& d, const std::string& id, const ConfigMap& params = {}) {
        CDeviceConfig config;
        config.meter_id = id;
        config.params = params;
        d.save_init_params(config);
        d.setPaths(DriverPaths{store.path, control.path});
        d.setClock(clock);
        d.Start();
    }
    void storeRecord(const std::string& id, int type, time_t t) {
        GasFileConnector files(id, store.path, control.path);
        ArchiveRecord r;
        r.timestamp = t;
        r.fields = {{"V", "0.5"}};
        ASSERT_TRUE(files.StoreRecords(type, {r}));
    }
    time_t lastStored(const std::string& id, int type) {
        return GasFileConnector(id, store.path, control.path).GetLastTimestamp(type);
    }
};

bool runCycle(CMtdBaseDriver& d) {
    d.GiveTurn();
    return d.WaitTurnReturned(seconds(5));
}

// The day start of the first run is the last midnight moved back by the
// contract hour: 06:00 contract hour starts the windows six hours earlier.
TEST(PollingThread, FirstRunFromEmptyStoreReadsFifteenDaysHourlySixtyTwoDaysDaily) {
    const time_t now = kMidnight + 12 * 3600 + 34 * 60 + 56;
    for (int rateHour : {0, 6}) {
        SCOPED_TRACE("rate_hour " + std::to_string(rateHour));
        const time_t dayStart = kMidnight - rateHour * 3600;
        Fixture f(now);
        ScriptedDriver d;
        f.start(d, "1001", {{"rate_hour", std::to_string(rateHour)}});
        ASSERT_TRUE(runCycle(d));

        const struct {
            int type;
            time_t from;
        } expected[] = {
            {ARCH_HOURLY, dayStart - 15 * 86400},
            {ARCH_DAILY, dayStart - 62 * 86400},
            {ARCH_JOURNAL_EVENT, dayStart - 62 * 86400},
            {ARCH_JOURNAL_INTERVENT, dayStart - 62 * 86400},
        };
        for (const auto& e : expected) {
            auto calls = d.callsOf(e.type);
            ASSERT_EQ(calls.size(), 1u) << archTypeName(e.type);
            EXPECT_EQ(calls[0].from, e.from) << archTypeName(e.type);
            EXPECT_EQ(calls[0].to, now) << archTypeName(e.type);
        }
    }
}

TEST(PollingThread, StoredHourlyAtHalfMinuteGivesNextWholeHour) {
    Fixture f(kMidnight + 12 * 3600);
    f.storeRecord("1002", ARCH_HOURLY, kMidnight + 10 * 3600 + 30);  // 10:00:30
    ScriptedDriver d;
    f.start(d, "1002");
    ASSERT_TRUE(runCycle(d));
    auto calls = d.callsOf(ARCH_HOURLY);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].from, kMidnight + 11 * 3600);  // 11:00:00
}

TEST(PollingThread, HourlyIntervalIsReadOnlyAfterTheMargin) {
    const time_t next = kMidnight + 11 * 3600;
    Fixture f(next + 100);
    f.storeRecord("1003", ARCH_HOURLY, kMidnight + 10 * 3600);
    f.storeRecord("1003", ARCH_DAILY, kMidnight);  // daily not due today
    ScriptedDriver d;
    f.start(d, "1003", {{"data_rate", "0"}});

    const struct {
        time_t now;
        size_t hourlyReads;
    } steps[] = {{next + 100, 0}, {next + 119, 0}, {next + 120, 1}};
    for (const auto& s : steps) {
        f.clock->set(s.now);
        ASSERT_TRUE(runCycle(d));
        EXPECT_EQ(d.callsOf(ARCH_HOURLY).size(), s.hourlyReads) << "at +" << (s.now - next) << " s";
        EXPECT_EQ(d.GetArchActual(), s.now > next + 119);
    }
}

TEST(PollingThread, WaitsDataRateSecondsAfterTheCycle) {
    const struct {
        const char* legend;
        ConfigMap params;
        time_t wait;
    } cases[] = {
        {"no data_rate", {}, 300},
        {"data_rate 60", {{"data_rate", "60"}}, 60},
        {"bad data_rate keeps 300", {{"data_rate", "6x"}}, 300},
    };
    for (const auto& c : cases) {
        const time_t now = kMidnight + 5 * 3600;
        Fixture f(now);
        ScriptedDriver d;
        f.start(d, "1004", c.params);
        ASSERT_TRUE(runCycle(d)) << c.legend;
        EXPECT_TRUE(f.clock->waitsFor(now + c.wait)) << c.legend;

        // The turn given back early is kept until the wait is over.
        d.GiveTurn();
        f.clock->set(now + c.wait);
        d.Wake();
        ASSERT_TRUE(d.WaitTurnReturned(seconds(5))) << c.legend;
        EXPECT_EQ(d.cycles.load(), 2) << c.legend;
    }
}

TEST(PollingThread, ExceptionEndsTheCycleAndKeepsWhatWasStoredAndTheSchedule) {
    const time_t now = kMidnight + 12 * 3600 + 600;
    Fixture f(now);
    ScriptedDriver d;
    d.hourlyRecords = {kMidnight + 10 * 3600, kMidnight + 11 * 3600};
    d.throwInHourly = true;
    f.start(d, "1005", {{"data_rate", "0"}});

    ASSERT_TRUE(runCycle(d));
    EXPECT_FALSE(d.CycleDone());
    // The session opened by init() is closed before the line is given up, also here.
    EXPECT_EQ(d.sessionCloses.load(), 1);
    EXPECT_TRUE(d.turnHeldAtClose.load());
    EXPECT_EQ(f.lastStored("1005", ARCH_HOURLY), kMidnight + 11 * 3600);
    EXPECT_EQ(d.nextHourly(), kMidnight + 12 * 3600);
    EXPECT_TRUE(d.callsOf(ARCH_JOURNAL_EVENT).empty());  // the cycle ended at the exception

    d.hourlyRecords.clear();
    ASSERT_TRUE(runCycle(d));
    EXPECT_TRUE(d.CycleDone());
    EXPECT_EQ(d.sessionCloses.load(), 2);
    EXPECT_TRUE(d.turnHeldAtClose.load());
    auto calls = d.callsOf(ARCH_HOURLY);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].from, kMidnight + 12 * 3600);
    EXPECT_EQ(f.lastStored("1005", ARCH_HOURLY), kMidnight + 11 * 3600);
}

// A store that fails (here: the storage card gone) leaves the schedule where
// it was: the same window is read again until the records are on disk.
TEST(PollingThread, FailedStoreDoesNotMoveTheSchedule) {
    const time_t eleven = kMidnight + 11 * 3600;
    Fixture f(kMidnight + 12 * 3600 + 1800);
    f.storeRecord("1010", ARCH_HOURLY, kMidnight + 10 * 3600);
    ScriptedDriver d;
    f.start(d, "1010", {{"data_rate", "0"}});
    ASSERT_TRUE(runCycle(d));  // nothing new yet; the store is set up
    ASSERT_EQ(d.nextHourly(), eleven);

    const std::string root = f.store.path.substr(0, f.store.path.size() - 1);
    ASSERT_EQ(0, ::rename(root.c_str(), (root + ".away").c_str()));
    d.hourlyRecords = {eleven};
    for (int cycle = 0; cycle < 2; ++cycle) {
        ASSERT_TRUE(runCycle(d));
        EXPECT_EQ(d.nextHourly(), eleven) << cycle;
    }
    ASSERT_EQ(0, ::rename((root + ".away").c_str(), root.c_str()));
    ASSERT_TRUE(runCycle(d));
    EXPECT_EQ(d.nextHourly(), kMidnight + 12 * 3600);
    EXPECT_EQ(f.lastStored("1010", ARCH_HOURLY), eleven);
    auto calls = d.callsOf(ARCH_HOURLY);
    ASSERT_EQ(calls.size(), 4u);
    for (size_t i = 1; i < calls.size(); ++i)
        EXPECT_EQ(calls[i].from, eleven) << i;
}

TEST(PollingThread, BrokenJournalReadKeepsTheNewestSecondForTheNextRead) {
    const time_t now = kMidnight + 12 * 3600 + 600;
    Fixture f(now);
    ScriptedDriver d;
    // The line broke inside a group of entries sharing 11:00:07: the rest of
    // the group is still in the meter and must be read with it next time.
    d.eventRecords = {kMidnight + 10 * 3600, kMidnight + 11 * 3600 + 7, kMidnight + 11 * 3600 + 7};
    f.start(d, "1007", {{"data_rate", "0"}});

    ASSERT_TRUE(runCycle(d));
    EXPECT_EQ(f.lastStored("1007", ARCH_JOURNAL_EVENT), kMidnight + 10 * 3600);
    EXPECT_EQ(d.nextJournalEvent(), kMidnight + 10 * 3600 + 1);
}

// Every stored hourly timestamp of a meter, from the batch files on disk.
std::vector<time_t> storedHourly(const std::string& root) {
    std::vector<time_t> times;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        if (entry.path().extension() != ".jsonl" || entry.path().filename().string().rfind("Hourly", 0) != 0)
            continue;
        std::ifstream in(entry.path());
        for (std::string line; std::getline(in, line);) {
            auto pos = line.find("\"timestamp\":");
            times.push_back(std::stoll(line.substr(pos + 12)));
        }
    }
    std::sort(times.begin(), times.end());
    return times;
}

TEST(PollingThread, LongTransferIsStoredBlockByBlockWithNothingLostOrRepeated) {
    const time_t now = kMidnight + 12 * 3600 + 600;
    Fixture f(now);
    ScriptedDriver d;
    std::vector<time_t> expected;
    for (int i = 0; i < 100; ++i)
        expected.push_back(kMidnight - 100 * 3600 + i * 3600);
    d.hourlyRecords = expected;
    d.flushBlocks = true;
    d.throwInHourly = true;  // the line breaks after the last block
    f.start(d, "1006", {{"data_rate", "0"}});

    ASSERT_TRUE(runCycle(d));
    EXPECT_EQ(storedHourly(f.store.path), expected);
    EXPECT_EQ(d.nextHourly(), expected.back() + 3600);
}

TEST(PollingThread, TwoDriversOnOneLineTakeTurns) {
    Fixture f(kMidnight + 3600);
    std::atomic<int> line{0};
    ScriptedDriver a, b;
    a.line = b.line = &line;
    f.start(a, "2001", {{"data_rate", "0"}});
    f.start(b, "2002", {{"data_rate", "0"}});

    ASSERT_TRUE(runCycle(a));
    EXPECT_EQ(b.cycles.load(), 0);  // no turn, no traffic
    for (int pass = 0; pass < 5; ++pass) {
        ASSERT_TRUE(runCycle(a));
        ASSERT_TRUE(runCycle(b));
    }
    EXPECT_EQ(a.cycles.load(), 6);
    EXPECT_EQ(b.cycles.load(), 5);
    EXPECT_FALSE(a.overlap || b.overlap);
}

}  // namespace
