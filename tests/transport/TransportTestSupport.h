// SPDX-License-Identifier: Apache-2.0
#pragma once
// Real peers for the transport tests: a pseudo-terminal pair (the connector
// opens the slave path, the test speaks on the master), a temporary directory
// for LED control files and log files (shared with the other suites), and
// an inotify watch to block until an LED file changes.

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/logger.h"
#include "transport/CTransport.h"
#include "core/CUniqueFd.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace mtdtest {

using test_support::TempDir;
using test_support::LogCapture;

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// openpty with both ends close-on-exec; the test keeps its slave fd open so the
// master never sees a hang-up while the connector closes and reopens.
struct PtyPair {
    CUniqueFd master;
    CUniqueFd slave;
    std::string slavePath;
    PtyPair() {
        int m = -1, s = -1;
        char name[256] = {};
        if (openpty(&m, &s, name, nullptr, nullptr) != 0)
            throw std::runtime_error("openpty");
        master.reset(m);
        slave.reset(s);
        fcntl(m, F_SETFD, FD_CLOEXEC);
        fcntl(s, F_SETFD, FD_CLOEXEC);
        slavePath = name;
    }
    void send(const std::vector<unsigned char>& bytes) const {
        if (::write(master.get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
            throw std::runtime_error("pty write");
    }
    // Whatever the connector wrote, waiting at most `timeoutMs` for each chunk.
    std::vector<unsigned char> receive(size_t want, int timeoutMs = 1000) const {
        std::vector<unsigned char> out;
        while (out.size() < want) {
            pollfd p{master.get(), POLLIN, 0};
            if (::poll(&p, 1, timeoutMs) <= 0)
                break;
            unsigned char buf[256];
            ssize_t n = ::read(master.get(), buf, sizeof buf);
            if (n <= 0)
                break;
            out.insert(out.end(), buf, buf + n);
        }
        return out;
    }
};

// Blocks until a file's contents satisfy a predicate, woken by inotify.
class FileWatch {
public:
    explicit FileWatch(std::string path) : m_path(std::move(path)), m_fd(inotify_init1(IN_CLOEXEC)) {
        if (m_fd.get() < 0 || inotify_add_watch(m_fd.get(), m_path.c_str(), IN_MODIFY) < 0)
            throw std::runtime_error("inotify");
    }
    template <class Pred>
    bool waitFor(Pred pred, std::chrono::milliseconds limit) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        for (;;) {
            if (pred(readFile(m_path)))
                return true;
            if (!waitChange(deadline))
                return pred(readFile(m_path));
        }
    }
    bool waitContents(const std::string& want, std::chrono::milliseconds limit) {
        return waitFor([&](const std::string& s) { return s == want; }, limit);
    }
    // True when the file was modified before `limit` passed.
    bool changesWithin(std::chrono::milliseconds limit) {
        return waitChange(std::chrono::steady_clock::now() + limit);
    }

private:
    bool waitChange(std::chrono::steady_clock::time_point deadline) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() < 0)
            return false;
        pollfd p{m_fd.get(), POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0)
            return false;
        char buf[4096];
        return ::read(m_fd.get(), buf, sizeof buf) > 0;
    }
    std::string m_path;
    CUniqueFd m_fd;
};

inline LedPaths ledsIn(const TempDir& dir) {
    LedPaths leds;
    leds.transmit = dir / "led_tx";
    leds.receive = dir / "led_rx";
    return leds;
}

}  // namespace mtdtest
