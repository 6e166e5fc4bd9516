// SPDX-License-Identifier: Apache-2.0
// mtd_modbussim: a Modbus RTU slave serving a register-map template on a
// pseudo-terminal. Prints "pty <path>" and "ready", serves until SIGINT or
// SIGTERM and prints the line-fault summary on exit and on SIGUSR1.
// Options: docs/mtd_modbussim.1.

#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "tools/modbussim/CModbusSim.h"
#include "tools/simline/SimMain.h"
#include "tools/simline/SimTime.h"

namespace {

const char* const kUsage =
    "usage: mtd_modbussim --template FILE [--link PATH] [--slave N] [--serial S] [--rate-hour H]\n"
    "  [--now UNIX|YYYY-MM-DD,hh:mm:ss] [--clock-scale X] [--baud B] [--no-timing]\n"
    "  [--refuse REG]... [--busy-every N] [--fault-share P] [--fault-seed N]\n"
    "  [--value NAME --at T]\n";

}  // namespace

int main(int argc, char** argv) {
    static const struct option kOptions[] = {
        {"template", required_argument, nullptr, 't'},    {"link", required_argument, nullptr, 'l'},
        {"slave", required_argument, nullptr, 'a'},       {"serial", required_argument, nullptr, 's'},
        {"rate-hour", required_argument, nullptr, 'r'},   {"now", required_argument, nullptr, 'n'},
        {"clock-scale", required_argument, nullptr, 'c'}, {"baud", required_argument, nullptr, 'b'},
        {"no-timing", no_argument, nullptr, 'T'},         {"refuse", required_argument, nullptr, 'R'},
        {"busy-every", required_argument, nullptr, 'B'},  {"fault-share", required_argument, nullptr, 'f'},
        {"fault-seed", required_argument, nullptr, 'F'},  {"value", required_argument, nullptr, 'v'},
        {"at", required_argument, nullptr, 'A'},          {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0}};
    SModbusSimConfig cfg;
    std::string link, value;
    std::time_t at = 0;
    long long n = 0;
    for (int c; (c = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        bool ok = true;
        switch (c) {
        case 't': cfg.templateFile = optarg; break;
        case 'l': link = optarg; break;
        case 'a': ok = simToLong(optarg, n) && n >= 1 && n <= 247; cfg.slave = static_cast<int>(n); break;
        case 's': cfg.serial = optarg; break;
        case 'r': ok = simToLong(optarg, n) && n >= 0 && n < 24; cfg.rateHour = static_cast<int>(n); break;
        case 'n': ok = parseSimTime(optarg, cfg.now); break;
        case 'c': cfg.clockScale = std::strtod(optarg, nullptr); ok = cfg.clockScale > 0; break;
        case 'b': ok = simToLong(optarg, n) && n > 0; cfg.baud = static_cast<int>(n); break;
        case 'T': cfg.timing = false; break;
        case 'R': ok = simToLong(optarg, n) && n >= 0 && n <= 65535; cfg.refuse.insert(static_cast<int>(n)); break;
        case 'B': ok = simToLong(optarg, n) && n >= 0; cfg.busyEvery = static_cast<int>(n); break;
        case 'f': cfg.faultShare = std::strtod(optarg, nullptr); ok = cfg.faultShare >= 0 && cfg.faultShare <= 1; break;
        case 'F': ok = simToLong(optarg, n); cfg.faultSeed = static_cast<uint32_t>(n); break;
        case 'v': value = optarg; break;
        case 'A': ok = parseSimTime(optarg, at); break;
        default: std::fputs(kUsage, c == 'h' ? stdout : stderr); return c == 'h' ? 0 : 2;
        }
        if (!ok) {
            std::fprintf(stderr, "mtd_modbussim: bad value '%s'\n%s", optarg ? optarg : "", kUsage);
            return 2;
        }
    }
    if (cfg.templateFile.empty()) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    CModbusSim sim(cfg, link);
    std::string error;
    if (!sim.load(error)) {
        std::fprintf(stderr, "mtd_modbussim: %s\n", error.c_str());
        return 1;
    }
    if (!value.empty()) {
        // The model's value of one template value at device time --at.
        std::printf("%.6f\n", sim.modelValue(value, at ? at : sim.deviceNow()));
        return 0;
    }
    simCatchSignals();
    if (!sim.open()) {
        std::fprintf(stderr, "mtd_modbussim: can't open a pseudo-terminal\n");
        return 1;
    }
    std::printf("pty %s\nready\n", sim.slavePath().c_str());
    std::fflush(stdout);
    sim.start();
    simServeUntilSignal([&] { return sim.faultSummary() + " requests=" + std::to_string(sim.requestsSeen()); });
    sim.stop();
    return 0;
}
