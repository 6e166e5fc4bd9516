// SPDX-License-Identifier: Apache-2.0
// The simulators' line: faults aimed where a receiver is weakest (end and
// check bytes), replayable by seed, and a pty that carries bytes both ways
// and lets go of a blocked reader on stop.
#include <fcntl.h>
#include <unistd.h>

#include <thread>

#include <gtest/gtest.h>

#include "core/CUniqueFd.h"
#include "tools/simline/CLineFaults.h"
#include "tools/simline/CSimLine.h"

namespace {

using Bytes = std::vector<uint8_t>;
// STX "12.5" ETX BCC: end byte at 5, one check byte.
const Bytes kAnswer = {0x02, '1', '2', '.', '5', 0x03, 0x36};
const CLineFaults::Framing kFraming{5, 1};

TEST(LineFaults, EachKindDamagesWhereItSays) {
    CLineFaults faults(7, 1.0);
    for (int round = 0; round < 200; ++round) {
        auto changed = faults.damage(kAnswer, CLineFaults::ChangedByte, kFraming).first;
        ASSERT_EQ(changed.size(), kAnswer.size());
        int diffs = 0;
        for (size_t i = 0; i < changed.size(); ++i)
            diffs += changed[i] != kAnswer[i];
        EXPECT_EQ(diffs, 1);

        auto truncated = faults.damage(kAnswer, CLineFaults::Truncated, kFraming).first;
        EXPECT_GE(truncated.size(), 1u);
        EXPECT_LT(truncated.size(), kAnswer.size());
        EXPECT_TRUE(std::equal(truncated.begin(), truncated.end(), kAnswer.begin()));

        auto noisy = faults.damage(kAnswer, CLineFaults::Noise, kFraming).first;
        ASSERT_GT(noisy.size(), kAnswer.size());
        EXPECT_LE(noisy.size(), kAnswer.size() + 4);
        EXPECT_TRUE(std::equal(kAnswer.begin(), kAnswer.end(), noisy.end() - kAnswer.size()));

        auto late = faults.damage(kAnswer, CLineFaults::LateCheck, kFraming);
        EXPECT_EQ(late.first, Bytes(kAnswer.begin(), kAnswer.end() - 1));
        EXPECT_EQ(late.late, Bytes{0x36});
        EXPECT_GE(late.lateMs, 40);
        EXPECT_LE(late.lateMs, 80);
    }
    EXPECT_EQ(faults.damage(kAnswer, CLineFaults::LostEndByte, kFraming).first,
              (Bytes{0x02, '1', '2', '.', '5', 0x36}));
    // Without a stated end byte the one before the check bytes is lost.
    EXPECT_EQ(faults.damage(kAnswer, CLineFaults::LostEndByte, {-1, 1}).first,
              (Bytes{0x02, '1', '2', '.', '5', 0x36}));
    EXPECT_TRUE(faults.damage(kAnswer, CLineFaults::NoAnswer, kFraming).first.empty());
    EXPECT_EQ(faults.damage(kAnswer, CLineFaults::None, kFraming).first, kAnswer);
}

TEST(LineFaults, ChangedBytesReachFramingAndCheckBytes) {
    CLineFaults faults(11, 1.0);
    std::vector<bool> hit(kAnswer.size());
    for (int round = 0; round < 500; ++round) {
        auto changed = faults.damage(kAnswer, CLineFaults::ChangedByte, kFraming).first;
        for (size_t i = 0; i < changed.size(); ++i)
            if (changed[i] != kAnswer[i])
                hit[i] = true;
    }
    for (size_t i = 0; i < hit.size(); ++i)
        EXPECT_TRUE(hit[i]) << "byte " << i << " never damaged";
}

TEST(LineFaults, ShareAndSeed) {
    auto run = [](uint32_t seed, double share) {
        CLineFaults faults(seed, share);
        std::vector<int> kinds;
        for (int i = 0; i < 2000; ++i)
            kinds.push_back(faults.draw());
        return kinds;
    };
    EXPECT_EQ(run(3, 0.08), run(3, 0.08));
    EXPECT_NE(run(3, 0.08), run(4, 0.08));
    auto clean = run(3, 0.0);
    EXPECT_TRUE(std::all_of(clean.begin(), clean.end(), [](int k) { return k == CLineFaults::None; }));
    auto noisy = run(5, 0.08);
    long damaged = std::count_if(noisy.begin(), noisy.end(), [](int k) { return k != CLineFaults::None; });
    EXPECT_GT(damaged, 100);  // 160 expected
    EXPECT_LT(damaged, 230);
    for (int k = CLineFaults::ChangedByte; k < CLineFaults::kKindCount; ++k)
        EXPECT_NE(std::find(noisy.begin(), noisy.end(), k), noisy.end()) << CLineFaults::kindName(CLineFaults::Kind(k));
}

TEST(SimLine, CarriesBytesBothWaysAndStops) {
    CSimLine line({9600, 10, false, {}});
    ASSERT_TRUE(line.open());
    CUniqueFd port(::open(line.slavePath().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(port.valid());

    ASSERT_EQ(::write(port.get(), "/?!\r\n", 5), 5);
    uint8_t buf[16];
    ASSERT_EQ(line.read(buf, sizeof buf, 2000), 5);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buf), 5), "/?!\r\n");

    CLineFaults faults(1, 0.0);
    ASSERT_TRUE(faults.deliver(line, kAnswer, CLineFaults::LateCheck, kFraming));
    size_t got = 0;
    while (got < kAnswer.size()) {
        ssize_t n = ::read(port.get(), buf + got, sizeof buf - got);
        ASSERT_GT(n, 0);
        got += static_cast<size_t>(n);
    }
    EXPECT_EQ(Bytes(buf, buf + got), kAnswer);
    EXPECT_EQ(faults.count(CLineFaults::LateCheck), 1u);
    EXPECT_EQ(faults.summary(),
              "exchanges=1 changed_byte=0 lost_end_byte=0 truncated=0 no_answer=0 late_check=1 noise=0 "
              "ignored_request=0");

    std::thread reader([&] { EXPECT_EQ(line.read(buf, sizeof buf, -1), 0); });
    line.stop();
    reader.join();
    EXPECT_FALSE(line.pause(std::chrono::milliseconds(1000)));
}

}  // namespace
