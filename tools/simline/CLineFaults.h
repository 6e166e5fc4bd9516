// SPDX-License-Identifier: Apache-2.0
#pragma once
// Seeded damage of a noisy serial line, for the meter simulators.
//
// A chosen share of the exchanges gets one fault each, drawn evenly from the
// kinds below. The faults reach every byte of an answer: the framing, the
// end byte and the check bytes as much as the data. The same seed gives the
// same faults for the same sequence of exchanges, so a failing run can be
// replayed.
//
// The meter's own state does not know about the line: an answer lost or
// damaged on the way has still been sent (the meter moves on), while a
// garbled request (IgnoredRequest) never reached the meter at all.

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <random>
#include <string>
#include <vector>

class CSimLine;

class CLineFaults {
public:
    enum Kind { None, ChangedByte, LostEndByte, Truncated, NoAnswer, LateCheck, Noise, IgnoredRequest, kKindCount };
    // "none", "changed_byte", "lost_end_byte", "truncated", "no_answer", "late_check", "noise", "ignored_request".
    static const char* kindName(Kind kind);

    // `share` of the exchanges (0..1) is damaged; 0 is a clean line.
    CLineFaults(uint32_t seed, double share);

    // Once per request the meter's line delivered: None for most. IgnoredRequest
    // means the line garbled the request: the meter must neither act on it nor answer.
    Kind draw();

    // Where the end byte and the check bytes of an answer sit, so that the
    // faults can aim at them. endPos < 0: the byte before the check bytes.
    struct Framing {
        long endPos = -1;
        size_t checkBytes = 0;
    };

    // The bytes of `answer` as the line delivers them under `kind`, in one or
    // two parts; the second part (late check bytes) comes after `lateMs`.
    struct Delivery {
        std::vector<uint8_t> first;
        std::vector<uint8_t> late;
        int lateMs = 0;
    };
    Delivery damage(const std::vector<uint8_t>& answer, Kind kind, Framing framing);

    // Sends `answer` through `line` with `kind` applied, and counts it.
    // False when the line failed or was stopped.
    bool deliver(CSimLine& line, const std::vector<uint8_t>& answer, Kind kind, Framing framing);

    uint64_t count(Kind kind) const;
    // Answers delivered or lost, and requests ignored, damaged or not.
    uint64_t exchanges() const;
    // "exchanges=N changed_byte=N lost_end_byte=N ... ignored_request=N" on one line.
    std::string summary() const;

private:
    size_t pick(size_t n);  // uniform in [0, n)
    void note(Kind kind);

    mutable std::mutex m_mutex;
    std::mt19937 m_rng;
    double m_share;
    uint64_t m_exchanges = 0;
    std::array<uint64_t, kKindCount> m_counts{};
};
