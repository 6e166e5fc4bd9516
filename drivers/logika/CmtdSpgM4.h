// SPDX-License-Identifier: Apache-2.0
#pragma once
// Logika gas volume correctors of the newer M4 generation (SPG742) over the
// binary M4 protocol (protocols/M4.h). Wire notes and the sources of the
// device facts open CmtdSpgM4.cpp.

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "drivers/logika/CLogikaBaseDriver.h"
#include "protocols/M4.h"

class CmtdSpgM4 : public logika::CLogikaBaseDriver {
public:
    enum Model { SPG742 = 1 };

    explicit CmtdSpgM4(int model);
    // For the factory's model table.
    static std::unique_ptr<CMtdBaseDriver> create(int model);
    ~CmtdSpgM4() override;

    const char* driverName() const override { return "CmtdSpgM4"; }
    void SaveConnector(CConnector* connector) override;
    bool init() override;
    std::vector<CValueRecord> get_all_curtime_cur_integ_values() override;
    std::vector<CValueRecord> get_all_system_values() override;
    bool hasArchive(int archType) const override;
    void get_arch_values(CArchiveSink& sink) override;
    bool GetTimestamps(time_t& deviceTime, int& rateHour) override;
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
    // Reads one parameter; false when it did not come or the meter refused it.
    bool readParam(const SParam& p, M4::ParamValue& value);
    bool deviceTime(time_t& t, std::string& text);
    // Takes the records of one archive reply apart; false at the first record
    // that must not be stored (damaged, out of order, off the period grid).
    bool parseArchive(const SArchive& arch, time_t from, time_t to, CArchiveSink& sink,
                      size_t& records, time_t& last);
    bool parseRecord(const SArchive& arch, const uint8_t* data, size_t size, ArchiveRecord& rec);
    // Pressure in the meter's unit to kgf/cm2; false for an unknown unit code.
    bool toKgfCm2(double value, double& out) const;

    int m_model;
    std::unique_ptr<M4::CM4> m_proto;
    uint16_t m_ident = 0;       // identification word from the session-start reply
    int m_rateHour = -1;        // contract hour
    int m_pressureUnit = -1;    // meter's pressure unit code
    bool m_session = false;
};
