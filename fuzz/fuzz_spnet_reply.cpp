// SPDX-License-Identifier: Apache-2.0
// SpNet::SendRequest's reply checks (DLE framing, reply function, DLE ETX,
// CRC) against whatever the line delivers. The first byte picks the request.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "fuzz/CReplayTransport.h"
#include "fuzz/FuzzLog.h"
#include "protocols/SpNet.h"
#include "transport/CConnector.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    fuzzLogAll();
    LogikaRequest request;
    switch (data[0] % 5) {
    case 0:
        request = {"Read Param", SpNet::kFnReadParam, 0, 0, {0, 65, 0, 0}};
        break;
    case 1:
        request = {"Read Array", SpNet::kFnReadArray, 0, 0, {0, 65, 1, 5}};
        break;
    case 2:
        request = {"Read Archive", SpNet::kFnReadArchive, 0, 0, {0, 96, 1714600000, 1714000000}};
        break;
    case 3:
        request = {"Read Slice Columns", SpNet::kFnReadTableDescriptor, 0, 0, {0, 65, 0, 0}};
        break;
    default:
        request = {"Read Slice", SpNet::kFnReadTableRow, 0, 0, {0, 65, 1714600000, 0}};
        break;
    }
    CConnector conn{std::make_unique<CReplayTransport>(data + 1, size - 1)};
    SpNet::CSpNet spnet(conn, 1, "fuzz");
    if (spnet.SendRequest(request) && spnet.replyLength() > SpNet::CSpNet::kRecvBufferSize)
        __builtin_trap();
    return 0;
}
