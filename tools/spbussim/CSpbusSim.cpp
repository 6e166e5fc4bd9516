// SPDX-License-Identifier: Apache-2.0
#include "tools/spbussim/CSpbusSim.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr uint8_t SOH = 0x01, STX = 0x02, ETX = 0x03, HT = 0x09, FF = 0x0C, DLE = 0x10, ISI = 0x1F;
constexpr int kHourly = 65, kDaily = 66, kEvents = 96;

// CRC-16, polynomial 0x1021, start 0, bit by bit: written here on its own so
// that a mistake in the daemon's table-free version cannot hide in both.
uint16_t crc16(const uint8_t* p, size_t n) {
    uint16_t crc = 0;
    for (size_t i = 0; i < n; ++i) {
        crc ^= static_cast<uint16_t>(p[i]) << 8;
        for (int b = 0; b < 8; ++b)
            crc = (crc & 0x8000) ? static_cast<uint16_t>((crc << 1) ^ 0x1021) : static_cast<uint16_t>(crc << 1);
    }
    return crc;
}

uint64_t mix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

std::string fixed(double v, int digits) {
    char buf[48];
    std::snprintf(buf, sizeof buf, "%.*f", digits, v);
    return buf;
}

// Unit texts in the meter's code page.
const char* const kM3 = "\xAC" "3";                // м3
const char* const kM3h = "\xAC" "3/\xE7";          // м3/ч
const char* const kDeg = "\xF8" "C";               // °C
const char* const kKgM3 = "\xAA\xA3/\xAC" "3";     // кг/м3

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

class Frame {
public:
    explicit Frame(uint8_t fn) { m_b = {DLE, SOH, DLE, ISI, fn, DLE, STX}; }
    void field(const std::string& text) {
        m_b.push_back(HT);
        m_b.insert(m_b.end(), text.begin(), text.end());
    }
    void end() { m_b.push_back(FF); }
    std::vector<uint8_t> finish(long& etxPos) {
        m_b.push_back(DLE);
        m_b.push_back(ETX);
        etxPos = static_cast<long>(m_b.size()) - 1;
        uint16_t crc = crc16(m_b.data() + 2, m_b.size() - 2);
        m_b.push_back(static_cast<uint8_t>(crc >> 8));
        m_b.push_back(static_cast<uint8_t>(crc));
        return m_b;
    }

private:
    std::vector<uint8_t> m_b;
};

std::string two(int v) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%02d", v);
    return buf;
}

// Blocks (ended by FF) of fields (each after HT) of a request body.
std::vector<std::vector<std::string>> blocksOf(const std::vector<uint8_t>& f, size_t from, size_t to) {
    std::vector<std::vector<std::string>> blocks;
    std::vector<std::string> block;
    std::string field;
    bool in = false;
    for (size_t i = from; i < to; ++i) {
        if (f[i] == HT || f[i] == FF) {
            if (in)
                block.push_back(field);
            field.clear();
            in = f[i] == HT;
            if (f[i] == FF) {
                blocks.push_back(block);
                block.clear();
            }
        } else if (in) {
            field += static_cast<char>(f[i]);
        }
    }
    return blocks;
}

bool timeOf(const std::vector<std::string>& b, std::time_t& t) {
    if (b.size() != 6)
        return false;
    struct tm tm {};
    tm.tm_mday = std::atoi(b[0].c_str());
    tm.tm_mon = std::atoi(b[1].c_str()) - 1;
    tm.tm_year = std::atoi(b[2].c_str()) - 1900;
    tm.tm_hour = std::atoi(b[3].c_str());
    tm.tm_min = std::atoi(b[4].c_str());
    tm.tm_sec = std::atoi(b[5].c_str());
    t = timegm(&tm);
    return true;
}

}  // namespace

