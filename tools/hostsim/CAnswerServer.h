// SPDX-License-Identifier: Apache-2.0
#pragma once
// A loopback HTTP server that plays one scripted answer to every request, byte
// for byte, for the host link's tests and fuzz target: a status line and
// headers as given, a body in pieces with pauses between them, a body that
// does not end, or no answer at all. It serves one connection at a time on a
// free port of 127.0.0.1 and never blocks its own stop: every wait also
// watches a wake-up descriptor.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "core/CUniqueFd.h"

struct CAnswerScript {
    // Status line and headers up to and including the blank line.
    std::string head;
    // The body, sent piece after piece.
    std::vector<std::string> pieces;
    // Pause before each piece after the first.
    std::chrono::milliseconds pause{0};
    // After the pieces, the last piece again and again until the body has this
    // many bytes; SIZE_MAX never ends.
    size_t repeatUpTo = 0;
    // Take the request and answer nothing until the client gives up.
    bool silent = false;

    // "HTTP/1.1 <status> ..." with a JSON-RPC content type and "Connection: close";
    // a Content-Length header when `contentLength` is not negative.
    static std::string Head(int status, long long contentLength = -1);
};

class CAnswerServer {
public:
    explicit CAnswerServer(CAnswerScript script);
    ~CAnswerServer();
    CAnswerServer(const CAnswerServer&) = delete;
    CAnswerServer& operator=(const CAnswerServer&) = delete;

    // Listens on a free loopback port and serves from another thread; false with a reason.
    bool Start(std::string& error);
    // Ends the serving thread (a connection in progress is closed); idempotent.
    void Stop();

    std::string url() const;
    // Connections accepted so far.
    int connections() const { return m_connections.load(); }

private:
    void serve();
    void answer(int fd);
    // True once `fd` has `events`; false when stopping.
    bool ready(int fd, short events);
    // True when a stop came within `ms` milliseconds.
    bool stoppedWithin(long long ms);
    bool sendAll(int fd, const char* data, size_t size);
    bool readRequest(int fd);

    CAnswerScript m_script;
    CUniqueFd m_listen;
    CUniqueFd m_wake;  // eventfd: readable once Stop() was called
    int m_port = 0;
    std::atomic<int> m_connections{0};
    std::thread m_thread;
};
