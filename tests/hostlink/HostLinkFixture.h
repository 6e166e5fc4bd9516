// SPDX-License-Identifier: Apache-2.0
#pragma once
// Shared helpers of the host-link tests: a loopback port that refuses connections until it is released, a host
// service that comes up late on such a port, and a clock whose pauses take no time.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "core/logger.h"
#include "support/LogCapture.h"
#include "hostlink/CHostLinkClock.h"
#include "tools/hostsim/CHostSim.h"

// Host-link lines are asked for by any part of their text.
class LogWatch : public test_support::LogCapture {
public:
    size_t count(const std::string& part) const { return static_cast<size_t>(countContaining(part)); }
};

// A loopback port bound but not listening: connections to it are refused
// until release(), after which a server may take the port. With `silent` it
// listens but never accepts: connections succeed and no answer ever comes.
class RefusingPort {
public:
    explicit RefusingPort(bool silent = false)
    {
        m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        if (m_fd >= 0 && ::bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
            ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
            m_port = ntohs(addr.sin_port);
        if (silent && m_fd >= 0)
            ::listen(m_fd, 4);
    }
    ~RefusingPort() { release(); }
    RefusingPort(const RefusingPort&) = delete;
    RefusingPort& operator=(const RefusingPort&) = delete;

    void release()
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
    }
    int port() const { return m_port; }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(m_port) + "/"; }

private:
    int m_fd = -1;
    int m_port = 0;
};

// The host service (a CHostSim with `config`) on a port that refuses
// connections until up() is called, typically from a StepClock's onPause.
class LateHostService {
public:
    explicit LateHostService(const char* config = nullptr) : m_sim(options(m_down.port()))
    {
        if (config != nullptr && !m_sim.loadConfigText(config, m_error))
            m_error = "bad configuration: " + m_error;
    }
    void up()
    {
        if (m_started)
            return;
        m_down.release();
        m_started = m_sim.Start(m_error);
    }
    bool started() const { return m_started; }
    const std::string& error() const { return m_error; }
    std::string url() const { return m_down.url(); }
    CHostSim& sim() { return m_sim; }

private:
    static CHostSimOptions options(int port)
    {
        CHostSimOptions o;
        o.hostPort = port;
        o.sensorsPort = 0;
        return o;
    }

    RefusingPort m_down;
    CHostSim m_sim;
    std::string m_error;
    bool m_started = false;
};

// Pauses of the retry loop move this clock on at once and are written down;
// `onPause` runs in the retrying thread after each, with the time since the
// clock was made (a test brings a service up or raises the stop flag there).
class StepClock : public CHostLinkClock {
public:
    time_point now() const override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_now;
    }
    bool sleepFor(std::chrono::milliseconds d, const std::atomic<bool>* cancel) override
    {
        std::chrono::milliseconds elapsed;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_now += d;
            m_pauses.push_back(d);
            elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(m_now - m_start);
        }
        if (onPause)
            onPause(elapsed);
        return !(cancel != nullptr && cancel->load());
    }
    std::vector<std::chrono::milliseconds> pauses() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_pauses;
    }

    std::function<void(std::chrono::milliseconds)> onPause;

private:
    mutable std::mutex m_mutex;
    const time_point m_start = std::chrono::steady_clock::now();
    time_point m_now = m_start;
    std::vector<std::chrono::milliseconds> m_pauses;
};
