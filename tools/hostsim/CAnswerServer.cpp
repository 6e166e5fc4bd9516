// SPDX-License-Identifier: Apache-2.0
#include "tools/hostsim/CAnswerServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <utility>

namespace {

// A request larger than this is not read to its end (the daemon's are a few KiB).
constexpr size_t kMaxRequest = size_t{1} << 20;

}  // namespace

std::string CAnswerScript::Head(int status, long long contentLength)
{
    std::string head = "HTTP/1.1 " + std::to_string(status) + " Scripted\r\nContent-Type: application/json-rpc\r\n";
    if (contentLength >= 0)
        head += "Content-Length: " + std::to_string(contentLength) + "\r\n";
    return head + "Connection: close\r\n\r\n";
}

CAnswerServer::CAnswerServer(CAnswerScript script) : m_script(std::move(script)) {}

CAnswerServer::~CAnswerServer()
{
    Stop();
}

bool CAnswerServer::Start(std::string& error)
{
    if (m_thread.joinable())
        return true;
    m_wake.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    m_listen.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (!m_wake.valid() || !m_listen.valid() ||
        ::bind(m_listen.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(m_listen.get(), 8) != 0 ||
        ::getsockname(m_listen.get(), reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        error = "answer server: cannot listen on 127.0.0.1";
        return false;
    }
    m_port = ntohs(addr.sin_port);
    m_thread = std::thread([this] { serve(); });
    return true;
}

void CAnswerServer::Stop()
{
    if (!m_thread.joinable())
        return;
    const uint64_t one = 1;
    (void)!::write(m_wake.get(), &one, sizeof one);
    m_thread.join();
}

std::string CAnswerServer::url() const
{
    return "http://127.0.0.1:" + std::to_string(m_port) + "/";
}

bool CAnswerServer::ready(int fd, short events)
{
    for (;;) {
        pollfd p[2] = {{m_wake.get(), POLLIN, 0}, {fd, events, 0}};
        const int n = ::poll(p, 2, -1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 || p[0].revents != 0)
            return false;
        if (p[1].revents != 0)
            return true;
    }
}

bool CAnswerServer::stoppedWithin(long long ms)
{
    pollfd p{m_wake.get(), POLLIN, 0};
    const int n = ::poll(&p, 1, static_cast<int>(std::min<long long>(ms, 60000)));
    return n > 0;
}

bool CAnswerServer::sendAll(int fd, const char* data, size_t size)
{
    while (size > 0) {
        if (!ready(fd, POLLOUT))
            return false;
        const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
        if (n < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        if (n <= 0)
            return false;  // the client went away
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Reads the head and as much body as Content-Length announces.
bool CAnswerServer::readRequest(int fd)
{
    std::string in;
    size_t want = SIZE_MAX;
    char buf[4096];
    while (in.size() < want && in.size() < kMaxRequest) {
        if (!ready(fd, POLLIN))
            return false;
        const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        if (n <= 0)
            return false;
        in.append(buf, static_cast<size_t>(n));
        const size_t end = in.find("\r\n\r\n");
        if (want == SIZE_MAX && end != std::string::npos) {
            size_t length = 0;
            const size_t at = in.find("Content-Length:");
            if (at != std::string::npos && at < end)
                length = std::strtoul(in.c_str() + at + 15, nullptr, 10);
            want = end + 4 + length;
        }
    }
    return true;
}

void CAnswerServer::answer(int fd)
{
    if (!readRequest(fd))
        return;
    if (m_script.silent) {
        char buf[256];
        while (ready(fd, POLLIN) && ::recv(fd, buf, sizeof buf, 0) > 0) {
        }
        return;
    }
    if (!sendAll(fd, m_script.head.data(), m_script.head.size()))
        return;
    size_t sent = 0;
    for (size_t i = 0; i < m_script.pieces.size(); ++i) {
        if (i > 0 && m_script.pause.count() > 0 && stoppedWithin(m_script.pause.count()))
            return;
        const std::string& piece = m_script.pieces[i];
        if (!sendAll(fd, piece.data(), piece.size()))
            return;
        sent += piece.size();
    }
    if (m_script.pieces.empty() || m_script.pieces.back().empty())
        return;
    const std::string& last = m_script.pieces.back();
    while (sent < m_script.repeatUpTo) {
        if (m_script.pause.count() > 0 && stoppedWithin(m_script.pause.count()))
            return;
        const size_t n = std::min(last.size(), m_script.repeatUpTo - sent);
        if (!sendAll(fd, last.data(), n))
            return;
        sent += n;
    }
}

void CAnswerServer::serve()
{
    while (ready(m_listen.get(), POLLIN)) {
        CUniqueFd conn(::accept4(m_listen.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!conn.valid())
            continue;
        ++m_connections;
        answer(conn.get());
        ::shutdown(conn.get(), SHUT_WR);
    }
}
