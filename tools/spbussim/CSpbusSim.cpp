// SPDX-License-Identifier: Apache-2.0
#include "tools/spbussim/CSpbusSim.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "tools/simline/SimChecks.h"
#include "tools/simline/SimTime.h"

namespace {

constexpr uint8_t SOH = 0x01, STX = 0x02, ETX = 0x03, HT = 0x09, FF = 0x0C, DLE = 0x10, ISI = 0x1F;

std::string fixed(double v, int digits) {
    char buf[48];
    std::snprintf(buf, sizeof buf, "%.*f", digits, v);
    return buf;
}

std::string two(int v) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%02d", v);
    return buf;
}

// Texts in the meter's code page, CP866.
const char* const kM3 = "\xAC" "3";                          // м3
const char* const kM3h = "\xAC" "3/\xE7";                    // м3/ч
const char* const kDeg = "\xF8" "C";                         // °C
const char* const kNoData = "\x8D\xA5\xE2 \xA4\xA0\xAD\xAD\xEB\xE5?";  // Нет данных?
const char* const kBadTime = "\x84\xA0\xE2\xA0/\xA2\xE0\xA5\xAC\xEF?";  // Дата/время?
const char* const kNS866 = "\x8D\x91";                        // НС
const char* const kNSutf8 = "\xD0\x9D\xD0\xA1";               // НС
const char* const kPipe866 = "\xE2";                          // т (of "Vт1": pipeline 1)

const char* pressureUnitText(const std::string& unit) {
    if (unit == "MPa") return "\x8C\x8F\xA0";            // МПа
    if (unit == "kPa") return "\xAA\x8F\xA0";            // кПа
    if (unit == "bar") return "\xA1\xA0\xE0";            // бар
    return "\xAA\xA3\xE1/\xE1\xAC" "2";                  // кгс/см2
}

double pressureFromKgf(double kgf, const std::string& unit) {
    if (unit == "MPa") return kgf * 0.0980665;
    if (unit == "kPa") return kgf * 98.0665;
    if (unit == "bar") return kgf * 0.980665;
    return kgf;
}

// The slice columns of each pipeline: parameter, name, decimals.
struct SimColumn {
    int param;
    const char* name;
    int digits;
};
const SimColumn kPipeColumns[] = {{150, "P", 4}, {151, "t", 2}, {161, "V\xE0", 3}, {160, "V", 3}};
constexpr int kNsParam = 95;
constexpr int kPipes = 2;  // pipelines with columns in the archives

bool toInt(const std::string& s, int& out) {
    if (s.empty() || s.size() > 4)
        return false;
    char* end = nullptr;
    const long v = std::strtol(s.c_str(), &end, 10);
    out = static_cast<int>(v);
    return *end == '\0';
}

// {dd, MM, yyyy or yy, HH, mm, ss} on the device clock.
bool timeOf(const std::vector<std::string>& b, std::time_t& t) {
    int v[6];
    if (b.size() != 6)
        return false;
    for (int i = 0; i < 6; ++i)
        if (!toInt(b[static_cast<size_t>(i)], v[i]))
            return false;
    if (v[0] < 1 || v[0] > 31 || v[1] < 1 || v[1] > 12 || v[3] > 23 || v[4] > 59 || v[5] > 59 || v[3] < 0 ||
        v[4] < 0 || v[5] < 0 || v[2] < 0)
        return false;
    struct tm tm {};
    tm.tm_mday = v[0];
    tm.tm_mon = v[1] - 1;
    tm.tm_year = (v[2] < 100 ? 2000 + v[2] : v[2]) - 1900;
    tm.tm_hour = v[3];
    tm.tm_min = v[4];
    tm.tm_sec = v[5];
    t = timegm(&tm);
    return true;
}

std::vector<std::string> timeFields(std::time_t t) {
    struct tm tm {};
    gmtime_r(&t, &tm);
    return {two(tm.tm_mday), two(tm.tm_mon + 1), std::to_string(tm.tm_year + 1900), two(tm.tm_hour),
            two(tm.tm_min), two(tm.tm_sec)};
}

