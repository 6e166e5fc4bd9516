// SPDX-License-Identifier: Apache-2.0
#include "app/CSignalWatcher.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/logger.h"

CSignalWatcher::Fd::~Fd() {
    if (m_fd >= 0)
        close(m_fd);
}

CSignalWatcher::Fd& CSignalWatcher::Fd::operator=(Fd&& other) noexcept {
    if (this != &other) {
        if (m_fd >= 0)
            close(m_fd);
        m_fd = other.m_fd;
        other.m_fd = -1;
    }
    return *this;
}

CSignalWatcher::CSignalWatcher() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGQUIT);
    sigaddset(&set, SIGTERM);
    if (pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) {
        MTD_LOG(Crit, "CSignalWatcher - can't block the stop signals: %s", std::strerror(errno));
        return;
    }
    m_signalFd = Fd(signalfd(-1, &set, SFD_CLOEXEC));
    int fds[2];
    if (m_signalFd.get() < 0 || pipe2(fds, O_CLOEXEC) != 0) {
        MTD_LOG(Crit, "CSignalWatcher - can't watch the stop signals: %s", std::strerror(errno));
        // Leave them to their default action rather than make the daemon unstoppable.
        pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
        return;
    }
    m_quitRead = Fd(fds[0]);
    m_quitWrite = Fd(fds[1]);
    m_thread = std::thread([this] { run(); });
    m_ok = true;
}

CSignalWatcher::~CSignalWatcher() {
    if (m_thread.joinable()) {
        const char quit = 'q';
        while (write(m_quitWrite.get(), &quit, 1) < 0 && errno == EINTR) {
        }
        m_thread.join();
    }
}

bool CSignalWatcher::waitStop(std::chrono::milliseconds d) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cv.wait_for(lock, d, [this] { return m_stop.load(); });
}

void CSignalWatcher::run() {
    pollfd fds[2] = {{m_signalFd.get(), POLLIN, 0}, {m_quitRead.get(), POLLIN, 0}};
    for (;;) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            MTD_LOG(Crit, "CSignalWatcher - poll failed: %s", std::strerror(errno));
            return;
        }
        if (fds[1].revents)
            return;
        if (fds[0].revents & POLLIN) {
            signalfd_siginfo info;
            if (read(m_signalFd.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info))
                onSignal(static_cast<int>(info.ssi_signo), static_cast<unsigned long>(info.ssi_addr));
        }
    }
}

void CSignalWatcher::onSignal(int signo, unsigned long address) {
    MTD_LOG(Crit, "\x1b[1;31m------------------------------------------------------------\x1b[0m");
    MTD_LOG(Crit, "\x1b[1;31mSystem signal number %d (%s) is received from address %lx.\x1b[0m", signo,
            strsignal(signo), address);
    const bool second = m_stop.load();
    if (signo == SIGINT) {
        if (second) {
            MTD_LOG(Crit, "\x1b[1;31mApplication done due to SIGINT. Immediate exit!\x1b[0m");
            MTD_LOG(Crit, "\x1b[1;31m------------------------------------------------------------\x1b[0m");
            _exit(1);
        }
    } else if (second) {
        _exit(1);
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop.store(true);
    }
    m_cv.notify_all();
    if (signo == SIGINT)
        MTD_LOG(Crit, "\x1b[1;31m------------------------------------------------------------\x1b[0m");
}
