// SPDX-License-Identifier: Apache-2.0
#pragma once
// Volume correctors EK260/EK270 and volume converters TC210/TC215/TC220 over
// IEC 61107 mode C (see protocols/CGost61107.h for the frames).
//
// A session: sign-on with the network address, option select into programming
// mode at the speed the device offers, consumer lock opened with the consumer
// password (registers 4:170.0 state, 4:171.0 password), reads of registers
// "instance:register.attribute" answered "(value*unit)", and B0 at the end.
// Gas-passport writes need the supplier lock (3:170.0 / 3:171.0, EK only).
//
// Archives are data sets "<n>:V.0" read with "3;<from>;<to>;<count>": one
// record per line "(Npp)(ArchIdx)(2024-05-01,10:00:00)...(CRC)", blocks ended
// by EOT while more follow and by ETX on the last, the next block asked for
// with a bare ACK. Each record carries a CRC-16/ARC of its own text. EK: 3
// hourly, 7 daily, 4 events, 5 interventions; TC2xx: 3 is hourly or daily by
// its archiving period. The device clock is local time (config "pu_TZ", hours
// east of UTC).

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "framework/CMtdGasBaseDriver.h"
#include "protocols/CGost61107.h"

class CmtdEK2xxTC2xx : public gas::CMtdGasBaseDriver {
public:
    enum Model { EK260 = 1, EK270 = 2, TC220 = 3, TC210 = 4, TC215 = 5 };

    explicit CmtdEK2xxTC2xx(int model);
    ~CmtdEK2xxTC2xx() override;

    const char* driverName() const override { return "CmtdEK2xxTC2xx"; }
    void SaveConnector(CConnector* connector) override;
    bool init() override;
    std::vector<CValueRecord> get_all_curtime_cur_integ_values() override;
    std::vector<CValueRecord> get_all_system_values() override;
    bool hasArchive(int archType) const override;
    void get_arch_values(CArchiveSink& sink) override;
    bool GetTimestamps(time_t& deviceTime, int& rateHour) override;
    void cycle_end() override;
    void writeGasPasport() override;

    const char* getMeterModelName() const;
    // The protocol object SaveConnector built (nullptr before), e.g. to replace its pauses.
    CGost61107* protocol() { return m_proto.get(); }
    // Factor that turns a pressure in `unit` ("MPa", "kPa", "atm", "bar") into kgf/cm2; 0 when unknown.
    double getPressureCoef(const std::string& unit) const;

    // One row of a model's request table.
    struct SRequest;

private:
    using Parser = bool (CmtdEK2xxTC2xx::*)(const std::vector<std::string>& values);
    // The request tables of EK260/EK270 and of TC2xx.
    static const SRequest kEkTable[];
    static const SRequest kTcTable[];

    bool isTc() const { return m_model == TC210 || m_model == TC215 || m_model == TC220; }
    const SRequest* findRequest(const std::string& name) const;
    // Sends the named row (with `data` for rows that take an argument) and runs its parser.
    bool sendRequest(const std::string& name, const std::string& data = std::string());
    bool session_open();
    // The break: the device ends the session and closes both locks.
    void session_close() override;
    bool openConsumerAccess();
    bool openSupplierAccess();
    bool openLock(bool supplier);

    bool parseIdent(const std::vector<std::string>& values);
    bool parseOptAck(const std::vector<std::string>& values);
    bool parseConsumerLock(const std::vector<std::string>& values);
    bool parseConsumerAck(const std::vector<std::string>& values);
    bool parseRateHour(const std::vector<std::string>& values);
    bool parseArchPeriod(const std::vector<std::string>& values);
    bool parseKcMode(const std::vector<std::string>& values);
    bool parseHeaders(const std::vector<std::string>& values);
    bool parseUnits(const std::vector<std::string>& values);
    bool parseArchBlock(const std::vector<std::string>& values);
    bool parseArch(const std::vector<std::string>& values);
    // Hands one parsed record to the sink; false when the transfer ends at a hole.
    bool take(ArchiveRecord rec, long long number);
    // A record of the block failed its check or follows a hole: true when the
    // transfer ends before it (read again), false when it is taken as it is.
    bool endTransferAtDamage();
    bool parseResponse(const std::vector<std::string>& values);
    // "12.5*bar" -> value "12.5", unit "bar"; false for an error code "#0001".
    bool parseString(const std::string& text, std::string& value, std::string& unit);

    bool deviceTime(time_t& t);
    bool parseDateTime(const std::string& text, time_t& t) const;
    std::string archArgument(const SRequest& row, time_t from, time_t to, bool daily) const;
    bool isNextRequest(time_t to);
    double fromAtmToPassP(double atm, int unit) const;

    int m_model;
    std::unique_ptr<CGost61107> m_proto;
    std::vector<uint8_t> m_reply;

    // From the configuration (init).
    std::string m_consumerPassword, m_supplierPassword, m_address, m_sys = "1";
    int m_srvTZ = 0;

    // From the device.
    char m_deviceSpeed = '5';
    bool m_signedOn = false;      // sign-on and option select answered in this session
    std::string m_lockState;      // of the last lock check; "" when it got no answer
    // Per lock, for this session only: "1" open, "0" closed, "" not known.
    std::string m_consumerLockState, m_supplierLockState;
    std::string m_value, m_unit;  // of the last parseResponse
    int m_rateHour = -1;
    int m_archPeriodMin = 0;
    int m_kcMode = -1;  // -1 until read in this cycle
    bool m_hasPassport = false;
    int m_passPUnit = 0;  // DataUnit of PassP, learnt from the current values

    // Archive transfer in progress.
    const std::vector<const char*>* m_fields = nullptr;
    size_t m_headerCount = 0;
    bool m_events = false;
    time_t m_from = 0, m_to = 0, m_lastRecord = 0;
    bool m_hasIdx = false;        // the records carry the archive's own index
    size_t m_taken = 0;           // records the sink took in this read
    time_t m_period = 0;          // seconds between records of an interval archive; 0 journals
    CArchiveSink* m_sink = nullptr;  // the read in progress
    int m_archType = 0;
    bool m_damaged = false;  // this transfer ended at a damaged record
    // Where the last damaged record sat (archive, last good record before it)
    // and in how many transfers running: a record the meter itself holds
    // damaged must not stop the archive for ever.
    int m_damagedArch = 0;
    time_t m_damagedAfter = -1;
    int m_damagedTimes = 0;
};
