// SPDX-License-Identifier: Apache-2.0
// What a misbehaving or absent host service can cost the daemon: memory,
// time and log lines, each with a bound.

#include <gtest/gtest.h>
#include <json/json.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "hostlink/CJSONRPCConnector.h"
#include "hostlink/HostLinkFixture.h"
#include "hostlink/HttpClient.h"
#include "tools/hostsim/CAnswerServer.h"
#include "tools/hostsim/CHostSim.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// Peak resident memory of this process in KiB, from /proc/self/status. The peak
// is reset first when the kernel allows it (writing 5 to clear_refs).
long peakKiB()
{
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VmHWM:", 0) == 0)
            return std::stol(line.substr(6));
    return -1;
}

void resetPeak()
{
    std::ofstream("/proc/self/clear_refs") << "5";
}

// SendParameters against `url` until its first failure, which raises the
// stop flag; a watchdog raises it after `patience` so that an unbounded
// exchange fails the test instead of holding it. Returns how long it took.
struct OneFailure {
    bool ok = true;
    std::chrono::steady_clock::duration took{};
};

OneFailure sendUntilFirstFailure(const std::string& url, milliseconds exchange, seconds patience = seconds(20))
{
    CJSONRPCConnector link("42", url, url);
    std::atomic<bool> cancel{false};
    link.setCancelFlag(&cancel);
    link.setExchangeTimeout(exchange);
    auto clock = std::make_shared<StepClock>();
    clock->onPause = [&](milliseconds) { cancel = true; };
    link.setClock(clock);

    std::mutex mutex;
    std::condition_variable doneCv;
    bool done = false;
    std::thread watchdog([&] {
        std::unique_lock<std::mutex> lock(mutex);
        if (!doneCv.wait_for(lock, patience, [&] { return done; }))
            cancel = true;
    });
    OneFailure r;
    const auto start = std::chrono::steady_clock::now();
    Json::Value reply;
    r.ok = link.SendParameters("{\"id\":1,\"jsonrpc\":\"2.0\",\"method\":\"get_config2\"}\n", reply);
    r.took = std::chrono::steady_clock::now() - start;
    {
        std::lock_guard<std::mutex> lock(mutex);
        done = true;
    }
    doneCv.notify_all();
    watchdog.join();
    return r;
}

const char* const kReceiveError = "CJSONRPCConnector::SendParameters - Error while receiving data! retry!!! wait 5 sec";

// Answers that never end, never come, announce too much or come too slowly
// each cost one failed receive, within the exchange's bound.
TEST(HostLinkBounds, AnswersPastTheBoundsAreFailedReceives)
{
    const std::string json = "{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":{}}";
    auto endless = [] {
        CAnswerScript s;
        s.head = CAnswerScript::Head(200);
        s.pieces = {"[" + std::string(64 * 1024, ' ')};
        s.repeatUpTo = size_t{64} << 20;  // 64 MiB: "endless" for the client, bounded if the client never stops
        return s;
    };
    auto silent = [] {
        CAnswerScript s;
        s.silent = true;
        return s;
    };
    auto announcedTooLong = [&] {
        CAnswerScript s;
        s.head = CAnswerScript::Head(200, 2 << 20);
        s.pieces = {json};
        return s;
    };
    auto trickle = [&] {
        CAnswerScript s;
        s.head = CAnswerScript::Head(200);
        s.pieces = {json.substr(0, 5), json.substr(5, 5), json.substr(10)};
        s.pause = milliseconds(400);
        return s;
    };
    struct Row {
        const char* legend;
        CAnswerScript script;
    } rows[] = {
        {"endless body", endless()},
        {"accepts, never answers", silent()},
        {"Content-Length of 2 MiB", announcedTooLong()},
        {"body slower than the exchange's bound", trickle()},
    };
    for (Row& row : rows) {
        SCOPED_TRACE(row.legend);
        LogWatch log;
        CAnswerServer server(row.script);
        std::string error;
        ASSERT_TRUE(server.Start(error)) << error;
        resetPeak();
        const long before = peakKiB();
        const OneFailure r = sendUntilFirstFailure(server.url(), milliseconds(500));
        const long grew = peakKiB() - before;
        EXPECT_FALSE(r.ok);
        EXPECT_EQ(log.count(kReceiveError), 1u);
        EXPECT_LT(r.took, seconds(5));
        EXPECT_LT(grew, 20 * 1024) << "KiB";
        EXPECT_EQ(server.connections(), 1);
    }
}

// An answer just under the cap still counts as an answer.
TEST(HostLinkBounds, AnswerUpToOneMebibyteIsTaken)
{
    LogWatch log;
    std::string body = "{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":\"";
    const std::string tail = "\"}";
    body += std::string(Json::Rpc::HttpClient::kMaxAnswer - body.size() - tail.size(), 'x') + tail;
    CAnswerScript s;
    s.head = CAnswerScript::Head(200);
    s.pieces = {body};
    CAnswerServer server(s);
    std::string error;
    ASSERT_TRUE(server.Start(error)) << error;
    CJSONRPCConnector link("42", server.url(), server.url());
    Json::Value reply;
    testing::internal::CaptureStdout();
    EXPECT_TRUE(link.SendParameters("{}\n", reply));
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(reply["result"].asString().size(), body.size() - 36);
}

