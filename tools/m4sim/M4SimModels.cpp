// SPDX-License-Identifier: Apache-2.0
#include "tools/m4sim/CM4SimModel.h"

#define M4SIM_MODEL(name, maker) std::unique_ptr<CM4SimModel> maker(const M4SimOptions&);
#include "tools/m4sim/M4SimModels.def"
#undef M4SIM_MODEL

namespace {

struct Entry {
    const char* name;
    M4SimModelMaker make;
};

const Entry kModels[] = {
#define M4SIM_MODEL(name, maker) {name, &maker},
#include "tools/m4sim/M4SimModels.def"
#undef M4SIM_MODEL
};

}  // namespace

std::unique_ptr<CM4SimModel> makeM4SimModel(const std::string& name, const M4SimOptions& options) {
    for (const auto& m : kModels)
        if (name == m.name)
            return m.make(options);
    return nullptr;
}

std::string m4SimModelNames() {
    std::string names;
    for (const auto& m : kModels)
        names += (names.empty() ? "" : "|") + std::string(m.name);
    return names;
}
