// SPDX-License-Identifier: Apache-2.0
#include "app/CCommandLine.h"

#include <getopt.h>

#include <cstdio>
#include <sstream>

namespace {

void printUsage(FILE* out, const char* program) {
    std::fprintf(out, "Usage: %s [options]\n", program);
    std::fputs("    -r  --release               Version of the program.\n"
               "    -h  --help                  Display this usage.\n"
               "    -d  --daemon                Daemon mode.\n"
               "    -v  --verbose <level>       Verbose logs level.\n"
               "        logs levels:\n"
               "             0 (TL_EMERG)   system is unusable;\n"
               "             1 (TL_ALERT)   action must be taken immediately;\n"
               "             2 (TL_CRIT)    critical conditions;\n"
               "             3 (TL_ERR)     error conditions;\n"
               "             4 (TL_WARNING) warning conditions;\n"
               "             5 (TL_NOTICE)  normal, but significant, condition;\n"
               "             6 (TL_INFO)    informational message (default);\n"
               "             7 (TL_DEBUG)   debug-level message.\n"
               "    -e  --stderr                Redirect the log messages to stderr.\n"
               "    -i  --id                    ID of HeatMeter.\n"
               "    -l  --logname               Full name (with the path) to the log file. Does not make sense if "
               "there \"-e\".\n"
               "    -s  --logsize               Max size of log file (in bytes). After reach log file erase. 0 - "
               "unlimit\n",
               out);
}

// Stream extraction that must consume the whole text: "5x" and "" are refused.
bool readWhole(const char* text, uint32_t& value) {
    std::istringstream in(text ? text : "");
    uint32_t v = 0;
    in >> v;
    if (in.fail() || !in.eof())
        return false;
    value = v;
    return true;
}

int optionError(const char* message, const char* program) {
    std::fprintf(stderr, "%s\n", message);
    printUsage(stderr, program);
    return 1;
}

}  // namespace

int CCommandLine::parse(int argc, char** argv) {
    static const option kLongOptions[] = {
        {"release", no_argument, nullptr, 'r'},       {"help", no_argument, nullptr, 'h'},
        {"verbose", required_argument, nullptr, 'v'}, {"daemon", no_argument, nullptr, 'd'},
        {"stderr", no_argument, nullptr, 'e'},        {"logname", required_argument, nullptr, 'l'},
        {"id", required_argument, nullptr, 'i'},      {"logsize", required_argument, nullptr, 's'},
        {nullptr, 0, nullptr, 0},
    };
    const char* program = argv[0];
    // 0, not 1: glibc then also forgets where it stopped inside a cluster of short
    // options ("-rd") of an earlier argv, which may no longer exist.
    optind = 0;
    int opt;
    while ((opt = getopt_long(argc, argv, "rhv:del:i:s:", kLongOptions, nullptr)) != -1) {
        switch (opt) {
        case 'r':
            std::printf("%s\n", kVersion);
            return 0;
        case 'h':
            printUsage(stdout, program);
            return 0;
        case 'v': {
            uint32_t level = 0;
            if (!readWhole(optarg, level) || level > 7)
                return optionError("\nmain: Unacceptable logs level!\n", program);
            logLevel = level;
            break;
        }
        case 'd':
            daemonMode = true;
            break;
        case 'e':
            toStderr = true;
            break;
        case 'l':
            if (!optarg || !*optarg)
                return optionError("\nmain: Error logs file name!\n", program);
            logName = optarg;
            break;
        case 'i':
            ids.emplace_back(optarg);
            break;
        case 's':
            if (!readWhole(optarg, maxLogSize))
                return optionError("\nmain: Unacceptable max logfile size!\n", program);
            break;
        default:
            break;  // unknown options are ignored
        }
    }
    if (ids.empty()) {
        std::fprintf(stderr, "%s\n", "\nmain: Do not set any ID of HeatMeter!\n");
        return 1;
    }
    return -1;
}
