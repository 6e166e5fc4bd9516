// SPDX-License-Identifier: Apache-2.0
#pragma once
// One HTTP POST exchange with a JSON-RPC service over libcurl's easy
// interface. A client is built for one request and thrown away afterwards, so
// no easy handle is ever shared between threads. No connect or transfer
// time-out is set: an exchange waits as long as libcurl's defaults allow, and
// only an abort flag (an orderly shutdown) can cut it short.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace Json::Rpc {

class HttpClient {
public:
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

    // POSTs the body with the two JSON-RPC headers; returns the libcurl code (0 = success).
    int Send(const std::string& body);
    // The response text of the last Send; returns its length, or -1 when nothing came back.
    int Recv(std::string& response) const;

    const std::string& url() const { return m_url; }

private:
    struct Impl;
    std::string m_url;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace Json::Rpc
