// SPDX-License-Identifier: Apache-2.0
#pragma once
// A transport that plays a recorded byte stream as the meter's side of the
// line: every read takes the next bytes of the recording, writes are swallowed,
// and a read after the end is a time-out. Fuzz targets wrap it in a CConnector
// so the protocol layers run exactly as they do on a serial port, only without
// waiting for the line.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "transport/CTransport.h"

class CReplayTransport : public CTransport {
public:
    CReplayTransport(const uint8_t* data, size_t size) : m_data(data), m_size(size) {
        m_settings = PortSettings::parse({{"name", "/replay"}, {"speed", "9600"}, {"timeout", "100"}});
    }

    int WriteBuffer(const unsigned char*, uint16_t length, bool) override { return length; }
    int ReadBuffer(unsigned char* buffer, uint16_t length, bool) override { return take(buffer, length); }
    int ReadBufferCycle(unsigned char* buffer, uint16_t length, bool, uint32_t) override {
        return take(buffer, length);
    }
    bool open_device() override {
        m_open = true;
        return true;
    }
    void close_device() override { m_open = false; }
    int FlushBuffers() override { return 0; }
    int DrainOutput() override { return 0; }
    void SetTimeout(uint32_t timeout_ms) override { m_timeout = timeout_ms; }
    uint32_t GetTimeout() const override { return m_timeout; }
    bool is_open() const override { return m_open; }
    PortSettings& settings() override { return m_settings; }

    size_t remaining() const { return m_size - m_pos; }

private:
    int take(unsigned char* buffer, uint16_t length) {
        if (m_pos >= m_size || length == 0)
            return -1;
        size_t n = std::min<size_t>(length, m_size - m_pos);
        std::memcpy(buffer, m_data + m_pos, n);
        m_pos += n;
        return static_cast<int>(n);
    }

    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
    bool m_open = true;
    uint32_t m_timeout = 100;
    PortSettings m_settings;
};
