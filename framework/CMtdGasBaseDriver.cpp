#include "framework/CMtdGasBaseDriver.h"

#include <unistd.h>

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
    if (!isSafeMeterId(m_config.meter_id))
        return;
    const std::string path = CControlFiles(paths().controlDir).passportPath(m_config.meter_id);
    if (unlink(path.c_str()) == 0)
        MTD_LOG(Debug, "CMtdGasBaseDriver::RemovePasportFile passport file delete successful [%s]", path.c_str());
    else
        MTD_LOG(Err, "CMtdGasBaseDriver::RemovePasportFile passport file not delete [%s]", path.c_str());
}

}  // namespace gas
