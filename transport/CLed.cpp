// SPDX-License-Identifier: Apache-2.0
#include "transport/CLed.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <utility>

#include "core/logger.h"

namespace {

// The LED stays dark at least this long between two flashes, so that back to
// back bursts still show as separate flashes.
constexpr std::chrono::milliseconds kMinDark{10};
// Idle waits are re-armed at this period; they end early on a request or a stop.
constexpr std::chrono::hours kIdleWait{1};

}  // namespace

CLed::CLed(std::string path, uint32_t onTimeUs) : m_path(std::move(path)), m_onTimeUs(onTimeUs) {
    m_fd.reset(::open(m_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (m_fd.get() < 0)
        MTD_LOG(Debug, "CLed::CLed - LED file %s is not available, the LED stays dark.", m_path.c_str());
    writeState('0');
}

CLed::~CLed() {
    Stop();
    writeState('0');
}

void CLed::Blink(bool request) {
    if (request) {
        // Only the first request of a burst needs to wake the thread; the later
        // ones find the flag already set.
        if (m_request.exchange(1, std::memory_order_acq_rel) == 0)
            Wake();
        return;
    }
    if (m_request.exchange(0, std::memory_order_acq_rel) != 0)
        writeState('0');
}

void CLed::functionThread() {
    using Clock = std::chrono::steady_clock;
    const auto stopping = [this] { return isStopping(); };
    const auto requested = [this] { return m_request.load(std::memory_order_acquire) != 0; };

    while (!isStopping()) {
        if (!waitUntil(Clock::now() + kIdleWait, requested))
            continue;

        const auto lit = Clock::now();
        writeState('1');
        waitUntil(lit + std::chrono::microseconds(m_onTimeUs), stopping);
        // Whatever was asked for while the LED was lit belongs to this flash.
        m_request.store(0, std::memory_order_release);
        writeState('0');
        waitUntil(Clock::now() + kMinDark, stopping);
    }
}

void CLed::writeState(char state) {
    if (m_fd.get() < 0)
        return;
    // A failed write only means a missing flash; the LED driver has nothing to report.
    [[maybe_unused]] ssize_t n = ::write(m_fd.get(), &state, 1);
}
