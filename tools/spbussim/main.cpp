// SPDX-License-Identifier: Apache-2.0
// mtd_spbussim: an SPG761 corrector speaking SPbus on a pseudo-terminal.
// Prints "pty <path>" and "ready", serves until SIGINT or SIGTERM and prints
// the line-fault summary on exit and on SIGUSR1. Options: docs/mtd_spbussim.1.

#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "tools/simline/SimMain.h"
#include "tools/simline/SimTime.h"
#include "tools/spbussim/CSpbusSim.h"

namespace {

const char* const kUsage =
    "usage: mtd_spbussim [--link PATH] [--model spg761|spg761.1|spg761.2] [--serial S] [--rate-hour H]\n"
    "  [--rate-day D] [--pressure-unit kgf/cm2|MPa|kPa|bar] [--archive-days N] [--now UNIX|YYYY-MM-DD,hh:mm:ss]\n"
    "  [--clock-scale X] [--seed N] [--event-every N] [--max-reply BYTES] [--baud B] [--no-timing]\n"
    "  [--silent-after N] [--silent-count N] [--fault-share P] [--fault-seed N]\n"
    "  [--dump-archive hourly|daily|events [--dump-until T]]\n";

}  // namespace

int main(int argc, char** argv) {
    static const struct option kOptions[] = {
        {"link", required_argument, nullptr, 'l'},          {"model", required_argument, nullptr, 'm'},
        {"serial", required_argument, nullptr, 's'},        {"rate-hour", required_argument, nullptr, 'r'},
        {"pressure-unit", required_argument, nullptr, 'p'}, {"archive-days", required_argument, nullptr, 'a'},
        {"now", required_argument, nullptr, 'n'},           {"clock-scale", required_argument, nullptr, 'c'},
        {"seed", required_argument, nullptr, 'S'},          {"event-every", required_argument, nullptr, 'E'},
        {"max-reply", required_argument, nullptr, 'M'},     {"rate-day", required_argument, nullptr, 'D'},
        {"baud", required_argument, nullptr, 'b'},          {"no-timing", no_argument, nullptr, 'T'},
        {"silent-after", required_argument, nullptr, 'A'},  {"silent-count", required_argument, nullptr, 'C'},
        {"fault-share", required_argument, nullptr, 'f'},   {"fault-seed", required_argument, nullptr, 'F'},
        {"dump-archive", required_argument, nullptr, 'd'},  {"dump-until", required_argument, nullptr, 'u'},
        {"help", no_argument, nullptr, 'h'},                {nullptr, 0, nullptr, 0}};
    SSpbusSimConfig cfg;
    std::string link, dump;
    std::time_t until = 0;
    long long n = 0;
    for (int c; (c = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        bool ok = true;
        switch (c) {
        case 'l': link = optarg; break;
        case 'm': {
            const std::string m = optarg;
            ok = m == "spg761" || m == "spg761.1" || m == "spg761.2";
            cfg.model = ok ? m.substr(3) : cfg.model;
            break;
        }
        case 's': cfg.serial = optarg; break;
        case 'r': ok = simToLong(optarg, n) && n >= 0 && n < 24; cfg.rateHour = static_cast<int>(n); break;
        case 'p': {
            const std::string u = optarg;
            ok = u == "kgf/cm2" || u == "MPa" || u == "kPa" || u == "bar";
            cfg.pressureUnit = u;
            break;
        }
        case 'a': ok = simToLong(optarg, n) && n >= 0 && n < 400; cfg.archiveDays = static_cast<int>(n); break;
        case 'n': ok = parseSimTime(optarg, cfg.now); break;
        case 'c': cfg.clockScale = std::strtod(optarg, nullptr); ok = cfg.clockScale > 0; break;
        case 'S': ok = simToLong(optarg, n); cfg.seed = static_cast<uint32_t>(n); break;
        case 'E': ok = simToLong(optarg, n) && n > 0 && n < 1000; cfg.eventEvery = static_cast<int>(n); break;
        case 'M': ok = simToLong(optarg, n) && n >= 200 && n <= 8000; cfg.maxReply = static_cast<size_t>(n); break;
        case 'D': ok = simToLong(optarg, n) && n >= 1 && n <= 31; cfg.rateDay = static_cast<int>(n); break;
        case 'b': ok = simToLong(optarg, n) && n > 0; cfg.baud = static_cast<int>(n); break;
        case 'T': cfg.timing = false; break;
        case 'A': ok = simToLong(optarg, n) && n >= 0; cfg.silentAfter = static_cast<int>(n); break;
        case 'C': ok = simToLong(optarg, n) && n >= 0; cfg.silentCount = static_cast<int>(n); break;
        case 'f': cfg.faultShare = std::strtod(optarg, nullptr); ok = cfg.faultShare >= 0 && cfg.faultShare <= 1; break;
        case 'F': ok = simToLong(optarg, n); cfg.faultSeed = static_cast<uint32_t>(n); break;
        case 'd': dump = optarg; ok = dump == "hourly" || dump == "daily" || dump == "events"; break;
        case 'u': ok = parseSimTime(optarg, until); break;
        default: std::fputs(kUsage, c == 'h' ? stdout : stderr); return c == 'h' ? 0 : 2;
        }
        if (!ok) {
            std::fprintf(stderr, "mtd_spbussim: bad value '%s'\n%s", optarg ? optarg : "", kUsage);
            return 2;
        }
    }
    if (!dump.empty()) {
        // The records a meter started with these settings holds at device time
        // `until` (default: its start), "<unix seconds> <values>" one a line.
        CSpbusSim sim(cfg);
        if (until == 0)
            until = sim.deviceNow();
        const int archive = dump == "hourly" ? CSpbusSim::kHourly : dump == "daily" ? CSpbusSim::kDaily : CSpbusSim::kEvents;
        for (const auto& r : sim.records(archive, 0, until, until))
            std::printf("%lld %s\n", static_cast<long long>(r.time), r.text.c_str());
        return 0;
    }
    simCatchSignals();
    CSpbusSim sim(cfg, link);
    if (!sim.open()) {
        std::fprintf(stderr, "mtd_spbussim: can't open a pseudo-terminal\n");
        return 1;
    }
    std::printf("pty %s\nready\n", sim.slavePath().c_str());
    std::fflush(stdout);
    sim.start();
    simServeUntilSignal([&] { return sim.faultSummary(); }, [&] { sim.stop(); });
    return 0;
}
