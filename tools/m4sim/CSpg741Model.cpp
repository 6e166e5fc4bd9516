// SPDX-License-Identifier: Apache-2.0
// The SPG741 of mtd_m4sim: a gas volume corrector of the older M4 dialect,
// written from the meter's public facts (the maker's meter library and its
// Python and C++ ports), not from the daemon's driver. The master reads its
// memory; this model builds that memory from the seed and the device time,
// so a dump at any time shows what the meter holds.
//
// Frames (short only, 10 NT FN b3 b4 b5 b6 CS 16):
//   3F session start  -> 10 NT 3F 47 29 21 CS 16 (identifier 0x4729, version)
//   45 read flash     b3 b4 first page (low first), b5 pages 1..8
//                     -> one frame 10 NT 45 <64 bytes> CS 16 for each page
//   52 read RAM       b3 b4 address (low first), b5 count 1..64
//                     -> 10 NT 52 <count bytes> CS 16
//   anything else, or past the end of memory: the refusal 10 NT 21 00 CS 16.
// Flash is 0x17C80 bytes. What lies in it follows the public structure:
//   - settings at 0x200, 16 bytes a parameter: byte 0 bit 0 "operative",
//     bytes 4..11 the value as text, byte 12 binary; the scheme is parameter 0;
//     a pressure unit's code is the two low bits of byte 12 (0 kPa, 1 MPa,
//     2 kgf/cm2, 3 kgf/m2), the high bits hold other things;
//   - serial number u24 and a check byte; totals as int32 + Microchip float,
//     kept at the last finished hour (the running hour's part is in RAM);
//   - per interval archive: a ring of 4-byte headers YY (since 1900) MM DD HH,
//     a ring of records beside it, and the slot written last as a u16 in
//     flash; a daily header's hour is not the record's (the contract hour is);
//   - the fault journal: 8-byte records 10 YY MM DD hh mm NN S (S bit 0 set
//     when fault NN began), the slot written last as a u16 in flash.
// RAM: date YY MM DD and time HH MM SS in 4-byte slots, 32 fault flags, the
// current values as Microchip floats.
// Where each thing lies, the ring capacities and the record field offsets are
// NOT public: the numbers below are this simulator's own assumptions (kept in
// step with the daemon's by hand, both marked "assumed"), so a test against
// this model judges the structure, not those numbers.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#include "tools/m4sim/CM4SimModel.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kFlashSize = 0x17C80;  // public
constexpr size_t kPage = 64;            // public
constexpr size_t kMaxPages = 8;         // public
constexpr size_t kMaxRam = 64;          // public
constexpr size_t kRamSize = 0x10000;
constexpr size_t kSettings = 0x200;     // public
constexpr size_t kEntry = 16;           // public

// Assumed numbers.
constexpr int kParamRateHour = 24, kParamRateDay = 25, kParamUnitFirst = 26;  // [P1] [dP1] [P2] [dP2] [dP3] [Pb] [P3] [P4]
constexpr size_t kSerialAt = 0x0000, kTotalsAt = 0x0040;
constexpr size_t kRamDate = 0x00, kRamTime = 0x04, kRamFlags = 0x08, kRamValues = 0x10, kRamHourPart = 0x40;
struct Ring {
    size_t index, headers, records, slots, size;
};
constexpr Ring kHours{0x1000, 0x1040, 0x2140, 1080, 32};
constexpr Ring kDays{0x1002, 0xA840, 0xAE00, 366, 32};
constexpr Ring kEvents{0x1004, 0, 0xDC00, 128, 8};
constexpr time_t kEventEvery = 5 * 3600, kEventPhase = 1260;  // journal: a change every 5 h, at hh:21
// Pressure units of the sensors as the meter keeps them (binary bytes with
// other bits set): [P1] kPa, [P2] MPa.
constexpr uint8_t kUnitBytes[8] = {0xA4, 0x01, 0x7D, 0x01, 0x01, 0x00, 0x01, 0x01};

uint64_t mix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ULL;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
    return x ^ (x >> 31);
}

// Microchip float, low byte first: m0 m1 (sign | m2) exponent.
void putMchp(uint8_t* p, float f) {
    uint32_t b;
    std::memcpy(&b, &f, sizeof b);
    p[0] = static_cast<uint8_t>(b);
    p[1] = static_cast<uint8_t>(b >> 8);
    p[2] = static_cast<uint8_t>((b >> 31) << 7 | ((b >> 16) & 0x7F));
    p[3] = static_cast<uint8_t>(b >> 23);
}

