// SPDX-License-Identifier: Apache-2.0
// Answers of the host service as they come over a real loopback connection:
// any status, with or without (or with a false) Content-Length, a body in slow
// pieces, a body that does not end, no answer at all, or raw bytes in place
// of the whole HTTP answer. One exchange of CJSONRPCConnector::SendParameters
// per input, with a 100 ms bound; it must end within it, take at most 1 MiB,
// and count nothing but a whole 2xx JSON answer as an answer.
//
// Input: byte 0 picks the shape (below), byte 1 a number for it, the rest is
// the body (or, for shape 0xFF, the whole answer).
//   bits 0-1  status: 200, 200, 500, 100 + 2 * byte 1 (100..610)
//   bit  2    Content-Length given; with bit 3 it announces 2 MiB
//   bit  4    no answer at all
//   bit  5    the last piece again and again, up to 4 MiB
//   bits 6-7  the body in four pieces, 0, 5, 10 or 30 ms apart

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <json/json.h>

#include "fuzz/FuzzLog.h"
#include "hostlink/CHostLinkClock.h"
#include "hostlink/CJSONRPCConnector.h"
#include "hostlink/HttpClient.h"
#include "tools/hostsim/CAnswerServer.h"

namespace {

// One attempt only: the pause after a failure ends the exchange loop.
class NoRetry : public CHostLinkClock {
public:
    bool sleepFor(std::chrono::milliseconds, const std::atomic<bool>*) override { return false; }
};

// The script of one input, and whether the daemon may take its answer as one.
CAnswerScript scriptFor(const uint8_t* data, size_t size, bool& mayAnswer)
{
    CAnswerScript s;
    mayAnswer = true;
    const uint8_t shape = data[0];
    const uint8_t number = data[1];
    const std::string body(reinterpret_cast<const char*>(data) + 2, size - 2);
    if (shape == 0xFF) {
        s.pieces = {body};
        return s;
    }
    static const int kStatus[] = {200, 200, 500, 0};
    const int status = (shape & 3) == 3 ? 100 + 2 * number : kStatus[shape & 3];
    long long length = -1;
    if (shape & 4)
        length = (shape & 8) ? (2LL << 20) : static_cast<long long>(body.size());
    s.head = CAnswerScript::Head(status, length);
    s.silent = (shape & 16) != 0;
    static const int kPauseMs[] = {0, 5, 10, 30};
    s.pause = std::chrono::milliseconds(kPauseMs[shape >> 6]);
    const size_t quarter = (body.size() + 3) / 4;
    for (size_t at = 0; at < body.size(); at += quarter ? quarter : 1)
        s.pieces.push_back(body.substr(at, quarter));
    if (shape & 32)
        s.repeatUpTo = size_t{4} << 20;
    // With a true Content-Length the client reads that much and no more of an endless body.
    const bool tooLong = body.size() > Json::Rpc::HttpClient::kMaxAnswer || (shape & 12) == 12 ||
                         ((shape & 4) == 0 && s.repeatUpTo > Json::Rpc::HttpClient::kMaxAnswer && !body.empty());
    mayAnswer = !s.silent && status >= 200 && status <= 299 && !tooLong;
    return s;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    fuzzLogAll();
    bool mayAnswer = true;
    const CAnswerScript script = scriptFor(data, size, mayAnswer);
    CAnswerServer server(script);
    std::string error;
    if (!server.Start(error))
        __builtin_trap();
    CJSONRPCConnector link("42", server.url(), server.url());
    link.setClock(std::make_shared<NoRetry>());
    link.setExchangeTimeout(std::chrono::milliseconds(100));
    Json::Value reply;
    const auto start = std::chrono::steady_clock::now();
    const bool ok = link.SendParameters("{\"id\":1,\"jsonrpc\":\"2.0\",\"method\":\"get_config2\"}\n", reply);
    if (std::chrono::steady_clock::now() - start > std::chrono::milliseconds(900))
        __builtin_trap();  // the exchange outlived its bound
    if (ok && !mayAnswer)
        __builtin_trap();  // no answer, an error status or too long an answer taken as an answer
    server.Stop();
    return 0;
}
