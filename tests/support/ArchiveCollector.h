// SPDX-License-Identifier: Apache-2.0
#pragma once
// Runs a driver's archive read the way the polling thread does (readArchive,
// through a sink), into a plain vector instead of the archive files.

#include <algorithm>
#include <ctime>
#include <map>
#include <vector>

#include "framework/CArchiveSink.h"
#include "framework/CMtdBaseDriver.h"

namespace test_support {

class VectorStore : public ArchiveStore {
public:
    explicit VectorStore(std::vector<ArchiveRecord>& out) : m_out(out) {}
    bool store(int archType, const std::vector<ArchiveRecord>& records) override {
        for (const auto& r : records) {
            m_out.push_back(r);
            m_last[archType] = std::max<time_t>(m_last[archType], r.timestamp);
        }
        return true;
    }
    time_t lastStored(int archType) const override {
        auto it = m_last.find(archType);
        return it == m_last.end() ? 0 : it->second;
    }

private:
    std::vector<ArchiveRecord>& m_out;
    std::map<int, time_t> m_last;
};

// Appends what the read stored to `out`; an exception from the driver is
// passed on after what the sink took is stored, as the polling thread does.
inline void readArchive(CMtdBaseDriver& driver, int archType, time_t from, time_t to,
                        std::vector<ArchiveRecord>& out) {
    VectorStore store(out);
    CArchiveSink sink(store, archType, from, to);
    try {
        driver.readArchive(sink);
    } catch (...) {
        sink.finish(false);
        throw;
    }
    sink.finish(true);
}

}  // namespace test_support
