// SPDX-License-Identifier: Apache-2.0
#pragma once
// A driver's device operations over whatever the line delivers, in the order a
// cycle calls them; what they return goes to the replay report (FuzzLog.h). An exception that ends a cycle (CDisconnectException and
// friends) ends that step only, which is fine: the next step reads on.

#include <ctime>
#include <initializer_list>
#include <stdexcept>
#include <vector>

#include "framework/CMtdBaseDriver.h"
#include "fuzz/FuzzLog.h"
#include "tests/support/ArchiveCollector.h"

template <typename F>
void ignoringCycleEnd(F f) {
    try {
        f();
    } catch (const std::runtime_error&) {
    }
}

inline void runDriverSteps(CMtdBaseDriver& driver, std::initializer_list<int> kinds, time_t from, time_t to) {
    ignoringCycleEnd([&] { driver.init(); });
    ignoringCycleEnd([&] { fuzzReport(driver.get_all_system_values()); });
    ignoringCycleEnd([&] { fuzzReport(driver.get_all_curtime_cur_integ_values()); });
    for (int kind : kinds) {
        std::vector<ArchiveRecord> out;
        ignoringCycleEnd([&] { test_support::readArchive(driver, kind, from, to, out); });
        fuzzReport(out);
    }
}
