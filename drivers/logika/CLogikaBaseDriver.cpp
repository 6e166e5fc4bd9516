// SPDX-License-Identifier: Apache-2.0
#include "drivers/logika/CLogikaBaseDriver.h"

#include <cstdio>
#include <map>

#include "core/DataCodes.h"
#include "core/Exceptions.h"
#include "core/logger.h"

namespace logika {

const std::string& CLogikaBaseDriver::takeSystem() {
    const std::string systems = m_config.get("systems");
    m_sys = systems.substr(0, systems.find(';'));
    if (m_sys.empty())
        m_sys = "1";
    return m_sys;
}

std::string CLogikaBaseDriver::formatNumber(double v) {
    char buf[48];
    std::snprintf(buf, sizeof buf, "%.5f", v);
    return buf;
}

std::string CLogikaBaseDriver::deviceTimeText(time_t t) const {
    const struct tm tm = toDeviceTime(t);
    char buf[80];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d,%02d:%02d:%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec);
    return buf;
}

uint32_t CLogikaBaseDriver::protocolTimeArg(time_t t) const {
    struct tm dev = toDeviceTime(t);
    dev.tm_isdst = -1;
    return static_cast<uint32_t>(mktime(&dev));
}

void CLogikaBaseDriver::checkSerial(const std::string& read) const {
    const std::string given = m_config.serial_text.empty() ? m_config.true_serial : m_config.serial_text;
    if (given.empty() || read == given)
        return;
    MTD_DLOG(Err, "%s::get_all_system_values() - READ SERIAL '%s' != GIVEN SERIAL '%s' !!! EXCEPTION WILL BE THROWN.", driverName(), read.c_str(), given.c_str());
    throw CWrongPacketException("serial number mismatch");
}

bool CLogikaBaseDriver::m4PressureFactor(int code, const char* function, double& factor) const {
    static const uint32_t kUnits[] = {DU_KGF_CM2, DU_MPA, DU_BAR};
    if (code < 0 || code >= static_cast<int>(sizeof kUnits / sizeof kUnits[0]) ||
        !pressureFactor(kUnits[code], factor)) {
        MTD_DLOG(Err, "%s::%s() - UNKNOWN PRESSURE UNIT %d", driverName(), function,
                code);
        return false;
    }
    return true;
}

void CLogikaBaseDriver::noDeviceTime(const char* function, const char* what) const {
    MTD_DLOG(Err, "%s::%s() - %s", driverName(), function, what);
    throw CNoDateTimeException("device time");
}

void CLogikaBaseDriver::refusePassport(const char* model, int version) {
    std::map<std::string, std::string> values;
    if (!GetGasPassportParams(values))
        return;
    MTD_DLOG(Warning, "%s::writeGasPasport() - DEVICE '%s' (VERSION %d) DOESN'T SUPPORT GAS PASSPORT !!!", driverName(), model, version);
}

}  // namespace logika
