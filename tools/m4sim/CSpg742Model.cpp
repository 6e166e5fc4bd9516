// SPDX-License-Identifier: Apache-2.0
// The SPG742 of mtd_m4sim: a two-pipe gas volume corrector of the M4
// generation, answering in the layouts of the public Logika meter library
// (github.com/Vadsxd/LogikaPython: Protocols/M4/M4Protocol.py, Meters/__4M/
// Logika4M.py and SPG742.py; the maker's C# M4Protocol). Its values and
// archives are a function of the seed and the device time, so a dump at any
// time shows what the meter holds.
//
// What it answers:
//   session start (short frame 3F)  10 NT 3F 47 2A VV CS 16 (identification 0x472A)
//   session close (short frame 71)  10 NT 71 CS 16
//   parameter read 72 4A 03 CH NL NH  one element. Public numbers: 0.8256
//       serial (top byte not part of it), 0.1024 time, 0.1025 date, 0.2048
//       and 0.2050 totals, n.2048 / n.2049 pipe totals. The numbers of the
//       settings (contract hour and day, the unit of each pressure) and of
//       the pipe's P, t, Q, K are not public: this meter keeps them where the
//       daemon's notes guess, and answers any other setting of the common
//       channel (0..63) with a one-byte 0, any other pipe value with a float,
//       so a driver guessing another number is not caught here (nor can it be).
//   archive read 61 04 05 FF FF CH AR NN 49 LL <from> [49 LL <to>]
//       LL 6 or 8 (milliseconds), AR 0 hourly, 1 daily, 6 the НС journal,
//       CH 0..2. The answer: per record 49 08 <mark> then
//         interval:  30 LL 47 <time> 48 <date> <values>
//         journal:   one element, the НС number (41 01 nn)
//       and at the end 49 08 <next mark> 30 00, or 49 00 30 00 when the
//       journal holds nothing newer. A daily record is marked at the start of
//       its day and timed at the contract hour. Another request layout gets
//       the error reply 21 00.
// Its clock is local time of --tz-hours.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <map>

#include "tools/m4sim/CM4SimModel.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr double kBaseVolume = 20000.0;  // standard volume before the archive begins
// Unit codes of the public library: 0 kPa, 1 MPa, 2 kgf/cm2, 3 kgf/m2. Pipe 1
// keeps its pressure in kPa, pipe 2 in MPa.
constexpr uint32_t kUnitCode[3] = {0, 0, 1};
constexpr float kUnitPerMPa[3] = {1000.0f, 1000.0f, 1.0f};
// Where this meter keeps the settings whose numbers are not public (the same
// guess as the daemon's notes; no test can judge it).
constexpr uint16_t kContractDayNo = 24, kRateHourNo = 25, kUnitP1No = 40, kUnitP2No = 42;

uint64_t mix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ULL;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
    return x ^ (x >> 31);
}

std::string fixed6(double v) {
    char b[48];
    std::snprintf(b, sizeof b, "%.6f", v);
    return b;
}

// What a 0x44 element carries after the float fraction has been rounded.
double intFloat(double v) {
    const double whole = std::floor(v);
    return whole + static_cast<double>(static_cast<float>(v - whole));
}

class CSpg742Model : public CM4SimModel {
public:
    explicit CSpg742Model(const M4SimOptions& o) : m_o(o) {
        m_firstHour = (o.start - static_cast<time_t>(o.archiveDays) * 86400) / 3600;
    }

    std::vector<uint8_t> answer(const m4sim::Frame& f, time_t now) override {
        if (f.nt != m_o.nt)
            return {};
        if (!f.isLong) {
            if (f.function == 0x71) {  // session close: 10 NT 71 CS 16
                Bytes a = {0x10, m_o.nt, 0x71};
                a.push_back(m4sim::sumCheck(a.data() + 1, 2));
                a.push_back(0x16);
                return a;
            }
            if (f.function != 0x3F)
                return {};
            Bytes a = {0x10, m_o.nt, 0x3F, 0x47, 0x2A, 0x00};
            a.push_back(m4sim::sumCheck(a.data() + 1, 5));
            a.push_back(0x16);
            return a;
        }
        if (f.function == 0x72 && f.body.size() == 6 && f.body[1] == 0x4A && f.body[2] == 0x03)
            return param(f, f.body[3], static_cast<uint16_t>(f.body[4] | (f.body[5] & 0x7F) << 8), now);
        if (isArchiveRequest(f))
            return archive(f, now);
        return m4sim::errorFrame(f.nt, f.id, 0x00);
    }

    bool isArchiveRequest(const m4sim::Frame& f) const override {
        Request r;
        return parseRequest(f, r);
    }

