// SPDX-License-Identifier: Apache-2.0
#include "core/logger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

logger* g_logger = nullptr;

namespace {

const char* const kSeverityNames[] = {"Emerg", "Alert", "Crit", "Err", "Warning", "Notice", "Info", "Debug"};

// "HH:MM:SS.mmm.uuu Name: " in local time; at most 39 characters.
size_t formatPrefix(char* out, size_t cap, int severity) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tmv;
    localtime_r(&tv.tv_sec, &tmv);
    int n = snprintf(out, cap, "%02d:%02d:%02d.%03ld.%03ld %s: ", tmv.tm_hour, tmv.tm_min, tmv.tm_sec,
                     static_cast<long>(tv.tv_usec / 1000), static_cast<long>(tv.tv_usec % 1000),
                     kSeverityNames[severity]);
    return n < 0 ? 0 : (static_cast<size_t>(n) < cap ? static_cast<size_t>(n) : cap - 1);
}

}  // namespace

logger* logger::instance(const char* name, bool useSyslog) {
    // Never destroyed: polling threads may still log while the process exits.
    static logger* theLogger = new logger(name, useSyslog);
    g_logger = theLogger;
    return theLogger;
}

logger::logger(const char* name, bool useSyslog) : m_name(name ? name : "Unnamed"), m_syslog(useSyslog) {
    m_buffer[0] = '\0';
    if (m_syslog)
        openlog(m_name.c_str(), LOG_CONS | LOG_PID, LOG_USER);
}

logger::~logger() {
    if (m_syslog)
        closelog();
}

void logger::setLevel(int level) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_level = level;
}
void logger::setStderr(bool toStderr) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stderr = toStderr;
}
void logger::setMaxSize(uint32_t bytes) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_maxSize = bytes;
}
void logger::setObserver(Observer observer) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_observer = std::move(observer);
}

bool logger::isLevel(int severity) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_level >= severity;
}

int logger::level() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_level;
}

#define MTD_LOGGER_METHOD(method, sev)  \
    void logger::method(const char* fmt, ...) { \
        va_list ap;                              \
        va_start(ap, fmt);                       \
        write(sev, fmt, ap);                     \
        va_end(ap);                              \
    }
MTD_LOGGER_METHOD(Emerg, EMERG)
MTD_LOGGER_METHOD(Alert, ALERT)
MTD_LOGGER_METHOD(Crit, CRIT)
MTD_LOGGER_METHOD(Err, ERR)
MTD_LOGGER_METHOD(Warning, WARNING)
MTD_LOGGER_METHOD(Notice, NOTICE)
MTD_LOGGER_METHOD(Info, INFO)
MTD_LOGGER_METHOD(Debug, DEBUG)
#undef MTD_LOGGER_METHOD

void logger::write(int severity, const char* fmt, va_list ap) {
    if (severity < EMERG)
        severity = EMERG;
    if (severity > DEBUG)
        severity = DEBUG;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (severity > 0 && severity > m_level)
        return;
    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(m_buffer, kBufferCapacity, fmt, copy);
    va_end(copy);
    if (n < 0) {
        m_buffer[0] = '\0';
        n = 0;
    }
    size_t len = static_cast<size_t>(n) < static_cast<size_t>(kBufferCapacity) ? static_cast<size_t>(n)
                                                                              : kBufferCapacity - 1;
    if (m_observer)
        m_observer(severity, std::string(m_buffer, len));
    if (!m_stderr && m_syslog) {
        // The system log formats for itself; the 127-character cut does not apply there.
        vsyslog(severity, fmt, ap);
        return;
    }
    emit(severity, m_buffer, len, "[logger::saveToFile()] Can't write to file: ");
}

void logger::dump(const char* title, const void* buffer, size_t count) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_level < DEBUG)
        return;
    std::string text = title ? title : "";
    const unsigned char* bytes = static_cast<const unsigned char*>(buffer);
    char hex[8];
    for (size_t i = 0; i < count; ++i) {
        snprintf(hex, sizeof hex, " 0x%02X", bytes[i]);
        text += hex;
    }
    if (m_observer)
        m_observer(DEBUG, text);
    if (!m_stderr && m_syslog) {
        syslog(DEBUG, "%s", text.c_str());
        return;
    }
    emit(DEBUG, text.data(), text.size(), "[logger::dump()] Can't write to file: ");
}

// Called with m_mutex held.
void logger::emit(int severity, const char* text, size_t len, const char* writeErrorTag) {
    char prefix[48];
    size_t plen = formatPrefix(prefix, sizeof prefix, severity);
    std::string block;
    block.reserve(plen + len + 1);
    block.append(prefix, plen).append(text, len).push_back('\n');
    if (m_stderr) {
        fwrite(block.data(), 1, block.size(), stderr);
        fflush(stderr);
        return;
    }
    saveToFile(block.data(), block.size(), writeErrorTag);
}

void logger::saveToFile(const char* block, size_t len, const char* writeErrorTag) {
    int fd = open(m_name.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        int err = errno;
        printf("Can't open file %s\n", m_name.c_str());
        fflush(stdout);
        fprintf(stderr, "addError: %s\n", strerror(err));
        return;
    }
    size_t done = 0;
    while (done < len) {
        ssize_t w = ::write(fd, block + done, len - done);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0) {
            fprintf(stderr, "%s%s\n", writeErrorTag, strerror(errno));
            break;
        }
        done += static_cast<size_t>(w);
    }
    fsync(fd);
    close(fd);
    if (m_maxSize >= 1) {
        struct stat st;
        // Erase, not rotate: the log never holds more than one file. unlink(2)
        // rather than a shell, so no path can ever run a command.
        if (stat(m_name.c_str(), &st) == 0 && static_cast<uint64_t>(st.st_size) > m_maxSize)
            unlink(m_name.c_str());
    }
}
