// SPDX-License-Identifier: Apache-2.0
#include "CStatusReport.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <initializer_list>
#include <exception>
#include <memory>

namespace {

// A meter polled continuously (data_rate 0) still gets this long per period.
constexpr long long kMinPeriod = 60;
constexpr long long kDefaultRate = 300;
// Times beyond this (about 36 800 years) are not times; refusing them keeps
// every difference below far from overflowing.
constexpr long long kMaxTime = 1LL << 40;
const char* const kArchives[] = {"hourly", "daily", "events", "interventions"};

// A member of an object; null for any other value (jsoncpp asserts otherwise).
const Json::Value& member(const Json::Value& v, const char* name) {
    static const Json::Value null;
    return v.isObject() ? v[name] : null;
}

// A Unix time, 0 when absent or not a plausible one.
long long asTime(const Json::Value& v) {
    if (!v.isInt64())
        return 0;
    const long long t = v.asInt64();
    return t > 0 && t <= kMaxTime ? t : 0;
}

// Text from the file as it may be shown on a terminal: control characters
// (an escape sequence planted in a status file) become '?'.
std::string printable(std::string s) {
    for (char& c : s)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
            c = '?';
    return s;
}

std::string text(const Json::Value& v) { return v.isString() ? printable(v.asString()) : "-"; }

// Left-aligned in `width` columns; a longer text is kept whole, as printf's %-Ns does.
std::string pad(const std::string& s, size_t width) {
    return s.size() >= width ? s : s + std::string(width - s.size(), ' ');
}

std::string padLeft(const std::string& s, size_t width) {
    return s.size() >= width ? s : std::string(width - s.size(), ' ') + s;
}

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

std::string counter(const Json::Value& doc, const char* name) {
    const Json::Value& v = member(member(doc, "counters"), name);
    return v.isUInt64() ? std::to_string(v.asUInt64()) : "-";
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

// A label value in the exposition format: backslash, double quote and line feed escaped.
std::string labelValue(const Json::Value& v) {
    std::string out;
    for (char c : v.isString() ? v.asString() : std::string()) {
        if (c == '\\' || c == '"')
            out += '\\';
        if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

}  // namespace

CStatusReport::CStatusReport(long long now) : m_now(std::max(-(1LL << 62), std::min(now, 1LL << 62))) {}

bool CStatusReport::add(const std::string& file, const std::string& text, std::string& error) {
    if (text.size() > static_cast<size_t>(kMaxStatusBytes)) {
        error = "too large";
        return false;
    }
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Meter m;
    m.file = file;
    // jsoncpp throws rather than failing on some texts (nesting past its stack limit).
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &m.doc, &error))
            return false;
    } catch (const std::exception& e) {
        error = e.what();
        return false;
    }
    if (!m.doc.isObject() || !m.doc["meter_id"].isString()) {
        error = "not a status document";
        return false;
    }
    const long long good = asTime(m.doc["last_good_read"]);
    const long long since = good > 0 ? good : asTime(m.doc["started"]);
    const Json::Value& rateValue = m.doc["data_rate"];
    const long long rate =
        rateValue.isInt64() && rateValue.asInt64() >= 0 && rateValue.asInt64() <= kMaxTime ? rateValue.asInt64()
                                                                                            : kDefaultRate;
    m.age = since > 0 ? m_now - since : -1;
    m.stale = since <= 0 || m_now - since > 3 * std::max(rate, kMinPeriod);
    m_meters.push_back(std::move(m));
    return true;
}

int CStatusReport::stale() const {
    return static_cast<int>(std::count_if(m_meters.begin(), m_meters.end(), [](const Meter& m) { return m.stale; }));
}

std::string CStatusReport::table() const {
    if (m_meters.empty())
        return std::string();
    std::string out = pad("ID", 10) + " " + pad("MODEL", 10) + " " + pad("STATE", 8) + " " + pad("LAST-READ", 9);
    for (const char* column : {"HOURLY", "DAILY", "EVENTS", "INTERV"})
        out += " " + pad(column, 8);
    out += " " + padLeft("TIMEOUTS", 8) + " " + padLeft("CHECKSUM", 8) + " " + padLeft("RETRIES", 7) + " FAILED\n";
    for (const Meter& m : m_meters) {
        const Json::Value& d = m.doc;
        out += pad(printable(d["meter_id"].asString()), 10) + " " + pad(text(d["model"]), 10) + " " +
               pad(text(d["state"]), 8) + " " +
               pad(asTime(d["last_good_read"]) > 0 ? duration(m.age) : "never", 9);
        for (const char* kind : kArchives) {
            // Against now, not the writer's time: the file may be minutes old.
            const long long last = asTime(member(member(member(d, "archives"), kind), "last"));
            out += " " + pad(last > 0 ? duration(m_now - last) : "-", 8);
        }
        out += " " + padLeft(counter(d, "timeouts"), 8) + " " + padLeft(counter(d, "checksum_errors"), 8) + " " +
               padLeft(counter(d, "retries"), 7) + " " + counter(d, "failed_cycles") + "/" + counter(d, "cycles") +
               (m.stale ? "  NOT READ FOR 3 PERIODS" : "") + "\n";
    }
    return out;
}

