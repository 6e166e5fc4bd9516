// SPDX-License-Identifier: Apache-2.0
#pragma once
// Gas volume correctors SPG761, SPG761.1 and SPG761.2 over SPbus (the short
// frame without addresses, protocols/SpNet.h).
//
// The exchange: no session and no password for reading. Every read names a
// channel (0 the common parameters, 1.. the pipelines) and a three-digit
// parameter number; the meter answers with the same pointer and the value and
// its unit, each field after HT, each block ended by FF:
//
//   master  DLE SOH DLE ISI 1D DLE STX HT 0 HT 060 FF DLE ETX crc crc
//   meter   DLE SOH DLE ISI 03 DLE STX HT 0 HT 060 FF HT 01-05-24 FF DLE ETX crc crc
//
// 0x0C reads elements of an array parameter (first index, count) and gets one
// value block per element (0x14). 0x0E reads an archive or journal between
// two times on the device clock and gets 0x16: the pointer, then per record a
// time block HT dd HT mm HT yyyy HT hh HT mm HT ss FF and a block of its
// values in the device's column order. A reply holds the oldest records of the window that
// fit; the next request starts one period after the last record received.
// An empty window answers with the pointer alone.
//
// Timing: the meter answers within about 0.1-0.5 s; a whole hourly archive
// reply of a dozen records takes about 0.5 s at 9600 Bd. No pause is needed
// between requests. The device clock is local time (config "pu_TZ", hours
// east of UTC). Values are decimal text with a point; units come in the
// meter's code page (CP866, e.g. "кгс/см2", "МПа", "м3"), Latin on some
// firmware; pressures are published in kgf/cm2.
//
// The variants: "spg761" and "spg761.2" (model code 0) are the older
// parameter database of the 761 series, "spg761.1" (code 1) the newer one
// shared with the 762/763 correctors (".1" generation); the parameters read
// here and their numbers are the same in both, the code is kept for the log
// and for the model check of the identification parameter ("761" / "761.1").
//
// Sources: Logika, "Correctors SPG761, operating manual" RAZhG.421412.026 RE
// (the parameter designations ИД, СР, ЧР, ДТ, ВР, the pipeline and archive
// structure, the units) and Logika's SPbus description (framing, functions
// 0x1D/0x0C/0x0E and their replies); the list of device families of a public
// Logika meter library (SPG761 belongs to the older, SPG761.1/762.1/763.1 to
// the newer generation). The manual's parameter pages could not be read here, so
// every parameter number in the table below is an assumption, marked so:
// common 008 ИД, 024 СР, 025 ЧР, 060 ДТ, 061 ВР, 099 model/version, 030 the
// gas composition array; pipeline 150-161; archives hourly 065, daily 066 in
// their three-digit form, the journal of nonstandard situations 096 (time,
// situation number, "+"/"-") of channel 0. The simulator carries its own copy of them. Check
// them against a real meter before relying on them.

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "drivers/logika/CLogikaBaseDriver.h"
#include "protocols/SpNet.h"

class CmtdSPG761 : public logika::CLogikaBaseDriver {
public:
    explicit CmtdSPG761(int model);
    static std::unique_ptr<CMtdBaseDriver> create(int model);
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

    struct SRequest;

    // A reply body split into blocks (ended by FF) of fields (each after HT).
    using Blocks = std::vector<std::vector<std::string>>;
    static Blocks splitBody(const uint8_t* reply, size_t length);

private:
    const SRequest* findRequest(const std::string& name) const;
    // Sends the named row; `a2`, `a3` are the third and fourth argument words.
    bool sendRequest(const std::string& name, uint32_t a2 = 0, uint32_t a3 = 0);
    // The value and unit of the last 0x1D reply.
    bool readValue(const std::string& name, std::string& value, std::string& unit);
    bool deviceTime(time_t& t, std::string& text);
    bool readArchiveWindow(CArchiveSink& sink);

    int m_model;
    std::unique_ptr<SpNet::CSpNet> m_proto;
    int m_pipe = 1;
    int m_rateHour = -1;
};
