// SPDX-License-Identifier: Apache-2.0
#pragma once
// Temporary folders, small file helpers and a log capture for the storage tests.

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "core/logger.h"
#include "support/TempDir.h"

namespace storage_test {

using TempDir = test_support::TempDir;

inline bool exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

// Entry names of a folder, sorted; empty when it does not exist.
inline std::vector<std::string> listDir(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (struct dirent* e = ::readdir(d))
            if (std::string(e->d_name) != "." && std::string(e->d_name) != "..")
                names.push_back(e->d_name);
        ::closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Installs a logger for the test's lifetime and keeps every message it sees.
class LogCapture {
public:
    explicit LogCapture(const std::string& file) : m_log(file.c_str(), false) {
        m_log.setLevel(logger::DEBUG);
        m_log.setObserver([this](int severity, const std::string& text) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_messages.emplace_back(severity, text);
            m_cv.notify_all();
        });
        g_logger = &m_log;
    }
    ~LogCapture() { g_logger = nullptr; }

    int count(int severity, const std::string& prefix) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return static_cast<int>(std::count_if(m_messages.begin(), m_messages.end(), [&](const auto& m) {
            return m.first == severity && m.second.compare(0, prefix.size(), prefix) == 0;
        }));
    }
    bool contains(const std::string& part) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return std::any_of(m_messages.begin(), m_messages.end(),
                           [&](const auto& m) { return m.second.find(part) != std::string::npos; });
    }
    // Blocks until a message of this severity starting with `prefix` was seen
    // (false after 10 s, so a broken test fails instead of hanging).
    bool waitFor(int severity, const std::string& prefix) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, std::chrono::seconds(10), [&] {
            return std::any_of(m_messages.begin(), m_messages.end(), [&](const auto& m) {
                return m.first == severity && m.second.compare(0, prefix.size(), prefix) == 0;
            });
        });
    }

private:
    logger m_log;
    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    std::vector<std::pair<int, std::string>> m_messages;
};

}  // namespace storage_test
