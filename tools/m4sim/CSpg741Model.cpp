// SPDX-License-Identifier: Apache-2.0
// The SPG741 of mtd_m4sim: a gas volume corrector of the older M4 dialect.
// The master reads its memory; this model makes that memory up from the seed
// and the device time, so a dump at any time shows what the meter holds.
//
// What it answers (short frames only, 10 NT FN b3 b4 b5 b6 CS 16):
//   3F session start   10 NT 3F 47 29 21 CS 16 (identifier 0x4729, firmware 0x21)
//   45 RAM read        b3 b4 address (low first), b5 count 1..64: the bytes
//   52 flash read      b3 b4 page (low first), b5 pages 1..4 of 64 bytes
//   anything else, or past the end of memory: the refusal 10 NT 21 00 CS 16.
// Its memory (this simulator's own layout, written from the same notes as the
// driver's but not from its code):
//   RAM 00 clock YY MM DD hh mm ss; 08 fault flags u32; 10 P1 t1 Qr1 Q1 P2 t2
//       Qr2 Q2 as Microchip floats (P in MPa); 30 V1 Vr1 V2 Vr2 as u32 + float;
//       50 newest slot of the hourly, daily and journal rings (u16, FFFF empty)
//   flash page 0: serial u24, model byte, contract hour, contract day,
//       pressure unit 1 (MPa); pages 10.. hourly ring 1080 x 32 bytes; 240..
//       daily ring 366 x 32; 300.. journal 128 x 8. Erased bytes are FF.
//   interval record: YY MM DD hh mm ss, floats V1 Vr1 P1 t1 V2 Vr2, u16 flags;
//       stamped at the end of its interval (hourly at each hour, daily at the
//       contract hour). Journal record: YY MM DD hh mm ss, fault number, on/off;
//       one change every five hours.

#include <cmath>
#include <cstdio>
#include <cstring>

#include "tools/m4sim/CM4SimModel.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kRamSize = 0x60;
constexpr size_t kPage = 64;
constexpr size_t kFlashPages = 0x310;
constexpr time_t kEventEvery = 5 * 3600;
constexpr time_t kEventPhase = 1234;

struct RingDef {
    size_t page, slots, size;
};
constexpr RingDef kHourRing{0x10, 1080, 32}, kDayRing{0x240, 366, 32}, kEventRing{0x300, 128, 8};

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
    const uint8_t sign = static_cast<uint8_t>(b >> 31), exponent = static_cast<uint8_t>(b >> 23);
    p[0] = static_cast<uint8_t>(b);
    p[1] = static_cast<uint8_t>(b >> 8);
    p[2] = static_cast<uint8_t>((sign << 7) | ((b >> 16) & 0x7F));
    p[3] = exponent;
}

void putU(uint8_t* p, uint32_t v, int n) {
    for (int i = 0; i < n; ++i)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}

std::string num(double v, int digits) {
    char b[48];
    std::snprintf(b, sizeof b, "%.*f", digits, v);
    return b;
}

class CSpg741Model : public CM4SimModel {
public:
    explicit CSpg741Model(const M4SimOptions& o) : m_o(o) {
        m_historyStart = local(o.start) - static_cast<time_t>(o.archiveDays) * 86400;
    }

    std::vector<uint8_t> answer(const m4sim::Frame& f, time_t now) override {
        if (f.nt != m_o.nt || f.isLong)
            return {};
        const size_t where = f.body[0] | f.body[1] << 8, count = f.body[2];
        Bytes a;
        a.reserve(5 + 4 * kPage);
        a = {0x10, m_o.nt, f.function};
        if (f.function == 0x3F) {
            static const uint8_t ident[3] = {0x47, 0x29, 0x21};
            a.insert(a.end(), ident, ident + 3);
        } else if (f.function == 0x45 && count >= 1 && count <= 64 && where + count <= kRamSize) {
            const Bytes ram = makeRam(local(now));
            a.insert(a.end(), ram.begin() + static_cast<long>(where), ram.begin() + static_cast<long>(where + count));
        } else if (f.function == 0x52 && count >= 1 && count <= 4 && where + count <= kFlashPages) {
            const time_t t = local(now);
            for (size_t p = where; p < where + count; ++p) {
                const Bytes page = makePage(p, t);
                a.insert(a.end(), page.begin(), page.end());
            }
        } else {
            a = {0x10, m_o.nt, 0x21, 0x00};
        }
        a.push_back(m4sim::sumCheck(a.data() + 1, a.size() - 1));
        a.push_back(0x16);
        return a;
    }

