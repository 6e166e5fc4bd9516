// SPDX-License-Identifier: Apache-2.0
#include "app/CMtdMainLoop.h"

#include "core/logger.h"

CMtdMainLoop::CMtdMainLoop(Drivers& drivers, CStopSource& stop, std::chrono::milliseconds step)
    : m_drivers(drivers), m_stop(stop), m_step(step) {}

void CMtdMainLoop::run() {
    while (!m_stop.stopRequested()) {
        if (m_drivers.empty()) {
            m_stop.waitStop(m_step);
            continue;
        }
        for (auto& driver : m_drivers) {
            driver->GiveTurn();
            while (driver->HasTurn()) {
                if (m_stop.waitStop(m_step))
                    return;
                for (auto& each : m_drivers)
                    each->GetArchActual();
            }
            if (m_stop.stopRequested())
                return;
        }
    }
}

void CMtdMainLoop::stopDrivers() {
    MTD_LOG(Info, "main: stopping %zu driver(s).", m_drivers.size());
    for (auto& driver : m_drivers) {
        driver->StopPolling();
        driver.reset();
    }
    m_drivers.clear();
}