// HTTP 500 with a JSON body is no publication: a Warning, and the request again.
TEST(HostLinkBounds, HttpErrorStatusIsAWarningAndRetried)
{
    LogWatch log;
    CAnswerScript s;
    s.head = CAnswerScript::Head(500);
    s.pieces = {"{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":\"ok\"}"};
    CAnswerServer server(s);
    std::string error;
    ASSERT_TRUE(server.Start(error)) << error;
    const OneFailure r = sendUntilFirstFailure(server.url(), milliseconds(5000));
    EXPECT_FALSE(r.ok);
    const std::string status = "CJSONRPCConnector::SendParameters - HTTP status 500 from the host service! retry!!!";
    EXPECT_EQ(log.count(status), 1u);
    EXPECT_EQ(log.countContaining(status, logger::WARNING), 1);
}

// Ten minutes without a host service: the pauses double from 5 ms to 30 s, the
// error is written once, then a summary a minute, and the end of the outage
// once: fewer than 30 lines in all.
TEST(HostLinkBounds, TenMinuteOutageWritesFewLines)
{
    LogWatch log;
    LateHostService host;
    CJSONRPCConnector link("42", host.url(), host.url());
    auto clock = std::make_shared<StepClock>();
    link.setClock(clock);
    clock->onPause = [&](milliseconds elapsed) {
        if (elapsed >= std::chrono::minutes(10))
            host.up();
    };
    Json::Value reply;
    testing::internal::CaptureStdout();
    EXPECT_TRUE(link.SendParameters("{\"id\":1,\"jsonrpc\":\"2.0\",\"method\":\"get_config2\"}\n", reply));
    testing::internal::GetCapturedStdout();
    ASSERT_TRUE(host.started()) << host.error();

    const size_t all = log.count("");
    EXPECT_LT(all, 30u);
    EXPECT_EQ(log.count("Error while sending data! retry!!! wait 5 sec. Error code - 7"), 1u);
    const size_t summaries = log.count("CJSONRPCConnector::SendParameters - Error repeated ");
    EXPECT_GE(summaries, 8u);
    EXPECT_LE(summaries, 10u);
    const std::string end = "CJSONRPCConnector::SendParameters - the host service answered after 6";
    EXPECT_EQ(log.count(end), 1u);
    EXPECT_EQ(log.countContaining(end, logger::NOTICE), 1);

    const auto pauses = clock->pauses();
    ASSERT_GE(pauses.size(), 14u);
    EXPECT_EQ(pauses[0], milliseconds(5));
    for (size_t i = 1; i < pauses.size(); ++i)
        EXPECT_EQ(pauses[i], std::min(pauses[i - 1] * 2, milliseconds(30000))) << i;
    EXPECT_LT(pauses.size(), 40u);
}

// A stop ends a 30 s pause at once.
TEST(HostLinkBounds, StopCutsAPauseShort)
{
    CHostLinkClock clock;
    std::atomic<bool> cancel{false};
    const auto start = std::chrono::steady_clock::now();
    bool slept = true;
    std::thread t([&] { slept = clock.sleepFor(milliseconds(30000), &cancel); });
    cancel = true;
    t.join();
    EXPECT_FALSE(slept);
    EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(5));
}

// The meter's port time-out bounds the host exchange too, between 1 s and 5 s.
TEST(HostLinkBounds, PortTimeoutBoundsTheExchange)
{
    struct Row {
        const char* timeout;
        long expectedMs;
    } rows[] = {{"2000", 2000}, {"300", 1000}, {"60000", 5000}, {"", 5000}, {"fast", 5000}, {"-5", 5000}};
    std::string config = R"({"meters":{)";
    for (size_t i = 0; i < std::size(rows); ++i)
        config += (i ? "," : "") + std::string("\"m") + std::to_string(i) + "\":{\"port_params\":{\"timeout\":\"" +
                  rows[i].timeout + "\"}}";
    config += "}}";
    LogWatch log;
    CHostSimOptions o;
    o.hostPort = 0;
    o.sensorsPort = 0;
    CHostSim sim(o);
    std::string error;
    ASSERT_TRUE(sim.loadConfigText(config, error)) << error;
    ASSERT_TRUE(sim.Start(error)) << error;
    testing::internal::CaptureStdout();
    for (size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(rows[i].timeout);
        CJSONRPCConnector link("m" + std::to_string(i), sim.hostUrl(), sim.sensorsUrl());
        CDeviceConfig c;
        ASSERT_TRUE(link.GetInitParameters1(c));
        EXPECT_EQ(link.exchangeTimeout(), milliseconds(rows[i].expectedMs));
    }
    testing::internal::GetCapturedStdout();
}

}  // namespace