    bool isArchiveRequest(const m4sim::Frame& f) const override {
        return !f.isLong && f.function == 0x52 && static_cast<size_t>(f.body[0] | f.body[1] << 8) >= kHourRing.page;
    }

    bool dumpArchive(int archive, time_t until, std::ostream& out) const override {
        const RingDef* ring = archive == Hourly ? &kHourRing : archive == Daily ? &kDayRing
                              : archive == Events ? &kEventRing : nullptr;
        if (!ring)
            return false;
        const time_t t = local(until);
        long long newest = newestIndex(*ring, t);
        for (long long k = newest - static_cast<long long>(ring->slots) + 1; k <= newest; ++k) {
            if (k < firstIndex(*ring))
                continue;
            uint8_t rec[32];
            record(*ring, k, rec);
            char stamp[32];
            std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02d,%02d:%02d:%02d", 2000 + rec[0], rec[1], rec[2], rec[3],
                          rec[4], rec[5]);
            out << stampOf(*ring, k) - static_cast<time_t>(m_o.tzHours) * 3600 << " t=" << stamp;
            if (ring == &kEventRing) {
                out << " NS=" << static_cast<int>(rec[6]) << " on=" << static_cast<int>(rec[7]) << "\n";
                continue;
            }
            static const char* const names[] = {"V1", "Vr1", "P1", "t1", "V2", "Vr2"};
            for (int i = 0; i < 6; ++i)
                out << " " << names[i] << "=" << num(readMchp(rec + 6 + 4 * i), 6);
            out << " flags=" << (rec[30] | rec[31] << 8) << "\n";
        }
        return true;
    }

