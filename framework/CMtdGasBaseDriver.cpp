#include "framework/CMtdGasBaseDriver.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>

#include "hostlink/CJSONRPCConnector.h"
#include "shell/logger.h"
#include "storage/CControlFiles.h"
#include "storage/GasFileConnector.h"

namespace gas {

CMtdGasBaseDriver::CMtdGasBaseDriver() = default;

CMtdGasBaseDriver::~CMtdGasBaseDriver() { StopPolling(); }

int CMtdGasBaseDriver::GetRateHour(int n) {
    GasFileConnector* store = archiveStore();
    const time_t dailyLast = store ? store->GetLastTimestamp(ARCH_DAILY) : 0;
    MTD_LOG(Debug, "[%lld][%s] CMtdGasBaseDriver::GetRateHour(%d) - daily_last = %d", logId(), driverName(), n,
            (int)dailyLast);
    struct tm ti {};
    if (!localtime_r(&dailyLast, &ti))
        return 0;
    MTD_LOG(Debug, "[%lld][%s] CMtdGasBaseDriver::GetRateHour(%d) - ti.tm_hour = %d", logId(), driverName(), n,
            ti.tm_hour);
    return ti.tm_hour;
}

void CMtdGasBaseDriver::SetRs232State(int n, bool state) {
    MTD_LOG(Info, "[%lld][%s] CMtdGasBaseDriver::SetRs232State(): set port %d to '%s'", logId(), driverName(), n,
            state ? "true" : "false");
    if (m_rpc)
        m_rpc->ExecSensorsJSONRPCFunc(state, n);
}

bool CMtdGasBaseDriver::GetGasPassportParams(std::map<std::string, std::string>& values) {
    CControlFiles control(paths().controlDir);
    // A refused file (not a JSON object, too large, ...) is logged and removed
    // by the reader; nothing of it is written into the device.
    if (control.readPassport(m_config.meter_id, values) != CControlFiles::PASSPORT_OK)
        return false;
    RemovePasportFile();
    MTD_LOG(Info, "[%lld][%s] CMtdGasBaseDriver::GetGasPassportParams() - passport file '%s' is removed", logId(),
            driverName(), control.passportPath(m_config.meter_id).c_str());
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

}  // namespace gas
