// SPDX-License-Identifier: Apache-2.0
#pragma once
// A Debug-level logger for the fuzz targets: every log line of the code under
// test is formatted (a bad format argument is a finding too) and then dropped,
// unless a report sink is set: the replay program (ReplayMain.cpp) sets one and
// prints the lines with what the parsers returned, so that builds for different
// machines can be compared byte for byte.

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "core/ArchiveRecord.h"
#include "core/CValueRecord.h"
#include "core/logger.h"

inline std::function<void(const std::string&)>& fuzzReportSink() {
    static std::function<void(const std::string&)> sink;
    return sink;
}

inline void fuzzLogAll() {
    static logger* log = [] {
        auto* l = new logger("/dev/null", false);  // lives for the whole fuzzing process
        l->setLevel(logger::DEBUG);
        l->setObserver([](int severity, const std::string& line) {
            if (fuzzReportSink())
                fuzzReportSink()("log " + std::to_string(severity) + " " + line);
        });
        return l;
    }();
    g_logger = log;
}

inline void fuzzReport(const std::vector<CValueRecord>& values) {
    if (!fuzzReportSink())
        return;
    for (const CValueRecord& v : values)
        fuzzReportSink()("value " + v.name + "=" + v.value + " [" + v.dim + "] q" + std::to_string(v.quality) + " " +
                         v.error);
}

inline void fuzzReport(const std::vector<ArchiveRecord>& records) {
    if (!fuzzReportSink())
        return;
    for (const ArchiveRecord& r : records) {
        std::string line = "record " + std::to_string(r.sys) + " " + std::to_string(r.timestamp);
        for (const auto& field : r.fields)
            line += " " + field.first + "=" + field.second;
        fuzzReportSink()(line);
    }
}

inline void fuzzReport(const std::vector<std::string>& texts) {
    if (!fuzzReportSink())
        return;
    for (const std::string& t : texts)
        fuzzReportSink()("text " + t);
}