CSpbusSim::CSpbusSim(SSpbusSimConfig config, std::string link)
    : m_cfg(std::move(config)),
      m_line([&] {
          CSimLine::Options o;
          o.baud = m_cfg.baud;
          o.timing = m_cfg.timing;
          o.link = std::move(link);
          return o;
      }()),
      m_faults(m_cfg.faultSeed, m_cfg.faultShare) {
    if (m_cfg.now == 0)
        m_cfg.now = std::time(nullptr);
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
    if (m_thread.joinable())
        return false;
    m_thread = std::thread([this] { serve(); });
    return true;
}

void CSpbusSim::stop() {
    m_line.stop();
    if (m_thread.joinable())
        m_thread.join();
}

std::time_t CSpbusSim::deviceNow() const {
    const double real = std::chrono::duration<double>(std::chrono::steady_clock::now() - m_steadyStart).count();
    return m_cfg.now + static_cast<std::time_t>(std::floor(real * m_cfg.clockScale));
}

std::vector<std::pair<std::time_t, std::string>> CSpbusSim::records(int archive, std::time_t from, std::time_t to,
                                                                    std::time_t until) const {
    std::vector<std::pair<std::time_t, std::string>> out;
    if (archive == kEvents) {
        // About one hour in five has a situation come or go, some two in the same second.
        for (std::time_t hour = m_historyStart; hour + 3600 <= until && hour <= to; hour += 3600) {
            const uint64_t h = mix(m_cfg.seed * 7919ull + static_cast<uint64_t>(hour));
            if (h % 5 != 0)
                continue;
            const std::time_t t = hour + static_cast<std::time_t>((h >> 8) % 3600);
            const int code = 1 + static_cast<int>((h >> 20) % 24);
            const char* state = ((h >> 32) & 1) ? "+" : "-";
            if (t >= from && t <= to && t < until) {
                out.emplace_back(t, two(code) + " " + state);
                if ((h >> 40) % 3 == 0)
                    out.emplace_back(t, two(code % 24 + 1) + " +");
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
        const uint64_t h = mix(m_cfg.seed * 1000003ull + static_cast<uint64_t>(t) * 31 + archive);
        const double scale = archive == kHourly ? 1 : 24;
        const double vstd = (12 + static_cast<double>(h % 800) / 100) * scale;
        const double vw = vstd * (0.55 + static_cast<double>((h >> 12) % 100) / 1000);
        const double p = 1.5 + static_cast<double>((h >> 24) % 300) / 1000;
        const double temp = -5 + static_cast<double>((h >> 36) % 250) / 10;
        const int ns = ((h >> 48) % 17) == 0 ? 4 : 0;
        out.emplace_back(t, fixed(vstd, 3) + " " + fixed(vw, 3) + " " + fixed(pressureFromKgf(p, m_cfg.pressureUnit), 4) +
                                " " + fixed(temp, 2) + " " + std::to_string(ns));
    }
    return out;
}

bool CSpbusSim::paramValue(int ch, int param, std::string& value, std::string& unit) const {
    const std::time_t now = deviceNow();
    struct tm tm {};
    gmtime_r(&now, &tm);
    const double hours = static_cast<double>(now - m_historyStart) / 3600;
    unit.clear();
    if (ch == 0) {
        switch (param) {
        case 8: value = m_cfg.serial; return true;
        case 99: value = m_cfg.model + (m_cfg.model == "761.1" ? " 03.01" : " 02.05"); return true;
        case 24: value = "1"; return true;
        case 25: value = std::to_string(m_cfg.rateHour); return true;
        case 60: value = two(tm.tm_mday) + "-" + two(tm.tm_mon + 1) + "-" + two(tm.tm_year % 100); return true;
        case 61: value = two(tm.tm_hour) + "-" + two(tm.tm_min) + "-" + two(tm.tm_sec); return true;
        default: return false;
        }
    }
    if (ch != 1)
        return false;
    switch (param) {
    case 150: value = fixed(pressureFromKgf(1.6234, m_cfg.pressureUnit), 4); unit = pressureUnitText(m_cfg.pressureUnit); return true;
    case 151: value = "-3.25"; unit = kDeg; return true;
    case 152: value = "9.875"; unit = kM3h; return true;
    case 153: value = "15.31"; unit = kM3h; return true;
    case 154: value = "1.5504"; return true;
    case 160: value = fixed(250000 + hours * 15.31, 3); unit = kM3; return true;
    case 161: value = fixed(160000 + hours * 9.875, 3); unit = kM3; return true;
    default: return false;
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
            for (size_t i = 7; i + 1 < buf.size(); ++i)
                if (buf[i] == DLE && buf[i + 1] == ETX) {
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
    const uint16_t crc = crc16(f.data() + 2, etx - 1);
    if (f.size() < 12 || f[2] != DLE || f[3] != ISI || f[5] != DLE || f[6] != STX ||
        crc != static_cast<uint16_t>(f[etx + 1] << 8 | f[etx + 2]))
        return;  // a frame the line damaged: the meter keeps quiet
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
    const uint8_t fn = f[4];
    const auto blocks = blocksOf(f, 7, etx - 1);
    Frame reply(0x21);
    if (!blocks.empty() && blocks[0].size() >= 2) {
        const int ch = std::atoi(blocks[0][0].c_str());
        const int param = std::atoi(blocks[0][1].c_str());
        std::string value, unit;
        if (fn == 0x1D && paramValue(ch, param, value, unit)) {
            reply = Frame(0x03);
            reply.field(blocks[0][0]);
            reply.field(blocks[0][1]);
            reply.end();
            reply.field(value);
            reply.field(unit);
            reply.end();
        } else if (fn == 0x0C && ch == 0 && param == 30 && blocks[0].size() == 4) {
            static const char* const kValues[] = {"0.6800", "1.200", "0.800", "0.000"};
            const char* const units[] = {kKgM3, "%", "%", "%"};
            const int first = std::atoi(blocks[0][2].c_str());
            const int count = std::atoi(blocks[0][3].c_str());
            reply = Frame(0x14);
            for (const auto& p : blocks[0])
                reply.field(p);
            reply.end();
            for (int i = first; i < first + count && i < 4; ++i) {
                reply.field(kValues[i]);
                reply.field(units[i]);
                reply.end();
            }
        } else if (fn == 0x0E && ((ch == 1 && (param == kHourly || param == kDaily)) || (ch == 0 && param == kEvents)) &&
                   blocks.size() >= 3) {
            std::time_t from = 0, to = 0;
            if (timeOf(blocks[1], from) && timeOf(blocks[2], to)) {
                reply = Frame(0x16);
                reply.field(blocks[0][0]);
                reply.field(blocks[0][1]);
                reply.end();
                auto recs = records(param, from, to, deviceNow());
                if (recs.size() > static_cast<size_t>(m_cfg.recordsPerReply))
                    recs.resize(static_cast<size_t>(m_cfg.recordsPerReply));
                for (const auto& r : recs) {
                    struct tm tm {};
                    gmtime_r(&r.first, &tm);
                    reply.field(two(tm.tm_mday));
                    reply.field(two(tm.tm_mon + 1));
                    reply.field(std::to_string(tm.tm_year + 1900));
                    reply.field(two(tm.tm_hour));
                    reply.field(two(tm.tm_min));
                    reply.field(two(tm.tm_sec));
                    reply.end();
                    size_t pos = 0;
                    const std::string& text = r.second;
                    while (pos <= text.size()) {
                        size_t sp = text.find(' ', pos);
                        if (sp == std::string::npos)
                            sp = text.size();
                        reply.field(text.substr(pos, sp - pos));
                        pos = sp + 1;
                    }
                    reply.end();
                }
            }
        }
    }
    long etxPos = 0;
    std::vector<uint8_t> bytes = reply.finish(etxPos);
    // The meter thinks a moment before it answers.
    if (m_cfg.timing && !m_line.pause(std::chrono::milliseconds(30)))
        return;
    CLineFaults::Framing framing;
    framing.endPos = etxPos;
    framing.checkBytes = 2;
    m_faults.deliver(m_line, bytes, kind, framing);
}
