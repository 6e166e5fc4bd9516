// SPDX-License-Identifier: Apache-2.0
#pragma once
// A stand-in for the controller's host service (port 8082) and sensors
// service (port 4665): JSON-RPC 2.0 over HTTP POST on the loopback interface.
// It answers "get_config" and "get_config2" from a JSON configuration file,
// accepts the publishing methods and "create_action", and keeps every request
// body it receives (in memory and, when asked, one JSON line per request in a
// record file). Fault modes let tests see the daemon's retries.
//
// Configuration file:
//   {"meters": {"<heat_meter id>": <"get_config" result object>, ...},
//    "config2": <"get_config2" result object>}

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

struct CHostSimOptions {
    std::string bind = "127.0.0.1";
    int hostPort = 8082;     // 0 picks a free port
    int sensorsPort = 4665;  // 0 picks a free port
    std::string recordFile;  // "" keeps requests in memory only
    int garbage = 0;         // the first N requests are answered with kGarbageReply
    bool rpcError = false;   // every valid request gets a JSON-RPC error object
    int endless = 0;         // the first N requests get an answer whose body never ends
};

class CHostSim {
public:
    // The reply text of the garbage fault mode: not JSON.
    static constexpr const char* kGarbageReply = "Service Temporarily Unavailable";
    // Error code of the rpc-error fault mode.
    static constexpr int kSimulatedErrorCode = -32000;

    explicit CHostSim(CHostSimOptions options);
    ~CHostSim();
    CHostSim(const CHostSim&) = delete;
    CHostSim& operator=(const CHostSim&) = delete;

    // The configuration served by "get_config"/"get_config2"; false with a reason on bad JSON.
    bool loadConfigText(const std::string& text, std::string& error);
    bool loadConfigFile(const std::string& path, std::string& error);

    // Binds and listens on both ports; connections are accepted from the moment this returns true.
    bool Start(std::string& error);
    // Stops both servers and joins their threads; idempotent.
    void Stop();

    int hostPort() const;
    int sensorsPort() const;
    std::string hostUrl() const;     // "http://<bind>:<port>/"
    std::string sensorsUrl() const;

    // Request bodies as received, both services, in arrival order.
    std::vector<std::string> requests() const;
    // Blocks until at least `count` requests arrived or the timeout passed.
    bool waitForRequests(size_t count, std::chrono::milliseconds timeout) const;

    // The JSON-RPC answer to one request body (also counts and records it).
    // `endless`, when given, tells whether the endless fault mode takes this request.
    std::string handle(const std::string& body, bool* endless = nullptr);

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};
