// SPDX-License-Identifier: Apache-2.0
#include "hostlink/CJSONRPCConnector.h"

#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <iostream>
#include <utility>

#include "core/PortSettings.h"
#include "core/logger.h"
#include "hostlink/CHostLinkClock.h"
#include "hostlink/HttpClient.h"

namespace {

using std::chrono::milliseconds;

// The sensors service's attempts stay 5 ms apart (the log texts of the host
// link say "wait 5 sec"; the real pause always was 5 ms): there are at most 50.
constexpr milliseconds kSensorsPause{5};
constexpr int kSensorsAttempts = 50;

// Members of a reply that may not be an object at all (a misbehaving host
// service): jsoncpp throws on operator[] of a non-object, so look first.
const Json::Value& member(const Json::Value& v, const char* key)
{
    static const Json::Value null;
    if (!v.isObject())
        return null;
    const Json::Value* found = v.find(key, key + std::char_traits<char>::length(key));
    return found ? *found : null;
}

// Scalars as jsoncpp renders them with asString; nested objects and arrays,
// which asString refuses, as their compact JSON text.
std::string toText(const Json::Value& v)
{
    if (v.isObject() || v.isArray()) {
        Json::FastWriter writer;
        std::string text = writer.write(v);
        if (!text.empty() && text.back() == '\n')
            text.pop_back();
        return text;
    }
    return v.asString();
}

void fillMap(const Json::Value& object, ConfigMap& map)
{
    if (!object.isObject())
        return;
    for (auto it = object.begin(); it != object.end(); ++it)
        map[it.name()] = toText(*it);
}

// Seconds between current-value reads for meters that must not be read often.
// Exact, case-sensitive names; "km-5" also as part of a longer name.
std::string periodCurrentDefault(const std::string& manufacturer, const char* otherwise)
{
    if (manufacturer == "vkt-7")
        return "14400";
    if (manufacturer == "vkt-9")
        return "5400";
    if (manufacturer.find("km-5") != std::string::npos)
        return "300";
    return otherwise;
}

long long parseDecimal(const std::string& text)
{
    return std::strtoll(text.c_str(), nullptr, 10);  // leading digits; "" or "abc" give 0
}

int parseDecimalInt(const std::string& text)
{
    long long v = parseDecimal(text);
    if (v > INT_MAX)
        return INT_MAX;
    if (v < INT_MIN)
        return INT_MIN;
    return static_cast<int>(v);
}

// The host service's answer as JSON. jsoncpp throws (instead of failing) on
// some malformed texts, for instance nesting deeper than its stack limit; that
// is one more answer that is not JSON.
bool parseResponse(const std::string& text, Json::Value& out)
{
    try {
        Json::Reader reader;
        return reader.parse(text, out, true);
    } catch (const std::exception&) {
        return false;
    }
}

// One exchange with a service and what became of it.
struct Attempt {
    enum Kind { ANSWERED, SEND_FAILED, RECEIVE_FAILED, BAD_STATUS };
    Kind kind = ANSWERED;
    int code = 0;       // libcurl code of SEND_FAILED
    long status = 0;    // HTTP status of BAD_STATUS
    std::string why;    // libcurl's own words on a failure
    std::string text;   // the answer of ANSWERED
};

Attempt exchange(const std::string& url, const std::string& request, const std::atomic<bool>* cancel,
                 milliseconds timeout)
{
    Json::Rpc::HttpClient client(url);
    client.SetAbortFlag(cancel);
    client.SetExchangeTimeout(timeout);
    Attempt a;
    a.code = client.Send(request);
    a.why = client.ErrorText();
    if (a.code != 0)
        a.kind = Attempt::SEND_FAILED;
    else if (client.Status() != 0 && (client.Status() < 200 || client.Status() > 299)) {
        a.kind = Attempt::BAD_STATUS;
        a.status = client.Status();
    } else if (client.Recv(a.text) == -1)
        a.kind = Attempt::RECEIVE_FAILED;
    return a;
}

// The log of one run of failed attempts. Each kind of failure (a libcurl code,
// an HTTP status, no answer, an answer that is not JSON) is written in full the
// first time; after that the failures are only counted, and a summary line
// with the count is written when a minute has passed since the last line.
class COutageLog {
public:
    explicit COutageLog(const CHostLinkClock& clock) : m_clock(clock) {}

    // True when the caller writes this failure's lines in full.
    bool failed(long kind)
    {
        const CHostLinkClock::time_point t = m_clock.now();
        if (m_failures++ == 0)
            m_start = t;
        if (std::find(m_kinds.begin(), m_kinds.end(), kind) == m_kinds.end()) {
            m_kinds.push_back(kind);
            m_lastLine = t;
            return true;
        }
        ++m_unwritten;
        if (t - m_lastLine >= CJSONRPCConnector::kSummaryEvery) {
            MTD_LOG(Err, "CJSONRPCConnector::SendParameters - Error repeated %d times, no answer for %lld s",
                    m_unwritten, seconds(t));
            m_unwritten = 0;
            m_lastLine = t;
        }
        return false;
    }

