// SPDX-License-Identifier: Apache-2.0
#pragma once
// What mtd_status makes of the daemon's status files: each file's text is
// judged (age of the last good read against three data_rate periods) and the
// meters are printed as a table, as one JSON document or as Prometheus metrics.
//
// The files lie in a folder every local user can write to, so the text may be
// anything: whatever it holds, a file is either taken (every member read with
// its type checked, times outside 0..2^40 s and counters of the wrong type
// shown as unknown) or refused with a reason; nothing in it can end the tool.

#include <json/json.h>

#include <string>
#include <vector>

class CStatusReport {
public:
    // `now` is clamped to +-2^62 s, so that no age computed from it overflows.
    explicit CStatusReport(long long now);

    // Judges one status file's text; false (with `error`) when it is not a status document.
    bool add(const std::string& file, const std::string& text, std::string& error);

    int stale() const;
    bool empty() const { return m_meters.empty(); }
    // One line per meter under a header; "" without meters.
    std::string table() const;
    // {"now", "stale", "unreadable", "meters": [...]}, indented.
    std::string json(int unreadable) const;
    // The Prometheus text exposition format: one metric family per figure, each
    // meter a sample labelled meter_id; a figure the file lacks has no sample.
    std::string prometheus(int unreadable) const;

    // A status file is a few KiB; anything much larger is not one of ours.
    static constexpr long kMaxStatusBytes = 1 << 20;

private:
    struct Meter {
        std::string file;
        Json::Value doc;
        long long age = -1;  // since the last good read (or the start), seconds
        bool stale = false;
    };
    long long m_now;
    std::vector<Meter> m_meters;
};
