// SPDX-License-Identifier: Apache-2.0
#pragma once
// What every driver test sets up around a simulated meter: a connector on the
// slave end of the simulator's pseudo-terminal, a private folder for archives
// and control files, and the driver wired to both as the factory would do it.
// A driver test builds its simulator, then a DriverLine on sim.slavePath(),
// then calls attach() with the meter's configuration.

#include <chrono>
#include <memory>
#include <string>

#include "framework/CMtdBaseDriver.h"
#include "framework/CMtdClock.h"
#include "storage/GasFileConnector.h"
#include "support/TempDir.h"
#include "transport/CConnector.h"

namespace test_support {

// The polling thread's clock for a device whose clock stands still: a wait
// for a later time only ends when the thread is stopped.
class StillClock : public CMtdClock {
public:
    explicit StillClock(time_t t) : m_now(t) {}
    time_t now() const override { return m_now; }
    std::chrono::system_clock::time_point deadlineFor(time_t) const override {
        return std::chrono::system_clock::now() + std::chrono::hours(1);
    }

private:
    time_t m_now;
};

struct DriverLine {
    TempDir dir;
    std::unique_ptr<CConnector> conn;

    // `timeoutMs`: the port's per-byte silence time-out.
    DriverLine(const std::string& ptyPath, const std::string& speed, const std::string& timeoutMs = "300",
               const std::string& tag = "mtd_driver")
        : dir(tag) {
        LedPaths leds;
        leds.transmit = leds.receive = dir / "led";
        conn = std::make_unique<CConnector>(PortParams{{"name", ptyPath}, {"speed", speed}, {"timeout", timeoutMs}},
                                            leds);
        opened = conn->open_device();
    }

    // Meter identifier "42" unless the configuration names one.
    void attach(CMtdBaseDriver& driver, CDeviceConfig config) {
        if (config.meter_id.empty())
            config.meter_id = "42";
        meterId = config.meter_id;
        driver.save_init_params(config);
        DriverPaths paths;
        paths.controlDir = dir.path;
        paths.storageRoot = dir / "storage/";
        driver.setPaths(paths);
        driver.SaveConnector(conn.get());
    }

    // The newest stored record time of an archive kind (0 when none).
    time_t lastStored(int archType) const {
        return GasFileConnector(meterId, dir / "storage/", dir.path).GetLastTimestamp(archType);
    }

    bool opened = false;
    std::string meterId = "42";
};

}  // namespace test_support
