// SPDX-License-Identifier: Apache-2.0
#include "drivers/DriverFactory.h"

#include <cstring>
#include <memory>
#include <type_traits>

#include "drivers/ek2xx/CmtdEK2xxTC2xx.h"
#include "drivers/logika/CmtdSPG741.h"
#include "drivers/logika/CmtdSPG761.h"
#include "drivers/logika/CmtdSpgM4.h"
#include "drivers/modbus/CmtdModbusTemplate.h"
#include "framework/CMtdBaseDriver.h"
#include "framework/CMtdEmptyDriver.h"
#include "core/logger.h"

// Adding a device family:
//   1. its class in drivers/<family>/, derived from gas::CMtdGasBaseDriver;
//   2. its model rows switched from nullptr to make<ItsClass>;
//   3. tests under tests/drivers/ against a simulated meter.
// The order of the rows matters: "contains" rows catch longer strings, so a
// row must come before any "contains" row whose text it includes.

namespace {

using Row = DriverModelRow;

// Builds driver D for a matched row with the row's model code; a driver whose
// rows carry no code takes none.
template <class D>
std::unique_ptr<CMtdBaseDriver> make(int code) {
    if constexpr (std::is_constructible_v<D, int>) {
        return std::make_unique<D>(code);
    } else {
        (void)code;
        return std::make_unique<D>();
    }
}

// Rows are tested top to bottom; the first match decides.
const DriverModelRow kModelTable[] = {
    // "modbus:<template>": a meter described by a register-map template. First,
    // so that a template named like a "contains" row ("modbus:ultramag-b")
    // still reaches it; no other model string starts with "modbus:".
    {"modbus:", Row::PREFIX, "CmtdModbusTemplate", 0, nullptr, 0, &make<CmtdModbusTemplate>},
    {"ek270", Row::EXACT, "CmtdEK2xxTC2xx", 2, nullptr, 0, &make<CmtdEK2xxTC2xx>},
    {"ek260", Row::EXACT, "CmtdEK2xxTC2xx", 1, nullptr, 0, &make<CmtdEK2xxTC2xx>},
    {"tc220", Row::EXACT, "CmtdEK2xxTC2xx", 3, nullptr, 0, &make<CmtdEK2xxTC2xx>},
    {"vkg-3t", Row::EXACT, "CmtdWKG3T", 0, nullptr, 0, nullptr},
    {"micont186", Row::EXACT, "CmtdMicont186", 0, nullptr, 0, nullptr},
    {"mikont-186", Row::EXACT, "CmtdMicont186", 0, nullptr, 0, nullptr},
    {"spg761.1", Row::EXACT, "CmtdSPG761", 1, nullptr, 0, &make<CmtdSPG761>},
    {"spg761.2", Row::EXACT, "CmtdSPG761", 1, nullptr, 0, &make<CmtdSPG761>},
    {"spg761", Row::EXACT, "CmtdSPG761", 0, nullptr, 0, &make<CmtdSPG761>},
    // "ek88" is tested twice; the second row can never decide. Kept as the
    // table has always been.
    {"ek88", Row::EXACT, "CmtdEK88", 0, nullptr, 0, nullptr},
    {"ek88", Row::EXACT, "CmtdEK88", 0, nullptr, 0, nullptr},
    {"spg742", Row::EXACT, "CmtdSpgM4", 1, nullptr, 0, &make<CmtdSpgM4>},
    {"irvis-rs4m", Row::EXACT, "CmtdIrvis", 0, nullptr, 0, nullptr},
    {"irvis-rs4m-ultra", Row::EXACT, "CmtdIrvis", 0, nullptr, 0, nullptr},
    {"irvis-ultra", Row::EXACT, "CmtdIrvis", 0, nullptr, 0, nullptr},
    {"vrsg-1", Row::CONTAINS, "CmtdVrsg", 2, nullptr, 0, nullptr},
    {"spg741", Row::EXACT, "CmtdSPG741", 0, nullptr, 0, &make<CmtdSPG741>},
    {"spg741.1", Row::EXACT, "CmtdSPG741", 0, nullptr, 0, &make<CmtdSPG741>},
    {"spg741.2", Row::EXACT, "CmtdSPG741", 0, nullptr, 0, &make<CmtdSPG741>},
    {"im2300gas", Row::CONTAINS, "CmtdIM2300Agas", 0, nullptr, 0, nullptr},
    {"im2300x", Row::CONTAINS, "CmtdIM2300GasNotModbus", 0, nullptr, 0, nullptr},
    {"vkg-2", Row::CONTAINS, "CmtdWKG2", 0, nullptr, 0, nullptr},
    {"turbo-flow-ufg-f", Row::CONTAINS, "CmtdTurboFlowUFG", 0, nullptr, 0, nullptr},
    {"turbo-flow-gfg-f", Row::EXACT, "CmtdTurboFlow_xFG", 1, nullptr, 0, nullptr},
    {"turbo-flow-gfg-h", Row::EXACT, "CmtdTurboFlow_xFG", 2, nullptr, 0, nullptr},
    {"turbo-flow-gfg-z", Row::EXACT, "CmtdTurboFlow_xFG", 3, nullptr, 0, nullptr},
    {"turbo-flow-tfg", Row::EXACT, "CmtdTurboFlow_xFG", 4, nullptr, 0, nullptr},
    {"flowsic-500", Row::EXACT, "CmtdFlowSic", 0, nullptr, 0, nullptr},
    // "flowgas-t" is the same computer with the temperature-corrected archive layout.
    {"flowgas", Row::CONTAINS, "CmtdFlowgas", 0, "flowgas-t", 1, nullptr},
    {"uvp280b", Row::EXACT, "CmtdUVP280B", 0, nullptr, 0, nullptr},
    {"uvp280b01", Row::EXACT, "CmtdUVP280B01", 0, nullptr, 0, nullptr},
    {"im2300-serii-klmsxyzt", Row::EXACT, "CmtdIM2300GasNotModbus", 0, nullptr, 0, nullptr},
    // The TC-90K is served by the TC-90T driver; the TC-90K class is never chosen.
    {"tc-90k", Row::EXACT, "CmtdTC90T", 0, nullptr, 0, nullptr},
    {"tc-90t", Row::EXACT, "CmtdTC90T", 0, nullptr, 0, nullptr},
    {"tc215", Row::EXACT, "CmtdEK2xxTC2xx", 5, nullptr, 0, &make<CmtdEK2xxTC2xx>},
    {"tc210", Row::EXACT, "CmtdEK2xxTC2xx", 4, nullptr, 0, &make<CmtdEK2xxTC2xx>},
    {"bvr.m", Row::CONTAINS, "CmtdBVRM", 2, nullptr, 0, nullptr},
    {"bk-10a", Row::CONTAINS, "CmtdBKxx", 0, nullptr, 0, nullptr},
    {"superflow-23", Row::CONTAINS, "CmtdSuperFlow", 0, nullptr, 0, nullptr},
    {"ultramag", Row::CONTAINS, "CmtdUltraMag", 0, nullptr, 0, nullptr},
    {"dymetic-5121", Row::CONTAINS, "CmtdDymetic", 1, nullptr, 0, nullptr},
    {"corus", Row::CONTAINS, "CmtdCorus", 0, nullptr, 0, nullptr},
};

bool matches(const std::string& model, const char* text, DriverModelRow::Match match) {
    switch (match) {
    case DriverModelRow::EXACT: return model == text;
    case DriverModelRow::PREFIX: return model.compare(0, std::strlen(text), text) == 0;
    default: return model.find(text) != std::string::npos;
    }
}

}  // namespace

