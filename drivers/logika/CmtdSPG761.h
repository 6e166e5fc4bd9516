// SPDX-License-Identifier: Apache-2.0
#pragma once
// Gas volume correctors SPG761 (old generation) and SPG761.1 / SPG761.2 (new
// generation) over SPbus, the short frame without addresses (protocols/SpNet.h).
//
// No session and no password for reading. Every read names a channel (0 the
// common parameters, 1..3 the pipelines) and a parameter number; the meter
// answers with the pointer, then the value and its unit, each field after HT,
// each block ended by FF:
//
//   master  DLE SOH DLE ISI 1D DLE STX HT 0 HT 060 FF DLE ETX crc crc
//   meter   DLE SOH DLE ISI 03 DLE STX HT 0 HT 060 FF HT 26-11-25 HT FF DLE ETX crc crc
//
// A value ending in "?" is the meter's own diagnosis ("no data?"), not a value.
// The clock is two parameters: 060 the date "dd-MM-yy", 061 the time
// "HH:mm:ss" with colons. 024 is the contract hour, 025 the contract day, 030
// the engineering-unit setting. 099 begins with the type "761"; ".1v" or ".2v"
// right after it marks the new generation, where 099 is an array: element 0
// the model text, element 1 the factory number. The old generation has no
// factory number parameter; its identifier 008 is what the serial check uses.
//
// Hourly and daily archives are slice archives: 0x19 with {0, archive} gives
// the column list (per column: name, unit, channel, parameter); 0x18 with
// {0, archive} and a time gives the slice of the interval holding that time:
// the pointer, the time asked, the slice's own time, the time of the interval
// before it (whether or not that one holds data), then one value per column.
// The reader walks back from the end of the window by that pointer.
//
// Journals are read with 0x0E, {channel, archive}, then the END time, then
// the START time of the window; the reply echoes the pointer and both times,
// then one block per entry, newest first: value, unit (empty: as the entry
// before), "dd-MM-yy/HH:mm:ss". For the journal of nonstandard situations the
// value is the event and the unit field its description. A reply is cut near
// 5500 bytes after a whole entry: the entries of its oldest second may then be
// incomplete, so a full reply is followed by one ending at that second. A very
// old meter may answer the window with the single field "Дата/время?".
//
// Timing: replies come within about 0.1-0.5 s; no pause is needed between
// requests. The device clock is local time (config "pu_TZ", hours east of
// UTC); times on the line are the device's. Units come in CP866 ("кгс/см2",
// "МПа", "м3"); pressures are published in kgf/cm2.
//
// Sources: the maker's own C# library for these meters (SPBusPacket
// BuildReadArchivePacket / BuildReadArchiveRecordPacket /
// BuildReadArchiveDescriptorPacket; SPBusProtocol GetDeviceClock,
// MeterTypeFromResponse, ParseArchivePacket, ParseArchiveRecordPacket,
// ParseArchiveDescriptorPacket, ReadIntervalArchive, ReadServiceArchive;
// BusOperation; Logika6.GetCommonTagDefs; TSPG761) and its Python port
// github.com/Vadsxd/LogikaPython (Logika/Meters/Logika6.py, __6N/SPG761_1.py,
// Logika/Protocols/SPBus/BusOperation.py). The parameter and archive numbers
// those libraries keep in unpublished tables are assumed: drivers/logika/
// SPG761Table.h lists every number with its source.

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "drivers/logika/CLogikaBaseDriver.h"
#include "protocols/SpNet.h"

namespace spg761 {
struct Archive;
}

class CmtdSPG761 : public logika::CLogikaBaseDriver {
public:
    // Model code 0: the old generation ("spg761"); 1: the new one ("spg761.1", "spg761.2").
    explicit CmtdSPG761(int model);
    ~CmtdSPG761() override;

    const char* driverName() const override { return "CmtdSPG761"; }
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
    // "12.5" with unit "кгс/см2" (CP866) -> factor to kgf/cm2; 0 when the unit is unknown.
    double getPressureCoef(const std::string& unit) const;

    // A reply body split into blocks (ended by FF) of fields (each after HT).
    using Blocks = std::vector<std::vector<std::string>>;
    static Blocks splitBody(const uint8_t* reply, size_t length);

    // The text of 099 (element 0 on the new generation): true for "761.1v...", "761.2v...".
    static bool newGeneration(const std::string& model);

private:
    struct Column;
    // Sends the named parameter request; the reply's pointer must be the one asked for.
    bool sendRequest(const std::string& name);
    bool sendRequest(const LogikaRequest& request);
    // The value and unit of the last 0x1D reply; false (logged) for a diagnosis ending in "?".
    bool readValue(const std::string& name, std::string& value, std::string& unit);
    bool deviceTime(time_t& t, std::string& text);
    // Every record leaves the readers through here, oldest first, then the
    // block ends.
    enum class HandOn { Next, Stop, Broken };
    HandOn handOn(std::vector<ArchiveRecord>& records, CArchiveSink& sink);
    bool readColumns(const spg761::Archive& archive, std::vector<Column>& columns);
    bool readSlices(const spg761::Archive& archive, CArchiveSink& sink);
    bool readJournal(const spg761::Archive& archive, CArchiveSink& sink);
    // Slices from `to` back to `from`, appended oldest first to `records`.
    bool walkSlices(const spg761::Archive& archive, const std::vector<Column>& columns, time_t from, time_t to,
                    std::vector<ArchiveRecord>& records);

    int m_model;
    std::unique_ptr<SpNet::CSpNet> m_proto;
    int m_pipe = 1;
    int m_rateHour = -1;
};
