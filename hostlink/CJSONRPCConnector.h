// SPDX-License-Identifier: Apache-2.0
#pragma once
// The daemon's link to the controller's host service: JSON-RPC 2.0 over HTTP
// POST on the loopback interface. It fetches the device configuration at
// start-up and publishes values from the polling thread; relay outputs go to
// the sensors service. Transport failures are never reported to the caller:
// SendParameters retries until the host service answers with valid JSON.
//
// While the host service is down the pause between attempts doubles from 5 ms
// up to 30 s, and the log gets each kind of failure once, then one summary a
// minute, then one line with the outage's length when it answers again: an
// outage of hours writes a few dozen lines, not millions, to the flash.

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "core/CDeviceConfig.h"
#include "core/CValueRecord.h"
#include "core/Defaults.h"

namespace Json {
class Value;
}
class CHostLinkClock;

class CJSONRPCConnector {
public:
    static constexpr std::chrono::milliseconds kFirstPause{5};
    static constexpr std::chrono::milliseconds kLongestPause{30000};
    static constexpr std::chrono::seconds kSummaryEvery{60};
    // A port time-out below this does not shorten an exchange further: a loopback
    // answer on a loaded controller may take a few hundred milliseconds.
    static constexpr std::chrono::milliseconds kShortestExchange{1000};

    explicit CJSONRPCConnector(std::string meterId, std::string hostUrl = mtd::defaults::kHostUrl,
                               std::string sensorsUrl = mtd::defaults::kSensorsUrl);
    ~CJSONRPCConnector();
    CJSONRPCConnector(const CJSONRPCConnector&) = delete;
    CJSONRPCConnector& operator=(const CJSONRPCConnector&) = delete;

    const std::string& meterId() const { return m_meterId; }

    // Builds the envelope, sends it with SendParameters; true when `reply` holds a parsed response.
    bool ExecJSONRPCFunc(const std::string& method, const Json::Value& params, Json::Value& reply);
    // The retrying exchange with the host service. Returns true once a reply was
    // received and parsed; false only when the cancel flag was raised meanwhile.
    bool SendParameters(const std::string& request, Json::Value& reply);

    bool GetInitParameters1(CDeviceConfig& config);  // "get_config"
    bool GetInitParameters2(CDeviceConfig& config);  // "get_config2"
    // Fill `config` from the text of a "get_config" / "get_config2" answer the
    // way the two exchanges above do; false (config untouched) when it is not JSON.
    bool ParseInitParameters1(const std::string& replyText, CDeviceConfig& config) const;
    bool ParseInitParameters2(const std::string& replyText, CDeviceConfig& config) const;

    void SendParameters2(const std::vector<CValueRecord>& values);       // "put_one_value" each
    void SendParameters_right(const std::vector<CValueRecord>& values);  // "put_current_value" each
    bool SendAllCurrentValues(const std::vector<CValueRecord>& values);  // one "put_all_current_values"
    // The "put_all_current_values" request text for `values` (takes the next id); nothing is sent.
    std::string BuildAllCurrentValuesRequest(const std::vector<CValueRecord>& values);

    // Switches relay output 1 or 2 through the sensors service; at most 50 attempts.
    bool ExecSensorsJSONRPCFunc(bool state, int rs232Number);

    // A raised flag makes SendParameters give up (orderly shutdown while the host is down);
    // it also cuts short an exchange in flight and a pause between attempts.
    void setCancelFlag(const std::atomic<bool>* cancel) { m_cancel = cancel; }
    // The clock of the pauses between attempts (tests pass one they drive by hand).
    void setClock(std::shared_ptr<CHostLinkClock> clock);
    // Bound of one exchange (connect, request, answer): never above the 5 s default.
    // The configuration fetch lowers it to the meter port's "timeout", not below kShortestExchange.
    void setExchangeTimeout(std::chrono::milliseconds timeout);
    std::chrono::milliseconds exchangeTimeout() const { return m_exchangeTimeout; }

private:
    // The JSON-RPC 2.0 envelope of the next request (takes the next id), one line ending in "\n".
    // `params` is taken by value so a caller that is done with it can move it in.
    std::string BuildRequest(const std::string& method, Json::Value params);
    void applyInitParameters1(const Json::Value& reply, CDeviceConfig& config) const;
    void applyInitParameters2(const Json::Value& reply, CDeviceConfig& config) const;
    bool cancelled() const { return m_cancel != nullptr && m_cancel->load(); }
    void limitExchangeToPort(const CDeviceConfig& config);

    std::string m_meterId;
    std::string m_hostUrl;
    std::string m_sensorsUrl;
    int m_requestId = 1;
    const std::atomic<bool>* m_cancel = nullptr;
    std::shared_ptr<CHostLinkClock> m_clock;
    std::chrono::milliseconds m_exchangeTimeout;
};
