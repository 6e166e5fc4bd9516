// SPDX-License-Identifier: Apache-2.0
// The host service's answers to "get_config" and "get_config2", parsed the way
// start-up parses them. The first byte picks the method; the rest is the text.

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/FuzzLog.h"
#include "core/CDeviceConfig.h"
#include "hostlink/CJSONRPCConnector.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    fuzzLogAll();
    static const CJSONRPCConnector rpc("42", "http://127.0.0.1:1/", "http://127.0.0.1:1/");
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    CDeviceConfig config;
    if (data[0] & 1)
        rpc.ParseInitParameters2(text, config);
    else
        rpc.ParseInitParameters1(text, config);
    return 0;
}
