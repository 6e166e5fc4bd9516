// SPDX-License-Identifier: Apache-2.0
// mtd_fuzz_replay TARGET FILE... : runs the inputs through one fuzz target's
// entry point, built without libFuzzer (--list names the targets), and prints per input the log lines of
// the code under test and what its parsers returned. Built for the controller
// and run under qemu, its output must equal the build machine's: a difference
// is a parser that depends on the width of time_t, long or size_t, on alignment
// or on the sign of char.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/FuzzLog.h"
#include "fuzz/ReplayTargets.h"  // generated: the targets' renamed entry points

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: mtd_fuzz_replay TARGET FILE... | --list\n");
        return 2;
    }
    if (std::strcmp(argv[1], "--list") == 0) {
        for (const auto& t : kReplayTargets)
            std::printf("%s\n", t.name);
        return 0;
    }
    int (*entry)(const uint8_t*, size_t) = nullptr;
    for (const auto& t : kReplayTargets)
        if (std::strcmp(t.name, argv[1]) == 0)
            entry = t.entry;
    if (!entry) {
        std::fprintf(stderr, "mtd_fuzz_replay: no target '%s'\n", argv[1]);
        return 2;
    }
    fuzzReportSink() = [](const std::string& line) { std::printf("  %s\n", line.c_str()); };
    for (int i = 2; i < argc; ++i) {
        std::ifstream in(argv[i], std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "mtd_fuzz_replay: can't read '%s'\n", argv[i]);
            return 1;
        }
        const std::vector<uint8_t> data{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        const char* base = std::strrchr(argv[i], '/');
        std::printf("== %s %s (%zu bytes)\n", argv[1], base ? base + 1 : argv[i], data.size());
        entry(data.data(), data.size());
        std::fflush(stdout);
    }
    return 0;
}