void putU(uint8_t* p, uint32_t v, int n) {
    for (int i = 0; i < n; ++i)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}

std::string num(double v) {
    char b[48];
    std::snprintf(b, sizeof b, "%.6f", static_cast<double>(static_cast<float>(v)));
    return b;
}

std::string stampText(time_t t) {
    const struct tm tm = m4sim::civil(t);
    char b[32];
    std::snprintf(b, sizeof b, "%04d-%02d-%02d,%02d:%02d:%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec);
    return b;
}

class CSpg741Model : public CM4SimModel {
public:
    explicit CSpg741Model(const M4SimOptions& o) : m_o(o) {
        m_historyStart = local(o.start) - static_cast<time_t>(o.archiveDays) * 86400;
        m_hole = o.holeHours > 0 ? (local(o.start) / 3600 - o.holeHours) : -1;
    }

    std::vector<uint8_t> answer(const m4sim::Frame& f, time_t now) override {
        if (f.nt != m_o.nt || f.isLong)
            return {};
        const size_t where = f.body[0] | f.body[1] << 8, count = f.body[2];
        const time_t t = local(now);
        if (f.function == 0x3F)
            return frame(0x3F, Bytes{0x47, 0x29, 0x21});
        if (f.function == 0x45 && count >= 1 && count <= kMaxPages && (where + count) * kPage <= kFlashSize) {
            const Bytes flash = flashImage(t);
            Bytes a;
            for (size_t p = where; p < where + count; ++p) {
                const Bytes page(flash.begin() + static_cast<long>(p * kPage),
                                 flash.begin() + static_cast<long>((p + 1) * kPage));
                const Bytes one = frame(0x45, page);
                a.insert(a.end(), one.begin(), one.end());
            }
            return a;
        }
        if (f.function == 0x52 && count >= 1 && count <= kMaxRam && where + count <= kRamSize) {
            const Bytes ram = ramImage(t);
            return frame(0x52, Bytes(ram.begin() + static_cast<long>(where), ram.begin() + static_cast<long>(where + count)));
        }
        return frame(0x21, Bytes{0x00});
    }

    bool isArchiveRequest(const m4sim::Frame& f) const override {
        return !f.isLong && f.function == 0x45 && static_cast<size_t>(f.body[0] | f.body[1] << 8) * kPage >= kHours.index;
    }

    // Lines "<unix> t=<device time> ..." with the values as the meter keeps
    // them: P1 in kPa (its unit [P1]), volumes in m3, NS the flag word. The
    // records stamped up to `until`: an interval's record is written when the
    // interval ends, so this is what the meter holds an interval later.
    bool dumpArchive(int archive, time_t until, std::ostream& out) const override {
        const time_t t = local(until) + (archive == Hourly ? 3600 : archive == Daily ? 86400 : 0);
        const time_t tz = static_cast<time_t>(m_o.tzHours) * 3600;
        if (archive == Events) {
            const long long newest = newestEvent(t);
            for (long long k = std::max(firstEvent(), newest - static_cast<long long>(kEvents.slots) + 1); k <= newest; ++k) {
                const time_t at = eventTime(k);
                out << at - tz << " t=" << stampText(at) << " NS=" << eventNumber(k) << " on=" << (k % 2 == 0) << "\n";
            }
            return true;
        }
        if (archive != Hourly && archive != Daily)
            return false;
        const bool hours = archive == Hourly;
        const std::vector<long long> held = intervals(hours, t);
        for (long long k : held) {
            const time_t at = hours ? k * 3600 : k * 86400 + static_cast<time_t>(m_o.rateHour) * 3600;
            float v[7];
            values(hours, k, v);
            out << at - tz << " t=" << stampText(at) << " Vstd1=" << num(v[0]) << " Vw1=" << num(v[1])
                << " P1=" << num(v[2]) << " T1=" << num(v[3]) << " Vstd2=" << num(v[4]) << " Vw2=" << num(v[5])
                << " NS=" << static_cast<int>(v[6]) << "\n";
        }
        return true;
    }

private:
    time_t local(time_t t) const { return t + static_cast<time_t>(m_o.tzHours) * 3600; }

    Bytes frame(uint8_t function, const Bytes& data) const {
        Bytes a = {0x10, m_o.nt, function};
        a.insert(a.end(), data.begin(), data.end());
        a.push_back(m4sim::sumCheck(a.data() + 1, a.size() - 1));
        a.push_back(0x16);
        return a;
    }

    // Interval k (hour or contract day number since 1970, device time) is
    // written when it has ended; the meter had been running since the history
    // start, except for the hour `m_hole`. Oldest first, at most a ring's worth.
    std::vector<long long> intervals(bool hours, time_t t) const {
        const time_t len = hours ? 3600 : 86400, shift = hours ? 0 : static_cast<time_t>(m_o.rateHour) * 3600;
        const long long first = (m_historyStart - shift + len - 1) / len;
        const long long last = (t - shift) / len - 1;
        std::vector<long long> ks;
        for (long long k = last; k >= first && ks.size() < (hours ? kHours : kDays).slots; --k)
            if (!hours || k != m_hole)
                ks.push_back(k);
        std::reverse(ks.begin(), ks.end());
        return ks;
    }
    // The slot of interval k: records are written one after the other.
    size_t slotOf(bool hours, long long k) const {
        const long long n = hours && m_hole >= 0 && k > m_hole ? k - 1 : k;
        return static_cast<size_t>(n % static_cast<long long>((hours ? kHours : kDays).slots));
    }
    void values(bool hours, long long k, float* v) const {
        const uint64_t h = mix(m_o.seed * 1000003ULL + static_cast<uint64_t>(k) * 7 + (hours ? 0 : 1));
        const double n = hours ? 1.0 : 24.0;
        v[0] = static_cast<float>(n * (10.0 + static_cast<double>(h % 1000) / 100.0));
        v[1] = v[0] * 0.875f;
        v[2] = static_cast<float>(250.0 + static_cast<double>(h % 97));  // kPa
        v[3] = static_cast<float>(-5.0 + static_cast<double>((h >> 16) % 300) / 10.0);
        v[4] = static_cast<float>(n * 1.5);
        v[5] = static_cast<float>(n * 1.25);
        v[6] = static_cast<float>((h >> 40) % 4);
    }

    long long firstEvent() const { return (m_historyStart - kEventPhase) / kEventEvery + 1; }
    long long newestEvent(time_t t) const { return (t - kEventPhase) / kEventEvery; }
    time_t eventTime(long long k) const { return k * kEventEvery + kEventPhase; }
    int eventNumber(long long k) const { return static_cast<int>((k / 2) % 28); }

    void entry(Bytes& flash, int param, const char* text, uint8_t binary) const {
        uint8_t* p = &flash[kSettings + static_cast<size_t>(param) * kEntry];
        std::memset(p, 0, kEntry);
        p[0] = 0x01;
        std::memset(p + 4, ' ', 8);
        std::memcpy(p + 4, text, std::min<size_t>(8, std::strlen(text)));
        p[12] = binary;
    }

    double total(int i, double hours) const {
        static const double base[4] = {50000.0, 60000.0, 1000.25, 1200.5}, rate[4] = {12.5, 10.0, 0, 0};
        return base[i] + rate[i] * hours;
    }

    Bytes flashImage(time_t t) const {
        Bytes flash(kFlashSize, 0xFF);
        char text[16];
        entry(flash, 0, "1", 1);
        std::snprintf(text, sizeof text, "%d", m_o.rateHour);
        entry(flash, kParamRateHour, text, static_cast<uint8_t>(m_o.rateHour));
        std::snprintf(text, sizeof text, "%d", m_o.contractDay);
        entry(flash, kParamRateDay, text, static_cast<uint8_t>(m_o.contractDay));
        for (int i = 0; i < 8; ++i)
            entry(flash, kParamUnitFirst + i, "", kUnitBytes[i]);
        putU(&flash[kSerialAt], m_o.serial, 3);
        flash[kSerialAt + 3] = m4sim::sumCheck(&flash[kSerialAt], 3);
        const double hours = std::floor(static_cast<double>(t - m_historyStart) / 3600.0);
        for (int i = 0; i < 4; ++i) {
            const double v = total(i, hours), whole = std::floor(v);
            putU(&flash[kTotalsAt + 8 * i], static_cast<uint32_t>(whole), 4);
            putMchp(&flash[kTotalsAt + 8 * i + 4], static_cast<float>(v - whole));
        }
        for (bool h : {true, false}) {
            const Ring& r = h ? kHours : kDays;
            const std::vector<long long> ks = intervals(h, t);
            putU(&flash[r.index], ks.empty() ? 0 : static_cast<uint32_t>(slotOf(h, ks.back())), 2);
            for (long long k : ks) {
                const size_t s = slotOf(h, k);
                const struct tm tm = m4sim::civil(h ? k * 3600 : k * 86400);
                uint8_t* hd = &flash[r.headers + 4 * s];
                hd[0] = static_cast<uint8_t>(tm.tm_year), hd[1] = static_cast<uint8_t>(tm.tm_mon + 1);
                hd[2] = static_cast<uint8_t>(tm.tm_mday), hd[3] = static_cast<uint8_t>(h ? tm.tm_hour : 0);
                float v[7];
                values(h, k, v);
                uint8_t* rec = &flash[r.records + r.size * s];
                for (int i = 0; i < 6; ++i)
                    putMchp(rec + 4 * i, v[i]);
                putU(rec + 24, static_cast<uint32_t>(v[6]), 2);
            }
        }
        const long long newest = newestEvent(t);
        putU(&flash[kEvents.index], newest >= firstEvent() ? static_cast<uint32_t>(newest % kEvents.slots) : 0, 2);
        for (long long k = std::max(firstEvent(), newest - static_cast<long long>(kEvents.slots) + 1); k <= newest; ++k) {
            const struct tm tm = m4sim::civil(eventTime(k));
            uint8_t* rec = &flash[kEvents.records + kEvents.size * static_cast<size_t>(k % kEvents.slots)];
            const uint8_t r[8] = {0x10, static_cast<uint8_t>(tm.tm_year - 100), static_cast<uint8_t>(tm.tm_mon + 1),
                                  static_cast<uint8_t>(tm.tm_mday), static_cast<uint8_t>(tm.tm_hour),
                                  static_cast<uint8_t>(tm.tm_min), static_cast<uint8_t>(eventNumber(k)),
                                  static_cast<uint8_t>(k % 2 == 0 ? 0x81 : 0x80)};
            std::memcpy(rec, r, 8);
        }
        return flash;
    }

    Bytes ramImage(time_t t) const {
        Bytes ram(kRamSize, 0);
        const struct tm tm = m4sim::civil(t);
        ram[kRamDate] = static_cast<uint8_t>(tm.tm_year - 100), ram[kRamDate + 1] = static_cast<uint8_t>(tm.tm_mon + 1);
        ram[kRamDate + 2] = static_cast<uint8_t>(tm.tm_mday);
        ram[kRamTime] = static_cast<uint8_t>(tm.tm_hour), ram[kRamTime + 1] = static_cast<uint8_t>(tm.tm_min);
        ram[kRamTime + 2] = static_cast<uint8_t>(tm.tm_sec);
        // A fault is active when its last journal record says it began.
        const long long last = newestEvent(t);
        putU(&ram[kRamFlags], last >= firstEvent() && last % 2 == 0 ? 1u << eventNumber(last) : 0u, 4);
        // P1 in kPa, P2 in MPa (the sensors' units).
        const float cur[8] = {312.5f, 7.5f, 120.0f, 102.5f, 0.25f, 3.0f, 0.0f, 0.0f};
        for (int i = 0; i < 8; ++i)
            putMchp(&ram[kRamValues + 4 * i], cur[i]);
        // The running hour's part of the first total (not part of the flash totals).
        const double hours = static_cast<double>(t - m_historyStart) / 3600.0;
        putMchp(&ram[kRamHourPart], static_cast<float>(total(0, hours) - total(0, std::floor(hours))));
        return ram;
    }

    M4SimOptions m_o;
    time_t m_historyStart;  // device local time; intervals starting at or after it were recorded
    long long m_hole;       // the hour the meter did not record (-1: none)
};

}  // namespace

std::unique_ptr<CM4SimModel> makeSpg741(const M4SimOptions& options) {
    return std::make_unique<CSpg741Model>(options);
}
