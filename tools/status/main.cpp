// SPDX-License-Identifier: Apache-2.0
// mtd_status: reads every "mtd_status_<id>.json" that the daemon's polling
// threads keep in the status directory and prints one line per meter: state,
// age of the last good read, how far each archive lags behind now, error
// counts. With --json the same as one JSON document, with --prometheus in the
// Prometheus text format for node_exporter's textfile collector; --output puts
// it into a file, replaced whole so the collector never reads half of it. Exit
// status 1 when a meter has not been read for three data_rate periods (or no
// status can be read), so a cron job or a monitoring agent can alert on it.
#include <dirent.h>
#include <getopt.h>

#include <json/json.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "core/Defaults.h"
#include "core/ReplaceFile.h"

namespace {

const char* const kUsage =
    "Usage: mtd_status [--dir DIR] [--json | --prometheus] [--output FILE] [--now SECONDS]\n"
    "    --dir DIR      directory of the status files (default /tmp/)\n"
    "    --json         one JSON document instead of the table\n"
    "    --prometheus   Prometheus text format (node_exporter's textfile collector)\n"
    "    --output FILE  replace FILE with the output instead of printing it\n"
    "    --now SECONDS  judge ages against this Unix time instead of the clock\n"
    "Exit status: 0 all meters read recently, 1 a meter not read for three\n"
    "data_rate periods, no readable status or the output not written, 2 bad options.\n";

// A status file is a few KiB; anything much larger is not one of ours.
constexpr std::streamoff kMaxStatusBytes = 1 << 20;
// A meter polled continuously (data_rate 0) still gets this long per period.
constexpr long long kMinPeriod = 60;
const char* const kArchives[] = {"hourly", "daily", "events", "interventions"};

struct Meter {
    std::string file;
    Json::Value doc;
    long long age = -1;  // since the last good read (or the start), seconds
    bool stale = false;
};

long long asTime(const Json::Value& v) { return v.isIntegral() ? v.asInt64() : 0; }

std::string duration(long long s) {
    if (s < 0)
        return "-";
    char buf[32];
    if (s < 60)
        std::snprintf(buf, sizeof buf, "%llds", s);
    else if (s < 3600)
        std::snprintf(buf, sizeof buf, "%lldm%02llds", s / 60, s % 60);
    else if (s < 86400)
        std::snprintf(buf, sizeof buf, "%lldh%02lldm", s / 3600, s % 3600 / 60);
    else
        std::snprintf(buf, sizeof buf, "%lldd%02lldh", s / 86400, s % 86400 / 3600);
    return buf;
}

bool readStatus(const std::string& path, Json::Value& doc, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = std::strerror(errno);
        return false;
    }
    in.seekg(0, std::ios::end);
    if (in.tellg() > kMaxStatusBytes) {
        error = "too large";
        return false;
    }
    in.seekg(0);
    Json::CharReaderBuilder builder;
    if (!Json::parseFromStream(builder, in, &doc, &error))
        return false;
    if (!doc.isObject() || !doc["meter_id"].isString()) {
        error = "not a status document";
        return false;
    }
    return true;
}