// Records of a frame's data part: fields after HT, records ended by FF (CR LF also).
std::vector<std::vector<std::string>> recordsOf(const std::vector<uint8_t>& f, size_t from, size_t to) {
    std::vector<std::vector<std::string>> out;
    std::vector<std::string> rec;
    std::string field;
    bool in = false;
    for (size_t i = from; i < to; ++i) {
        const uint8_t b = f[i];
        const bool crlf = b == 0x0D && i + 1 < to && f[i + 1] == 0x0A;
        if (b == HT || b == FF || crlf) {
            if (in)
                rec.push_back(field);
            field.clear();
            in = b == HT;
            if (b != HT) {
                out.push_back(rec);
                rec.clear();
                i += crlf ? 1 : 0;
            }
        } else if (in) {
            field += static_cast<char>(b);
        }
    }
    return out;
}

std::vector<uint8_t> frameOf(uint8_t fn, const std::string& head, const std::vector<std::vector<std::string>>& recs,
                             long& etxPos) {
    std::vector<uint8_t> b = {DLE, SOH, DLE, ISI, fn};
    b.insert(b.end(), head.begin(), head.end());
    b.push_back(DLE);
    b.push_back(STX);
    for (const auto& r : recs) {
        for (const auto& f : r) {
            b.push_back(HT);
            b.insert(b.end(), f.begin(), f.end());
        }
        b.push_back(FF);
    }
    b.push_back(DLE);
    b.push_back(ETX);
    etxPos = static_cast<long>(b.size()) - 1;
    const uint16_t crc = simCrc16x1021(b.data() + 2, b.size() - 2);
    b.push_back(static_cast<uint8_t>(crc >> 8));
    b.push_back(static_cast<uint8_t>(crc));
    return b;
}

size_t wireSize(const std::vector<std::string>& rec) {
    size_t n = 1;
    for (const auto& f : rec)
        n += 1 + f.size();
    return n;
}

}  // namespace

CSpbusSim::CSpbusSim(SSpbusSimConfig config, std::string link)
    : m_cfg(std::move(config)),
      m_line(CSimLine::lineOptions(m_cfg.baud, m_cfg.timing, std::move(link))),
      m_faults(m_cfg.faultSeed, m_cfg.faultShare) {
    if (m_cfg.now == 0)
        m_cfg.now = std::time(nullptr);
    if (m_cfg.eventEvery < 1)
        m_cfg.eventEvery = 1;
    m_historyStart = m_cfg.now - m_cfg.now % 86400 - static_cast<std::time_t>(m_cfg.archiveDays) * 86400;
    m_steadyStart = std::chrono::steady_clock::now();
}

CSpbusSim::~CSpbusSim() {
    stop();
}

bool CSpbusSim::open() {
    return m_line.open();
}

bool CSpbusSim::start() {
    return m_serving.start([this] { serve(); });
}

void CSpbusSim::stop() {
    m_serving.stop();
}

std::time_t CSpbusSim::deviceNow() const {
    return simDeviceTime(m_cfg.now, m_steadyStart, m_cfg.clockScale);
}

double CSpbusSim::slotValue(int archive, int pipe, int column, std::time_t slot) const {
    const uint64_t h = simMix64(m_cfg.seed * 1000003ull + static_cast<uint64_t>(slot) * 31 + static_cast<uint64_t>(archive) * 7 +
                           static_cast<uint64_t>(pipe) * 131);
    const double scale = archive == kHourly ? 1 : 24;
    const double vstd = (12 + static_cast<double>(h % 800) / 100) * scale;
    switch (kPipeColumns[column].param) {
    case 150: return pressureFromKgf(1.5 + static_cast<double>((h >> 24) % 300) / 1000, m_cfg.pressureUnit);
    case 151: return -5 + static_cast<double>((h >> 36) % 250) / 10;
    case 161: return vstd * (0.55 + static_cast<double>((h >> 12) % 100) / 1000);
    default: return vstd;
    }
}