    void answered() const
    {
        if (m_failures > 0)
            MTD_LOG(Notice, "CJSONRPCConnector::SendParameters - the host service answered after %lld s and %d failed attempts",
                    seconds(m_clock.now()), m_failures);
    }

private:
    long long seconds(CHostLinkClock::time_point t) const
    {
        return static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(t - m_start).count());
    }

    const CHostLinkClock& m_clock;
    CHostLinkClock::time_point m_start;
    CHostLinkClock::time_point m_lastLine;
    std::vector<long> m_kinds;
    int m_failures = 0;
    int m_unwritten = 0;
};

// Keys of the failure kinds for COutageLog.
long failureKind(const Attempt& a, bool notJson)
{
    if (notJson)
        return 1;
    switch (a.kind) {
    case Attempt::RECEIVE_FAILED: return 2;
    case Attempt::SEND_FAILED: return 1000L + a.code;
    default: return 100000L + a.status;
    }
}

}  // namespace

CJSONRPCConnector::CJSONRPCConnector(std::string meterId, std::string hostUrl, std::string sensorsUrl)
    : m_meterId(std::move(meterId)),
      m_hostUrl(std::move(hostUrl)),
      m_sensorsUrl(std::move(sensorsUrl)),
      m_clock(std::make_shared<CHostLinkClock>()),
      m_exchangeTimeout(Json::Rpc::HttpClient::kExchangeTimeout)
{
}

CJSONRPCConnector::~CJSONRPCConnector() = default;

void CJSONRPCConnector::setClock(std::shared_ptr<CHostLinkClock> clock)
{
    if (clock)
        m_clock = std::move(clock);
}

void CJSONRPCConnector::setExchangeTimeout(milliseconds timeout)
{
    m_exchangeTimeout = std::clamp(timeout, milliseconds(1), milliseconds(Json::Rpc::HttpClient::kExchangeTimeout));
}

// The meter's port "timeout" (ms) bounds what the meter may keep the polling
// thread waiting; the host service gets no more than that.
void CJSONRPCConnector::limitExchangeToPort(const CDeviceConfig& config)
{
    const PortSettings port = PortSettings::parse(config.params);
    if (!port.timeoutGiven || port.timeoutMs < 0)
        return;
    setExchangeTimeout(std::min(m_exchangeTimeout, std::max(milliseconds(port.timeoutMs), kShortestExchange)));
}

std::string CJSONRPCConnector::BuildRequest(const std::string& method, Json::Value params)
{
    Json::Value request(Json::objectValue);
    request["jsonrpc"] = "2.0";
    request["id"] = m_requestId;
    // The id wraps like the host service's 32-bit counter would, without overflow.
    m_requestId = static_cast<int>(static_cast<unsigned>(m_requestId) + 1u);
    request["method"] = method;
    if (!params.isNull())
        request["params"] = std::move(params);
    Json::FastWriter writer;
    return writer.write(request);
}

bool CJSONRPCConnector::ExecJSONRPCFunc(const std::string& method, const Json::Value& params, Json::Value& reply)
{
    const std::string request = BuildRequest(method, params);
    MTD_LOG(Info, "CJSONRPCConnector::ExecJSONRPCFunc query is %s", request.c_str());
    return SendParameters(request, reply);
}

bool CJSONRPCConnector::SendParameters(const std::string& request, Json::Value& reply)
{
    COutageLog outage(*m_clock);
    milliseconds pause = kFirstPause;
    while (!cancelled()) {
        const Attempt a = exchange(m_hostUrl, request, m_cancel, m_exchangeTimeout);
        Json::Value parsed;
        bool notJson = false;
        if (a.kind == Attempt::ANSWERED) {
            std::cout << "result JSONRPC" << a.text << std::endl;
            notJson = !parseResponse(a.text, parsed);
            if (!notJson) {
                outage.answered();
                const Json::Value& error = member(parsed, "error");
                if (!error.isNull())
                    MTD_LOG(Warning, "CJSONRPCConnector::SendParameters - the host service answered with an error: %s",
                            toText(error).c_str());
                reply = std::move(parsed);
                return true;
            }
        }
        if (cancelled())
            break;  // the abort of an exchange in flight is no failure of the host service
        if (outage.failed(failureKind(a, notJson))) {
            if (notJson) {
                MTD_LOG(Err, "CJSONRPCConnector::SendParameters - Error while parsing data! retry!!! wait 5 sec");
                MTD_LOG(Err, "Response String - %s", a.text.c_str());
            } else if (a.kind == Attempt::SEND_FAILED) {
                MTD_LOG(Err,
                        "CJSONRPCConnector::SendParameters - Error while sending data! retry!!! wait 5 sec. Error "
                        "code - %d",
                        a.code);
            } else if (a.kind == Attempt::BAD_STATUS) {
                MTD_LOG(Warning, "CJSONRPCConnector::SendParameters - HTTP status %ld from the host service! retry!!!",
                        a.status);
            } else {
                MTD_LOG(Err, "CJSONRPCConnector::SendParameters - Error while receiving data! retry!!! wait 5 sec");
            }
            if (!a.why.empty())
                MTD_LOG(Info, "CJSONRPCConnector::SendParameters - libcurl: %s", a.why.c_str());
        }
        if (!m_clock->sleepFor(pause, m_cancel))
            break;
        pause = std::min(pause * 2, kLongestPause);
    }
    return false;
}

