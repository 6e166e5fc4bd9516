// SPDX-License-Identifier: Apache-2.0
#include "hostlink/HttpClient.h"

#include <curl/curl.h>

#include <climits>
#include <iostream>
#include <mutex>
#include <utility>

namespace Json::Rpc {

namespace {

// curl_global_init is not thread-safe and must run before any easy handle
// exists; once per process is enough. The matching cleanup is left to process
// exit, because another thread may still hold a handle at any other moment.
void globalInitOnce()
{
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_ALL); });
}

struct EasyDeleter {
    void operator()(CURL* h) const { curl_easy_cleanup(h); }
};
struct SlistDeleter {
    void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};

size_t appendChunk(char* data, size_t size, size_t count, void* userdata)
{
    auto* out = static_cast<std::string*>(userdata);
    out->append(data, size * count);
    return size * count;
}

int abortIfRaised(void* userdata, curl_off_t, curl_off_t, curl_off_t, curl_off_t)
{
    const auto* flag = static_cast<const std::atomic<bool>*>(userdata);
    return flag->load() ? 1 : 0;
}

}  // namespace

struct HttpClient::Impl {
    std::unique_ptr<CURL, EasyDeleter> easy;
    std::unique_ptr<curl_slist, SlistDeleter> headers;
    std::string response;
    CURLcode lastCode = CURLE_OK;
    long port = 0;
    const std::atomic<bool>* abort = nullptr;
};

HttpClient::HttpClient(std::string url) : m_url(std::move(url)), m_impl(std::make_unique<Impl>())
{
    globalInitOnce();
    m_impl->easy.reset(curl_easy_init());
}

HttpClient::~HttpClient() = default;
HttpClient::HttpClient(HttpClient&& other) noexcept = default;
HttpClient& HttpClient::operator=(HttpClient&& other) noexcept = default;

void HttpClient::SetPort(uint16_t port)
{
    if (m_impl)
        m_impl->port = port;
}

void HttpClient::SetAbortFlag(const std::atomic<bool>* abort)
{
    if (m_impl)
        m_impl->abort = abort;
}

int HttpClient::Send(const std::string& body)
{
    if (!m_impl)  // moved from
        return CURLE_FAILED_INIT;
    Impl& d = *m_impl;
    d.response.clear();
    if (!d.easy) {
        d.lastCode = CURLE_FAILED_INIT;
        std::cerr << curl_easy_strerror(d.lastCode) << std::endl;
        return d.lastCode;
    }
    CURL* h = d.easy.get();
    curl_slist* list = curl_slist_append(nullptr, "Content-Type: application/json-rpc");
    if (list) {
        curl_slist* tail = curl_slist_append(list, "Accept: application/json-rpc");
        if (tail)
            list = tail;
    }
    d.headers.reset(list);

    curl_easy_setopt(h, CURLOPT_URL, m_url.c_str());
    if (d.port != 0)
        curl_easy_setopt(h, CURLOPT_PORT, d.port);
    curl_easy_setopt(h, CURLOPT_POST, 1L);
    curl_easy_setopt(h, CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(h, CURLOPT_HTTPHEADER, d.headers.get());
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, appendChunk);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &d.response);
    // Several polling threads may run transfers; libcurl must not use signals for that.
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    if (d.abort) {
        curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, abortIfRaised);
        curl_easy_setopt(h, CURLOPT_XFERINFODATA, d.abort);
        curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
    }

    d.lastCode = curl_easy_perform(h);
    if (d.lastCode != CURLE_OK)
        std::cerr << curl_easy_strerror(d.lastCode) << std::endl;
    return d.lastCode;
}

int HttpClient::Recv(std::string& response) const
{
    if (!m_impl || m_impl->lastCode != CURLE_OK || m_impl->response.empty())
        return -1;
    response = m_impl->response;
    return m_impl->response.size() > static_cast<size_t>(INT_MAX) ? INT_MAX
                                                                  : static_cast<int>(m_impl->response.size());
}

}  // namespace Json::Rpc
