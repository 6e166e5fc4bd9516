// SPDX-License-Identifier: Apache-2.0
#pragma once
// Any Modbus RTU meter whose register map is written down in a template: model
// strings "modbus:<template>". Wire notes and the record rules open
// CmtdModbusTemplate.cpp; the template format is in CModbusTemplate.h and
// docs/modbus-templates.md.

#include <cstdint>
#include <ctime>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "drivers/modbus/CModbusTemplate.h"
#include "framework/CMtdGasBaseDriver.h"

class CmtdModbusTemplate : public gas::CMtdGasBaseDriver {
public:
    CmtdModbusTemplate();
    ~CmtdModbusTemplate() override;

    const char* driverName() const override { return "CmtdModbusTemplate"; }
    // Also loads the template (once): a bad one is logged here, in one Error
    // line, and the meter is then never spoken to.
    void SaveConnector(CConnector* connector) override;
    bool init() override;
    std::vector<CValueRecord> get_all_curtime_cur_integ_values() override;
    std::vector<CValueRecord> get_all_system_values() override;
    void get_arch_values(CArchiveSink& sink) override;
    // Hourly and daily: read from the meter where the template shows them, else kept by the daemon.
    bool hasArchive(int archType) const override;
    // The meter's own reading of a time: "YYYY-MM-DD,hh:mm:ss" in its zone.
    std::string clockText(time_t t) const override;
    bool GetTimestamps(time_t& deviceTime, int& rateHour) override;
    void writeGasPasport() override;

    bool templateLoaded() const { return m_loaded; }
    const CModbusTemplate& modbusTemplate() const { return m_tpl; }

    // One transaction's outcome on the line.
    struct Reply {
        enum Status { Ok, Refused, NoAnswer } status = NoAnswer;
        uint8_t exception = 0;  // Refused: the Modbus exception code
    };
    class Line;

private:
    // Reads `count` registers or bits; busy answers are asked again.
    Reply readBlock(ModbusKind kind, uint16_t address, uint16_t count, uint16_t* out, const char* what);
    Reply writeSelect(uint16_t address, uint32_t value);
    // Reads the fields with as few transactions as the template allows; `ok[i]`
    // tells which came. A refused merged read is asked again value by value.
    void readFields(const std::vector<ModbusField>& fields, const std::vector<ModbusBlock>& plan,
                    std::vector<std::vector<uint16_t>>& regs, std::vector<bool>& ok);
    // The meter's clock; false (logged) when it did not come or is not a time.
    bool readClock(const ModbusClock& clock, const uint16_t* regs, time_t& t, const char* where);
    bool readDeviceTime(time_t& t);
    std::string formatValue(const ModbusValue& v, double scaled) const;
    bool scaledValue(const ModbusValue& v, const uint16_t* regs, double& out) const;
    int contractHour() const;

    // The records the daemon keeps for an archive the meter does not show.
    void keepRecords(time_t readAt, const std::vector<std::pair<std::string, std::string>>& totals);
    void pendingRecords(CArchiveSink& sink);
    void readArchive(const ModbusArchive& a, CArchiveSink& sink);
    // Hands one record to the sink; a hole before it is the meter's own (the
    // record was not there to read). False when the transfer should end.
    bool offer(CArchiveSink& sink, const ArchiveRecord& rec, long long number);
    // Seconds between the records of a kind, and where its grid lies (the
    // contract hour of the meter's day for daily records).
    time_t periodOf(int archType) const;
    time_t gridOffsetOf(int archType) const;
    bool readRecord(const ModbusArchive& a, uint32_t select, ArchiveRecord& rec, bool& missing);

    CModbusTemplate m_tpl;
    bool m_loaded = false;
    bool m_triedLoad = false;
    int m_slave = 1;
    std::unique_ptr<Line> m_line;
    std::vector<ModbusField> m_valueFields;
    std::vector<ModbusBlock> m_valuePlan;
    time_t m_deviceTime = 0;
    std::string m_sys = "1";

    struct Kept {
        time_t lastMade = 0;           // newest record made (or found stored)
        bool fromStore = false;        // lastMade has seen the store
        std::deque<ArchiveRecord> pending;  // made, not yet known to be stored
    };
    Kept m_kept[2];  // ARCH_HOURLY, ARCH_DAILY
};
