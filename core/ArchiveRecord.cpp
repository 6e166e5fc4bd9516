// SPDX-License-Identifier: Apache-2.0
#include "core/ArchiveRecord.h"

const char* archTypeName(int type) {
    switch (type) {
    case ARCH_HOURLY: return "Hourly_JSONRPC";
    case ARCH_DAILY: return "Daily_JSONRPC";
    case ARCH_JOURNAL_EVENT: return "Journal_Event_JSONRPC";
    case ARCH_JOURNAL_INTERVENT: return "Journal_Intervent_JSONRPC";
    default: return "";
    }
}
