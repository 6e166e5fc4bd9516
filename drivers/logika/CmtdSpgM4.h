// SPDX-License-Identifier: Apache-2.0
#pragma once
// Logika gas volume correctors of the newer M4 generation (SPG742) over the
// binary M4 protocol (protocols/M4.h). Wire notes and the sources of the
// device facts open CmtdSpgM4.cpp.

#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "drivers/logika/CLogikaBaseDriver.h"
#include "protocols/M4.h"

class CmtdSpgM4 : public logika::CLogikaBaseDriver {
public:
    enum Model { SPG742 = 1 };

    explicit CmtdSpgM4(int model);
    ~CmtdSpgM4() override;

    const char* driverName() const override { return "CmtdSpgM4"; }
    void SaveConnector(CConnector* connector) override;
    bool init() override;
    std::vector<CValueRecord> get_all_curtime_cur_integ_values() override;
    std::vector<CValueRecord> get_all_system_values() override;
    bool hasArchive(int archType) const override;
    void get_arch_values(CArchiveSink& sink) override;
    bool GetTimestamps(time_t& deviceTime, int& rateHour) override;
    void session_close() override;
    void cycle_end() override;
    void writeGasPasport() override;

    // The protocol object SaveConnector built (nullptr before), e.g. to replace its pauses.
    M4::CM4* protocol() { return m_proto.get(); }

    // One parameter read: name for the logs, channel and parameter number.
    struct SParam;
    // One archive: M4 archive code, channel, record period and the record's fields.
    struct SArchive;
    static const SArchive* findArchive(int archType);

private:
    struct SPointer {
        time_t next = 0;     // the meter's next-record pointer, 0 none
        time_t covered = 0;  // newest record time the read gave (else its window start - 1)
    };
    // Reads one parameter; false when it did not come or the meter refused it.
    bool readParam(const SParam& p, M4::ParamValue& value);
    bool deviceTime(time_t& t, std::string& text);
    // Reads one channel of an archive from mark `start` to mark `to`; `pointer`
    // is the meter's next-record pointer at the end (0: none).
    bool readChannel(const SArchive& arch, uint8_t channel, time_t start, time_t to,
                     std::vector<ArchiveRecord>& recs, SPointer& pointer, CArchiveSink* sink);
    bool parseArchive(const SArchive& arch, uint8_t channel, std::vector<ArchiveRecord>& recs, time_t& next);
    bool parseValues(const SArchive& arch, const uint8_t* data, size_t size, const std::string& prefix,
                     ArchiveRecord& rec);
    bool handOver(std::vector<ArchiveRecord>& recs, bool merge, CArchiveSink& sink);
    // A pressure in the unit of setting `unit` to kgf/cm2; false for an unknown unit code.
    bool toKgfCm2(const SParam& unit, double value, double& out);

    int m_model;
    std::unique_ptr<M4::CM4> m_proto;
    uint16_t m_ident = 0;       // identification word from the session-start reply
    int m_rateHour = -1;        // contract hour
    std::map<uint16_t, int> m_pressureUnits;  // unit setting's number -> the meter's unit code
    // Next-record pointer the meter gave at the end of the last read, per
    // archive and channel: where the next read starts, unless the window
    // starts at or before the newest record that read gave (a read again).
    std::map<size_t, SPointer> m_next;
    bool m_session = false;
};
