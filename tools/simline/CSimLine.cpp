// SPDX-License-Identifier: Apache-2.0
#include "tools/simline/CSimLine.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

namespace {

speed_t speedCode(int baud) {
    switch (baud) {
    case 300: return B300;
    case 600: return B600;
    case 1200: return B1200;
    case 2400: return B2400;
    case 4800: return B4800;
    case 19200: return B19200;
    case 38400: return B38400;
    case 57600: return B57600;
    case 115200: return B115200;
    default: return B9600;
    }
}

void makeRaw(int fd) {
    struct termios tio {};
    if (::tcgetattr(fd, &tio) == 0) {
        ::cfmakeraw(&tio);
        ::tcsetattr(fd, TCSANOW, &tio);
    }
}

}  // namespace

CSimLine::CSimLine(Options options) : m_options(std::move(options)), m_baud(m_options.baud) {
    m_stopFd.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
}

CSimLine::~CSimLine() {
    if (!m_options.link.empty() && !m_slavePath.empty())
        ::unlink(m_options.link.c_str());
}

bool CSimLine::open() {
    CUniqueFd master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!master.valid() || ::grantpt(master.get()) != 0 || ::unlockpt(master.get()) != 0)
        return false;
    char name[128];
    if (::ptsname_r(master.get(), name, sizeof name) != 0)
        return false;
    CUniqueFd slave(::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!slave.valid())
        return false;
    makeRaw(slave.get());
    makeRaw(master.get());
    ::fcntl(master.get(), F_SETFL, ::fcntl(master.get(), F_GETFL) | O_NONBLOCK);
    m_master = std::move(master);
    m_slaveKeep = std::move(slave);
    m_slavePath = name;
    setBaud(m_baud.load());
    if (!m_options.link.empty()) {
        std::string tmp = m_options.link + ".new";
        ::unlink(tmp.c_str());
        if (::symlink(name, tmp.c_str()) != 0 || ::rename(tmp.c_str(), m_options.link.c_str()) != 0)
            return false;
    }
    return m_stopFd.valid();
}

void CSimLine::setBaud(int baud) {
    if (baud <= 0)
        return;
    m_baud = baud;
    struct termios tio {};
    if (m_master.valid() && ::tcgetattr(m_master.get(), &tio) == 0) {
        ::cfsetispeed(&tio, speedCode(baud));
        ::cfsetospeed(&tio, speedCode(baud));
        ::tcsetattr(m_master.get(), TCSANOW, &tio);
    }
}

int CSimLine::waitReadable(int timeoutMs) {
    if (m_stopped.load())
        return -1;
    struct pollfd fds[2] = {{m_master.get(), POLLIN, 0}, {m_stopFd.get(), POLLIN, 0}};
    for (;;) {
        int r = ::poll(fds, 2, timeoutMs);
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0 || (fds[1].revents & POLLIN))
            return -1;
        if (r == 0)
            return 0;
        return (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) ? 1 : 0;
    }
}

ssize_t CSimLine::read(uint8_t* buf, size_t cap, int timeoutMs) {
    for (;;) {
        int w = waitReadable(timeoutMs);
        if (w < 0)
            return m_stopped.load() ? 0 : -1;
        if (w == 0)
            return 0;
        ssize_t n = ::read(m_master.get(), buf, cap);
        if (n > 0)
            return n;
        if (n < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        // EIO: nobody but our own keeper holds the slave; that is not an error
        // for a meter, it just hears nothing.
        if (n < 0 && errno == EIO) {
            if (!pause(std::chrono::milliseconds(5)))
                return 0;
            continue;
        }
        return -1;
    }
}

bool CSimLine::write(const uint8_t* data, size_t n) {
    using clock = std::chrono::steady_clock;
    int baud = m_baud.load() > 0 ? m_baud.load() : 9600;
    auto perByte = std::chrono::nanoseconds(1000000000LL * m_options.frameBits / baud);
    auto t0 = clock::now();
    size_t done = 0;
    while (done < n) {
        if (m_stopped.load())
            return false;
        size_t chunk = n - done;
        if (m_options.timing) {
            // One character per frame time, as the line would deliver it.
            std::this_thread::sleep_until(t0 + perByte * static_cast<long>(done + 1));
            chunk = 1;
        }
        ssize_t w = ::write(m_master.get(), data + done, chunk);
        if (w > 0) {
            done += static_cast<size_t>(w);
            continue;
        }
        if (w < 0 && errno != EAGAIN && errno != EINTR)
            return false;
        struct pollfd pfd = {m_master.get(), POLLOUT, 0};
        ::poll(&pfd, 1, 10);
    }
    return true;
}

void CSimLine::drainInput() {
    uint8_t buf[256];
    while (m_master.valid() && ::read(m_master.get(), buf, sizeof buf) > 0) {
    }
}

bool CSimLine::pause(std::chrono::milliseconds d) {
    if (m_stopped.load())
        return false;
    struct pollfd pfd = {m_stopFd.get(), POLLIN, 0};
    auto end = std::chrono::steady_clock::now() + d;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return !m_stopped.load();
        int r = ::poll(&pfd, 1, static_cast<int>(left.count()));
        if (r > 0 || m_stopped.load())
            return false;
    }
}

void CSimLine::stop() {
    m_stopped = true;
    uint64_t one = 1;
    ssize_t n = ::write(m_stopFd.get(), &one, sizeof one);
    (void)n;
}
