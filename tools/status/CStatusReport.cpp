// SPDX-License-Identifier: Apache-2.0
#include "CStatusReport.h"

#include <algorithm>
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