std::string CStatusReport::json(int unreadable) const {
    Json::Value out(Json::objectValue);
    out["now"] = static_cast<Json::Int64>(m_now);
    out["stale"] = stale();
    out["unreadable"] = unreadable;
    Json::Value list(Json::arrayValue);
    for (const Meter& m : m_meters) {
        Json::Value item = m.doc;
        item["last_read_age"] = m.age >= 0 ? Json::Value(static_cast<Json::Int64>(m.age)) : Json::Value();
        item["stale"] = m.stale;
        Json::Value& archives = item["archives"];
        if (!archives.isObject())
            archives = Json::Value(Json::objectValue);
        for (const char* kind : kArchives) {
            Json::Value& a = archives[kind];
            if (!a.isObject())
                a = Json::Value(Json::objectValue);
            const long long last = asTime(a["last"]);
            a["lag"] = last > 0 ? Json::Value(static_cast<Json::Int64>(m_now - last)) : Json::Value();
        }
        list.append(item);
    }
    out["meters"] = list;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = " ";
    return Json::writeString(builder, out) + "\n";
}

std::string CStatusReport::prometheus(int unreadable) const {
    std::string out;
    auto family = [&out](const char* name, const char* type, const char* help) {
        appendf(out, "# HELP %s %s\n# TYPE %s %s\n", name, help, name, type);
    };
    auto sample = [&out](const char* name, const Meter& m, const std::string& extra, long long value) {
        appendf(out, "%s{meter_id=\"%s\"%s} %lld\n", name, labelValue(m.doc["meter_id"]).c_str(), extra.c_str(),
                value);
    };
    family("mtd_status_meters", "gauge", "Meters with a readable status file.");
    appendf(out, "mtd_status_meters %zu\n", m_meters.size());
    family("mtd_status_unreadable_files", "gauge", "Status files that could not be read.");
    appendf(out, "mtd_status_unreadable_files %d\n", unreadable);

    family("mtd_meter_info", "gauge", "Model and driver class of the meter (always 1).");
    for (const Meter& m : m_meters)
        sample("mtd_meter_info", m,
               ",model=\"" + labelValue(m.doc["model"]) + "\",driver=\"" + labelValue(m.doc["driver"]) + "\"", 1);
    family("mtd_meter_state", "gauge", "1 for the state the meter's polling thread is in, 0 for the others.");
    for (const Meter& m : m_meters) {
        const Json::Value& state = m.doc["state"];
        for (const char* name : {"reading", "waiting", "failing", "paused"})
            sample("mtd_meter_state", m, std::string(",state=\"") + name + "\"",
                   state.isString() && state.asString() == name);
    }
    family("mtd_meter_last_good_read_age_seconds", "gauge",
           "Seconds since the last cycle that ended well (since the start when none has).");
    for (const Meter& m : m_meters)
        if (m.age >= 0)
            sample("mtd_meter_last_good_read_age_seconds", m, "", m.age);
    family("mtd_meter_data_rate_seconds", "gauge", "Pause between the end of one cycle and the start of the next.");
    for (const Meter& m : m_meters) {
        const Json::Value& rate = m.doc["data_rate"];
        if (rate.isInt64() && rate.asInt64() >= 0 && rate.asInt64() <= kMaxTime)
            sample("mtd_meter_data_rate_seconds", m, "", rate.asInt64());
    }
    family("mtd_meter_stale", "gauge", "1 when the meter was not read for three data_rate periods (60 s at least).");
    for (const Meter& m : m_meters)
        sample("mtd_meter_stale", m, "", m.stale);
    family("mtd_meter_archive_lag_seconds", "gauge", "Seconds from the newest stored record of the archive to now.");
    for (const Meter& m : m_meters)
        for (const char* kind : kArchives) {
            const long long last = asTime(member(member(member(m.doc, "archives"), kind), "last"));
            if (last > 0)
                sample("mtd_meter_archive_lag_seconds", m, std::string(",kind=\"") + kind + "\"", m_now - last);
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
        for (const Meter& m : m_meters) {
            const Json::Value& v = member(member(m.doc, "counters"), c.member);
            if (v.isInt64() && v.asInt64() >= 0)
                sample(c.name, m, "", v.asInt64());
        }
    }
    family("mtd_meter_resident_memory_bytes", "gauge", "Resident memory of the process serving the meter.");
    for (const Meter& m : m_meters) {
        const Json::Value& kib = m.doc["rss_kb"];
        if (kib.isInt64() && kib.asInt64() > 0 && kib.asInt64() <= kMaxTime)
            sample("mtd_meter_resident_memory_bytes", m, "", kib.asInt64() * 1024);
    }
    return out;
}
