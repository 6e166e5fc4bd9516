// SPDX-License-Identifier: Apache-2.0
#pragma once
// One kind of M4 meter in mtd_m4sim. The server (CM4Sim) owns the line, the
// clock and the line faults; a model only turns a checked request frame into
// its answer at a device time, and lists the archive records it holds.
//
// Adding a model:
//   1. a class derived from CM4SimModel in its own source file here, with a
//      maker function  std::unique_ptr<CM4SimModel> makeXxx(const M4SimOptions&);
//   2. one line  M4SIM_MODEL("name", makeXxx)  in M4SimModels.def;
//   3. the source file in CMakeLists.txt (mtd_m4sim_lib).
// Then "--model name" selects it. Keep its tables its own: the simulator must
// not share parameter numbers, layouts or check sums with the daemon.

#include <cstdint>
#include <ctime>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "tools/m4sim/M4SimWire.h"

// Settings every model receives (from the command line).
struct M4SimOptions {
    std::string model = "spg742";
    uint8_t nt = 0;             // network address the meter answers to
    uint32_t serial = 12345;    // serial number
    int rateHour = 10;          // contract hour
    int contractDay = 1;        // contract day
    int tzHours = 0;            // the meter's clock: hours east of UTC
    int archiveDays = 3;        // archive history before the clock start
    time_t start = 0;           // device clock at start (Unix seconds)
    uint32_t seed = 1;          // values and archives are a function of seed and time
    int holeHours = 0;          // the hourly record this many hours before the start is missing (0: none)
};

class CM4SimModel {
public:
    // Archive kinds for dumpArchive.
    enum Archive { Hourly = 0, Daily = 1, Events = 2 };

    virtual ~CM4SimModel() = default;
    // The answer to one checked frame at device time `now` (Unix seconds);
    // empty when the meter does not answer it.
    virtual std::vector<uint8_t> answer(const m4sim::Frame& frame, time_t now) = 0;
    // True when `frame` starts reading an archive (for "--silent-after" style tests).
    virtual bool isArchiveRequest(const m4sim::Frame& frame) const = 0;
    // Writes the records of `archive` held at device time `until`, oldest first,
    // one a line: "<unix seconds> name=value ...". False for an unknown archive.
    virtual bool dumpArchive(int archive, time_t until, std::ostream& out) const = 0;
    // Writes the clock and the totals whose numbers are public, as the meter
    // answers them at device time `at`, one a line: "clock=dd.mm.yyyy hh:mm:ss",
    // "<channel>.<number>=<value>". False when the model has none.
    virtual bool dumpValues(time_t at, std::ostream& out) const {
        (void)at;
        (void)out;
        return false;
    }
};

using M4SimModelMaker = std::unique_ptr<CM4SimModel> (*)(const M4SimOptions&);

// The model registered under `name`, or nullptr.
std::unique_ptr<CM4SimModel> makeM4SimModel(const std::string& name, const M4SimOptions& options);
// "spg742|..." for the usage text.
std::string m4SimModelNames();
