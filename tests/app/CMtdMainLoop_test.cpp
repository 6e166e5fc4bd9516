// SPDX-License-Identifier: Apache-2.0
// The main loop's turn-taking, driven step by step: a scripted stop source
// stands for the 5 s sleeps, so nothing here waits for real time.
#include "app/CMtdMainLoop.h"

#include <gtest/gtest.h>

#include "support/DriverRig.h"
#include "support/TempDir.h"
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/logger.h"
#include "app/CSignalWatcher.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr time_t kNow = 1710028800 + 3600;

// A driver whose init() can be held (a long device operation) and that counts
// what the main loop and the polling thread do with it.
class HeldDriver : public CMtdBaseDriver {
public:
    HeldDriver(const std::string& dir, const std::string& id, bool held) : m_held(held) {
        CDeviceConfig config;
        config.meter_id = id;
        save_init_params(config);
        setPaths(DriverPaths{dir, dir});
        setClock(std::make_shared<test_support::StillClock>(kNow));
    }
    ~HeldDriver() override { StopPolling(); }

    bool init() override {
        ++cycles;
        inInit = true;
        Wake();
        // Held until released or stopped; with `ignoreStop` stuck for good.
        while (m_held && ignoreStop)
            std::this_thread::sleep_for(seconds(1));
        if (m_held)
            waitFor(seconds(60), [this] { return released.load(); });
        return true;
    }
    bool GetArchActual() override {
        ++archActual;
        return false;
    }
    void session_close() override { ++sessionCloses; }
    void release() {
        released = true;
        Wake();
    }
    bool waitInInit() {
        return waitFor(seconds(10), [this] { return inInit.load(); }) || inInit.load();
    }

    std::atomic<int> cycles{0}, archActual{0}, sessionCloses{0};
    std::atomic<bool> inInit{false}, released{false}, ignoreStop{false};

private:
    bool m_held;
};

// The main loop's sleeps, one call per step: each runs the test's script for
// that step (step numbers from 1) and returns whether to stop.
class ScriptedSteps : public CStopSource {
public:
    std::function<bool(int step)> script;
    std::vector<milliseconds> asked;
    bool stopRequested() const override { return m_stopped; }
    bool waitStop(milliseconds d) override {
        asked.push_back(d);
        m_stopped = script(static_cast<int>(asked.size()));
        return m_stopped;
    }

private:
    bool m_stopped = false;
};

using test_support::TempDir;

// Two drivers started on one line: `a` is held in its device operation until released.
struct TwoDrivers {
    TempDir dir;
    CMtdMainLoop::Drivers drivers;
    HeldDriver* a;
    HeldDriver* b;
    TwoDrivers() {
        drivers.push_back(std::make_unique<HeldDriver>(dir.path, "31", true));
        drivers.push_back(std::make_unique<HeldDriver>(dir.path, "32", false));
        a = static_cast<HeldDriver*>(drivers[0].get());
        b = static_cast<HeldDriver*>(drivers[1].get());
        a->Start();
        b->Start();
    }
};

// Every step is 5 s and calls GetArchActual once on every driver, whichever
// holds the turn; the next driver gets the turn only after the last gave it back.
TEST(MainLoop, GetArchActualOnEveryDriverAtEveryStep) {
    TwoDrivers two;
    HeldDriver& a = *two.a;
    HeldDriver& b = *two.b;
    ScriptedSteps steps;
    std::vector<std::pair<int, int>> seen;  // GetArchActual counts of a and b when each step begins
    steps.script = [&](int step) {
        seen.emplace_back(a.archActual.load(), b.archActual.load());
        switch (step) {
        case 1:  // a holds the turn in its device operation
            EXPECT_TRUE(a.waitInInit());
            EXPECT_EQ(b.cycles.load(), 0);
            return false;
        case 2:
            a.release();
            EXPECT_TRUE(a.WaitTurnReturned(seconds(10)));
            return false;
        case 3:  // b's turn
            EXPECT_TRUE(b.WaitTurnReturned(seconds(10)));
            EXPECT_EQ(b.cycles.load(), 1);
            return false;
        default:
            return true;
        }
    };
    CMtdMainLoop loop(two.drivers, steps);
    loop.run();
    loop.stopDrivers();

    ASSERT_EQ(seen.size(), 4u);
    for (size_t i = 0; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i].first, static_cast<int>(i)) << "step " << i + 1;
        EXPECT_EQ(seen[i].second, static_cast<int>(i)) << "step " << i + 1;
    }
    for (milliseconds d : steps.asked)
        EXPECT_EQ(d, seconds(5));
}

