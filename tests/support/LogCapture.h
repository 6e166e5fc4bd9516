// SPDX-License-Identifier: Apache-2.0
#pragma once
// The process-wide logger, replaced for one test by one that keeps every line
// it writes, so that a test can ask which lines were written (and wait for one
// written by another thread). The previous logger is back when it goes.
// MTD_TEST_LOG=1 in the environment also echoes the lines to standard error.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "core/logger.h"

namespace test_support {

class LogCapture {
public:
    static constexpr int kAny = -1;

    explicit LogCapture(const std::string& file = "/dev/null") : m_log(file.c_str(), false) {
        m_log.setLevel(logger::DEBUG);
        const bool echo = std::getenv("MTD_TEST_LOG") != nullptr;
        m_log.setObserver([this, echo](int severity, const std::string& text) {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (echo)
                std::fprintf(stderr, "%s\n", text.c_str());
            m_messages.emplace_back(severity, text);
            m_cv.notify_all();
        });
        m_previous = g_logger;
        g_logger = &m_log;
    }
    ~LogCapture() { g_logger = m_previous; }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Lines of `severity` (kAny: any) that start with `prefix`.
    int count(int severity, const std::string& prefix) const {
        return matching([&](const Message& m) { return is(m, severity) && starts(m.second, prefix); });
    }
    // Lines of `severity` (kAny: any) that contain `part`.
    int countContaining(const std::string& part, int severity = kAny) const {
        return matching([&](const Message& m) { return is(m, severity) && m.second.find(part) != std::string::npos; });
    }
    bool contains(const std::string& part, int severity = kAny) const { return countContaining(part, severity) > 0; }
    // Blocks until a line of `severity` starting with `prefix` was written;
    // false after `patience`, so that a broken test fails instead of hanging.
    bool waitFor(int severity, const std::string& prefix,
                 std::chrono::milliseconds patience = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, patience, [&] {
            return std::any_of(m_messages.begin(), m_messages.end(),
                               [&](const Message& m) { return is(m, severity) && starts(m.second, prefix); });
        });
    }
    std::vector<std::string> lines() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::string> out;
        for (const Message& m : m_messages)
            out.push_back(m.second);
        return out;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_messages.clear();
    }
    logger& log() { return m_log; }

private:
    using Message = std::pair<int, std::string>;
    static bool is(const Message& m, int severity) { return severity == kAny || m.first == severity; }
    static bool starts(const std::string& text, const std::string& prefix) {
        return text.compare(0, prefix.size(), prefix) == 0;
    }
    template <class Pred>
    int matching(Pred pred) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return static_cast<int>(std::count_if(m_messages.begin(), m_messages.end(), pred));
    }

    logger m_log;
    logger* m_previous = nullptr;
    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    std::vector<Message> m_messages;
};

}  // namespace test_support