std::vector<CSpbusSim::Record> CSpbusSim::records(int archive, std::time_t from, std::time_t to,
                                                  std::time_t until) const {
    std::vector<Record> out;
    if (archive == kEvents) {
        // Some hours have a situation come or go, some two in the same second.
        for (std::time_t hour = m_historyStart; hour + 3600 <= until && hour <= to; hour += 3600) {
            const uint64_t h = simMix64(m_cfg.seed * 7919ull + static_cast<uint64_t>(hour));
            if (h % static_cast<uint64_t>(m_cfg.eventEvery) != 0)
                continue;
            const std::time_t t = hour + static_cast<std::time_t>((h >> 8) % 3600);
            if (t < from || t > to || t >= until)
                continue;
            const int codes[2] = {1 + static_cast<int>((h >> 20) % 24), 1 + static_cast<int>((h >> 28) % 24)};
            const int entries = (h >> 40) % 3 == 0 ? 2 : 1;
            for (int e = 0; e < entries; ++e) {
                const std::string tail = two(codes[e]) + (((h >> (32 + e)) & 1) ? "+" : "-");
                Record r{t, "", std::to_string(codes[e]), kNS866 + tail};
                r.text = r.event + " " + kNSutf8 + tail;
                out.push_back(r);
            }
        }
        return out;
    }
    const std::time_t period = archive == kHourly ? 3600 : 86400;
    const std::time_t offset = archive == kHourly ? 0 : static_cast<std::time_t>(m_cfg.rateHour) * 3600;
    std::time_t t = m_historyStart + offset;
    if (from > t)
        t += (from - t + period - 1) / period * period;
    for (; t <= to && t + period <= until; t += period) {
        const uint64_t ns = simMix64(m_cfg.seed * 13ull + static_cast<uint64_t>(t)) % 17 == 0 ? 4 : 0;
        // Vstd Vw P T of pipeline 1, then the situation number of the common channel.
        out.push_back({t,
                       fixed(slotValue(archive, 1, 3, t), 3) + " " + fixed(slotValue(archive, 1, 2, t), 3) + " " +
                           fixed(slotValue(archive, 1, 0, t), 4) + " " + fixed(slotValue(archive, 1, 1, t), 2) + " " +
                           std::to_string(ns),
                       "", ""});
    }
    return out;
}

bool CSpbusSim::paramValue(int ch, int param, std::string& value, std::string& unit) const {
    const std::time_t now = deviceNow();
    struct tm tm {};
    gmtime_r(&now, &tm);
    const double hours = static_cast<double>(now - m_historyStart) / 3600;
    const bool fresh = m_cfg.model != "761";
    unit.clear();
    if (ch == 0) {
        switch (param) {
        case 8: value = fresh ? "0" : m_cfg.serial; return true;
        case 24: value = std::to_string(m_cfg.rateHour); unit = "\xE7"; return true;  // ч
        case 25: value = std::to_string(m_cfg.rateDay); return true;
        case 30: value = "0"; return true;  // the units setting: code 0
        case 60: value = two(tm.tm_mday) + "-" + two(tm.tm_mon + 1) + "-" + two(tm.tm_year % 100); return true;
        case 61: value = two(tm.tm_hour) + ":" + two(tm.tm_min) + ":" + two(tm.tm_sec); return true;
        case 99: value = fresh ? m_cfg.model + "v03.01" : "761 02.05"; return true;
        default: return false;
        }
    }
    if (ch < 1 || ch > 3)
        return false;
    const double k = ch == 1 ? 1 : 0.5;
    switch (param) {
    case 150: value = fixed(pressureFromKgf(1.6234, m_cfg.pressureUnit), 4); unit = pressureUnitText(m_cfg.pressureUnit); return true;
    case 151: value = "-3.25"; unit = kDeg; return true;
    case 152: value = fixed(9.875 * k, 3); unit = kM3h; return true;
    case 153: value = fixed(15.31 * k, 2); unit = kM3h; return true;
    case 154: value = "1.5504"; return true;
    case 160: value = fixed((250000 + hours * 15.31) * k, 3); unit = kM3; return true;
    case 161: value = fixed((160000 + hours * 9.875) * k, 3); unit = kM3; return true;
    default: return false;
    }
}

