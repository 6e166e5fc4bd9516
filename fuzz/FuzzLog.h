// SPDX-License-Identifier: Apache-2.0
#pragma once
// A Debug-level logger for the fuzz targets: every log line of the code under
// test is formatted (a bad format argument is a finding too) and then dropped.

#include "core/logger.h"

inline void fuzzLogAll() {
    static logger* log = [] {
        auto* l = new logger("/dev/null", false);  // lives for the whole fuzzing process
        l->setLevel(logger::DEBUG);
        l->setObserver([](int, const std::string&) {});
        return l;
    }();
    g_logger = log;
}
