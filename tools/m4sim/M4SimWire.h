// SPDX-License-Identifier: Apache-2.0
#pragma once
// The simulated meter's own view of M4 bytes: its check sums, its data
// elements and its answer frames. Written apart from the daemon's protocol
// layer on purpose, so that a misreading of the protocol has to be made twice
// to pass a test.
//
//   long frame   10 NT 90 ID 00 LL LH <body, LL LH bytes> CRC-hi CRC-lo
//                CRC-16 polynomial 0x1021, start 0, MSB first, over NT..body
//   short frame  10 NT FN b3 b4 b5 b6 CS 16, CS = ~(NT + FN + b3 + b4 + b5)
// Elements: tag, length (one byte below 0x80, else 0x80|n and n bytes big
// endian), value with numbers low byte first.

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace m4sim {

uint16_t crc(const uint8_t* data, size_t n);
uint8_t sumCheck(const uint8_t* data, size_t n);  // complement of the 8-bit sum

// A request as the meter took it off the line, checks passed.
struct Frame {
    bool isLong = false;
    uint8_t nt = 0;
    uint8_t id = 0;        // packet identifier (long frames)
    uint8_t function = 0;  // long: first body byte; short: byte 2
    std::vector<uint8_t> bytes;  // the whole frame
    std::vector<uint8_t> body;   // long: the body; short: bytes 3..6
};

// Calendar fields of Unix seconds and back, UTC, computed here rather than by
// the C library: the library's time-zone state is shared with the daemon's
// code when a test runs both in one process.
struct tm civil(time_t t);
time_t fromCivil(int year, int month, int day, int hour, int minute, int second);

// Element writers, appending to `out`.
void putLength(std::vector<uint8_t>& out, size_t length);
void putU32(std::vector<uint8_t>& out, uint32_t v);               // 0x41, 4 bytes
void putUInt(std::vector<uint8_t>& out, uint32_t v, int bytes);   // 0x41 of 1, 2 or 4 bytes
void putFloat(std::vector<uint8_t>& out, float v);                // 0x43
void putIntFloat(std::vector<uint8_t>& out, double v);            // 0x44: whole part + fraction
void putFlags(std::vector<uint8_t>& out, uint32_t v);             // 0x4B
void putText(std::vector<uint8_t>& out, const std::string& s);    // 0x16
void putTime(std::vector<uint8_t>& out, const struct tm& t);      // 0x47
void putDate(std::vector<uint8_t>& out, const struct tm& t);      // 0x48
void putStamp(std::vector<uint8_t>& out, const struct tm& t);     // 0x49, 6 bytes
void putMark(std::vector<uint8_t>& out, const struct tm& t);      // 0x49, 8 bytes (milliseconds 0)
void putNoTime(std::vector<uint8_t>& out);                        // 0x49 of no bytes
void putNull(std::vector<uint8_t>& out);                          // 0x05
void putContainer(std::vector<uint8_t>& out, const std::vector<uint8_t>& inner);  // 0x30

// One element of a request body: the tag and its value bytes.
struct Element {
    uint8_t tag = 0;
    std::vector<uint8_t> value;
};
// Takes the element at data[pos] and moves pos past it; false when it does not fit.
bool takeElement(const std::vector<uint8_t>& data, size_t& pos, Element& out);

// A long answer frame around `body`, echoing the request's address and identifier.
std::vector<uint8_t> longFrame(uint8_t nt, uint8_t id, const std::vector<uint8_t>& body);
// The refusal 21 <code>.
std::vector<uint8_t> errorFrame(uint8_t nt, uint8_t id, uint8_t code);

// Takes frames out of a byte stream: skips wake-up bytes and noise, drops a
// frame whose check fails. Feed bytes, then take frames while next() is true.
class FrameReader {
public:
    void feed(const uint8_t* data, size_t n);
    bool next(Frame& out);
    void clear() { m_buf.clear(); }
    bool partial() const { return !m_buf.empty(); }
    size_t rejected() const { return m_rejected; }

private:
    std::vector<uint8_t> m_buf;
    size_t m_rejected = 0;
};

}  // namespace m4sim