void CSpbusSim::slice(int archive, std::time_t at, std::vector<Fields>& out) const {
    const std::time_t period = archive == kHourly ? 3600 : 86400;
    const std::time_t offset = archive == kHourly ? 0 : static_cast<std::time_t>(m_cfg.rateHour) * 3600;
    const std::time_t slot = at - ((at - offset) % period + period) % period;
    out.push_back(timeFields(slot));
    out.push_back(timeFields(slot - period));
    // The meter holds the interval once it has closed, back to its history's start.
    const bool held = slot >= m_historyStart && slot + period <= deviceNow();
    for (int pipe = 1; pipe <= kPipes; ++pipe)
        for (int c = 0; c < 4; ++c)
            out.push_back({held ? fixed(slotValue(archive, pipe, c, slot), kPipeColumns[c].digits) : kNoData});
    const uint64_t ns = simMix64(m_cfg.seed * 13ull + static_cast<uint64_t>(slot)) % 17 == 0 ? 4 : 0;
    out.push_back({held ? std::to_string(ns) : kNoData});
}

void CSpbusSim::journal(std::time_t end, std::time_t start, std::vector<Fields>& out) const {
    size_t size = 16;  // head, DLE ETX and the check
    for (const auto& r : out)
        size += wireSize(r);
    const auto all = records(kEvents, start, end, deviceNow());
    std::string unitBefore;
    for (auto it = all.rbegin(); it != all.rend(); ++it) {
        struct tm tm {};
        gmtime_r(&it->time, &tm);
        const std::string when = two(tm.tm_mday) + "-" + two(tm.tm_mon + 1) + "-" + two(tm.tm_year % 100) + "/" +
                                 two(tm.tm_hour) + ":" + two(tm.tm_min) + ":" + two(tm.tm_sec);
        // A unit equal to the entry's before goes out empty.
        Fields entry{it->event, it->description866 == unitBefore ? "" : it->description866, when};
        if (size + wireSize(entry) > m_cfg.maxReply)
            break;
        size += wireSize(entry);
        unitBefore = it->description866;
        out.push_back(entry);
    }
}

bool CSpbusSim::answer(uint8_t fn, const std::vector<Fields>& in, uint8_t& replyFn, std::vector<Fields>& out) const {
    int ch = -1, num = -1;
    if (in.empty() || in[0].size() < 2 || !toInt(in[0][0], ch) || !toInt(in[0][1], num))
        return false;
    out.push_back(in[0]);
    switch (fn) {
    case 0x1D: {
        replyFn = 0x03;
        out.clear();
        for (const auto& p : in) {
            std::string value, unit;
            if (p.size() != 2 || !toInt(p[0], ch) || !toInt(p[1], num))
                return false;
            if (!paramValue(ch, num, value, unit))
                value = kNoData;
            out.push_back(p);
            out.push_back({value, unit});
        }
        return true;
    }
    case 0x0C: {
        replyFn = 0x14;
        int first = 0, count = 0;
        if (in[0].size() != 4 || !toInt(in[0][2], first) || !toInt(in[0][3], count) || first < 0 || count < 1)
            return false;
        const bool fresh = m_cfg.model != "761";
        for (int i = first; i < first + count; ++i) {
            if (ch == 0 && num == 99 && fresh && i == 0)
                out.push_back({m_cfg.model + "v03.01", ""});
            else if (ch == 0 && num == 99 && fresh && i == 1)
                out.push_back({m_cfg.serial, ""});
            else
                out.push_back({kNoData, ""});
        }
        return true;
    }
    case 0x19:
        replyFn = 0x21;
        if (ch != 0 || (num != kHourly && num != kDaily)) {
            out.push_back({kNoData});
            return true;
        }
        for (int pipe = 1; pipe <= kPipes; ++pipe) {
            for (const auto& c : kPipeColumns) {
                std::string unit = c.param == 150 ? pressureUnitText(m_cfg.pressureUnit) : c.param == 151 ? kDeg : kM3;
                if (c.param == 160)
                    unit.clear();  // as the column before (м3)
                out.push_back({std::string(c.name) + kPipe866 + std::to_string(pipe), unit, std::to_string(pipe),
                               std::to_string(c.param)});
            }
        }
        out.push_back({kNS866, "", "0", std::to_string(kNsParam)});
        return true;
    case 0x18: {
        replyFn = 0x20;
        std::time_t at = 0;
        if (ch != 0 || (num != kHourly && num != kDaily)) {
            out.push_back({kNoData});
        } else if (in.size() != 2 || !timeOf(in[1], at)) {
            out.push_back({kBadTime});
        } else {
            out.push_back(timeFields(at));
            slice(num, at, out);
        }
        return true;
    }
    case 0x0E: {
        replyFn = 0x16;
        std::time_t end = 0, start = 0;
        if (ch != 0 || num != kEvents) {
            out.push_back({kNoData});
        } else if (in.size() != 3 || !timeOf(in[1], end) || !timeOf(in[2], start)) {
            out.push_back({kBadTime});
        } else {
            out.push_back(timeFields(end));
            out.push_back(timeFields(start));
            journal(end, start, out);
        }
        return true;
    }
    default:
        return false;
    }
}