bool CJSONRPCConnector::GetInitParameters1(CDeviceConfig& config)
{
    Json::Value params(Json::objectValue);
    params["heat_meter"] = m_meterId;
    Json::Value reply;
    if (!ExecJSONRPCFunc("get_config", params, reply)) {
        MTD_LOG(Err, "CJSONRPCConnector::GetInitParameters1 - Error while receiving data!");
        return false;
    }
    applyInitParameters1(reply, config);
    limitExchangeToPort(config);
    return true;
}

bool CJSONRPCConnector::ParseInitParameters1(const std::string& replyText, CDeviceConfig& config) const
{
    Json::Value reply;
    if (!parseResponse(replyText, reply))
        return false;
    applyInitParameters1(reply, config);
    return true;
}

void CJSONRPCConnector::applyInitParameters1(const Json::Value& reply, CDeviceConfig& config) const
{
    config.meter_id = m_meterId;
    const Json::Value& result = member(reply, "result");
    fillMap(member(result, "port_params"), config.params);

    if (config.get("period_current").empty())
        config.params["period_current"] = periodCurrentDefault(config.get("manufacturer"), "20");

    std::string& systems = config.params["systems"];
    const Json::Value& list = member(result, "systems");
    if (list.isArray()) {
        for (const Json::Value& element : list) {
            const std::string text = toText(element);
            if (!text.empty())
                systems += text + ";";
        }
    }

    auto text = [&config](const char* key, std::string& field) {
        if (config.has(key))
            field = config.get(key);
    };
    text("true_serial", config.true_serial);
    if (config.has("serial")) {
        config.serial_text = config.get("serial");
        config.serial = parseDecimal(config.serial_text);
    }
    text("password", config.password);
    text("password_type", config.password_type);
    text("password1", config.password1);
    text("password2", config.password2);
    text("manufacturer", config.manufacturer);
    if (config.has("data_rate"))
        config.data_rate = parseDecimalInt(config.get("data_rate"));
    if (config.has("speed"))
        config.speed = parseDecimalInt(config.get("speed"));
    text("alias", config.alias);
}

bool CJSONRPCConnector::GetInitParameters2(CDeviceConfig& config)
{
    Json::Value reply;
    if (!ExecJSONRPCFunc("get_config2", Json::Value(), reply)) {
        MTD_LOG(Err, "CJSONRPCConnector::GetInitParameters2 - Error while receiving data!");
        return false;
    }
    applyInitParameters2(reply, config);
    limitExchangeToPort(config);
    return true;
}

bool CJSONRPCConnector::ParseInitParameters2(const std::string& replyText, CDeviceConfig& config) const
{
    Json::Value reply;
    if (!parseResponse(replyText, reply))
        return false;
    applyInitParameters2(reply, config);
    return true;
}

void CJSONRPCConnector::applyInitParameters2(const Json::Value& reply, CDeviceConfig& config) const
{
    config.meter_id = m_meterId;
    const Json::Value& result = member(reply, "result");
    fillMap(member(result, "port_params"), config.params);

    const Json::Value& drivers = member(result, "drivers");
    if (drivers.isArray()) {
        for (const Json::Value& element : drivers) {
            ConfigMap entry;
            fillMap(element, entry);
            auto period = entry.find("period_current");
            if (period == entry.end() || period->second.empty()) {
                auto manufacturer = entry.find("manufacturer");
                const std::string value =
                    periodCurrentDefault(manufacturer == entry.end() ? std::string() : manufacturer->second, "");
                if (!value.empty())
                    entry["period_current"] = value;
            }
            config.drivers.push_back(std::move(entry));
        }
    }
}

