// SPDX-License-Identifier: Apache-2.0
#pragma once
// The model table: the one place where the configured model string
// ("manufacturer") meets a driver class. CMtdBaseDriver::create_and_init is
// defined next to it.

#include <memory>
#include <string>

class CMtdBaseDriver;

struct DriverModelRow {
    enum Match { EXACT, CONTAINS, PREFIX };
    const char* model;       // text tested against the model string
    Match match;             // whole string equal, text found anywhere, or the string's start (case-sensitive)
    const char* className;   // the class this row stands for
    int code;                // model code passed to the constructor
    const char* subModel;    // when the model string also contains this text,
    int subCode;             //   the constructor gets subCode instead
    // Builds the driver; nullptr while the class is not part of this build
    // (the row then yields the empty driver).
    std::unique_ptr<CMtdBaseDriver> (*make)(int code);
};

struct DriverChoice {
    const DriverModelRow* row = nullptr;  // nullptr: no row matched
    int code = 0;
};

// First row of the table that matches `model`, in table order.
DriverChoice findDriverModel(const std::string& model);
