// SPDX-License-Identifier: Apache-2.0
// A status file as mtd_status finds it in the control folder, where any local
// user may have written it: the text is judged and printed both ways, table
// and JSON. Nothing in it may end the tool; a taken file is always printed.

#include <climits>
#include <cstddef>
#include <cstdint>
#include <string>

#include "tools/status/CStatusReport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    // Judged against a time near the file's own, 0 and both ends of the 64-bit range.
    for (long long now : {1700000000LL, 0LL, LLONG_MAX, LLONG_MIN}) {
        CStatusReport report(now);
        std::string error;
        const bool taken = report.add("/tmp/mtd_status_1.json", text, error);
        if (taken == report.empty() || (!taken && error.empty()))
            __builtin_trap();
        const std::string table = report.table();
        const std::string json = report.json(taken ? 0 : 1);
        if (taken && (table.empty() || json.find("\"meters\"") == std::string::npos))
            __builtin_trap();
        // No control character from the file reaches the terminal.
        for (size_t i = 0; i < table.size(); ++i)
            if (static_cast<unsigned char>(table[i]) < 0x20 && table[i] != '\n')
                __builtin_trap();
    }
    return 0;
}
