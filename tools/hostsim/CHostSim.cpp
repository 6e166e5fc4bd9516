// SPDX-License-Identifier: Apache-2.0
#include "tools/hostsim/CHostSim.h"

#include <httplib.h>
#include <json/json.h>

#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>
#include <utility>

namespace {

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};

const Json::Value& member(const Json::Value& v, const char* key)
{
    static const Json::Value null;
    if (!v.isObject())
        return null;
    const Json::Value* found = v.find(key, key + std::char_traits<char>::length(key));
    return found ? *found : null;
}

std::string compact(const Json::Value& v)
{
    Json::FastWriter writer;
    return writer.write(v);  // ends with "\n"
}

std::string errorReply(const Json::Value& id, int code, const std::string& message)
{
    Json::Value reply(Json::objectValue);
    reply["jsonrpc"] = "2.0";
    reply["id"] = id;
    reply["error"]["code"] = code;
    reply["error"]["message"] = message;
    return compact(reply);
}

std::string resultReply(const Json::Value& id, const Json::Value& result)
{
    Json::Value reply(Json::objectValue);
    reply["jsonrpc"] = "2.0";
    reply["id"] = id;
    reply["result"] = result;
    return compact(reply);
}

// One JSON line per request in the record file: the body as it came when it
// already is one line of JSON, else its compact form, else the text as a JSON string.
std::string recordLine(const std::string& body, bool parsed, const Json::Value& request)
{
    std::string line = body;
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.pop_back();
    if (parsed && line.find('\n') == std::string::npos)
        return line;
    if (parsed) {
        line = compact(request);
        line.pop_back();
        return line;
    }
    line = compact(Json::Value(body));
    line.pop_back();
    return line;
}

// One HTTP listener on its own thread.
class Listener {
public:
    explicit Listener(CHostSim& sim) : m_sim(sim)
    {
        auto serve = [this](const httplib::Request& req, httplib::Response& res) {
            bool endless = false;
            std::string answer = m_sim.handle(req.body, &endless);
            if (!endless) {
                res.set_content(answer, "application/json-rpc");
                return;
            }
            // The answer's start, then blanks in 64 KiB chunks until the client gives up.
            res.set_chunked_content_provider("application/json-rpc",
                                             [answer](size_t offset, httplib::DataSink& sink) {
                                                 static const std::string blanks(64 * 1024, ' ');
                                                 if (offset == 0)
                                                     return sink.write(answer.data(), answer.size() - 1);
                                                 return sink.is_writable() && sink.write(blanks.data(), blanks.size());
                                             });
        };
        m_server.Post("/.*", serve);
        // httplib's stop() does nothing until the accept loop has marked itself
        // running, and the task queue is created right after that mark: the
        // one moment Start can wait for, so that an early Stop is never lost.
        m_server.new_task_queue = [this] {
            markLoopEntered();
            return new httplib::ThreadPool(4);
        };
    }
    ~Listener() { Stop(); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    bool Start(const std::string& host, int port, std::string& error)
    {
        if (port == 0) {
            m_port = m_server.bind_to_any_port(host);
            if (m_port <= 0) {
                error = "cannot bind " + host + " to a free port";
                return false;
            }
        } else {
            if (!m_server.bind_to_port(host, port)) {
                error = "cannot bind " + host + ":" + std::to_string(port);
                return false;
            }
            m_port = port;
        }
        m_thread = std::thread([this] {
            m_server.listen_after_bind();
            markLoopEntered();  // in case the loop ended before it began
        });
        std::unique_lock<std::mutex> lock(m_mutex);
        m_loopEntered.wait(lock, [this] { return m_entered; });
        return true;
    }

    void Stop()
    {
        if (m_thread.joinable()) {
            m_server.stop();
            m_thread.join();
        }
    }

    int port() const { return m_port; }

private:
    void markLoopEntered()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_entered = true;
        m_loopEntered.notify_all();
    }

    CHostSim& m_sim;
    std::mutex m_mutex;
    std::condition_variable m_loopEntered;
    bool m_entered = false;
    httplib::Server m_server;
    std::thread m_thread;
    int m_port = 0;
};

}  // namespace

struct CHostSim::Impl {
    explicit Impl(CHostSimOptions o) : options(std::move(o)) {}

    CHostSimOptions options;
    mutable std::mutex mutex;
    mutable std::condition_variable arrived;
    Json::Value config{Json::objectValue};
    std::vector<std::string> requests;
    std::unique_ptr<FILE, FileCloser> record;
    std::unique_ptr<Listener> host;
    std::unique_ptr<Listener> sensors;
};

CHostSim::CHostSim(CHostSimOptions options) : m_impl(std::make_unique<Impl>(std::move(options))) {}

CHostSim::~CHostSim()
{
    Stop();
}