void CSpbusSim::serve() {
    std::vector<uint8_t> buf;
    uint8_t chunk[256];
    while (!m_line.stopped()) {
        const ssize_t n = m_line.read(chunk, sizeof chunk, -1);
        if (n <= 0) {
            if (n < 0 && !m_line.pause(std::chrono::milliseconds(20)))
                return;
            continue;
        }
        buf.insert(buf.end(), chunk, chunk + n);
        for (;;) {
            // A request starts with DLE SOH and ends with DLE ETX and two check bytes.
            size_t start = 0;
            while (start + 1 < buf.size() && !(buf[start] == DLE && buf[start + 1] == SOH))
                ++start;
            buf.erase(buf.begin(), buf.begin() + static_cast<long>(start));
            size_t etx = 0;
            for (size_t i = 3; i + 1 < buf.size(); ++i)
                if (buf[i] == DLE && buf[i + 1] == ETX && buf[i - 1] != DLE) {
                    etx = i + 1;
                    break;
                }
            if (etx == 0 || buf.size() < etx + 3) {
                if (buf.size() > 512)
                    buf.clear();
                break;
            }
            std::vector<uint8_t> frame(buf.begin(), buf.begin() + static_cast<long>(etx + 3));
            buf.erase(buf.begin(), buf.begin() + static_cast<long>(etx + 3));
            handle(frame);
        }
    }
}

void CSpbusSim::handle(const std::vector<uint8_t>& f) {
    const size_t etx = f.size() - 3;
    if (f.size() < 12 || simCrc16x1021(f.data() + 2, etx - 1) != static_cast<uint16_t>(f[etx + 1] << 8 | f[etx + 2]))
        return;  // a frame the line damaged: the meter keeps quiet
    // Only the frame without addresses: DLE ISI right after DLE SOH.
    if (f[2] != DLE || f[3] != ISI)
        return;
    size_t stx = 5;
    while (stx + 1 < etx && !(f[stx] == DLE && f[stx + 1] == STX))
        ++stx;
    if (stx + 1 >= etx)
        return;
    ++m_requests;
    // One spell of silence: `silentCount` requests (for ever when 0), then answers again.
    if (m_cfg.silentAfter > 0 && m_requests.load() > m_cfg.silentAfter) {
        if (m_cfg.silentCount == 0)
            return;
        if (m_silentLeft < 0)
            m_silentLeft = m_cfg.silentCount;
        if (m_silentLeft > 0) {
            --m_silentLeft;
            return;
        }
    }
    const CLineFaults::Kind kind = m_faults.draw();
    if (kind == CLineFaults::IgnoredRequest)
        return;
    const std::string head(f.begin() + 5, f.begin() + static_cast<long>(stx));
    uint8_t replyFn = 0;
    std::vector<Fields> out;
    if (!answer(f[4], recordsOf(f, stx + 2, etx - 1), replyFn, out))
        return;  // a request the meter cannot make out: no answer
    long etxPos = 0;
    const std::vector<uint8_t> bytes = frameOf(replyFn, head, out, etxPos);
    // The meter thinks a moment before it answers.
    if (m_cfg.timing && !m_line.pause(std::chrono::milliseconds(30)))
        return;
    CLineFaults::Framing framing;
    framing.endPos = etxPos;
    framing.checkBytes = 2;
    m_faults.deliver(m_line, bytes, kind, framing);
}