void CJSONRPCConnector::SendParameters2(const std::vector<CValueRecord>& values)
{
    for (const CValueRecord& v : values) {
        Json::Value params(Json::objectValue);
        params["value_name"] = v.name;
        params["value"] = v.value;
        params["dim"] = v.dim;
        params["opc_quality"] = v.quality;
        params["error"] = v.error;
        params["sys"] = v.sys;
        params["timestamp"] = static_cast<Json::Int64>(v.timestamp);
        const std::string request = BuildRequest("put_one_value", params);
        MTD_LOG(Info, "CJSONRPCConnector::SendParameters2 query is %s", request.c_str());
        Json::Value reply;
        if (!SendParameters(request, reply))
            return;  // shutting down
    }
}

void CJSONRPCConnector::SendParameters_right(const std::vector<CValueRecord>& values)
{
    for (const CValueRecord& v : values) {
        Json::Value params(Json::objectValue);
        params["value_name"] = v.name;
        params["value"] = v.value;
        params["opc_quality"] = v.quality;
        params["timestamp"] = static_cast<Json::Int64>(v.timestamp);
        const std::string request = BuildRequest("put_current_value", params);
        MTD_LOG(Info, "CJSONRPCConnector::SendParameters_right query is %s", request.c_str());
        Json::Value reply;
        if (!SendParameters(request, reply))
            return;  // shutting down
    }
}

std::string CJSONRPCConnector::BuildAllCurrentValuesRequest(const std::vector<CValueRecord>& values)
{
    Json::Value params(Json::arrayValue);
    for (const CValueRecord& v : values) {
        Json::Value item(Json::objectValue);
        item["name"] = v.name;
        item["value"] = v.value;
        item["dim"] = v.dim;
        item["quality"] = v.quality;
        item["error"] = v.error;
        item["sys"] = v.sys;
        item["timestamp"] = static_cast<Json::Int64>(v.timestamp);
        params.append(std::move(item));
    }
    // Moved, not copied: a deep copy of twenty objects costs as much as building them.
    return BuildRequest("put_all_current_values", std::move(params));
}

bool CJSONRPCConnector::SendAllCurrentValues(const std::vector<CValueRecord>& values)
{
    const std::string request = BuildAllCurrentValuesRequest(values);
    MTD_LOG(Info, "CJSONRPCConnector::ExecJSONRPCFunc query is %s", request.c_str());
    Json::Value reply;
    if (!SendParameters(request, reply)) {
        MTD_LOG(Err, "CJSONRPCConnector::SendParameters - Error while sending data!");
        return false;
    }
    return true;
}

bool CJSONRPCConnector::ExecSensorsJSONRPCFunc(bool state, int rs232Number)
{
    // The controller's two service relay outputs, as the sensors service names them.
    const char* output = nullptr;
    if (rs232Number == 1)
        output = "teploKX.SRVC_OUT2";
    else if (rs232Number == 2)
        output = "teploKX.SRVC_OUT3";
    else {
        MTD_LOG(Err, "CJSONRPCConnector::ExecSensorsJSONRPCFunc - WRONG RS232 NUMBER %d", rs232Number);
        return false;
    }

    Json::Value params(Json::arrayValue);
    params.append("EventRelay");
    params.append("SensorTeploKXbinary");
    params.append(output);
    params.append(state);
    const std::string request = BuildRequest("create_action", params);
    MTD_LOG(Debug, "CJSONRPCConnector::ExecSensorsJSONRPCFunc(): request = '%s'", request.c_str());
    MTD_LOG(Debug, "CJSONRPCConnector::ExecSensorsJSONRPCFunc(): send request to '%s'", m_sensorsUrl.c_str());

    for (int attempt = 0; attempt < kSensorsAttempts && !cancelled(); ++attempt) {
        const Attempt a = exchange(m_sensorsUrl, request, m_cancel, m_exchangeTimeout);
        if (a.kind == Attempt::SEND_FAILED) {
            MTD_LOG(Err, "CJSONRPCConnector::ExecSensorsJSONRPCFunc() - ERROR SENDING DATA = %d", a.code);
            if (!m_clock->sleepFor(kSensorsPause, m_cancel))
                break;
            continue;
        }
        if (a.kind == Attempt::BAD_STATUS) {
            MTD_LOG(Warning, "CJSONRPCConnector::ExecSensorsJSONRPCFunc() - HTTP STATUS %ld", a.status);
            continue;
        }
        if (a.kind == Attempt::RECEIVE_FAILED) {
            MTD_LOG(Err, "CJSONRPCConnector::ExecSensorsJSONRPCFunc() - ERROR RECEIVING DATA");
            continue;
        }
        MTD_LOG(Debug, "CJSONRPCConnector::ExecSensorsJSONRPCFunc(): response = '%s'", a.text.c_str());
        Json::Value reply;
        if (parseResponse(a.text, reply))
            return true;
        MTD_LOG(Err, "CJSONRPCConnector::ExecSensorsJSONRPCFunc() - ERROR PARSING DATA");
    }
    return false;
}
