// SPDX-License-Identifier: Apache-2.0
#pragma once
// Test kit for the protocol layers: a meter played on the master end of a
// pseudo-terminal while the real CConnector opens the slave end, and a fake
// pause that records what the protocol asked for.

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/logger.h"
#include "support/LogCapture.h"
#include "transport/CConnector.h"

namespace logika_test {

using Bytes = std::vector<uint8_t>;

using test_support::LogCapture;

// The meter. `frameSize` tells from the bytes so far how long the request is
// (0: not known yet); `respond` gets each whole request and its number and
// returns the reply bytes (empty: stay silent).
class PtyMeter {
public:
    using FrameSize = std::function<size_t(const Bytes&)>;
    using Respond = std::function<Bytes(const Bytes& request, int index)>;

    PtyMeter(FrameSize frameSize, Respond respond) : m_frameSize(std::move(frameSize)), m_respond(std::move(respond)) {
        char name[128];
        if (openpty(&m_master, &m_slave, name, nullptr, nullptr) != 0)
            throw std::runtime_error("openpty");
        m_path = name;
        fcntl(m_master, F_SETFD, FD_CLOEXEC);
        fcntl(m_slave, F_SETFD, FD_CLOEXEC);
        struct termios t {};
        tcgetattr(m_slave, &t);
        cfmakeraw(&t);
        tcsetattr(m_slave, TCSANOW, &t);
        if (pipe2(m_stop, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe");
        m_thread = std::thread([this] { run(); });
    }
    ~PtyMeter() {
        (void)!::write(m_stop[1], "x", 1);
        m_thread.join();
        ::close(m_stop[0]);
        ::close(m_stop[1]);
        ::close(m_master);
        ::close(m_slave);
    }
    PtyMeter(const PtyMeter&) = delete;
    PtyMeter& operator=(const PtyMeter&) = delete;

    const std::string& path() const { return m_path; }
    std::vector<Bytes> requests() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_requests;
    }

    // Port parameters for a connector on the slave end, with a short read time-out.
    PortParams params(const char* timeoutMs = "150") const {
        return PortParams{{"name", m_path}, {"speed", "9600"}, {"timeout", timeoutMs}};
    }
    static LedPaths noLeds() {
        LedPaths leds;
        leds.transmit = "/nonexistent-mtd-test/tx";
        leds.receive = "/nonexistent-mtd-test/rx";
        return leds;
    }

private:
    void run() {
        Bytes frame;
        int index = 0;
        for (;;) {
            pollfd fds[2] = {{m_master, POLLIN, 0}, {m_stop[0], POLLIN, 0}};
            if (poll(fds, 2, -1) < 0)
                continue;
            if (fds[1].revents)
                return;
            if (!(fds[0].revents & POLLIN))
                continue;
            uint8_t buf[256];
            ssize_t n = ::read(m_master, buf, sizeof buf);
            if (n <= 0)
                continue;
            frame.insert(frame.end(), buf, buf + n);
            for (size_t size; (size = m_frameSize(frame)) != 0 && frame.size() >= size;) {
                Bytes request(frame.begin(), frame.begin() + static_cast<long>(size));
                frame.erase(frame.begin(), frame.begin() + static_cast<long>(size));
                {
                    std::lock_guard<std::mutex> lock(m_mutex);
                    m_requests.push_back(request);
                }
                Bytes reply = m_respond(request, index++);
                for (size_t off = 0; off < reply.size();) {
                    ssize_t w = ::write(m_master, reply.data() + off, reply.size() - off);
                    if (w <= 0)
                        break;
                    off += static_cast<size_t>(w);
                }
            }
        }
    }

    int m_master = -1, m_slave = -1;
    int m_stop[2] = {-1, -1};
    std::string m_path;
    FrameSize m_frameSize;
    Respond m_respond;
    mutable std::mutex m_mutex;
    std::vector<Bytes> m_requests;
    std::thread m_thread;
};

// Records the pauses a protocol asks for and returns at once.
struct FakePause {
    std::vector<std::chrono::milliseconds> calls;
    std::function<void(std::chrono::milliseconds)> fn() {
        return [this](std::chrono::milliseconds d) { calls.push_back(d); };
    }
};

}  // namespace logika_test
