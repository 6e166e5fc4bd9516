// SPDX-License-Identifier: Apache-2.0
#include "transport/CRSConnector.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <map>

#include "core/logger.h"

namespace {

constexpr uint32_t kDefaultTimeoutMs = 5000;
constexpr uint32_t kLedOnTimeUs = 150000;
constexpr int kDefaultBaud = 9600;
// Longest stretch a read waits without looking at the abort flag.
constexpr int kAbortSliceMs = 100;

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

    termios tio{};
    lineSettings(m_settings, m_timeoutMs, tio);
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
    return static_cast<int>(::write(m_fd.get(), buffer, length));
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
    int rc = waitReadable(m_timeoutMs);
    if (rc <= 0) {
        MTD_LOG(Err, "CRSConnector::ReadBuffer - Timeout receiving data. %d - %d", rc, errno);
        return -1;
    }
    if (blink)
        m_ledReceive.Blink(true);
    return static_cast<int>(::read(m_fd.get(), buffer, length));
}

int CRSConnector::ReadBufferCycle(unsigned char* buffer, uint16_t length, bool blink, uint32_t timeout_ms) {
    if (timeout_ms == 0)
        timeout_ms = m_timeoutMs;
    if (length == 0)
        return 0;

    int total = 0;
    // The time-out measures silence: every wait starts it afresh.
    while (waitReadable(timeout_ms) > 0) {
        if (blink)
            m_ledReceive.Blink(true);
        ssize_t got = ::read(m_fd.get(), buffer + total, length - total);
        if (got < 0)
            return static_cast<int>(got);
        if (got == 0)
            break;  // hang-up: readable but nothing will come
        total += static_cast<int>(got);
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