// A stop in the middle of a pass ends the loop at once: the driver holding
// the turn is stopped (its session closed), the next one never gets the turn.
TEST(MainLoop, StopDuringAPass) {
    TwoDrivers two;
    HeldDriver& a = *two.a;
    HeldDriver& b = *two.b;
    ScriptedSteps steps;
    steps.script = [&](int step) {
        EXPECT_TRUE(a.waitInInit());
        return step == 2;
    };
    CMtdMainLoop loop(two.drivers, steps);
    loop.run();
    EXPECT_EQ(steps.asked.size(), 2u);
    EXPECT_EQ(b.cycles.load(), 0);
    EXPECT_TRUE(a.HasTurn());
    EXPECT_EQ(a.archActual.load(), 1);

    // The counters die with the drivers: look at them through a stop of each.
    a.StopPolling();
    EXPECT_EQ(a.sessionCloses.load(), 1);
    EXPECT_EQ(b.sessionCloses.load(), 0);
    loop.stopDrivers();
    EXPECT_TRUE(two.drivers.empty());
}

// A second stop signal while the orderly stop waits for a driver still busy
// on the line ends the process at once with status 1 (SIGINT says so in the
// log). The second signal is sent only once the stop is known to be under way,
// and the driver cannot finish, so there is no window to race.
TEST(MainLoopDeathTest, SecondSignalDuringTheOrderlyStopExitsWithStatusOne) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const struct {
        int signo;
        const char* logged;
    } rows[] = {{SIGINT, "Application done due to SIGINT. Immediate exit!"}, {SIGTERM, ""}, {SIGQUIT, ""}};
    for (const auto& row : rows) {
        SCOPED_TRACE(strsignal(row.signo));
        EXPECT_EXIT(
            {
                logger log("/dev/null", false);
                log.setLevel(logger::DEBUG);
                log.setStderr(true);
                std::mutex mutex;
                std::condition_variable changed;
                bool stopping = false;
                log.setObserver([&](int, const std::string& text) {
                    if (text.find("main: stopping") != std::string::npos) {
                        std::lock_guard<std::mutex> lock(mutex);
                        stopping = true;
                        changed.notify_all();
                    }
                });
                g_logger = &log;
                CSignalWatcher signals;  // before any other thread
                char tmpl[] = "/tmp/mtd_mainloop_XXXXXX";
                const std::string dir = std::string(mkdtemp(tmpl)) + "/";
                CMtdMainLoop::Drivers drivers;
                drivers.push_back(std::make_unique<HeldDriver>(dir, "35", true));
                auto& a = static_cast<HeldDriver&>(*drivers[0]);
                a.ignoreStop = true;
                a.Start();
                std::thread sender([&] {
                    a.waitInInit();
                    kill(getpid(), row.signo);
                    std::unique_lock<std::mutex> lock(mutex);
                    changed.wait(lock, [&] { return stopping; });
                    std::system(("rm -rf '" + dir + "'").c_str());  // nothing else will
                    kill(getpid(), row.signo);
                    // Not reached when the second signal works: a bound, so a
                    // fault fails the test instead of hanging it.
                    std::this_thread::sleep_for(seconds(30));
                    std::_Exit(0);
                });
                CMtdMainLoop loop(drivers, signals);
                loop.run();
                loop.stopDrivers();  // never returns: the driver is stuck on the line
                sender.join();
                std::exit(0);
            },
            ::testing::ExitedWithCode(1), row.logged);
    }
}

}  // namespace
