// SPDX-License-Identifier: Apache-2.0
#include "transport/CRSConnector.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <utility>

#include "core/logger.h"

namespace {

constexpr uint32_t kDefaultTimeoutMs = 5000;
constexpr uint32_t kLedOnTimeUs = 150000;
constexpr int kDefaultBaud = 9600;
// Longest stretch a read waits without looking at the abort flag.
constexpr int kAbortSliceMs = 100;
// A reply may take this many times its time at the line speed (converters,
// meters that pause between blocks), plus twice the silence time-out.
constexpr uint64_t kReplySlowFactor = 4;
constexpr uint64_t kReplyTimeouts = 2;

// Every rate the Linux termios interface has a code for; nothing else is accepted.
const std::map<int, speed_t>& baudTable() {
    static const std::map<int, speed_t> table = {
        {50, B50},           {75, B75},           {110, B110},         {134, B134},
        {150, B150},         {200, B200},         {300, B300},         {600, B600},
        {1200, B1200},       {1800, B1800},       {2400, B2400},       {4800, B4800},
        {9600, B9600},       {19200, B19200},     {38400, B38400},     {57600, B57600},
        {115200, B115200},   {230400, B230400},   {460800, B460800},   {500000, B500000},
        {576000, B576000},   {921600, B921600},   {1000000, B1000000}, {1152000, B1152000},
        {1500000, B1500000}, {2000000, B2000000}, {2500000, B2500000}, {3000000, B3000000},
        {3500000, B3500000}, {4000000, B4000000},
    };
    return table;
}

const std::map<long, tcflag_t>& dataBitsTable() {
    static const std::map<long, tcflag_t> table = {{5, CS5}, {6, CS6}, {7, CS7}, {8, CS8}};
    return table;
}

}  // namespace

CRSConnector::CRSConnector(const PortSettings& settings, const LedPaths& leds)
    : m_settings(settings),
      m_path(settings.name),
      m_timeoutMs(settings.timeoutOr(kDefaultTimeoutMs, "CRSConnector")),
      m_ledTransmit(leds.transmit, kLedOnTimeUs),
      m_ledReceive(leds.receive, kLedOnTimeUs) {
    if (!m_settings.hasName)
        m_path = mtd::defaults::kSerialDevice;
    m_ledTransmit.Start();
    m_ledReceive.Start();
}

CRSConnector::~CRSConnector() {
    m_ledTransmit.Stop();
    m_ledReceive.Stop();
}

void CRSConnector::lineSettings(const PortSettings& settings, uint32_t timeoutMs, termios& tio) {
    speed_t speed = B9600;
    long baud = settings.speedOr(kDefaultBaud);
    auto rate = baudTable().find(static_cast<int>(baud));
    if (baud == static_cast<int>(baud) && rate != baudTable().end())
        speed = rate->second;

    tio = termios{};  // all zero: raw, no echo, no canonical mode, no flow control
    cfsetispeed(&tio, speed);
    cfsetospeed(&tio, speed);

    tio.c_cflag |= CLOCAL | CREAD;
    auto bits = dataBitsTable().find(settings.dataBits);
    tio.c_cflag |= bits != dataBitsTable().end() ? bits->second : CS8;

    // Exact letters: the host service writes "E", "O" or "N".
    const std::string& parity = settings.parity;
    if (parity == "E")
        tio.c_cflag |= PARENB;
    else if (parity == "O")
        tio.c_cflag |= PARENB | PARODD;

    if (settings.stopBits == 2)
        tio.c_cflag |= CSTOPB;

    // The driver's own inter-byte time-out, in tenths of a second (at most 25.5 s).
    uint32_t tenths = timeoutMs / 100;
    tio.c_cc[VTIME] = static_cast<cc_t>(tenths > 255 ? 255 : tenths);
    tio.c_cc[VMIN] = 0;
}

bool CRSConnector::open_device() {
    // Opened non-blocking so that a port whose current settings lack CLOCAL
    // cannot hang us waiting for carrier; blocking mode is restored once CLOCAL is set.
    int fd = ::open(m_path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    m_fd.reset(fd);
    if (fd < 1) {
        MTD_LOG(Crit, "CRSConnector::open_device - Unable open device %s.", m_path.c_str());
        return false;
    }
    // The name comes from the host configuration: pointed at a state file it
    // would have the sign-on written over it. Judged on the open descriptor.
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISCHR(st.st_mode) || !::isatty(fd)) {
        m_fd.reset();
        if (m_refused != m_path)
            MTD_LOG(Err, "CRSConnector::open_device - %s is not a serial port (no terminal device), not used.",
                    m_path.c_str());
        m_refused = m_path;
        return false;
    }
    m_refused.clear();

    termios tio{};
    lineSettings(m_settings, m_timeoutMs, tio);
    m_replyStarted = false;
    tcsetattr(fd, TCSAFLUSH, &tio);
    int flags = fcntl(fd, F_GETFL);
    if (flags >= 0)
        fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    return true;
}

void CRSConnector::close_device() {
    if (m_fd.get() > 0)
        m_fd.reset();
}

int CRSConnector::WriteBuffer(const unsigned char* buffer, uint16_t length, bool blink) {
    if (blink)
        m_ledTransmit.Blink(true);
    const int written = static_cast<int>(::write(m_fd.get(), buffer, length));
    // The reply's clock starts at the first read: some protocols pause
    // between request and reply on purpose (the M4 layer's 1 s).
    m_replyStarted = false;
    m_requestBytes = written > 0 ? static_cast<size_t>(written) : 0;
    return written;
}