    bool dumpArchive(int archive, time_t until, std::ostream& out) const override {
        const int code = archive == Hourly ? 0 : archive == Daily ? 1 : archive == Events ? 6 : -1;
        if (code < 0)
            return false;
        std::vector<Record> all;
        for (int ch = 0; ch < (code == 6 ? 3 : 1); ++ch)
            for (Record& r : records(code, ch, 0, until, until, 1u << 30))
                all.push_back(std::move(r));
        std::stable_sort(all.begin(), all.end(), [](const Record& x, const Record& y) { return x.time < y.time; });
        for (const Record& r : all) {
            out << r.time;
            for (const auto& kv : r.text)
                out << ' ' << kv.first << '=' << kv.second;
            out << '\n';
        }
        return true;
    }

    bool dumpValues(time_t at, std::ostream& out) const override {
        static const struct {
            uint8_t ch;
            uint16_t n;
        } kPublic[] = {{0, 2048}, {0, 2050}, {1, 2048}, {1, 2049}, {2, 2048}, {2, 2049}};
        m4sim::Frame f;
        f.nt = m_o.nt;
        for (const auto& p : kPublic) {
            // The answer's element, 72 <tag> <length> <value>, as it leaves the meter.
            const Bytes a = param(f, p.ch, p.n, at);
            const uint8_t* v = a.data() + 10;
            auto u32 = [](const uint8_t* b) {
                return static_cast<uint32_t>(b[0] | b[1] << 8 | b[2] << 16 | static_cast<uint32_t>(b[3]) << 24);
            };
            auto f32 = [&](const uint8_t* b) {
                const uint32_t bits = u32(b);
                float x;
                std::memcpy(&x, &bits, sizeof x);
                return static_cast<double>(x);
            };
            const double value = a[8] == 0x44 ? static_cast<double>(u32(v)) + f32(v + 4) : f32(v);
            out << static_cast<int>(p.ch) << '.' << p.n << '=' << fixed6(value) << '\n';
        }
        const struct tm tm = local(at);
        char clock[40];
        std::snprintf(clock, sizeof clock, "%02d.%02d.%04d %02d:%02d:%02d", tm.tm_mday, tm.tm_mon + 1,
                      tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec);
        out << "clock=" << clock << '\n';
        return true;
    }

private:
    struct Request {
        int channel = 0, code = 0;
        uint32_t count = 0;
        time_t from = 0, to = 0;
    };
    struct Record {
        time_t time = 0;
        time_t mark = 0;
        Bytes elements;  // interval: the values after time and date; journal: the event
        std::vector<std::pair<std::string, std::string>> text;
    };

    double hourVolume(long long h) const {
        return 6.0 + static_cast<double>(mix(m_o.seed * 7919ULL + static_cast<uint64_t>(h)) % 600) / 100.0;
    }
    // Standard volume counted up to `t` (Unix seconds), the current hour pro rata.
    double volumeAt(time_t t) const {
        const long long h = t / 3600;
        double v = kBaseVolume;
        for (long long k = m_firstHour; k < h; ++k)
            v += hourVolume(k);
        if (h >= m_firstHour)
            v += hourVolume(h) * static_cast<double>(t % 3600) / 3600.0;
        return v;
    }
    double workVolume(double std) const { return 3000.0 + std * 0.52; }
    float pressureMPa(long long h) const {
        return 0.3f + static_cast<float>(mix(m_o.seed + 31ULL * static_cast<uint64_t>(h)) % 100) / 1000.0f;
    }
    float temperature(long long h) const {
        return -5.0f + static_cast<float>(mix(m_o.seed * 3ULL + 17ULL * h) % 400) / 20.0f;
    }
    uint32_t hourFlags(long long h) const { return mix(m_o.seed ^ (0xA5A5ULL + h)) % 17 == 0 ? 0x100u : 0u; }

    struct tm local(time_t t) const { return m4sim::civil(t + static_cast<time_t>(m_o.tzHours) * 3600); }
    time_t fromLocal(const uint8_t* p) const {
        return m4sim::fromCivil(2000 + p[0], p[1], p[2], p[3], p[4], p[5]) - static_cast<time_t>(m_o.tzHours) * 3600;
    }

