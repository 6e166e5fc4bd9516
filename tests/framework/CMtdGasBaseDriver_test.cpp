// SPDX-License-Identifier: Apache-2.0
// Removing the passport file: every way it can go ends in one of its two log lines.
#include "framework/CMtdGasBaseDriver.h"

#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/TempDir.h"
#include <stdlib.h>

#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "core/logger.h"

namespace {

class PassportDriver : public gas::CMtdGasBaseDriver {
public:
    PassportDriver(const std::string& id, const std::string& controlDir) {
        CDeviceConfig config;
        config.meter_id = id;
        save_init_params(config);
        DriverPaths p;
        p.controlDir = controlDir;
        setPaths(p);
    }
    using gas::CMtdGasBaseDriver::RemovePasportFile;
};

TEST(GasBaseDriver, RemovePasportFileLogsEveryOutcome) {
    test_support::TempDir tmp("mtd_passport");
    const std::string& dir = tmp.path;
    // A control directory so deep that the passport path passes 256 bytes.
    const std::string deep = dir + std::string(200, 'd') + "/";
    std::system(("mkdir -p '" + deep + "'").c_str());
    std::ofstream(dir + "gmd_set_value_7");
    std::ofstream(deep + "gmd_set_value_12345678901234567890123456789012345678901234567890");

    const struct {
        const char* legend;
        std::string id, controlDir;
        int severity;
        const char* text;
        std::string leftBehind;  // a file that must still exist afterwards
    } rows[] = {
        {"file removed", "7", dir, logger::DEBUG, "passport file delete successful [", ""},
        {"no file", "8", dir, logger::ERR, "passport file not delete [", ""},
        {"unsafe identifier", "../7", dir, logger::ERR, "passport file not delete [", ""},
        {"path over 256 bytes", "12345678901234567890123456789012345678901234567890", deep, logger::ERR,
         "passport file not delete [", deep + "gmd_set_value_12345678901234567890123456789012345678901234567890"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.legend);
        test_support::LogCapture log;
        PassportDriver driver(row.id, row.controlDir);
        driver.RemovePasportFile();
        EXPECT_EQ(log.lines().size(), 1u);
        EXPECT_EQ(log.count(row.severity, std::string("CMtdGasBaseDriver::RemovePasportFile ") + row.text), 1);
        if (!row.leftBehind.empty()) {
            EXPECT_TRUE(std::ifstream(row.leftBehind).good());
        }
    }
    EXPECT_FALSE(std::ifstream(dir + "gmd_set_value_7").good());
}

}  // namespace
