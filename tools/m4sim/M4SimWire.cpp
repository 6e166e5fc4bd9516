// SPDX-License-Identifier: Apache-2.0
#include "tools/m4sim/M4SimWire.h"

#include <cmath>
#include <cstddef>
#include <cstring>

#include "tools/simline/SimChecks.h"

namespace m4sim {

uint16_t crc(const uint8_t* data, size_t n) {
    return simCrc16x1021(data, n);
}

uint8_t sumCheck(const uint8_t* data, size_t n) {
    uint8_t s = 0;
    for (size_t i = 0; i < n; ++i)
        s = static_cast<uint8_t>(s + data[i]);
    return static_cast<uint8_t>(~s);
}

struct tm civil(time_t t) {
    // Days since 1970-01-01 to year, month, day (proleptic Gregorian).
    long long days = t / 86400, secs = t % 86400;
    if (secs < 0) {
        secs += 86400;
        --days;
    }
    days += 719468;
    const long long era = (days >= 0 ? days : days - 146096) / 146097;
    const long long doe = days - era * 146097;
    const long long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const long long doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const long long mp = (5 * doy + 2) / 153;
    const long long d = doy - (153 * mp + 2) / 5 + 1;
    const long long m = mp < 10 ? mp + 3 : mp - 9;
    struct tm tm {};
    tm.tm_year = static_cast<int>(yoe + era * 400 + (m <= 2 ? 1 : 0)) - 1900;
    tm.tm_mon = static_cast<int>(m) - 1;
    tm.tm_mday = static_cast<int>(d);
    tm.tm_hour = static_cast<int>(secs / 3600);
    tm.tm_min = static_cast<int>(secs % 3600 / 60);
    tm.tm_sec = static_cast<int>(secs % 60);
    return tm;
}

time_t fromCivil(int year, int month, int day, int hour, int minute, int second) {
    const long long y = year - (month <= 2 ? 1 : 0);
    const long long era = (y >= 0 ? y : y - 399) / 400;
    const long long yoe = y - era * 400;
    const long long doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const long long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    const long long days = era * 146097 + doe - 719468;
    return static_cast<time_t>(days * 86400 + hour * 3600 + minute * 60 + second);
}

void putLength(std::vector<uint8_t>& out, size_t length) {
    if (length < 0x80) {
        out.push_back(static_cast<uint8_t>(length));
    } else if (length <= 0xFF) {
        out.push_back(0x81);
        out.push_back(static_cast<uint8_t>(length));
    } else {
        out.push_back(0x82);
        out.push_back(static_cast<uint8_t>(length >> 8));
        out.push_back(static_cast<uint8_t>(length));
    }
}

namespace {
void le32(std::vector<uint8_t>& out, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
uint32_t floatBits(float v) {
    uint32_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    return bits;
}
}  // namespace

void putU32(std::vector<uint8_t>& out, uint32_t v) {
    out.push_back(0x41);
    out.push_back(4);
    le32(out, v);
}

void putUInt(std::vector<uint8_t>& out, uint32_t v, int bytes) {
    out.push_back(0x41);
    out.push_back(static_cast<uint8_t>(bytes));
    for (int i = 0; i < bytes; ++i)
        out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

void putFloat(std::vector<uint8_t>& out, float v) {
    out.push_back(0x43);
    out.push_back(4);
    le32(out, floatBits(v));
}

void putIntFloat(std::vector<uint8_t>& out, double v) {
    const double whole = std::floor(v);
    out.push_back(0x44);
    out.push_back(8);
    le32(out, static_cast<uint32_t>(whole));
    le32(out, floatBits(static_cast<float>(v - whole)));
}

void putFlags(std::vector<uint8_t>& out, uint32_t v) {
    out.push_back(0x4B);
    out.push_back(4);
    le32(out, v);
}

void putText(std::vector<uint8_t>& out, const std::string& s) {
    out.push_back(0x16);
    putLength(out, s.size());
    out.insert(out.end(), s.begin(), s.end());
}

void putTime(std::vector<uint8_t>& out, const struct tm& t) {
    out.insert(out.end(), {0x47, 4, 0, static_cast<uint8_t>(t.tm_sec), static_cast<uint8_t>(t.tm_min),
                           static_cast<uint8_t>(t.tm_hour)});
}

void putDate(std::vector<uint8_t>& out, const struct tm& t) {
    out.insert(out.end(), {0x48, 3, static_cast<uint8_t>(t.tm_mday), static_cast<uint8_t>(t.tm_mon + 1),
                           static_cast<uint8_t>(t.tm_year - 100)});
}

void putStamp(std::vector<uint8_t>& out, const struct tm& t) {
    out.insert(out.end(), {0x49, 6, static_cast<uint8_t>(t.tm_year - 100), static_cast<uint8_t>(t.tm_mon + 1),
                           static_cast<uint8_t>(t.tm_mday), static_cast<uint8_t>(t.tm_hour),
                           static_cast<uint8_t>(t.tm_min), static_cast<uint8_t>(t.tm_sec)});
}

void putMark(std::vector<uint8_t>& out, const struct tm& t) {
    putStamp(out, t);
    out[out.size() - 7] = 8;
    out.insert(out.end(), {0, 0});  // milliseconds
}

void putNoTime(std::vector<uint8_t>& out) {
    out.insert(out.end(), {0x49, 0});
}

bool takeElement(const std::vector<uint8_t>& data, size_t& pos, Element& out) {
    if (pos + 2 > data.size())
        return false;
    out.tag = data[pos];
    size_t length = data[pos + 1], head = 2;
    if (length > 0x80) {
        const size_t n = length & 0x7F;
        if (n > 2 || pos + 2 + n > data.size())
            return false;
        length = 0;
        for (size_t i = 0; i < n; ++i)
            length = length << 8 | data[pos + 2 + i];
        head += n;
    }
    if (pos + head + length > data.size())
        return false;
    out.value.assign(data.begin() + static_cast<std::ptrdiff_t>(pos + head),
                     data.begin() + static_cast<std::ptrdiff_t>(pos + head + length));
    pos += head + length;
    return true;
}

void putNull(std::vector<uint8_t>& out) {
    out.push_back(0x05);
    out.push_back(0);
}

void putContainer(std::vector<uint8_t>& out, const std::vector<uint8_t>& inner) {
    out.push_back(0x30);
    putLength(out, inner.size());
    out.insert(out.end(), inner.begin(), inner.end());
}

std::vector<uint8_t> longFrame(uint8_t nt, uint8_t id, const std::vector<uint8_t>& body) {
    std::vector<uint8_t> f = {0x10, nt, 0x90, id, 0x00, static_cast<uint8_t>(body.size()),
                              static_cast<uint8_t>(body.size() >> 8)};
    f.insert(f.end(), body.begin(), body.end());
    const uint16_t c = crc(f.data() + 1, f.size() - 1);
    f.push_back(static_cast<uint8_t>(c >> 8));
    f.push_back(static_cast<uint8_t>(c));
    return f;
}

std::vector<uint8_t> errorFrame(uint8_t nt, uint8_t id, uint8_t code) {
    return longFrame(nt, id, {0x21, code});
}

void FrameReader::feed(const uint8_t* data, size_t n) {
    m_buf.insert(m_buf.end(), data, data + n);
}

bool FrameReader::next(Frame& out) {
    for (;;) {
        // Anything before a DLE (wake-up 0xFF bytes, line noise) is not a frame.
        size_t start = 0;
        while (start < m_buf.size() && m_buf[start] != 0x10)
            ++start;
        m_buf.erase(m_buf.begin(), m_buf.begin() + static_cast<long>(start));
        if (m_buf.size() < 3)
            return false;
        const bool isLong = m_buf[2] == 0x90;
        size_t total = 9;
        if (isLong) {
            if (m_buf.size() < 7)
                return false;
            total = 7 + (static_cast<size_t>(m_buf[5]) | static_cast<size_t>(m_buf[6]) << 8) + 2;
        }
        if (m_buf.size() < total)
            return false;
        bool good;
        if (isLong) {
            const uint16_t c = crc(m_buf.data() + 1, total - 3);
            good = total > 9 && m_buf[total - 2] == (c >> 8) && m_buf[total - 1] == (c & 0xFF);
        } else {
            good = m_buf[7] == sumCheck(m_buf.data() + 1, 5) && m_buf[8] == 0x16;
        }
        if (!good) {
            // Resynchronise one byte further on.
            ++m_rejected;
            m_buf.erase(m_buf.begin());
            continue;
        }
        out = Frame();
        out.isLong = isLong;
        out.nt = m_buf[1];
        out.bytes.assign(m_buf.begin(), m_buf.begin() + static_cast<long>(total));
        if (isLong) {
            out.id = m_buf[3];
            out.body.assign(m_buf.begin() + 7, m_buf.begin() + static_cast<long>(total - 2));
            out.function = out.body[0];
        } else {
            out.function = m_buf[2];
            out.body.assign(m_buf.begin() + 3, m_buf.begin() + 7);
        }
        m_buf.erase(m_buf.begin(), m_buf.begin() + static_cast<long>(total));
        return true;
    }
}

}  // namespace m4sim
