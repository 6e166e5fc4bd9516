// SPDX-License-Identifier: Apache-2.0
// The EK2xx/TC2xx driver against a meter that answers with the fuzz input:
// the session, system values, current values and the three archives, so the
// reply parsers (identification, lock state, "value*unit", date-times, header
// and unit lists, archive records with their CRC) all see hostile text. The
// first byte picks the model; the rest is the whole stream of replies.

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <exception>
#include <memory>
#include <vector>

#include "drivers/ek2xx/CmtdEK2xxTC2xx.h"
#include "core/DataCodes.h"
#include "fuzz/CReplayTransport.h"
#include "fuzz/FuzzLog.h"
#include "core/ArchiveRecord.h"
#include "transport/CConnector.h"
#include "tests/support/ArchiveCollector.h"

namespace {

template <typename F>
void ignoringCycleEnd(F f) {
    try {
        f();
    } catch (const std::runtime_error&) {
        // CDisconnectException and friends: the driver ends the cycle, which is fine.
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    fuzzLogAll();
    static const int kModels[] = {CmtdEK2xxTC2xx::EK270, CmtdEK2xxTC2xx::EK260, CmtdEK2xxTC2xx::TC220,
                                  CmtdEK2xxTC2xx::TC210, CmtdEK2xxTC2xx::TC215};
    const int model = kModels[data[0] % 5];
    CConnector conn{std::make_unique<CReplayTransport>(data + 1, size - 1)};
    CmtdEK2xxTC2xx driver(model);
    CDeviceConfig config;
    config.meter_id = "42";
    config.params = {{"speed", "9600"}, {"systems", "3;"}, {"manufacturer", "ek270"}, {"pu_TZ", "3"}};
    config.password1 = "00000000";
    config.password2 = "11111111";
    config.serial_text = "12345678";
    driver.save_init_params(config);
    driver.SaveConnector(&conn);
    driver.protocol()->setSleep([](std::chrono::milliseconds) {});

    const time_t from = 1714000000;  // 2024-04-24
    const time_t to = 1714600000;
    ignoringCycleEnd([&] { driver.init(); });
    ignoringCycleEnd([&] { fuzzReport(driver.get_all_system_values()); });
    ignoringCycleEnd([&] { fuzzReport(driver.get_all_curtime_cur_integ_values()); });
    for (int arch : {ARCH_HOURLY, ARCH_DAILY, ARCH_JOURNAL_EVENT}) {
        std::vector<ArchiveRecord> out;
        ignoringCycleEnd([&] { test_support::readArchive(driver, arch, from, to, out); });
        fuzzReport(out);
    }
    return 0;
}
