// SPDX-License-Identifier: Apache-2.0
// The SPG741 driver against a meter that answers with the fuzz input: session
// start, settings, clock, current values and the three archives, so the
// memory-read frames (a flash block being one frame a page), the settings
// texts, the Microchip floats, the ring indexes, the headers and the journal
// records all see hostile bytes. The input is the whole stream of replies.

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <vector>

#include "drivers/logika/CmtdSPG741.h"
#include "fuzz/CReplayTransport.h"
#include "fuzz/FuzzLog.h"
#include "core/ArchiveRecord.h"
#include "transport/CConnector.h"
#include "tests/support/ArchiveCollector.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzLogAll();
    CConnector conn{std::make_unique<CReplayTransport>(data, size)};
    CmtdSPG741 driver;
    CDeviceConfig config;
    config.meter_id = "41";
    config.params = {{"systems", "1;"}, {"manufacturer", "spg741"}, {"pu_TZ", "3"}};
    config.serial_text = "741005";
    driver.save_init_params(config);
    driver.setTiming(M4::Timing(), [](std::chrono::milliseconds) {});
    driver.SaveConnector(&conn);

    auto step = [](auto f) {
        try {
            f();
        } catch (const std::runtime_error&) {
            // CDisconnectException and friends end the cycle, which is fine.
        }
    };
    const time_t from = 1714000000, to = 1714600000;
    step([&] { driver.init(); });
    step([&] { fuzzReport(driver.get_all_system_values()); });
    step([&] { fuzzReport(driver.get_all_curtime_cur_integ_values()); });
    for (int arch : {ARCH_DAILY, ARCH_HOURLY, ARCH_JOURNAL_EVENT}) {
        std::vector<ArchiveRecord> out;
        step([&] { test_support::readArchive(driver, arch, from, to, out); });
        fuzzReport(out);
    }
    return 0;
}
