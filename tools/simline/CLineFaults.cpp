// SPDX-License-Identifier: Apache-2.0
#include "tools/simline/CLineFaults.h"

#include <algorithm>
#include <chrono>
#include <sstream>

#include "tools/simline/CSimLine.h"

const char* CLineFaults::kindName(Kind kind) {
    switch (kind) {
    case None: return "none";
    case ChangedByte: return "changed_byte";
    case LostEndByte: return "lost_end_byte";
    case Truncated: return "truncated";
    case NoAnswer: return "no_answer";
    case LateCheck: return "late_check";
    case Noise: return "noise";
    case IgnoredRequest: return "ignored_request";
    default: return "?";
    }
}

CLineFaults::CLineFaults(uint32_t seed, double share)
    : m_rng(seed), m_share(std::clamp(share, 0.0, 1.0)) {}

size_t CLineFaults::pick(size_t n) {
    if (n <= 1)
        return 0;
    return std::uniform_int_distribution<size_t>(0, n - 1)(m_rng);
}

CLineFaults::Kind CLineFaults::draw() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_share <= 0)
        return None;
    if (std::uniform_real_distribution<double>(0.0, 1.0)(m_rng) >= m_share)
        return None;
    Kind kind = static_cast<Kind>(1 + pick(kKindCount - 1));
    if (kind == IgnoredRequest)
        note(kind);
    return kind;
}

void CLineFaults::note(Kind kind) {
    ++m_exchanges;
    if (kind != None)
        ++m_counts[kind];
}

CLineFaults::Delivery CLineFaults::damage(const std::vector<uint8_t>& answer, Kind kind, Framing framing) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Delivery d;
    d.first = answer;
    const size_t n = answer.size();
    if (n == 0)
        return d;
    size_t check = std::min(framing.checkBytes, n);
    size_t endPos = framing.endPos >= 0 && static_cast<size_t>(framing.endPos) < n
                        ? static_cast<size_t>(framing.endPos)
                        : (n > check ? n - check - 1 : n - 1);
    switch (kind) {
    case ChangedByte: {
        // Any position, the framing and check bytes included; never a no-op.
        size_t pos = pick(n);
        uint8_t mask = static_cast<uint8_t>(1 + pick(255));
        d.first[pos] ^= mask;
        break;
    }
    case LostEndByte:
        d.first.erase(d.first.begin() + static_cast<long>(endPos));
        break;
    case Truncated:
        d.first.resize(n > 1 ? 1 + pick(n - 1) : 0);
        break;
    case NoAnswer:
    case IgnoredRequest:
        d.first.clear();
        break;
    case LateCheck: {
        size_t tail = check > 0 ? check : 1;
        d.late.assign(d.first.end() - static_cast<long>(tail), d.first.end());
        d.first.resize(n - tail);
        d.lateMs = 40 + static_cast<int>(pick(41));
        break;
    }
    case Noise: {
        std::vector<uint8_t> noise(1 + pick(4));
        for (auto& b : noise)
            b = static_cast<uint8_t>(pick(256));
        d.first.insert(d.first.begin(), noise.begin(), noise.end());
        break;
    }
    default:
        break;
    }
    return d;
}

bool CLineFaults::deliver(CSimLine& line, const std::vector<uint8_t>& answer, Kind kind, Framing framing) {
    if (kind == IgnoredRequest)
        return true;  // counted by draw(); the meter never heard the request
    Delivery d = damage(answer, kind, framing);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        note(kind);
    }
    if (!d.first.empty() && !line.write(d.first))
        return false;
    if (!d.late.empty()) {
        if (!line.pause(std::chrono::milliseconds(d.lateMs)))
            return false;
        return line.write(d.late);
    }
    return true;
}

uint64_t CLineFaults::count(Kind kind) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return kind > None && kind < kKindCount ? m_counts[kind] : 0;
}

uint64_t CLineFaults::exchanges() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_exchanges;
}

std::string CLineFaults::summary() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::ostringstream out;
    out << "exchanges=" << m_exchanges;
    for (int k = ChangedByte; k < kKindCount; ++k)
        out << ' ' << kindName(static_cast<Kind>(k)) << '=' << m_counts[k];
    return out.str();
}
