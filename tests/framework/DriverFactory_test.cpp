// SPDX-License-Identifier: Apache-2.0
// The model table: first matching row in order, exact rows case-sensitive,
// contains rows anywhere in the string.
#include "drivers/DriverFactory.h"

#include <gtest/gtest.h>

namespace {

TEST(DriverFactory, MatchingRules) {
    const struct {
        const char* model;
        const char* className;  // nullptr: the empty driver
        int code;
    } rows[] = {
        // Exact rows: whole string, case-sensitive; the first matching row wins.
        {"ek270", "CmtdEK2xxTC2xx", 2},
        {"EK260", nullptr, 0},
        {"ek260 ", nullptr, 0},
        {"", nullptr, 0},
        // An exact row is tested before a "contains" row whose text it includes.
        {"spg761.1", "CmtdSPG761", 1},
        {"spg761", "CmtdSPG761", 0},
        // "contains" rows match anywhere in the string, in table order.
        {"my-vrsg-1-rev2", "CmtdVrsg", 2},
        {"im2300-serii-klmsxyzt", "CmtdIM2300GasNotModbus", 0},
        {"xim2300gas", "CmtdIM2300Agas", 0},
    };
    for (const auto& r : rows) {
        const DriverChoice choice = findDriverModel(r.model);
        if (!r.className) {
            EXPECT_EQ(choice.row, nullptr) << "'" << r.model << "'";
            continue;
        }
        ASSERT_NE(choice.row, nullptr) << r.model;
        EXPECT_STREQ(choice.row->className, r.className) << r.model;
        EXPECT_EQ(choice.code, r.code) << r.model;
    }
}

}  // namespace
