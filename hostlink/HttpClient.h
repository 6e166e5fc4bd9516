// SPDX-License-Identifier: Apache-2.0
#pragma once
// One HTTP POST exchange with a JSON-RPC service over libcurl's easy
// interface. A client is built for one request and thrown away afterwards, so
// no easy handle is ever shared between threads.
//
// Every exchange is bounded: the connection must be made within the connect
// time-out, the whole exchange (connect, request, answer) must end within the
// exchange time-out, and an answer larger than kMaxAnswer is cut off. Any of
// these counts as an answer that did not come (Send returns 0, Recv -1), and
// the raised abort flag of an orderly shutdown cuts an exchange short at once.
// libcurl is kept quiet: no signals, no verbose output, nothing on standard
// error; its own explanation of a failure is kept in ErrorText().

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace Json::Rpc {

class HttpClient {
public:
    // The largest answer body taken (1 MiB); a JSON-RPC answer of this daemon is a few KiB.
    static constexpr size_t kMaxAnswer = size_t{1} << 20;
    static constexpr std::chrono::milliseconds kConnectTimeout{2000};
    static constexpr std::chrono::milliseconds kExchangeTimeout{5000};

    explicit HttpClient(std::string url);
    ~HttpClient();
    HttpClient(HttpClient&& other) noexcept;
    HttpClient& operator=(HttpClient&& other) noexcept;
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    // Overrides the port of the URL.
    void SetPort(uint16_t port);
    // While the flag is raised a running transfer is aborted (CURLE_ABORTED_BY_CALLBACK).
    void SetAbortFlag(const std::atomic<bool>* abort);
    // Bound of the whole exchange; the connect time-out is never longer than it. At least 1 ms.
    void SetExchangeTimeout(std::chrono::milliseconds timeout);

    // POSTs the body with the two JSON-RPC headers; returns the libcurl code (0 = success).
    // A time-out or an answer past kMaxAnswer returns 0: the request may have gone out,
    // the answer did not come, and Recv says so.
    int Send(const std::string& body);
    // The response text of the last Send; returns its length, or -1 when nothing came back.
    int Recv(std::string& response) const;
    // The HTTP status of the last answer; 0 when none came.
    long Status() const;
    // libcurl's description of the last failure ("" after a success).
    std::string ErrorText() const;

    const std::string& url() const { return m_url; }

private:
    struct Impl;
    std::string m_url;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace Json::Rpc
