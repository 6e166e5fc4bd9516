// SPDX-License-Identifier: Apache-2.0
#pragma once
// An M4 meter on the master side of a pseudo-terminal: reads request frames
// at the line's real speed, hands the checked ones to the chosen model
// (CM4SimModel) and sends its answers through the seeded line faults.
//
// The device clock starts at M4SimOptions::start and runs `clockScale` device
// seconds per real second, so archives grow while a test watches.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "tools/m4sim/CM4SimModel.h"
#include "tools/simline/CLineFaults.h"
#include "tools/simline/CSimLine.h"
#include "tools/simline/CSimServeThread.h"

struct M4SimServerOptions {
    CSimLine::Options line;
    double clockScale = 1.0;
    double faultShare = 0;       // share of exchanges damaged on the line
    uint32_t faultSeed = 1;
    // Goes silent after this many requests (0 = never) for `silentCount`
    // requests (0 = for ever); counted over archive requests when silentInArchive.
    int silentAfter = 0;
    int silentCount = 0;
    bool silentInArchive = false;
};

class CM4Sim {
public:
    CM4Sim(std::unique_ptr<CM4SimModel> model, M4SimOptions options, M4SimServerOptions server);
    ~CM4Sim();
    CM4Sim(const CM4Sim&) = delete;
    CM4Sim& operator=(const CM4Sim&) = delete;

    bool open();
    const std::string& slavePath() const { return m_line.slavePath(); }
    // Serves on a thread of its own until stop() or destruction.
    bool start();
    void stop();

    time_t deviceNow() const;
    std::string faultSummary() const { return m_faults.summary(); }
    uint64_t answered() const { return m_answered.load(); }

private:
    void serve();
    // True when the silent meter ignores this request.
    bool silent(const m4sim::Frame& frame);

    std::unique_ptr<CM4SimModel> m_model;
    M4SimOptions m_options;
    M4SimServerOptions m_server;
    CSimLine m_line;
    CLineFaults m_faults;
    std::chrono::steady_clock::time_point m_started;
    CSimServeThread m_serving{m_line};
    std::atomic<uint64_t> m_answered{0};
    int m_counted = 0;
    int m_ignored = 0;
};
