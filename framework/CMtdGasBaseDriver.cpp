// SPDX-License-Identifier: Apache-2.0
#include "framework/CMtdGasBaseDriver.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "core/DataCodes.h"
#include "hostlink/CJSONRPCConnector.h"
#include "core/logger.h"
#include "storage/CControlFiles.h"

namespace gas {

CMtdGasBaseDriver::CMtdGasBaseDriver() = default;

CMtdGasBaseDriver::~CMtdGasBaseDriver() { StopPolling(); }

int CMtdGasBaseDriver::GetRateHour(int n) {
    const time_t dailyLast = lastStoredTime(ARCH_DAILY);
    MTD_DLOG(Debug, "CMtdGasBaseDriver::GetRateHour(%d) - daily_last = %d", n,
            (int)dailyLast);
    struct tm ti {};
    if (!localtime_r(&dailyLast, &ti))
        return 0;
    MTD_DLOG(Debug, "CMtdGasBaseDriver::GetRateHour(%d) - ti.tm_hour = %d", n,
            ti.tm_hour);
    return ti.tm_hour;
}

void CMtdGasBaseDriver::SetRs232State(int n, bool state) {
    MTD_DLOG(Info, "CMtdGasBaseDriver::SetRs232State(): set port %d to '%s'", n,
            state ? "true" : "false");
    if (m_rpc)
        m_rpc->ExecSensorsJSONRPCFunc(state, n);
}

bool CMtdGasBaseDriver::GetGasPassportParams(std::map<std::string, std::string>& values) {
    CControlFiles control(paths().controlDir);
    // A refused file (not a JSON object, too large, ...) is logged and removed
    // by the reader, one from an untrusted owner logged and left in place;
    // nothing of either is written into the device.
    if (control.readPassport(m_config.meter_id, values) != CControlFiles::PASSPORT_OK)
        return false;
    RemovePasportFile();
    MTD_DLOG(Info, "CMtdGasBaseDriver::GetGasPassportParams() - passport file '%s' is removed", control.passportPath(m_config.meter_id).c_str());
    return true;
}

void CMtdGasBaseDriver::RemovePasportFile() {
    // The name is built in a fixed 256-byte buffer; one that does not fit, or an
    // identifier that could reach outside the control directory, is never
    // unlinked: a cut or escaping path could name another file.
    char path[256];
    const int length = std::snprintf(path, sizeof path, "%sgmd_set_value_%s",
                                     CControlFiles(paths().controlDir).dir().c_str(), m_config.meter_id.c_str());
    const bool fits = length >= 0 && static_cast<size_t>(length) < sizeof path;
    if (fits && isSafeMeterId(m_config.meter_id) && unlink(path) == 0)
        MTD_LOG(Debug, "CMtdGasBaseDriver::RemovePasportFile passport file delete successful [%s]", path);
    else
        MTD_LOG(Err, "CMtdGasBaseDriver::RemovePasportFile passport file not delete [%s]", path);
}

int CMtdGasBaseDriver::deviceTzHours() const {
    const char* key = m_config.has("pu_TZ") ? "pu_TZ" : "srv_TZ";
    return std::atoi(m_config.get(key).c_str());
}

time_t CMtdGasBaseDriver::fromDeviceTime(int year, int month, int day, int hour, int minute, int second) const {
    struct tm tm {};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    return timegm(&tm) - static_cast<time_t>(deviceTzHours()) * 3600;
}

struct tm CMtdGasBaseDriver::toDeviceTime(time_t t) const {
    struct tm tm {};
    const time_t local = t + static_cast<time_t>(deviceTzHours()) * 3600;
    gmtime_r(&local, &tm);
    return tm;
}

std::string CMtdGasBaseDriver::deviceTimeText(time_t t) const {
    const struct tm tm = toDeviceTime(t);
    char buf[80];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d,%02d:%02d:%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec);
    return buf;
}

CValueRecord CMtdGasBaseDriver::makeValue(const std::string& name, const std::string& value, uint32_t unit,
                                          time_t timestamp, const std::string& sys) const {
    CValueRecord r;
    r.name = name;
    r.value = value;
    r.dim = unit == DU_UNKNOWN ? "" : dataUnitName(unit);
    r.sys = sys;
    r.timestamp = timestamp;
    return r;
}

}  // namespace gas
