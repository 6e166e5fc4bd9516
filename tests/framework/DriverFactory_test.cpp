// SPDX-License-Identifier: Apache-2.0
// The model table: first matching row in order, exact rows case-sensitive,
// contains rows anywhere in the string.
#include "drivers/DriverFactory.h"

#include <gtest/gtest.h>

namespace {

TEST(DriverFactory, ModelTable) {
    const struct {
        const char* model;
        const char* className;  // nullptr: the empty driver
        int code;
    } rows[] = {
        {"ek270", "CmtdEK2xxTC2xx", 2},
        {"ek260", "CmtdEK2xxTC2xx", 1},
        {"tc215", "CmtdEK2xxTC2xx", 5},
        {"tc210", "CmtdEK2xxTC2xx", 4},
        {"EK260", nullptr, 0},
        {"", nullptr, 0},
        {"ek260 ", nullptr, 0},
        {"spg761.1", "CmtdSPG761", 1},
        {"spg761", "CmtdSPG761", 0},
        {"spg761.2", "CmtdSPG761", 1},
        {"spg742", "CmtdSpgM4", 1},
        {"my-vrsg-1-rev2", "CmtdVrsg", 2},
        {"flowgas", "CmtdFlowgas", 0},
        {"flowgas-t", "CmtdFlowgas", 1},
        {"tc-90k", "CmtdTC90T", 0},
        {"tc-90t", "CmtdTC90T", 0},
        {"im2300-serii-klmsxyzt", "CmtdIM2300GasNotModbus", 0},
        {"xim2300gas", "CmtdIM2300Agas", 0},
        {"bvr.m-2", "CmtdBVRM", 2},
        {"dymetic-5121", "CmtdDymetic", 1},
        {"corus", "CmtdCorus", 0},
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
