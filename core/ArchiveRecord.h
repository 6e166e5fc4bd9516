// SPDX-License-Identifier: Apache-2.0
#pragma once
// One archive record as a driver reads it from the meter, and the archive kinds.

#include <string>
#include <utility>
#include <vector>

enum ArchType : int {
    ARCH_HOURLY = 0,
    ARCH_DAILY = 1,
    ARCH_JOURNAL_EVENT = 2,
    ARCH_JOURNAL_INTERVENT = 3,
};

// "Hourly_JSONRPC", "Daily_JSONRPC", "Journal_Event_JSONRPC", "Journal_Intervent_JSONRPC"; "" otherwise.
const char* archTypeName(int type);

struct ArchiveRecord {
    int sys = 1;              // system (channel) number of the meter
    long long timestamp = 0;  // Unix seconds, the record's own time
    // Field name to text value, in the device's column order.
    std::vector<std::pair<std::string, std::string>> fields;
};
