// SPDX-License-Identifier: Apache-2.0
#include "framework/CArchiveSink.h"

#include <algorithm>
#include <utility>

namespace {

// Below this many records a block is kept for the next one: fewer, larger
// writes of the archive files.
constexpr size_t kBlockRecords = 24;

}  // namespace

CArchiveSink::CArchiveSink(ArchiveStore& store, int archType, time_t from, time_t to,
                           const std::atomic<bool>* stop)
    : m_store(store), m_type(archType), m_from(from), m_to(to), m_stop(stop), m_stored(store.lastStored(archType)) {}

void CArchiveSink::clipTo(time_t t) { m_to = std::min(m_to, t); }

void CArchiveSink::setInterval(time_t period, bool onGrid, time_t gridOffset) {
    m_period = period > 0 ? period : 0;
    m_onGrid = onGrid && m_period > 0;
    m_gridOffset = gridOffset;
}

void CArchiveSink::resync() {
    m_haveLast = false;
    m_lastNumber = -1;
}

CArchiveSink::Verdict CArchiveSink::add(ArchiveRecord record, long long number) {
    if (stopping()) {
        m_complete = false;
        return Stop;
    }
    const time_t ts = static_cast<time_t>(record.timestamp);
    if (m_onGrid && ((ts - m_gridOffset) % m_period + m_period) % m_period != 0)
        return Gap;
    if (m_haveLast) {
        if (number >= 0 && m_lastNumber >= 0) {
            // The meter's numbers say what follows what, also across a clock set.
            if (number <= m_lastNumber)
                return Skipped;
            if (number != m_lastNumber + 1)
                return Gap;
        } else if (journal()) {
            if (ts < m_lastTime)
                return Gap;
        } else {
            if (ts <= m_lastTime)
                return Skipped;
            if (m_period > 0 && ts - m_lastTime > m_period)
                return Gap;
        }
    }
    m_haveLast = true;
    m_lastTime = ts;
    m_lastNumber = number;
    if (ts > m_to)
        return Stop;
    if (ts < m_from || (m_stored > 0 && ts <= m_stored))
        return Skipped;
    m_pending.push_back(std::move(record));
    ++m_taken;
    return Taken;
}

bool CArchiveSink::storeUpTo(size_t count) {
    if (count == 0)
        return true;
    const std::vector<ArchiveRecord> head(m_pending.begin(), m_pending.begin() + static_cast<std::ptrdiff_t>(count));
    if (!m_store.store(m_type, head)) {
        m_storeFailed = true;
        return false;
    }
    m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<std::ptrdiff_t>(count));
    return true;
}

bool CArchiveSink::endBlock() {
    if (stopping()) {
        m_complete = false;
        return false;
    }
    if (m_storeFailed)
        return false;
    if (m_pending.size() < kBlockRecords)
        return true;
    const long long newest = m_pending.back().timestamp;
    size_t older = 0;
    while (older < m_pending.size() && m_pending[older].timestamp < newest)
        ++older;
    return storeUpTo(older);
}

size_t CArchiveSink::finish(bool complete) {
    if (!complete)
        m_complete = false;
    if (!m_complete && journal()) {
        const long long newest = m_pending.empty() ? 0 : m_pending.back().timestamp;
        while (!m_pending.empty() && m_pending.back().timestamp == newest) {
            m_pending.pop_back();
            --m_taken;
        }
    }
    // After a failed store the rest is tried once more as a whole: storing a
    // later part alone could leave a hole the schedule never comes back for.
    m_storeFailed = false;
    storeUpTo(m_pending.size());
    return m_taken;
}