private:
    time_t local(time_t t) const { return t + static_cast<time_t>(m_o.tzHours) * 3600; }

    static float readMchp(const uint8_t* p) {
        if (p[3] == 0)
            return 0.0f;
        uint32_t b = static_cast<uint32_t>(p[2] >> 7) << 31 | static_cast<uint32_t>(p[3]) << 23 |
                     static_cast<uint32_t>(p[2] & 0x7F) << 16 | static_cast<uint32_t>(p[1]) << 8 | p[0];
        float f;
        std::memcpy(&f, &b, sizeof f);
        return f;
    }

    // Record k of a ring is stamped (device local time):
    time_t stampOf(const RingDef& r, long long k) const {
        if (&r == &kHourRing)
            return static_cast<time_t>(k) * 3600;
        if (&r == &kDayRing)
            return static_cast<time_t>(k) * 86400 + static_cast<time_t>(m_o.rateHour) * 3600;
        return static_cast<time_t>(k) * kEventEvery + kEventPhase;
    }
    long long firstIndex(const RingDef& r) const {
        long long k = 0;
        while (stampOf(r, k) <= m_historyStart)  // a handful of steps at most from the estimate below
            ++k;
        return k;
    }
    // The newest record written by local time t (-1 and below: none yet).
    long long newestIndex(const RingDef& r, time_t t) const {
        long long k = &r == &kHourRing ? t / 3600 : &r == &kDayRing ? t / 86400 : t / kEventEvery;
        while (k >= 0 && stampOf(r, k) > t)
            --k;
        return k;
    }

    void record(const RingDef& r, long long k, uint8_t* p) const {
        const time_t stamp = stampOf(r, k);
        struct tm tm {};
        gmtime_r(&stamp, &tm);
        const int f[6] = {tm.tm_year - 100, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec};
        for (int i = 0; i < 6; ++i)
            p[i] = static_cast<uint8_t>(f[i]);
        const uint64_t h = mix(m_o.seed * 1000003ULL + static_cast<uint64_t>(k) * 7 + (&r == &kDayRing ? 1 : 0));
        if (&r == &kEventRing) {
            p[6] = static_cast<uint8_t>((k / 2) % 8);
            p[7] = k % 2 == 0;
            return;
        }
        const double hours = &r == &kDayRing ? 24.0 : 1.0;
        const float v1 = static_cast<float>(hours * (10.0 + static_cast<double>(h % 1000) / 100.0));
        const float values[6] = {v1, v1 * 0.875f, static_cast<float>(0.25 + static_cast<double>(h % 97) / 1000.0),
                                 static_cast<float>(-5.0 + static_cast<double>((h >> 16) % 300) / 10.0),
                                 static_cast<float>(hours * 1.5), static_cast<float>(hours * 1.25)};
        for (int i = 0; i < 6; ++i)
            putMchp(p + 6 + 4 * i, values[i]);
        putU(p + 30, static_cast<uint32_t>((h >> 40) % 4), 2);
    }

    Bytes makeRam(time_t t) const {
        Bytes ram(kRamSize, 0);
        struct tm tm {};
        gmtime_r(&t, &tm);
        const int f[6] = {tm.tm_year - 100, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec};
        for (int i = 0; i < 6; ++i)
            ram[i] = static_cast<uint8_t>(f[i]);
        // A fault is active when its last journal record says "on".
        uint32_t flags = 0;
        const long long last = newestIndex(kEventRing, t);
        if (last >= 0 && last % 2 == 0)
            flags |= 1u << ((last / 2) % 8);
        putU(&ram[0x08], flags, 4);
        const float cur[8] = {0.3125f, 7.5f, 120.0f, 102.5f, 0.0f, 0.0f, 0.0f, 0.0f};
        for (int i = 0; i < 8; ++i)
            putMchp(&ram[0x10 + 4 * i], cur[i]);
        // Totals grow by 12.5 m3 (standard) an hour of device time.
        const double hours = static_cast<double>(t - m_historyStart) / 3600.0;
        const double totals[4] = {50000.0 + 12.5 * hours, 60000.0 + 10.0 * hours, 1000.25, 1200.5};
        for (int i = 0; i < 4; ++i) {
            const double whole = std::floor(totals[i]);
            putU(&ram[0x30 + 8 * i], static_cast<uint32_t>(whole), 4);
            putMchp(&ram[0x34 + 8 * i], static_cast<float>(totals[i] - whole));
        }
        const RingDef* rings[3] = {&kHourRing, &kDayRing, &kEventRing};
        for (int i = 0; i < 3; ++i) {
            const long long k = newestIndex(*rings[i], t);
            const uint32_t slot = k >= firstIndex(*rings[i]) ? static_cast<uint32_t>(k % static_cast<long long>(rings[i]->slots)) : 0xFFFF;
            putU(&ram[0x50 + 2 * i], slot, 2);
        }
        return ram;
    }

    Bytes makePage(size_t page, time_t t) const {
        Bytes p(kPage, 0xFF);
        if (page == 0) {
            putU(&p[0], m_o.serial, 3);
            p[3] = 0;
            p[4] = static_cast<uint8_t>(m_o.rateHour);
            p[5] = static_cast<uint8_t>(m_o.contractDay);
            p[6] = 1;  // MPa
            return p;
        }
        for (const RingDef* r : {&kHourRing, &kDayRing, &kEventRing}) {
            const size_t perPage = kPage / r->size;
            if (page < r->page || page >= r->page + (r->slots + perPage - 1) / perPage)
                continue;
            const long long newest = newestIndex(*r, t), first = firstIndex(*r);
            const long long n = static_cast<long long>(r->slots);
            for (size_t i = 0; i < perPage; ++i) {
                const long long slot = static_cast<long long>((page - r->page) * perPage + i);
                if (slot >= n || newest < first)
                    continue;
                // The newest record index k <= newest with k mod n == slot.
                const long long k = newest - ((newest - slot) % n + n) % n;
                if (k >= first)
                    record(*r, k, &p[i * r->size]);
            }
        }
        return p;
    }

    M4SimOptions m_o;
    time_t m_historyStart;  // device local time; records after it exist
};

}  // namespace

std::unique_ptr<CM4SimModel> makeSpg741(const M4SimOptions& options) {
    return std::make_unique<CSpg741Model>(options);
}