void CRSConnector::startReply() {
    // From the settings as they are now: a protocol may have changed the speed.
    termios tio{};
    lineSettings(m_settings, m_timeoutMs, tio);
    long baud = m_settings.speedOr(kDefaultBaud);
    if (baud != static_cast<int>(baud) || baudTable().count(static_cast<int>(baud)) == 0)
        baud = kDefaultBaud;
    const tcflag_t size = tio.c_cflag & CSIZE;
    const unsigned bits = 1 + (size == CS5 ? 5 : size == CS6 ? 6 : size == CS7 ? 7 : 8) +
                          ((tio.c_cflag & PARENB) ? 1 : 0) + ((tio.c_cflag & CSTOPB) ? 2 : 1);
    m_charUs = static_cast<uint32_t>(bits * 1000000L / baud) + 1;
    m_replyStart = Clock::now();
    m_replyStarted = true;
    m_replyBytes = std::exchange(m_requestBytes, 0);
}

int CRSConnector::waitReply(uint32_t timeout_ms, uint16_t wanted) {
    if (!m_replyStarted)
        startReply();
    for (;;) {
        const uint64_t lineUs = (static_cast<uint64_t>(m_replyBytes) + wanted) * m_charUs * kReplySlowFactor;
        const auto deadline = m_replyStart + std::chrono::milliseconds(kReplyTimeouts * timeout_ms) +
                              std::chrono::microseconds(lineUs);
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            const auto took =
                std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - m_replyStart).count();
            MTD_LOG(Err, "CRSConnector - reply too slow for the line, cut off: %zu bytes in %lld ms.", m_replyBytes,
                    static_cast<long long>(took));
            // What trickles in after the cut belongs to no request; the next
            // read (normally after a new request) starts a new reply.
            tcflush(m_fd.get(), TCIFLUSH);
            m_replyStarted = false;
            errno = ETIMEDOUT;
            return 0;
        }
        const uint32_t waitMs = static_cast<uint32_t>(std::min<long long>(left, timeout_ms));
        const int rc = waitReadable(waitMs);
        if (rc != 0)
            return rc;
        if (waitMs == timeout_ms) {
            m_replyStarted = false;  // a whole silence time-out ends the reply
            return 0;
        }
        // Cut short by the deadline: the next turn reports it.
    }
}

int CRSConnector::waitReadable(uint32_t timeout_ms) const {
    const int fd = m_fd.get();
    if (fd < 0) {
        errno = EBADF;
        return -1;
    }
    // An interrupted wait starts again with the full time-out.
    const int waitMs = timeout_ms > static_cast<uint32_t>(INT32_MAX) ? INT32_MAX : static_cast<int>(timeout_ms);
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(waitMs);
    for (;;) {
        // With an abort flag the wait is taken in slices, looking at the flag between them.
        int sliceMs = waitMs;
        const std::atomic<bool>* abort = m_abort.load();
        if (abort) {
            if (abort->load()) {
                errno = ECANCELED;
                return -1;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            sliceMs = static_cast<int>(std::max<long long>(0, std::min<long long>(left, kAbortSliceMs)));
        }
        pollfd pfd{fd, POLLIN, 0};
        int rc = ::poll(&pfd, 1, sliceMs);
        if (rc < 0 && errno == EINTR)
            continue;
        if (rc > 0 && (pfd.revents & POLLNVAL)) {
            errno = EBADF;
            return -1;
        }
        if (rc == 0 && abort && Clock::now() < deadline)
            continue;
        return rc;
    }
}

int CRSConnector::ReadBuffer(unsigned char* buffer, uint16_t length, bool blink) {
    int rc = waitReply(m_timeoutMs, length);
    if (rc <= 0) {
        MTD_LOG(Err, "CRSConnector::ReadBuffer - Timeout receiving data. %d - %d", rc, errno);
        return -1;
    }
    if (blink)
        m_ledReceive.Blink(true);
    const int got = static_cast<int>(::read(m_fd.get(), buffer, length));
    if (got > 0)
        m_replyBytes += static_cast<size_t>(got);
    return got;
}

int CRSConnector::ReadBufferCycle(unsigned char* buffer, uint16_t length, bool blink, uint32_t timeout_ms) {
    if (timeout_ms == 0)
        timeout_ms = m_timeoutMs;
    if (length == 0)
        return 0;

    int total = 0;
    // The time-out measures silence: every wait starts it afresh, within the
    // reply's deadline.
    while (waitReply(timeout_ms, static_cast<uint16_t>(length - total)) > 0) {
        if (blink)
            m_ledReceive.Blink(true);
        ssize_t got = ::read(m_fd.get(), buffer + total, length - total);
        if (got < 0)
            return static_cast<int>(got);
        if (got == 0)
            break;  // hang-up: readable but nothing will come
        total += static_cast<int>(got);
        m_replyBytes += static_cast<size_t>(got);
        if (total >= length)
            return total;
        // Length-byte mode: byte 4 of the reply sizes it; return while the bytes
        // in hand do not exceed eight times that byte.
        if (m_lengthByteMode == 1 && total > 4 && total <= buffer[4] * 8)
            return total;
    }
    MTD_LOG(Err, "CRSConnector::ReadBufferCycle - Timeout receiving data.");
    return total != 0 ? total : -1;
}

int CRSConnector::FlushBuffers() { return tcflush(m_fd.get(), TCIOFLUSH); }

int CRSConnector::DrainOutput() { return tcdrain(m_fd.get()); }

void CRSConnector::SetTimeout(uint32_t timeout_ms) { m_timeoutMs = timeout_ms; }
