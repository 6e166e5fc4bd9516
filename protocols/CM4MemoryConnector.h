// SPDX-License-Identifier: Apache-2.0
#pragma once
// The older M4 dialect of the Logika 74x/94x meters: no tagged parameters,
// the master reads the meter's memory and knows where things are.
//
// Every frame is the short M4 frame, the one the session start uses
// (M4::kFrameStart, NT, function, four data bytes, check byte, M4::kFrameEnd),
// with the 8-bit check M4::shortFrameChecksum over NT .. the last data byte:
//   read flash   10 NT 45 PL PH K  00 CS 16  ->  K frames 10 NT 45 <64 bytes> CS 16
//   read RAM     10 NT 52 AL AH N  00 CS 16  ->  10 NT 52 <N bytes> CS 16
//   refusal                                  ->  10 NT 21 EC CS 16
// Addresses and page numbers go low byte first. Flash is read in 64-byte
// pages, at most 8 a request; the meter sends each page in a frame of its
// own, and a block with one bad page is read again whole. RAM reads take at
// most 64 bytes. The session start itself is sent by M4::CM4 (its frame is
// the same). No pause is needed between a request and its reply (the meter
// answers within tens of milliseconds); each read is tried three times, one
// second apart, like the M4 requests; a refusal is not repeated.
// Sources: the maker's M4 opcode list and its Python and C++ ports
// (ReadFlash 0x45, ReadRam 0x52, MAX_PAGE_BLOCK 8, MAX_RAM_REQUEST 0x40, one
// receive per flash page).

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "core/logger.h"
#include "protocols/LogikaRequest.h"
#include "protocols/M4.h"

class CConnector;

class CM4MemoryConnector {
public:
    enum : uint8_t { kFnReadFlash = 0x45, kFnReadRam = 0x52 };
    static constexpr size_t kPageSize = 64;
    // The most one request may ask for: 64 bytes of RAM, 8 flash pages.
    static constexpr size_t kMaxRamBytes = 64;
    static constexpr size_t kMaxPages = 8;

    CM4MemoryConnector(CConnector& connector, uint8_t netAddr, long long logId, std::string logName,
                       M4::Timing timing = M4::Timing(), ProtocolSleep sleep = ProtocolSleep());

    // Session start; `ident` gets the three bytes the meter answers with
    // (identifier high and low byte, firmware version).
    bool startSession(uint8_t ident[3]);
    bool readRam(const char* name, uint16_t address, size_t count, std::vector<uint8_t>& out);
    bool readFlash(const char* name, uint16_t page, size_t pages, std::vector<uint8_t>& out);
    // `count` flash bytes from byte address `address`, through the pages that
    // hold them (as many requests as it takes).
    bool readFlashBytes(const char* name, uint32_t address, size_t count, std::vector<uint8_t>& out);

    // The meter refused the last read (0x21 reply); its code.
    bool isError() const { return m_error; }
    uint8_t errorCode() const { return m_errorCode; }

private:
    enum class Attempt { Ok, Failed, Refused };
    // `frames` answer frames of `frameData` bytes each.
    bool read(const char* name, uint8_t function, uint16_t where, size_t count, size_t frames, size_t frameData,
              std::vector<uint8_t>& out);
    Attempt attempt(const char* name, const uint8_t* frame, size_t frames, size_t frameData,
                    std::vector<uint8_t>& out);
    Attempt receiveFrame(const char* name, uint8_t function, size_t frameData, std::vector<uint8_t>& out);
    // Reads and drops what comes until the line is silent for a time-out, `most` bytes at most.
    void drain(size_t most);
    // Reads exactly n bytes (each wait is the connector's time-out); false when they do not come.
    bool readExactly(uint8_t* p, size_t n);
    void pause(std::chrono::milliseconds d) const;

    CConnector& m_connector;
    M4::CM4 m_m4;
    uint8_t m_netAddr;
    mtd::LogContext m_log;
    M4::Timing m_timing;
    ProtocolSleep m_sleep;
    std::vector<uint8_t> m_recv;
    bool m_error = false;
    uint8_t m_errorCode = 0xFF;
};
