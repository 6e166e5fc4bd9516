// SPDX-License-Identifier: Apache-2.0
#pragma once
// Small pieces more than one simulator needs. They are written here on their
// own, bit by bit, so that a mistake in the daemon's versions cannot hide in
// both sides of a test.

#include <cstddef>
#include <cstdint>

// CRC-16, polynomial 0x1021, start 0, no reflection: the check of the Logika
// SPbus and M4 frames.
uint16_t simCrc16x1021(const uint8_t* p, size_t n);

// A stateless 64-bit mixer (splitmix64's finaliser): the same input always
// gives the same well-spread output, so a simulated archive is a pure
// function of its seed and its time slot.
uint64_t simMix64(uint64_t x);
