// SPDX-License-Identifier: Apache-2.0
#include "tools/m4sim/CM4Sim.h"

#include <utility>

#include "tools/simline/SimTime.h"

CM4Sim::CM4Sim(std::unique_ptr<CM4SimModel> model, M4SimOptions options, M4SimServerOptions server)
    : m_model(std::move(model)),
      m_options(std::move(options)),
      m_server(std::move(server)),
      m_line(m_server.line),
      m_faults(m_server.faultSeed, m_server.faultShare),
      m_started(std::chrono::steady_clock::now()) {}

CM4Sim::~CM4Sim() {
    stop();
}

bool CM4Sim::open() {
    return m_line.open();
}

bool CM4Sim::start() {
    if (m_serving.serving())
        return false;
    m_started = std::chrono::steady_clock::now();
    return m_serving.start([this] { serve(); });
}

void CM4Sim::stop() {
    m_serving.stop();
}

time_t CM4Sim::deviceNow() const {
    return simDeviceTime(m_options.start, m_started, m_server.clockScale);
}

bool CM4Sim::silent(const m4sim::Frame& frame) {
    if (m_server.silentAfter <= 0)
        return false;
    if (m_counted < m_server.silentAfter) {
        if (!m_server.silentInArchive || m_model->isArchiveRequest(frame))
            ++m_counted;
        return false;
    }
    if (m_server.silentCount == 0 || m_ignored < m_server.silentCount) {
        ++m_ignored;
        return true;
    }
    return false;
}

void CM4Sim::serve() {
    m4sim::FrameReader reader;
    uint8_t buf[512];
    while (!m_line.stopped()) {
        // A frame is sent in one go: a pause of 100 ms inside one is a broken frame.
        const ssize_t n = m_line.read(buf, sizeof buf, reader.partial() ? 100 : -1);
        if (n < 0)
            return;
        if (n == 0) {
            reader.clear();
            continue;
        }
        reader.feed(buf, static_cast<size_t>(n));
        m4sim::Frame frame;
        while (reader.next(frame)) {
            const CLineFaults::Kind kind = m_faults.draw();
            if (kind == CLineFaults::IgnoredRequest)
                continue;  // garbled on the way in: the meter never saw it
            if (silent(frame))
                continue;
            std::vector<uint8_t> answer = m_model->answer(frame, deviceNow());
            if (answer.empty())
                continue;
            // Long answers end in two CRC bytes; the short session answer ends in
            // its check byte and 0x16.
            CLineFaults::Framing framing;
            if (frame.isLong)
                framing.checkBytes = 2;
            else
                framing.endPos = static_cast<long>(answer.size()) - 1;
            if (!m_faults.deliver(m_line, answer, kind, framing))
                return;
            ++m_answered;
        }
    }
}
