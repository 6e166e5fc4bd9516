// SPDX-License-Identifier: Apache-2.0
// mtd_metersim: a volume corrector on a pseudo-terminal. Prints "pty <path>"
// and "ready", then serves until SIGINT or SIGTERM. Options: docs/metersim.md.

#include <getopt.h>
#include <json/json.h>
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>

#include "tools/metersim/CMeterSim.h"
#include "tools/simline/SimTime.h"

namespace {

const char* const kUsage =
    "usage: mtd_metersim [--config FILE] [--link PATH] [--model EK270|EK260|TC220|TC215|TC210]\n"
    "  [--maker XXX] [--serial S] [--address A] [--consumer-password P] [--supplier-password P]\n"
    "  [--rate-hour H] [--archive-period MIN] [--k-mode N] [--pressure-unit bar|MPa|kPa|atm]\n"
    "  [--firmware V] [--value ADDR=VALUE]... [--error-registers ADDR,ADDR...]\n"
    "  [--archive-days N] [--now UNIX|YYYY-MM-DD,hh:mm:ss] [--clock-scale X] [--seed N]\n"
    "  [--baud B] [--max-speed SYMBOL] [--no-timing] [--frame-bits N]\n"
    "  [--silent-after N] [--silent-count N] [--bad-bcc-every N] [--drop-byte-every N]\n"
    "  [--hangup-in-archive] [--fault-share P --fault-seed N] [--odd-event-code-every N]\n"
    "  [--dump-archive N [--dump-until T]]\n";

bool toInt(const std::string& text, long long& out) {
    char* end = nullptr;
    out = std::strtoll(text.c_str(), &end, 10);
    return !text.empty() && *end == '\0';
}

// One setting by its option name; false with a message for a bad value.
bool apply(SMeterSimConfig& c, std::string& link, const std::string& key, const std::string& v) {
    long long n = 0;
    auto num = [&](auto& field) {
        if (!toInt(v, n)) {
            std::fprintf(stderr, "mtd_metersim: --%s wants a number, got '%s'\n", key.c_str(), v.c_str());
            return false;
        }
        field = static_cast<std::remove_reference_t<decltype(field)>>(n);
        return true;
    };
    if (key == "model") {
        if (v != "EK260" && v != "EK270" && v != "TC210" && v != "TC215" && v != "TC220") {
            std::fprintf(stderr, "mtd_metersim: unknown model '%s'\n", v.c_str());
            return false;
        }
        c.model = v;
    } else if (key == "maker") c.maker = v;
    else if (key == "serial") c.serial = v;
    else if (key == "address") c.address = v;
    else if (key == "consumer-password") c.consumerPassword = v;
    else if (key == "supplier-password") c.supplierPassword = v;
    else if (key == "rate-hour") return num(c.rateHour);
    else if (key == "archive-period") return num(c.archivePeriod);
    else if (key == "k-mode") return num(c.kMode);
    else if (key == "pressure-unit") c.pressureUnit = v;
    else if (key == "firmware") c.firmware = v;
    else if (key == "value") {
        size_t eq = v.find('=');
        if (eq == std::string::npos) {
            std::fprintf(stderr, "mtd_metersim: --value wants ADDR=VALUE, got '%s'\n", v.c_str());
            return false;
        }
        c.values[v.substr(0, eq)] = v.substr(eq + 1);
    } else if (key == "error-registers") {
        size_t start = 0;
        for (size_t comma; (comma = v.find(',', start)) != std::string::npos; start = comma + 1)
            c.errorRegisters.insert(v.substr(start, comma - start));
        if (start < v.size())
            c.errorRegisters.insert(v.substr(start));
    } else if (key == "archive-days") return num(c.archiveDays);
    else if (key == "now") {
        if (!parseSimTime(v.c_str(), c.now)) {
            std::fprintf(stderr, "mtd_metersim: bad --now '%s'\n", v.c_str());
            return false;
        }
    } else if (key == "clock-scale") {
        c.clockScale = std::atof(v.c_str());
        if (c.clockScale <= 0) {
            std::fprintf(stderr, "mtd_metersim: bad --clock-scale '%s'\n", v.c_str());
            return false;
        }
    } else if (key == "seed") return num(c.seed);
    else if (key == "baud") return num(c.baud);
    else if (key == "max-speed") {
        if (v.size() != 1 || v[0] < '0' || v[0] > '6') {
            std::fprintf(stderr, "mtd_metersim: --max-speed wants a symbol 0..6\n");
            return false;
        }
        c.maxSpeedSymbol = v[0];
    } else if (key == "no-timing") c.timing = !(v == "1" || v == "true");
    else if (key == "timing") c.timing = (v == "1" || v == "true");
    else if (key == "frame-bits") return num(c.frameBits);
    else if (key == "silent-after") return num(c.silentAfter);
    else if (key == "silent-count") return num(c.silentCount);
    else if (key == "bad-bcc-every") return num(c.badBccEvery);
    else if (key == "drop-byte-every") return num(c.dropByteEvery);
    else if (key == "hangup-in-archive") c.hangupInArchive = (v == "1" || v == "true");
    else if (key == "fault-seed") return num(c.faultSeed);
    else if (key == "odd-event-code-every") return num(c.oddEventCodeEvery);
    else if (key == "fault-share") {
        char* end = nullptr;
        c.faultShare = std::strtod(v.c_str(), &end);
        if (v.empty() || *end != '\0' || c.faultShare < 0 || c.faultShare > 1) {
            std::fprintf(stderr, "mtd_metersim: --fault-share wants a fraction 0..1, got '%s'\n", v.c_str());
            return false;
        }
    }
    else if (key == "link") link = v;
    else if (key == "dump-archive" || key == "dump-until") return true;  // taken by main()
    else {
        std::fprintf(stderr, "mtd_metersim: unknown setting '%s'\n", key.c_str());
        return false;
    }
    return true;
}

bool loadConfig(SMeterSimConfig& c, std::string& link, const std::string& path) {
    std::ifstream in(path);
    Json::Value root;
    Json::CharReaderBuilder builder;
    std::string errors;
    if (!in || !Json::parseFromStream(builder, in, &root, &errors) || !root.isObject()) {
        std::fprintf(stderr, "mtd_metersim: can't read config '%s': %s\n", path.c_str(), errors.c_str());
        return false;
    }
    for (const auto& key : root.getMemberNames()) {
        const Json::Value& v = root[key];
        if (key == "values" && v.isObject()) {
            for (const auto& addr : v.getMemberNames())
                c.values[addr] = v[addr].isString() ? v[addr].asString() : v[addr].toStyledString();
            continue;
        }
        if (key == "error-registers" && v.isArray()) {
            for (const auto& addr : v)
                c.errorRegisters.insert(addr.asString());
            continue;
        }
        std::string text = v.isString() ? v.asString() : v.isBool() ? (v.asBool() ? "true" : "false")
                           : v.isIntegral() ? std::to_string(v.asLargestInt())
                                           : std::to_string(v.asDouble());
        if (!apply(c, link, key, text))
            return false;
    }
    return true;
}

// --dump-archive: the records of one archive as a meter started with the same
// settings holds them at device time `until` (default: its start), one line
// each, "<unix seconds> <record>", so tests can compare what the daemon stored.
int dumpRecords(SMeterSimConfig cfg, int archive, std::time_t until) {
    if (cfg.now == 0)
        cfg.now = std::time(nullptr);
    if (until == 0)
        until = cfg.now;
    // The records only depend on the clock start. The meter cuts an archive at its
    // clock; run that clock at 1e12 s per second for a millisecond and it is some
    // thirty years ahead, so nothing up to `until` is cut off.
    cfg.clockScale = 1e12;
    CMeterSim sim(cfg);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (sim.deviceNow() < until) {
        std::fprintf(stderr, "mtd_metersim: --dump-until %lld lies too far ahead\n", static_cast<long long>(until));
        return 2;
    }
    for (const auto& rec : sim.archiveRecords(archive, 0, until)) {
        // "(Npp)(ArchIdx)(2024-05-01,10:00:00)..." or, on TC2xx interval records, "(Npp)(2024-05-01,10:00:00)..."
        size_t open = rec.find("-") == std::string::npos ? std::string::npos : rec.rfind('(', rec.find('-'));
        std::time_t t = 0;
        if (open == std::string::npos || !parseSimTime(rec.substr(open + 1, 19).c_str(), t)) {
            std::fprintf(stderr, "mtd_metersim: record without a time: %s\n", rec.c_str());
            return 2;
        }
        std::printf("%lld %s\n", static_cast<long long>(t), rec.c_str());
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    static const struct option longOptions[] = {
        {"config", required_argument, nullptr, 0}, {"link", required_argument, nullptr, 0},
        {"model", required_argument, nullptr, 0}, {"maker", required_argument, nullptr, 0},
        {"serial", required_argument, nullptr, 0}, {"address", required_argument, nullptr, 0},
        {"consumer-password", required_argument, nullptr, 0}, {"supplier-password", required_argument, nullptr, 0},
        {"rate-hour", required_argument, nullptr, 0}, {"archive-period", required_argument, nullptr, 0},
        {"k-mode", required_argument, nullptr, 0}, {"pressure-unit", required_argument, nullptr, 0},
        {"firmware", required_argument, nullptr, 0}, {"value", required_argument, nullptr, 0},
        {"error-registers", required_argument, nullptr, 0}, {"archive-days", required_argument, nullptr, 0},
        {"now", required_argument, nullptr, 0}, {"clock-scale", required_argument, nullptr, 0},
        {"seed", required_argument, nullptr, 0}, {"baud", required_argument, nullptr, 0},
        {"max-speed", required_argument, nullptr, 0}, {"no-timing", no_argument, nullptr, 0},
        {"frame-bits", required_argument, nullptr, 0}, {"silent-after", required_argument, nullptr, 0},
        {"silent-count", required_argument, nullptr, 0}, {"bad-bcc-every", required_argument, nullptr, 0},
        {"drop-byte-every", required_argument, nullptr, 0}, {"hangup-in-archive", no_argument, nullptr, 0},
        {"fault-share", required_argument, nullptr, 0}, {"fault-seed", required_argument, nullptr, 0},
        {"odd-event-code-every", required_argument, nullptr, 0},
        {"dump-archive", required_argument, nullptr, 0}, {"dump-until", required_argument, nullptr, 0},
        {"help", no_argument, nullptr, 'h'}, {nullptr, 0, nullptr, 0}};

    SMeterSimConfig cfg;
    std::string link;
    long long dumpArchive = 0;
    std::time_t dumpUntil = 0;
    // The config file first, so that options on the command line override it.
    for (int i = 1; i + 1 < argc; ++i)
        if (std::string(argv[i]) == "--config" && !loadConfig(cfg, link, argv[i + 1]))
            return 2;
    int index = 0;
    for (int opt; (opt = getopt_long(argc, argv, "h", longOptions, &index)) != -1;) {
        if (opt != 0) {
            std::fputs(kUsage, opt == 'h' ? stdout : stderr);
            return opt == 'h' ? 0 : 2;
        }
        std::string key = longOptions[index].name;
        if (key == "config")
            continue;
        if (key == "dump-archive" && !toInt(optarg, dumpArchive)) {
            std::fprintf(stderr, "mtd_metersim: --dump-archive wants an archive number\n");
            return 2;
        }
        if (key == "dump-until" && !parseSimTime(optarg, dumpUntil)) {
            std::fprintf(stderr, "mtd_metersim: bad --dump-until '%s'\n", optarg);
            return 2;
        }
        if (!apply(cfg, link, key, optarg ? optarg : "true"))
            return 2;
    }
    if (optind < argc) {
        std::fputs(kUsage, stderr);
        return 2;
    }

    if (dumpArchive != 0)
        return dumpRecords(cfg, static_cast<int>(dumpArchive), dumpUntil);

    // Signals are taken synchronously by this thread; the simulator runs on its own.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGHUP);
    sigaddset(&stopSignals, SIGUSR1);  // not a stop: answered with the request count
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    CMeterSim sim(cfg, [](const std::string& line) {
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
    });
    if (!sim.open(link)) {
        std::fprintf(stderr, "mtd_metersim: can't open a pseudo-terminal%s%s\n", link.empty() ? "" : " or link ",
                     link.c_str());
        return 1;
    }
    if (!sim.start()) {
        std::fprintf(stderr, "mtd_metersim: can't start\n");
        return 1;
    }
    std::printf("ready %s %s baud %d\n", cfg.model.c_str(), cfg.serial.c_str(), cfg.baud);
    std::fflush(stdout);
    // SIGUSR1 asks how many requests have been seen so far: a test can prove
    // the daemon left the line alone for a while.
    int sig = 0;
    while (sigwait(&stopSignals, &sig) == 0 && sig == SIGUSR1) {
        std::printf("requests %d\n", sim.requestsSeen());
        std::printf("faults %s\n", sim.faultSummary().c_str());
        std::fflush(stdout);
    }
    sim.stop();
    std::printf("faults %s\n", sim.faultSummary().c_str());
    std::fflush(stdout);
    return 0;
}
