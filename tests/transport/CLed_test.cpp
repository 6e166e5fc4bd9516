// SPDX-License-Identifier: Apache-2.0
#include "transport/CLed.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>

#include "TransportTestSupport.h"

namespace {

using namespace mtdtest;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr uint32_t kOnTimeUs = 100000;

TEST(Led, OneFlashPerBurstThenDarkBeforeTheNext) {
    TempDir dir;
    const std::string path = dir / "led";
    std::ofstream(path) << "stale";
    FileWatch watch(path);
    {
        CLed led(path, kOnTimeUs);
        ASSERT_TRUE(led.hasFile());
        EXPECT_EQ("0", readFile(path));
        led.Start();

        for (int i = 0; i < 100; ++i)
            led.Blink(true);
        ASSERT_TRUE(watch.waitContents("01", milliseconds(2000)));
        const auto lit = Clock::now();
        // More requests while lit belong to the same flash.
        for (int i = 0; i < 100; ++i)
            led.Blink(true);
        ASSERT_TRUE(watch.waitContents("010", milliseconds(2000)));
        const auto onMs = std::chrono::duration_cast<milliseconds>(Clock::now() - lit).count();
        EXPECT_GE(onMs, 90);
        EXPECT_LT(onMs, 1000);
        EXPECT_FALSE(watch.changesWithin(milliseconds(50)));
        EXPECT_EQ("010", readFile(path));

        // A new burst after the dark gap is a new flash.
        led.Blink(true);
        ASSERT_TRUE(watch.waitContents("01010", milliseconds(2000)));
    }
    EXPECT_EQ("010100", readFile(path));  // switched off once more on destruction
}

TEST(Led, MissingControlFileCostsNothing) {
    TempDir dir;
    LogCapture log;
    {
        CLed led(dir / "no_such_dir/led", kOnTimeUs);
        EXPECT_FALSE(led.hasFile());
        led.Start();
        for (int i = 0; i < 1000; ++i)
            led.Blink(true);
    }
    EXPECT_LE(log.lines().size(), 1u);
}

}  // namespace
