// SPDX-License-Identifier: Apache-2.0
// mtd_m4sim: a Logika M4 meter on a pseudo-terminal. Prints "pty <path>" and
// "ready", then serves until SIGINT or SIGTERM; SIGUSR1 prints the line-fault
// counts. Options: docs/mtd_m4sim.1.

#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <string>

#include "tools/m4sim/CM4Sim.h"
#include "tools/simline/SimMain.h"
#include "tools/simline/SimTime.h"

namespace {

int dumpArchiveKind(const std::string& name) {
    if (name == "hourly" || name == "0")
        return CM4SimModel::Hourly;
    if (name == "daily" || name == "1")
        return CM4SimModel::Daily;
    if (name == "events" || name == "2")
        return CM4SimModel::Events;
    return -1;
}

void usage(FILE* to) {
    std::fprintf(to,
                 "usage: mtd_m4sim [--model %s] [--link PATH] [--address NT] [--serial N]\n"
                 "  [--rate-hour H] [--contract-day D] [--tz-hours H] [--archive-days N] [--hole-hours N]\n"
                 "  [--now UNIX|YYYY-MM-DD,hh:mm:ss] [--clock-scale X] [--seed N]\n"
                 "  [--baud B] [--frame-bits N] [--no-timing] [--fault-share P] [--fault-seed N]\n"
                 "  [--silent-after N] [--silent-count N] [--silent-in-archive]\n"
                 "  [--dump-archive hourly|daily|events [--dump-until T]]\n",
                 m4SimModelNames().c_str());
}

}  // namespace

int main(int argc, char** argv) {
    static const option longOptions[] = {
        {"model", required_argument, nullptr, 0},        {"link", required_argument, nullptr, 0},
        {"address", required_argument, nullptr, 0},      {"serial", required_argument, nullptr, 0},
        {"rate-hour", required_argument, nullptr, 0},    {"contract-day", required_argument, nullptr, 0},
        {"tz-hours", required_argument, nullptr, 0},     {"archive-days", required_argument, nullptr, 0},
        {"now", required_argument, nullptr, 0},          {"clock-scale", required_argument, nullptr, 0},
        {"seed", required_argument, nullptr, 0},         {"baud", required_argument, nullptr, 0},
        {"frame-bits", required_argument, nullptr, 0},   {"no-timing", no_argument, nullptr, 0},
        {"fault-share", required_argument, nullptr, 0},  {"fault-seed", required_argument, nullptr, 0},
        {"silent-after", required_argument, nullptr, 0}, {"silent-count", required_argument, nullptr, 0},
        {"silent-in-archive", no_argument, nullptr, 0},  {"dump-archive", required_argument, nullptr, 0},
        {"dump-until", required_argument, nullptr, 0},   {"hole-hours", required_argument, nullptr, 0},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0}};

    M4SimOptions o;
    M4SimServerOptions s;
    int dump = -1;
    time_t dumpUntil = 0;
    int index = 0;
    for (int opt; (opt = getopt_long(argc, argv, "h", longOptions, &index)) != -1;) {
        if (opt == 'h') {
            usage(stdout);
            return 0;
        }
        if (opt != 0) {
            usage(stderr);
            return 2;
        }
        const std::string key = longOptions[index].name;
        const char* v = optarg ? optarg : "";
        long long n = 0;
        bool ok = true;
        auto number = [&](long long lo, long long hi) { return (ok = simToLong(v, n) && n >= lo && n <= hi); };
        if (key == "model") o.model = v;
        else if (key == "link") s.line.link = v;
        else if (key == "address") { if (number(0, 255)) o.nt = static_cast<uint8_t>(n); }
        else if (key == "serial") { if (number(0, 0xFFFFFF)) o.serial = static_cast<uint32_t>(n); }
        else if (key == "rate-hour") { if (number(0, 23)) o.rateHour = static_cast<int>(n); }
        else if (key == "contract-day") { if (number(1, 28)) o.contractDay = static_cast<int>(n); }
        else if (key == "tz-hours") { if (number(-12, 14)) o.tzHours = static_cast<int>(n); }
        else if (key == "archive-days") { if (number(1, 400)) o.archiveDays = static_cast<int>(n); }
        else if (key == "now") ok = parseSimTime(v, o.start);
        else if (key == "clock-scale") ok = (s.clockScale = std::atof(v)) > 0;
        else if (key == "hole-hours") { if (number(0, 100000)) o.holeHours = static_cast<int>(n); }
        else if (key == "seed") { if (number(0, 0xFFFFFFFFLL)) o.seed = static_cast<uint32_t>(n); }
        else if (key == "baud") { if (number(300, 115200)) s.line.baud = static_cast<int>(n); }
        else if (key == "frame-bits") { if (number(7, 12)) s.line.frameBits = static_cast<int>(n); }
        else if (key == "no-timing") s.line.timing = false;
        else if (key == "fault-share") ok = (s.faultShare = std::atof(v)) >= 0 && s.faultShare <= 1;
        else if (key == "fault-seed") { if (number(0, 0xFFFFFFFFLL)) s.faultSeed = static_cast<uint32_t>(n); }
        else if (key == "silent-after") { if (number(0, 1000000)) s.silentAfter = static_cast<int>(n); }
        else if (key == "silent-count") { if (number(0, 1000000)) s.silentCount = static_cast<int>(n); }
        else if (key == "silent-in-archive") s.silentInArchive = true;
        else if (key == "dump-archive") ok = (dump = dumpArchiveKind(v)) >= 0;
        else if (key == "dump-until") ok = parseSimTime(v, dumpUntil);
        if (!ok) {
            std::fprintf(stderr, "mtd_m4sim: bad value '%s' for --%s\n", v, key.c_str());
            return 2;
        }
    }
    if (o.start == 0)
        o.start = std::time(nullptr);
    std::unique_ptr<CM4SimModel> model = makeM4SimModel(o.model, o);
    if (!model) {
        std::fprintf(stderr, "mtd_m4sim: unknown model '%s' (%s)\n", o.model.c_str(), m4SimModelNames().c_str());
        return 2;
    }
    if (dump >= 0) {
        // The records held at `until` (default: the clock start) depend on the
        // settings and the clock alone, so no line is needed.
        return model->dumpArchive(dump, dumpUntil ? dumpUntil : o.start, std::cout) ? 0 : 2;
    }

    CM4Sim sim(std::move(model), o, s);
    if (!sim.open()) {
        std::fprintf(stderr, "mtd_m4sim: cannot open a pseudo-terminal\n");
        return 1;
    }
    simCatchSignals();
    std::printf("pty %s\n", sim.slavePath().c_str());
    sim.start();
    std::printf("ready\n");
    std::fflush(stdout);
    simServeUntilSignal([&] { return sim.faultSummary(); }, [&] { sim.stop(); });
    return 0;
}
