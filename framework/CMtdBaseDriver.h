#pragma once
// Base of every device driver. The polling thread (functionThread) is the same
// for all drivers: wait for the turn, open the port, init, system values,
// passport, current values (published in one call), the archives that are due,
// give the turn back, wait data_rate seconds. A driver overrides the device
// operations below; the schedule and the storage of records live here.
//
// Exceptions thrown by a device operation end the cycle (see Exceptions.h);
// the schedule survives and what was stored stays stored.

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "framework/myThreadAttached.h"
#include "hostlink/CDeviceConfig.h"
#include "hostlink/CValueRecord.h"
#include "storage/ArchiveRecord.h"

class CConnector;
class CJSONRPCConnector;

class CMtdBaseDriver : public myThreadAttached {
public:
    CMtdBaseDriver();
    ~CMtdBaseDriver() override;

    // Chooses the driver class from config "manufacturer" by the model table,
    // wires it to the host link and the shared connector and starts its thread.
    static std::unique_ptr<CMtdBaseDriver> create_and_init(const CDeviceConfig& config, CConnector* connector,
                                                           CJSONRPCConnector* rpc);

    // ---- device operations, in the drivers' slot order ----
    virtual int ReadHourlyArch();
    virtual int ReadDailyArch();
    // Waits `seconds`; a driver overriding it replaces the inline data_rate wait.
    virtual void Wait(int seconds, bool flag);
    // Stores the shared connector and builds the driver's protocol object on it.
    virtual void SaveConnector(CConnector* connector);
    // First exchange with the device after the port is open.
    virtual bool init();
    // Current time, current and totaliser values.
    virtual std::vector<CValueRecord> get_all_curtime_cur_integ_values();
    // Serial number, firmware, contract hour, ...; empty when the device did not answer.
    virtual std::vector<CValueRecord> get_all_system_values();
    // Appends the records of one archive kind with from <= time <= to to `out`,
    // oldest first, each complete. What was appended before an exception is kept.
    virtual void get_arch_values(int archType, time_t from, time_t to, std::vector<ArchiveRecord>& out);
    // True when an hourly or daily read is due; also called by the main thread every 5 s.
    virtual bool GetArchActual();
    // Device time and contract (rate) hour; false when unknown.
    virtual bool GetTimestamps(time_t& deviceTime, int& rateHour);
    // Called before writeGasPasport.
    virtual void before_write_passport();
    // Called when the cycle has ended and the turn is given back.
    virtual void cycle_end();
    // Reading window for the fifth schedule entry; 0 when the driver has none.
    virtual time_t sync_time(time_t storedTimestamp);
    // Writes requested gas-passport values into the device.
    virtual void writeGasPasport();

    // ---- turn-taking with the main thread ----
    void GiveTurn();                // main thread: set the turn flag and wake the thread
    bool HasTurn() const;           // true until the thread clears it at the end of its cycle
    bool CycleDone() const;

    const CDeviceConfig& config() const { return m_config; }
    // Name used in log lines ("[%lld][%s] ").
    virtual const char* driverName() const { return "CMtdBaseDriver"; }

    void setJSONRPCConnector(CJSONRPCConnector* rpc) { m_rpc = rpc; }
    void save_init_params(const CDeviceConfig& config);

protected:
    void functionThread() override;

    // The meter identifier as a number, for the "[%lld]" of log lines.
    long long logId() const { return m_logId; }

    CDeviceConfig m_config;
    long long m_logId = 0;
    CConnector* m_connector = nullptr;
    CJSONRPCConnector* m_rpc = nullptr;
    int data_rate = 300;

    std::atomic<uint8_t> m_turn{0};
    std::atomic<uint8_t> m_cycleDone{0};

    std::atomic<time_t> when_next_arch_hourly{0};
    std::atomic<time_t> when_next_arch_daily{0};
    std::atomic<time_t> when_next_arch_journal_event{0};
    std::atomic<time_t> when_next_arch_journal_intervent{0};
};
