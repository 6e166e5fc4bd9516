// SPDX-License-Identifier: Apache-2.0
#pragma once
// The daemon's command line: options "rhv:del:i:s:" with their long names.

#include <cstdint>
#include <string>
#include <vector>

class CCommandLine {
public:
    // Parses argv. Returns -1 when the daemon should go on; otherwise the exit
    // status, after the version, the usage or an error was printed.
    int parse(int argc, char** argv);

    std::vector<std::string> ids;  // each -i in order
    uint32_t logLevel = 7;         // Debug, although the usage calls 6 the default
    bool toStderr = false;
    bool daemonMode = false;
    std::string logName;
    uint32_t maxLogSize = 0;  // 0: no limit

    static constexpr const char* kVersion = "version 1.3.35 (2017.06.05)";
};