    // The fields of an interval record ending at `t` covering `hours` hours.
    Record intervalRecord(time_t t, int hours, int ch) const {
        (void)ch;  // the channels' interval records are alike here
        Record r;
        r.time = t;
        const double sum = volumeAt(t), v = sum - volumeAt(t - hours * 3600);
        const long long h = t / 3600 - 1;
        const float vf = static_cast<float>(v);
        float p = 0, temp = 0;
        uint32_t flags = 0;
        for (int k = 0; k < hours; ++k) {
            p += pressureMPa(h - k);
            temp += temperature(h - k);
            flags |= hourFlags(h - k);
        }
        p /= static_cast<float>(hours);
        temp /= static_cast<float>(hours);
        const float ti = static_cast<float>(hours);
        m4sim::putFloat(r.elements, vf);
        m4sim::putIntFloat(r.elements, sum);
        m4sim::putIntFloat(r.elements, workVolume(sum));
        m4sim::putFloat(r.elements, p);
        m4sim::putFloat(r.elements, temp);
        m4sim::putFloat(r.elements, ti);
        m4sim::putFlags(r.elements, flags);
        char fl[16];
        std::snprintf(fl, sizeof fl, "0x%08X", flags);
        r.text = {{"V", fixed6(vf)},         {"V.sum", fixed6(intFloat(sum))},
                  {"Vw.sum", fixed6(intFloat(workVolume(sum)))}, {"P1", fixed6(p)},
                  {"t1", fixed6(temp)},      {"ti", fixed6(ti)},
                  {"NS", fl}};
        return r;
    }

    // Records of archive `code`, channel `ch`, marked from..to, held at `now`, at most `count`.
    std::vector<Record> records(int code, int ch, time_t from, time_t to, time_t now, uint32_t count) const {
        std::vector<Record> out;
        if (to > now)
            to = now;
        const time_t first = static_cast<time_t>(m_firstHour) * 3600;
        if (code == 0) {
            // Hourly: marked and timed at the end of its hour.
            time_t t = std::max(from, first + 3600);
            t = (t + 3599) / 3600 * 3600;
            // A power cut leaves the hour of --hole-hours without a record.
            const time_t hole = m_o.holeHours ? (m_o.start / 3600 - m_o.holeHours) * 3600 : 0;
            for (; t <= to && out.size() < count; t += 3600)
                if (t != hole) {
                    out.push_back(intervalRecord(t, 1, ch));
                    out.back().mark = t;
                }
        } else if (code == 1) {
            // Daily: closes at the contract hour of the meter's clock, marked at
            // the start of that day.
            const time_t rh = static_cast<time_t>(m_o.rateHour) * 3600;
            const time_t offset = rh - static_cast<time_t>(m_o.tzHours) * 3600;
            const time_t lowest = std::max(from + rh, first + 86400);
            time_t t = ((lowest - offset + 86399) / 86400) * 86400 + offset;
            for (; t - rh <= to && t <= now && out.size() < count; t += 86400) {
                out.push_back(intervalRecord(t, 24, ch));
                out.back().mark = t - rh;
            }
        } else if (code == 6) {
            for (long long h = std::max<long long>(m_firstHour, from / 3600 - 1); h * 3600 <= to && out.size() < count;
                 ++h) {
                const uint64_t x = mix(m_o.seed * 101ULL + 977ULL * static_cast<uint64_t>(ch) + static_cast<uint64_t>(h));
                if (x % 6 != 0)
                    continue;
                const time_t t = h * 3600 + 600 + static_cast<time_t>(x % 1800);
                if (t < from || t > to)
                    continue;
                const uint32_t ns = static_cast<uint32_t>((x >> 8) % 29);
                Record r;
                r.time = r.mark = t;
                m4sim::putUInt(r.elements, ns, 1);
                r.text = {{"ns", (ch ? std::to_string(ch) + "-" : std::string()) + std::to_string(ns)}};
                out.push_back(std::move(r));
            }
        }
        return out;
    }

    bool parseRequest(const m4sim::Frame& f, Request& r) const {
        const Bytes& b = f.body;
        if (!f.isLong || f.function != 0x61 || b.size() < 8 || b[1] != 0x04 || b[2] != 0x05)
            return false;
        size_t pos = 8;
        m4sim::Element from, to;
        if (!m4sim::takeElement(b, pos, from) || !stampOf(from, r.from))
            return false;
        r.to = std::numeric_limits<time_t>::max();
        if (pos < b.size() && (!m4sim::takeElement(b, pos, to) || !stampOf(to, r.to)))
            return false;
        if (pos != b.size() || b[3] != 0xFF || b[4] != 0xFF)  // the current partition only
            return false;
        r.channel = b[5];
        r.code = b[6];
        r.count = b[7];
        return true;
    }

    // A request's date-time: YY MM DD hh mm ss, with or without milliseconds.
    bool stampOf(const m4sim::Element& e, time_t& t) const {
        if (e.tag != 0x49 || (e.value.size() != 6 && e.value.size() != 8))
            return false;
        t = fromLocal(e.value.data());
        return true;
    }

