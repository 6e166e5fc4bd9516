// SPDX-License-Identifier: Apache-2.0
#pragma once
// Health of one meter as the operator and mtd_status see it: the file
// "<dir>mtd_status_<id>.json", rewritten by the meter's polling thread when a
// cycle starts and ends (also by an exception) and when a pause begins.
//
// The file is replaced, never rewritten in place: a temporary file in the same
// directory is written, synced and renamed over the old one, so a reader sees
// either the previous or the new document, never half of one.
//
// Only the polling thread fills and writes it; the link counters are atomics
// because the protocol layers note into them (CLinkStats).

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "transport/CLinkStats.h"
#include "core/CValueRecord.h"

class CMtdStatus {
public:
    CMtdStatus(std::string dir, std::string meterId);

    // "<dir>mtd_status_<id>.json"; empty for an identifier unsafe in a path.
    const std::string& path() const { return m_path; }

    // Writes the document atomically; false (and one log line) on failure.
    bool write(time_t now) const;
    // Removes the file, e.g. when the meter is no longer served.
    void remove() const;
    // The whole document as text, as write() would store it.
    std::string document(time_t now) const;

    // Resident memory of this process in KiB, from /proc/self/statm; 0 when unknown.
    static long residentKiB();

    // ---- filled by the polling thread ----
    std::string model;
    std::string driverClass;
    time_t started = 0;  // the thread's start
    int dataRate = 300;
    bool paused = false;
    // "reading", "waiting", "failing" or "paused"
    std::string state = "waiting";
    time_t cycleStarted = 0;
    time_t cycleEnded = 0;
    std::string outcome;        // "ok" or "<kind>: <message>"; empty before the first cycle
    time_t lastGoodRead = 0;    // end of the last cycle that ended "ok"
    time_t lastAnswer = 0;      // the meter last answered something
    std::vector<CValueRecord> lastValues;
    // Newest stored timestamp per archive kind (ARCH_HOURLY .. ARCH_JOURNAL_INTERVENT).
    time_t lastStored[4] = {0, 0, 0, 0};

    uint64_t cycles = 0;
    uint64_t failedCycles = 0;
    uint64_t recordsStored = 0;
    CLinkStats link;

private:
    std::string m_dir;
    std::string m_meterId;
    std::string m_path;
};