bool CHostSim::loadConfigText(const std::string& text, std::string& error)
{
    Json::Reader reader;
    Json::Value config;
    if (!reader.parse(text, config, false)) {
        error = "configuration is not JSON: " + reader.getFormattedErrorMessages();
        return false;
    }
    if (!config.isObject()) {
        error = "configuration must be a JSON object";
        return false;
    }
    const Json::Value& meters = member(config, "meters");
    if (!meters.isNull() && !meters.isObject()) {
        error = "\"meters\" must be an object keyed by meter id";
        return false;
    }
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->config = std::move(config);
    return true;
}

bool CHostSim::loadConfigFile(const std::string& path, std::string& error)
{
    std::ifstream in(path);
    if (!in) {
        error = "cannot read " + path;
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    return loadConfigText(text.str(), error);
}

bool CHostSim::Start(std::string& error)
{
    Impl& d = *m_impl;
    if (d.host)
        return true;
    if (!d.options.recordFile.empty()) {
        FILE* f = std::fopen(d.options.recordFile.c_str(), "ae");  // append, close-on-exec
        if (!f) {
            error = "cannot open record file " + d.options.recordFile;
            return false;
        }
        std::lock_guard<std::mutex> lock(d.mutex);
        d.record.reset(f);
    }
    auto host = std::make_unique<Listener>(*this);
    auto sensors = std::make_unique<Listener>(*this);
    if (!host->Start(d.options.bind, d.options.hostPort, error))
        return false;
    if (!sensors->Start(d.options.bind, d.options.sensorsPort, error))
        return false;  // host's destructor stops it
    d.host = std::move(host);
    d.sensors = std::move(sensors);
    return true;
}

void CHostSim::Stop()
{
    if (m_impl->host)
        m_impl->host->Stop();
    if (m_impl->sensors)
        m_impl->sensors->Stop();
}

int CHostSim::hostPort() const
{
    return m_impl->host ? m_impl->host->port() : 0;
}

int CHostSim::sensorsPort() const
{
    return m_impl->sensors ? m_impl->sensors->port() : 0;
}

std::string CHostSim::hostUrl() const
{
    return "http://" + m_impl->options.bind + ":" + std::to_string(hostPort()) + "/";
}

std::string CHostSim::sensorsUrl() const
{
    return "http://" + m_impl->options.bind + ":" + std::to_string(sensorsPort()) + "/";
}

std::vector<std::string> CHostSim::requests() const
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    return m_impl->requests;
}

bool CHostSim::waitForRequests(size_t count, std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(m_impl->mutex);
    return m_impl->arrived.wait_for(lock, timeout, [&] { return m_impl->requests.size() >= count; });
}

std::string CHostSim::handle(const std::string& body, bool* endless)
{
    Impl& d = *m_impl;
    Json::Reader reader;
    Json::Value request;
    const bool parsed = reader.parse(body, request, false);

    std::lock_guard<std::mutex> lock(d.mutex);
    d.requests.push_back(body);
    const size_t number = d.requests.size();
    if (d.record) {
        const std::string line = recordLine(body, parsed, request) + "\n";
        std::fwrite(line.data(), 1, line.size(), d.record.get());
        std::fflush(d.record.get());
    }
    d.arrived.notify_all();

    const size_t garbage = static_cast<size_t>(d.options.garbage > 0 ? d.options.garbage : 0);
    if (number <= garbage)
        return kGarbageReply;
    if (endless)
        *endless = number <= garbage + static_cast<size_t>(d.options.endless > 0 ? d.options.endless : 0);

    if (!parsed)
        return errorReply(Json::Value(), -32700, "Parse error");
    const Json::Value& id = member(request, "id");
    const Json::Value& method = member(request, "method");
    if (!method.isString())
        return errorReply(id, -32600, "Invalid Request");
    if (d.options.rpcError)
        return errorReply(id, kSimulatedErrorCode, "simulated host service failure");

    const std::string name = method.asString();
    const Json::Value& params = member(request, "params");
    if (name == "get_config") {
        const Json::Value& meterId = member(params, "heat_meter");
        if (!meterId.isString())
            return errorReply(id, -32602, "Invalid params: \"heat_meter\" must be a string");
        const Json::Value& meter = member(member(d.config, "meters"), meterId.asCString());
        if (meter.isNull())
            return errorReply(id, -32602, "unknown heat_meter " + meterId.asString());
        return resultReply(id, meter);
    }
    if (name == "get_config2") {
        const Json::Value& config2 = member(d.config, "config2");
        if (config2.isNull())
            return errorReply(id, -32602, "no \"config2\" in the configuration");
        return resultReply(id, config2);
    }
    if (name == "put_one_value" || name == "put_current_value" || name == "put_all_current_values" ||
        name == "create_action")
        return resultReply(id, "ok");
    return errorReply(id, -32601, "Method not found");
}
