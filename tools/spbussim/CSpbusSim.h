// SPDX-License-Identifier: Apache-2.0
#pragma once
// An SPG761 gas volume corrector on the master end of a pseudo-terminal,
// speaking SPbus in its short form (no addresses), for tests, the demo and
// end-to-end runs.
//
// Requests DLE SOH DLE ISI FN DLE STX HT ch HT ppp ... FF DLE ETX crc-hi crc-lo
// are answered with 0x03 (parameter: value and unit), 0x14 (array elements)
// and 0x16 (archive records between two device times, a few per reply,
// each a time block and a value block; hourly and daily archives of pipeline
// 1, the event journal of channel 0). A request that fails its check or
// names an unknown parameter gets no data: the first is ignored, the second
// answered with function 0x21. Units go out in CP866 as the meter sends them.
//
// The archives are a function of the device clock and the seed: a record
// exists once its interval has closed. This file keeps its own parameter
// numbers, record layout and check: it shares nothing with the driver.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/simline/CLineFaults.h"
#include "tools/simline/CSimLine.h"

struct SSpbusSimConfig {
    std::string model = "761";        // "761", "761.1" or "761.2" (identification parameter)
    std::string serial = "76100042";  // identifier parameter
    int rateHour = 10;                // contract hour
    std::string pressureUnit = "kgf/cm2";  // kgf/cm2, MPa, kPa or bar
    int archiveDays = 3;              // history before the clock start
    std::time_t now = 0;              // device clock at start (device wall time as UTC); 0 = system time
    double clockScale = 1.0;          // device seconds per real second
    uint32_t seed = 1;
    int recordsPerReply = 6;          // archive records in one reply
    int baud = 9600;
    bool timing = true;
    int silentAfter = 0;              // go silent after this many requests (0 = never)
    int silentCount = 0;              // requests ignored while silent (0 = for ever)
    double faultShare = 0;
    uint32_t faultSeed = 1;
};

class CSpbusSim {
public:
    explicit CSpbusSim(SSpbusSimConfig config, std::string link = std::string());
    ~CSpbusSim();
    CSpbusSim(const CSpbusSim&) = delete;
    CSpbusSim& operator=(const CSpbusSim&) = delete;

    bool open();
    bool start();
    void stop();
    const std::string& slavePath() const { return m_line.slavePath(); }

    std::time_t deviceNow() const;
    // Archive 65 (hourly), 66 (daily) or 96 (event journal): "<time> <v1> <v2> ..."
    // per record with from <= time <= to, each closed by `until` (device seconds).
    std::vector<std::pair<std::time_t, std::string>> records(int archive, std::time_t from, std::time_t to,
                                                             std::time_t until) const;
    std::string faultSummary() const { return m_faults.summary(); }
    int requestsSeen() const { return m_requests.load(); }

private:
    void serve();
    void handle(const std::vector<uint8_t>& frame);
    bool paramValue(int ch, int param, std::string& value, std::string& unit) const;

    SSpbusSimConfig m_cfg;
    CSimLine m_line;
    CLineFaults m_faults;
    std::thread m_thread;
    std::atomic<int> m_requests{0};
    std::time_t m_historyStart = 0;
    std::chrono::steady_clock::time_point m_steadyStart;
    int m_silentLeft = -1;
};
