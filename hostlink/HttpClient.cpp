// SPDX-License-Identifier: Apache-2.0
#include "hostlink/HttpClient.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstdio>
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

struct Answer {
    std::string body;
    bool tooLarge = false;
};

// Takes the answer up to the cap; past it, a short count makes libcurl end the
// transfer (CURLE_WRITE_ERROR), so an endless answer costs at most the cap.
size_t appendChunk(char* data, size_t size, size_t count, void* userdata)
{
    auto* out = static_cast<Answer*>(userdata);
    const size_t n = size * count;
    if (n > HttpClient::kMaxAnswer - out->body.size()) {
        out->tooLarge = true;
        return 0;
    }
    out->body.append(data, n);
    return n;
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
    Answer answer;
    CURLcode lastCode = CURLE_OK;
    long status = 0;
    long port = 0;
    long exchangeMs = HttpClient::kExchangeTimeout.count();
    const std::atomic<bool>* abort = nullptr;
    char errorText[CURL_ERROR_SIZE] = {};
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

void HttpClient::SetExchangeTimeout(std::chrono::milliseconds timeout)
{
    if (m_impl)
        m_impl->exchangeMs = std::max<long>(1, static_cast<long>(timeout.count()));
}

int HttpClient::Send(const std::string& body)
{
    if (!m_impl)  // moved from
        return CURLE_FAILED_INIT;
    Impl& d = *m_impl;
    d.answer = Answer();
    d.status = 0;
    d.errorText[0] = '\0';
    if (!d.easy) {
        d.lastCode = CURLE_FAILED_INIT;
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
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &d.answer);
    // Several polling threads may run transfers; libcurl must not use signals for that.
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(h, CURLOPT_VERBOSE, 0L);
    curl_easy_setopt(h, CURLOPT_ERRORBUFFER, d.errorText);
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, std::min<long>(kConnectTimeout.count(), d.exchangeMs));
    curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, d.exchangeMs);
    // An announced length past the cap is refused before any of it is read.
    curl_easy_setopt(h, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(kMaxAnswer));
    if (d.abort) {
        curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, abortIfRaised);
        curl_easy_setopt(h, CURLOPT_XFERINFODATA, d.abort);
        curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
    }

    d.lastCode = curl_easy_perform(h);
    if (d.lastCode == CURLE_OK)
        curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &d.status);
    else if (d.errorText[0] == '\0')
        snprintf(d.errorText, sizeof d.errorText, "%s", curl_easy_strerror(d.lastCode));
    // Out of time or out of room: the answer did not come.
    const bool answerLost = d.lastCode == CURLE_OPERATION_TIMEDOUT || d.lastCode == CURLE_FILESIZE_EXCEEDED ||
                            (d.lastCode == CURLE_WRITE_ERROR && d.answer.tooLarge);
    if (d.answer.tooLarge)
        snprintf(d.errorText, sizeof d.errorText, "answer longer than %zu bytes, cut off", kMaxAnswer);
    if (answerLost) {
        d.answer.body.clear();
        d.lastCode = CURLE_OK;  // Recv finds no body and returns -1
    }
    return d.lastCode;
}

int HttpClient::Recv(std::string& response) const
{
    if (!m_impl || m_impl->lastCode != CURLE_OK || m_impl->answer.body.empty())
        return -1;
    response = m_impl->answer.body;
    return static_cast<int>(response.size());  // at most kMaxAnswer
}

long HttpClient::Status() const
{
    return m_impl ? m_impl->status : 0;
}

std::string HttpClient::ErrorText() const
{
    return m_impl ? std::string(m_impl->errorText) : std::string();
}

}  // namespace Json::Rpc