    Bytes archive(const m4sim::Frame& f, time_t now) const {
        Request q;
        if (!parseRequest(f, q) || q.channel > 2 || (q.code != 0 && q.code != 1 && q.code != 6))
            return m4sim::errorFrame(f.nt, f.id, 0x00);
        const uint32_t count = q.count ? q.count : 1;
        const auto got = records(q.code, q.channel, q.from, q.to, now, count);
        Bytes body = {0x61};
        for (const Record& r : got) {
            m4sim::putMark(body, local(r.mark));
            if (q.code == 6) {
                body.insert(body.end(), r.elements.begin(), r.elements.end());
                continue;
            }
            Bytes inner;
            m4sim::putTime(inner, local(r.time));
            m4sim::putDate(inner, local(r.time));
            inner.insert(inner.end(), r.elements.begin(), r.elements.end());
            m4sim::putContainer(body, inner);
        }
        // The next record: the first held after those sent; for an interval
        // archive holding nothing newer, the slot it fills next.
        const time_t after = got.empty() ? q.from : got.back().mark + 1;
        const auto next = records(q.code, q.channel, after, now, now, 1);
        if (!next.empty()) {
            m4sim::putMark(body, local(next.front().mark));
        } else if (q.code == 6) {
            m4sim::putNoTime(body);
        } else {
            const time_t period = q.code == 0 ? 3600 : 86400;
            const auto newest = records(q.code, q.channel, now - 2 * period, now, now, 1u << 30);
            time_t slot = newest.empty() ? after : newest.back().mark + period;
            if (slot < after)
                slot = after;
            m4sim::putMark(body, local(slot));
        }
        body.insert(body.end(), {0x30, 0x00});
        return m4sim::longFrame(f.nt, f.id, body);
    }

    Bytes param(const m4sim::Frame& f, uint8_t ch, uint16_t n, time_t now) const {
        Bytes body = {0x72};
        const long long h = now / 3600;
        const double v = volumeAt(now);
        const double pipeShare[3] = {1.0, 0.6, 0.4};
        const struct tm tm = local(now);
        const uint32_t key = static_cast<uint32_t>(ch) << 16 | n;
        switch (key) {
        case 8256: m4sim::putU32(body, 0x2A000000u | (m_o.serial & 0xFFFFFFu)); break;  // top byte is not the number
        case 8224: m4sim::putText(body, "v1.07"); break;
        case kContractDayNo: m4sim::putUInt(body, static_cast<uint32_t>(m_o.contractDay), 1); break;
        case kRateHourNo: m4sim::putUInt(body, static_cast<uint32_t>(m_o.rateHour), 1); break;
        case kUnitP1No: m4sim::putUInt(body, kUnitCode[1], 1); break;
        case kUnitP2No: m4sim::putUInt(body, kUnitCode[2], 1); break;
        case 1024: m4sim::putTime(body, tm); break;
        case 1025: m4sim::putDate(body, tm); break;
        case 2048: m4sim::putIntFloat(body, v); break;
        case 2050: m4sim::putFloat(body, static_cast<float>((now - m_firstHour * 3600) / 3600)); break;
        default:
            if ((ch == 1 || ch == 2) && n == 2048) {
                m4sim::putIntFloat(body, workVolume(v) * pipeShare[ch]);
            } else if ((ch == 1 || ch == 2) && n == 2049) {
                m4sim::putIntFloat(body, v * pipeShare[ch]);
            } else if ((ch == 1 || ch == 2) && n == 1024) {
                m4sim::putFloat(body, (pressureMPa(h) + 0.01f * ch) * kUnitPerMPa[ch]);
            } else if ((ch == 1 || ch == 2) && n == 1026) {
                m4sim::putFloat(body, temperature(h) + static_cast<float>(ch));
            } else if ((ch == 1 || ch == 2) && n == 1027) {
                m4sim::putFloat(body, static_cast<float>(hourVolume(h) * pipeShare[ch] / 1.9));
            } else if ((ch == 1 || ch == 2) && n == 1028) {
                m4sim::putFloat(body, static_cast<float>(hourVolume(h) * pipeShare[ch]));
            } else if ((ch == 1 || ch == 2) && n == 1031) {
                m4sim::putFloat(body, 1.9f);
            } else if (ch == 0 && n < 64) {
                m4sim::putUInt(body, 0, 1);  // a setting of the database block
            } else if ((ch == 1 || ch == 2) && n >= 1024 && n < 1100) {
                m4sim::putFloat(body, 0.0f);
            } else {
                return m4sim::errorFrame(f.nt, f.id, 0x00);
            }
        }
        return m4sim::longFrame(f.nt, f.id, body);
    }

    M4SimOptions m_o;
    long long m_firstHour = 0;
};

}  // namespace

std::unique_ptr<CM4SimModel> makeSpg742(const M4SimOptions& options) {
    return std::make_unique<CSpg742Model>(options);
}
