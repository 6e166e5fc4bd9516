// SPDX-License-Identifier: Apache-2.0
#pragma once
// An SPG761 gas volume corrector on the master end of a pseudo-terminal,
// speaking SPbus as the maker's public meter library describes it, for tests,
// the demo, the benchmark and end-to-end runs.
//
// Frames: DLE SOH [DAD SAD] DLE ISI FN [packet id] DLE STX records DLE ETX
// crc-hi crc-lo, each record a run of HT-led fields ended by FF; the reply
// echoes the packet id. Functions answered:
//   0x1D -> 0x03  per {channel, parameter} record: the pointer, then value and unit
//   0x0C -> 0x14  {channel, parameter, first index, count}: the pointer, one value block per element
//   0x19 -> 0x21  {0, archive}: the pointer, per column name, unit, channel, parameter
//   0x18 -> 0x20  {0, archive} {dd MM yyyy HH mm ss}: the pointer, the time asked,
//                 the slice's time, the time of the interval before, one value per column
//   0x0E -> 0x16  {channel, archive} {END} {START}: the pointer, both times,
//                 then the entries newest first: value, unit ("" = as before),
//                 "dd-MM-yy/HH:mm:ss"; the reply stops near 5500 bytes
// A frame that fails its check is ignored. A parameter the meter has not got
// answers "Нет данных?", a time it cannot read "Дата/время?", as the meter's
// own diagnoses. Text goes out in CP866.
//
// Public facts (the maker's C# library, its Python port): the frame and check,
// the function pairs, 024 contract hour, 025 contract day, 030 engineering
// units, 060 "dd-MM-yy", 061 "HH:mm:ss", 099 "761" and ".1v"/".2v" for the new
// generation (then an array: model, factory number), the slice and journal
// layouts, the end-then-start order of 0x0E. Not public, this simulator's own
// guess: the pipeline parameters 150-161, the archives 65 (hourly) and 66
// (daily) and 96 (journal), the column list, the journal's texts, the slice's
// time being the start of its interval. A test that passes on those cannot
// judge them.
//
// The archives are a function of the device clock and the seed: a slice
// exists once its interval has closed. This file shares nothing with the
// daemon: not its tables, not its check-sum code.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "tools/simline/CLineFaults.h"
#include "tools/simline/CSimLine.h"
#include "tools/simline/CSimServeThread.h"

struct SSpbusSimConfig {
    std::string model = "761";        // "761", "761.1" or "761.2"
    std::string serial = "76100042";  // 008 on the old generation, 099 element 1 on the new
    int rateHour = 10;                // contract hour (024)
    int rateDay = 1;                  // contract day (025)
    std::string pressureUnit = "kgf/cm2";  // kgf/cm2, MPa, kPa or bar
    int archiveDays = 3;              // history before the clock start
    std::time_t now = 0;              // device clock at start (device wall time as UTC); 0 = system time
    double clockScale = 1.0;          // device seconds per real second
    uint32_t seed = 1;
    int eventEvery = 5;               // about one hour in this many has journal entries
    size_t maxReply = 5500;           // a journal reply stops before it grows past this
    int baud = 9600;
    bool timing = true;
    int silentAfter = 0;              // go silent after this many requests (0 = never)
    int silentCount = 0;              // requests ignored while silent (0 = for ever)
    double faultShare = 0;
    uint32_t faultSeed = 1;
};

class CSpbusSim {
public:
    static constexpr int kHourly = 65, kDaily = 66, kEvents = 96;

    explicit CSpbusSim(SSpbusSimConfig config, std::string link = std::string());
    ~CSpbusSim();
    CSpbusSim(const CSpbusSim&) = delete;
    CSpbusSim& operator=(const CSpbusSim&) = delete;

    bool open();
    bool start();
    void stop();
    const std::string& slavePath() const { return m_line.slavePath(); }

    std::time_t deviceNow() const;
    // One archive record: its time, its values of pipeline 1 and the common
    // channel as stored ("Vstd Vw P T NS"; journal "event description", the
    // description in UTF-8) and, for the journal, the description in CP866.
    struct Record {
        std::time_t time;
        std::string text;
        std::string event, description866;
    };
    // Archive kHourly, kDaily or kEvents: the records with from <= time <= to
    // the meter holds at device time `until`, oldest first.
    std::vector<Record> records(int archive, std::time_t from, std::time_t to, std::time_t until) const;
    std::string faultSummary() const { return m_faults.summary(); }
    int requestsSeen() const { return m_requests.load(); }

private:
    using Fields = std::vector<std::string>;
    void serve();
    void handle(const std::vector<uint8_t>& frame);
    // The reply records of a request (function `fn`, records `in`); false: not answered at all.
    bool answer(uint8_t fn, const std::vector<Fields>& in, uint8_t& replyFn, std::vector<Fields>& out) const;
    bool paramValue(int ch, int param, std::string& value, std::string& unit) const;
    void slice(int archive, std::time_t at, std::vector<Fields>& out) const;
    // Appends to `out` (the reply's records so far) the entries that fit.
    void journal(std::time_t end, std::time_t start, std::vector<Fields>& out) const;
    double slotValue(int archive, int pipe, int column, std::time_t slot) const;

    SSpbusSimConfig m_cfg;
    CSimLine m_line;
    CLineFaults m_faults;
    CSimServeThread m_serving{m_line};
    std::atomic<int> m_requests{0};
    std::time_t m_historyStart = 0;
    std::chrono::steady_clock::time_point m_steadyStart;
    int m_silentLeft = -1;
};