DriverChoice findDriverModel(const std::string& model) {
    for (const DriverModelRow& row : kModelTable) {
        if (!matches(model, row.model, row.match))
            continue;
        DriverChoice choice;
        choice.row = &row;
        choice.code = row.code;
        if (row.subModel && model.find(row.subModel) != std::string::npos)
            choice.code = row.subCode;
        return choice;
    }
    return {};
}

std::unique_ptr<CMtdBaseDriver> CMtdBaseDriver::create_and_init(const CDeviceConfig& config, CConnector* connector,
                                                                CJSONRPCConnector* rpc) {
    return create_and_init(config, connector, rpc, DriverPaths());
}

std::unique_ptr<CMtdBaseDriver> CMtdBaseDriver::create_and_init(const CDeviceConfig& config, CConnector* connector,
                                                                CJSONRPCConnector* rpc, const DriverPaths& paths) {
    MTD_LOG(Info, "CMtdBaseDriver::create_and_init() - mtd_main_gas assembly starts");
    MTD_LOG(Info, "CMtdBaseDriver::create_and_init() Repository revision Unknown, compiled: %s %s", __DATE__,
            __TIME__);
    const std::string model = config.get("manufacturer");
    MTD_LOG(Info, "CMtdBaseDriver::create_and_init() as '%s'", model.c_str());

    std::unique_ptr<CMtdBaseDriver> driver;
    const DriverChoice choice = findDriverModel(model);
    if (choice.row && choice.row->make)
        driver = choice.row->make(choice.code);
    if (!driver) {
        MTD_LOG(Warning, "CMtdBaseDriver::create_and_init() - CmtdEmptyDriver IS STARTED !!!");
        driver = std::make_unique<CMtdEmptyDriver>();
    }

    MTD_LOG(Warning, "CMtdBaseDriver::create_and_init() - setJSONRPCConnector()");
    driver->setJSONRPCConnector(rpc);
    MTD_LOG(Warning, "CMtdBaseDriver::create_and_init() - save_init_params()");
    driver->save_init_params(config);
    driver->setPaths(paths);
    MTD_LOG(Warning, "CMtdBaseDriver::create_and_init() - SaveConnector()");
    driver->SaveConnector(connector);
    MTD_LOG(Warning, "CMtdBaseDriver::create_and_init() - Start()");
    driver->Start();
    return driver;
}
