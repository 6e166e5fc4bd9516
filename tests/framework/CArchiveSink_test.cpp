// SPDX-License-Identifier: Apache-2.0
#include "framework/CArchiveSink.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <vector>

namespace {

constexpr time_t kH = 3600;
constexpr time_t kT0 = 1714521600;  // 2024-05-01 00:00 UTC

class FakeStore : public ArchiveStore {
public:
    bool store(int type, const std::vector<ArchiveRecord>& records) override {
        ++calls;
        if (failFrom > 0 && calls >= failFrom)
            return false;
        for (const auto& r : records) {
            stored.push_back(r.timestamp);
            last[type] = std::max<time_t>(last[type], r.timestamp);
        }
        return true;
    }
    time_t lastStored(int type) const override {
        auto it = last.find(type);
        return it == last.end() ? 0 : it->second;
    }
    int calls = 0;
    int failFrom = 0;  // this store call and all after it fail
    std::vector<long long> stored;
    std::map<int, time_t> last;
};

ArchiveRecord at(time_t t) {
    ArchiveRecord r;
    r.timestamp = t;
    return r;
}

struct In {
    time_t t;
    long long number;  // -1: the meter has none
};

using V = CArchiveSink::Verdict;

// One read: records in, what each was judged, what the store holds after.
TEST(ArchiveSink, WhatIsTakenSkippedOrRefused) {
    struct Case {
        const char* legend;
        int type;
        time_t period;  // setInterval; 0 none
        bool grid;
        time_t alreadyStored;
        std::vector<In> in;
        std::vector<V> verdicts;
        std::vector<long long> stored;
        bool complete;
    } cases[] = {
        {"in order, clipped to the window", ARCH_HOURLY, kH, false, 0,
         {{kT0 - kH, -1}, {kT0, -1}, {kT0 + kH, -1}, {kT0 + 5 * kH, -1}},
         {V::Skipped, V::Taken, V::Taken, V::Gap}, {kT0, kT0 + kH}, true},
        {"past the window ends the read", ARCH_HOURLY, kH, false, 0,
         {{kT0 + 2 * kH, -1}, {kT0 + 3 * kH, -1}}, {V::Taken, V::Stop}, {kT0 + 2 * kH}, true},
        {"older or repeated interval record without numbers", ARCH_HOURLY, 0, false, 0,
         {{kT0 + kH, -1}, {kT0 + kH, -1}, {kT0, -1}}, {V::Taken, V::Skipped, V::Skipped}, {kT0 + kH}, true},
        {"off the grid", ARCH_DAILY, 86400, true, 0,
         {{kT0, -1}, {kT0 + 86400 + 60, -1}}, {V::Taken, V::Gap}, {kT0}, true},
        {"record numbers: a block again, then a jump", ARCH_HOURLY, kH, false, 0,
         {{kT0, 7}, {kT0 + kH, 8}, {kT0 + kH, 8}, {kT0 + 2 * kH, 10}}, {V::Taken, V::Taken, V::Skipped, V::Gap},
         {kT0, kT0 + kH}, true},
        {"numbers rule over a clock set back", ARCH_HOURLY, kH, false, 0,
         {{kT0 + kH, 1}, {kT0 + kH / 2, 2}}, {V::Taken, V::Taken}, {kT0 + kH, kT0 + kH / 2}, true},
        {"already stored", ARCH_HOURLY, kH, false, kT0 + kH,
         {{kT0 + kH, -1}, {kT0 + 2 * kH, -1}}, {V::Skipped, V::Taken}, {kT0 + kH, kT0 + 2 * kH}, true},
        {"journal: a shared second, then back in time", ARCH_JOURNAL_EVENT, 0, false, 0,
         {{kT0 + 5, -1}, {kT0 + 5, -1}, {kT0 + 4, -1}}, {V::Taken, V::Taken, V::Gap}, {kT0 + 5, kT0 + 5}, true},
        {"journal broken: its newest second waits", ARCH_JOURNAL_EVENT, 0, false, 0,
         {{kT0 + 5, -1}, {kT0 + 9, -1}, {kT0 + 9, -1}}, {V::Taken, V::Taken, V::Taken}, {kT0 + 5}, false},
        {"interval broken: all kept", ARCH_HOURLY, kH, false, 0,
         {{kT0, -1}, {kT0 + kH, -1}}, {V::Taken, V::Taken}, {kT0, kT0 + kH}, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.legend);
        FakeStore store;
        if (c.alreadyStored)
            store.store(c.type, {at(c.alreadyStored)});
        CArchiveSink sink(store, c.type, kT0, kT0 + 2 * kH + (c.type == ARCH_DAILY ? 2 * 86400 : 0));
        sink.setInterval(c.period, c.grid);
        std::vector<V> verdicts;
        for (const In& in : c.in)
            verdicts.push_back(sink.add(at(in.t), in.number));
        EXPECT_EQ(verdicts, c.verdicts);
        sink.finish(c.complete);
        EXPECT_EQ(store.stored, c.stored);
    }
}

// A long read is stored a block at a time; the newest second of each block
// waits for the next (a journal may have more of it still to come).
TEST(ArchiveSink, StoresBlockByBlockAndStopsAtAFailedStore) {
    FakeStore store;
    CArchiveSink sink(store, ARCH_JOURNAL_EVENT, kT0, kT0 + 1000);
    for (int i = 0; i < 30; ++i)
        ASSERT_EQ(sink.add(at(kT0 + i / 2)), V::Taken);
    ASSERT_TRUE(sink.endBlock());
    EXPECT_EQ(store.stored.size(), 28u);  // the two entries of the newest second wait
    EXPECT_EQ(store.lastStored(ARCH_JOURNAL_EVENT), kT0 + 13);

    store.failFrom = 2;
    for (int i = 30; i < 60; ++i)
        sink.add(at(kT0 + i / 2));
    EXPECT_FALSE(sink.endBlock());  // nothing after a failed store: a hole would stay for good
    EXPECT_TRUE(sink.storeFailed());
    EXPECT_EQ(store.lastStored(ARCH_JOURNAL_EVENT), kT0 + 13);  // progress stays where the files are
    sink.finish(true);
    EXPECT_EQ(store.lastStored(ARCH_JOURNAL_EVENT), kT0 + 13);
}

TEST(ArchiveSink, StopRequestEndsTheReadAndHoldsTheJournalSecondBack) {
    FakeStore store;
    std::atomic<bool> stop{false};
    CArchiveSink sink(store, ARCH_JOURNAL_EVENT, kT0, kT0 + 1000, &stop);
    sink.add(at(kT0 + 1));
    sink.add(at(kT0 + 2));
    stop = true;
    EXPECT_EQ(sink.add(at(kT0 + 2)), V::Stop);
    EXPECT_FALSE(sink.endBlock());
    EXPECT_EQ(sink.finish(true), 1u);
    EXPECT_EQ(store.stored, std::vector<long long>{kT0 + 1});
}

}  // namespace
