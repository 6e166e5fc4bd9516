// SPDX-License-Identifier: Apache-2.0
#pragma once
// Turn-taking of the process's drivers on the one shared line. The main thread
// gives the turn to one driver at a time, in list order, and then looks every
// step (5 s) whether that driver has given it back, calling GetArchActual on
// every driver at each step; then the next driver gets the turn. A stop ends
// the loop at once, in the middle of a pass too; stopDrivers() then ends every
// driver's thread in list order (each closes its device session first).

#include <chrono>
#include <memory>
#include <vector>

#include "framework/CMtdBaseDriver.h"
#include "app/CStopSource.h"

class CMtdMainLoop {
public:
    using Drivers = std::vector<std::unique_ptr<CMtdBaseDriver>>;

    CMtdMainLoop(Drivers& drivers, CStopSource& stop, std::chrono::milliseconds step = std::chrono::seconds(5));

    // Hands out turns until a stop is asked; with no drivers it only waits for the stop.
    void run();
    // Stops and destroys every driver, in list order.
    void stopDrivers();

private:
    Drivers& m_drivers;
    CStopSource& m_stop;
    std::chrono::milliseconds m_step;
};