std::vector<std::string> statusFiles(const std::string& dir, bool& ok) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    ok = d != nullptr;
    if (!d)
        return names;
    while (dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        static const std::string prefix = "mtd_status_", suffix = ".json";
        if (name.size() > prefix.size() + suffix.size() && name.compare(0, prefix.size(), prefix) == 0 &&
            name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
            names.push_back(name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

std::string counter(const Json::Value& doc, const char* name) {
    const Json::Value& v = doc["counters"][name];
    return v.isIntegral() ? std::to_string(v.asUInt64()) : "-";
}

__attribute__((format(printf, 2, 3))) void appendf(std::string& out, const char* format, ...) {
    va_list args, again;
    va_start(args, format);
    va_copy(again, args);
    const int n = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    if (n > 0) {
        const size_t at = out.size();
        out.resize(at + static_cast<size_t>(n) + 1);
        std::vsnprintf(&out[at], static_cast<size_t>(n) + 1, format, again);
        out.resize(at + static_cast<size_t>(n));
    }
    va_end(again);
}

std::string text(const Json::Value& v) { return v.isString() ? v.asString() : std::string(); }

// A label value in the exposition format: backslash, double quote and line feed escaped.
std::string labelValue(const std::string& s) {
    std::string out;
    for (char c : s) {
        if (c == '\\' || c == '"')
            out += '\\';
        if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

// One metric family per figure, each meter a sample labelled with its identifier;
// a figure the status file does not carry (no record stored yet) has no sample.
std::string prometheusText(const std::vector<Meter>& meters, long long now, int unreadable) {
    std::string out;
    auto family = [&out](const char* name, const char* type, const char* help) {
        appendf(out, "# HELP %s %s\n# TYPE %s %s\n", name, help, name, type);
    };
    auto sample = [&out](const char* name, const Meter& m, const std::string& extra, long long value) {
        appendf(out, "%s{meter_id=\"%s\"%s} %lld\n", name, labelValue(text(m.doc["meter_id"])).c_str(), extra.c_str(),
                value);
    };
    family("mtd_status_meters", "gauge", "Meters with a readable status file.");
    appendf(out, "mtd_status_meters %zu\n", meters.size());
    family("mtd_status_unreadable_files", "gauge", "Status files that could not be read.");
    appendf(out, "mtd_status_unreadable_files %d\n", unreadable);

    family("mtd_meter_info", "gauge", "Model and driver class of the meter (always 1).");
    for (const Meter& m : meters)
        sample("mtd_meter_info", m,
               ",model=\"" + labelValue(text(m.doc["model"])) + "\",driver=\"" + labelValue(text(m.doc["driver"])) + "\"",
               1);
    family("mtd_meter_state", "gauge", "1 for the state the meter's polling thread is in, 0 for the others.");
    for (const Meter& m : meters)
        for (const char* state : {"reading", "waiting", "failing", "paused"})
            sample("mtd_meter_state", m, std::string(",state=\"") + state + "\"", text(m.doc["state"]) == state);
    family("mtd_meter_last_good_read_age_seconds", "gauge",
           "Seconds since the last cycle that ended well (since the start when none has).");
    for (const Meter& m : meters)
        if (m.age >= 0)
            sample("mtd_meter_last_good_read_age_seconds", m, "", m.age);
    family("mtd_meter_data_rate_seconds", "gauge", "Pause between the ends and starts of the meter's cycles.");
    for (const Meter& m : meters)
        if (m.doc["data_rate"].isIntegral())
            sample("mtd_meter_data_rate_seconds", m, "", m.doc["data_rate"].asInt64());
    family("mtd_meter_stale", "gauge", "1 when the meter was not read for three data_rate periods (60 s at least).");
    for (const Meter& m : meters)
        sample("mtd_meter_stale", m, "", m.stale);
    family("mtd_meter_archive_lag_seconds", "gauge", "Seconds from the newest stored record of the archive to now.");
    for (const Meter& m : meters)
        for (const char* kind : kArchives) {
            const long long last = asTime(m.doc["archives"][kind]["last"]);
            if (last > 0)
                sample("mtd_meter_archive_lag_seconds", m, std::string(",kind=\"") + kind + "\"", now - last);
        }
    static const struct {
        const char* member;
        const char* name;
        const char* help;
    } kCounters[] = {
        {"cycles", "mtd_meter_cycles_total", "Polling cycles since the daemon started."},
        {"failed_cycles", "mtd_meter_failed_cycles_total", "Polling cycles that ended with an error."},
        {"timeouts", "mtd_meter_timeouts_total", "Requests the meter did not answer in time."},
        {"checksum_errors", "mtd_meter_checksum_errors_total", "Replies refused for a bad check sum."},
        {"retries", "mtd_meter_retries_total", "Requests sent again after a failed attempt."},
        {"records_stored", "mtd_meter_records_stored_total", "Archive records stored."},
    };
    for (const auto& c : kCounters) {
        family(c.name, "counter", c.help);
        for (const Meter& m : meters) {
            const Json::Value& v = m.doc["counters"][c.member];
            if (v.isIntegral())
                sample(c.name, m, "", static_cast<long long>(v.asUInt64()));
        }
    }
    family("mtd_meter_resident_memory_bytes", "gauge", "Resident memory of the process serving the meter.");
    for (const Meter& m : meters)
        if (m.doc["rss_kb"].isIntegral() && m.doc["rss_kb"].asInt64() > 0)
            sample("mtd_meter_resident_memory_bytes", m, "", m.doc["rss_kb"].asInt64() * 1024);
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    std::string dir = mtd::defaults::kControlDir;
    enum { TABLE, JSON, PROMETHEUS } format = TABLE;
    std::string output;
    long long now = static_cast<long long>(std::time(nullptr));
    static const option kOptions[] = {{"dir", required_argument, nullptr, 'd'},
                                      {"json", no_argument, nullptr, 'j'},
                                      {"prometheus", no_argument, nullptr, 'p'},
                                      {"output", required_argument, nullptr, 'o'},
                                      {"now", required_argument, nullptr, 'n'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {nullptr, 0, nullptr, 0}};
    int opt;
    while ((opt = getopt_long(argc, argv, "d:jpo:n:h", kOptions, nullptr)) != -1) {
        switch (opt) {
        case 'd':
            dir = optarg;
            break;
        case 'j':
            format = JSON;
            break;
        case 'p':
            format = PROMETHEUS;
            break;
        case 'o':
            output = optarg;
            if (output.empty() || output.back() == '/') {
                std::fprintf(stderr, "mtd_status: --output wants a file name, got '%s'\n", optarg);
                return 2;
            }
            break;
        case 'n': {
            char* end = nullptr;
            errno = 0;
            now = std::strtoll(optarg, &end, 10);
            if (errno || !end || *end || end == optarg) {
                std::fprintf(stderr, "mtd_status: --now wants Unix seconds, got '%s'\n", optarg);
                return 2;
            }
            break;
        }
        case 'h':
            std::fputs(kUsage, stdout);
            return 0;
        default:
            std::fputs(kUsage, stderr);
            return 2;
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "mtd_status: unexpected argument '%s'\n", argv[optind]);
        std::fputs(kUsage, stderr);
        return 2;
    }
    if (!dir.empty() && dir.back() != '/')
        dir += '/';

    bool dirOk = false;
    std::vector<Meter> meters;
    int unreadable = 0;
    for (const std::string& name : statusFiles(dir, dirOk)) {
        Meter m;
        m.file = dir + name;
        std::string error;
        if (!readStatus(m.file, m.doc, error)) {
            std::fprintf(stderr, "mtd_status: %s: %s\n", m.file.c_str(), error.c_str());
            ++unreadable;
            continue;
        }
        const long long since = asTime(m.doc["last_good_read"]) > 0 ? asTime(m.doc["last_good_read"])
                                                                     : asTime(m.doc["started"]);
        const long long rate = m.doc["data_rate"].isIntegral() ? m.doc["data_rate"].asInt64() : 300;
        m.age = since > 0 ? now - since : -1;
        m.stale = since <= 0 || now - since > 3 * std::max(rate, kMinPeriod);
        meters.push_back(std::move(m));
    }
    if (!dirOk)
        std::fprintf(stderr, "mtd_status: can't read directory '%s': %s\n", dir.c_str(), std::strerror(errno));
    else if (meters.empty() && unreadable == 0)
        std::fprintf(stderr, "mtd_status: no status files in '%s'\n", dir.c_str());

    int stale = 0;
    for (const Meter& m : meters)
        stale += m.stale;

    std::string out;
    if (format == PROMETHEUS) {
        out = prometheusText(meters, now, unreadable);
    } else if (format == JSON) {
        Json::Value doc(Json::objectValue);
        doc["now"] = static_cast<Json::Int64>(now);
        doc["stale"] = stale;
        doc["unreadable"] = unreadable;
        Json::Value list(Json::arrayValue);
        for (const Meter& m : meters) {
            Json::Value item = m.doc;
            item["last_read_age"] = m.age >= 0 ? Json::Value(static_cast<Json::Int64>(m.age)) : Json::Value();
            item["stale"] = m.stale;
            for (const char* kind : kArchives) {
                Json::Value& a = item["archives"][kind];
                const long long last = asTime(a["last"]);
                a["lag"] = last > 0 ? Json::Value(static_cast<Json::Int64>(now - last)) : Json::Value();
            }
            list.append(item);
        }
        doc["meters"] = list;
        Json::StreamWriterBuilder builder;
        builder["indentation"] = " ";
        out = Json::writeString(builder, doc) + "\n";
    } else if (!meters.empty()) {
        appendf(out, "%-10s %-10s %-8s %-9s %-8s %-8s %-8s %-8s %8s %8s %7s %s\n", "ID", "MODEL", "STATE", "LAST-READ",
                    "HOURLY", "DAILY", "EVENTS", "INTERV", "TIMEOUTS", "CHECKSUM", "RETRIES", "FAILED");
        for (const Meter& m : meters) {
            const Json::Value& d = m.doc;
            std::string lags[4];
            for (int i = 0; i < 4; ++i) {
                // Against now, not the writer's time: the file may be minutes old.
                const long long last = asTime(d["archives"][kArchives[i]]["last"]);
                lags[i] = last > 0 ? duration(now - last) : "-";
            }
            const std::string failed = counter(d, "failed_cycles") + "/" + counter(d, "cycles");
            appendf(out, "%-10s %-10s %-8s %-9s %-8s %-8s %-8s %-8s %8s %8s %7s %s%s\n", d["meter_id"].asCString(),
                        d["model"].isString() ? d["model"].asCString() : "-",
                        d["state"].isString() ? d["state"].asCString() : "-",
                        asTime(d["last_good_read"]) > 0 ? duration(m.age).c_str() : "never", lags[0].c_str(),
                        lags[1].c_str(), lags[2].c_str(), lags[3].c_str(), counter(d, "timeouts").c_str(),
                        counter(d, "checksum_errors").c_str(), counter(d, "retries").c_str(), failed.c_str(),
                        m.stale ? "  NOT READ FOR 3 PERIODS" : "");
        }
    }
    if (output.empty()) {
        std::fwrite(out.data(), 1, out.size(), stdout);
    } else {
        // Readable by the collector, which runs as another user.
        const char* step = nullptr;
        if (!mtd::replaceFile(output, out, &step, 0644)) {
            std::fprintf(stderr, "mtd_status: %s of '%s' failed: %s\n", step, output.c_str(), std::strerror(errno));
            return 1;
        }
    }
    return stale > 0 || unreadable > 0 || meters.empty() ? 1 : 0;
}
