// SPDX-License-Identifier: Apache-2.0
#pragma once
// The one process-wide log sink. Messages go to standard error, to a file that
// is opened, appended, synced and closed for every line (so the reporter or an
// operator may remove or rotate it at any moment), or to the system log.
//
// Callers reach it through the global pointer g_logger and must test it first;
// the MTD_LOG macro does that. Keep message texts as literal strings at the call
// site so they can be found with grep.

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>

class logger {
public:
    enum Severity { EMERG = 0, ALERT, CRIT, ERR, WARNING, NOTICE, INFO, DEBUG };

    // Creates the process's logger on the first call (name copied; nullptr gives
    // "Unnamed") and sets g_logger; later calls return it and ignore the arguments.
    static logger* instance(const char* name, bool useSyslog);

    // A free-standing logger, for tests; the daemon uses instance().
    logger(const char* name, bool useSyslog);
    ~logger();
    logger(const logger&) = delete;
    logger& operator=(const logger&) = delete;

    void setLevel(int level);
    void setStderr(bool toStderr);
    void setMaxSize(uint32_t bytes);
    // True when messages of this severity are written (to skip costly formatting).
    bool isLevel(int severity) const;
    int level() const;
    const std::string& name() const { return m_name; }

    void Emerg(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void Alert(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void Crit(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void Err(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void Warning(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void Notice(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void Info(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void Debug(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void write(int severity, const char* fmt, va_list ap);

    // Debug-level hex dump, written only at level 7: "title 0x01 0x02 ...".
    void dump(const char* title, const void* buffer, size_t count);

    // Tests may watch every message that passes the level filter (severity and
    // the message text as it would be written, without the time prefix).
    using Observer = std::function<void(int severity, const std::string& message)>;
    void setObserver(Observer observer);

private:
    void emit(int severity, const char* text, size_t len, const char* writeErrorTag);
    void saveToFile(const char* block, size_t len, const char* writeErrorTag);

    std::string m_name;
    bool m_syslog;
    static constexpr int kBufferCapacity = 128;
    char m_buffer[kBufferCapacity];
    int m_level = 6;
    bool m_stderr = false;
    uint32_t m_maxSize = 0;
    mutable std::mutex m_mutex;
    Observer m_observer;
};

// The one global pointer every layer logs through.
extern logger* g_logger;

#define MTD_LOG(sev, ...)                        \
    do {                                         \
        if (logger* mtd_log_ = g_logger)         \
            mtd_log_->sev(__VA_ARGS__);          \
    } while (0)

namespace mtd {
// The meter a protocol or driver line is about. Every such line opens with
// "[<id>][<name>] " so that the lines of several meters on one line can be told
// apart; the macros below write that prefix, the call sites only the message.
struct LogContext {
    long long id = 0;
    std::string name;
};
}  // namespace mtd

// A line about the meter of `ctx` (an mtd::LogContext); `fmt` is a literal.
#define MTD_CLOG(ctx, sev, fmt, ...) \
    MTD_LOG(sev, "[%lld][%s] " fmt, (ctx).id, (ctx).name.c_str(), ##__VA_ARGS__)
// The same prefix for a line handed to a logger call other than MTD_LOG (dumps).
#define MTD_CLOG_FORMAT(ctx, buf, fmt, ...) \
    std::snprintf((buf), sizeof(buf), "[%lld][%s] " fmt, (ctx).id, (ctx).name.c_str(), ##__VA_ARGS__)
