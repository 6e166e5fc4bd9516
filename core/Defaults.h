// SPDX-License-Identifier: Apache-2.0
#pragma once
// The daemon's fixed places in one spot. Components take these as constructor
// arguments (defaulting to the values here) so that tests can point them elsewhere.

namespace mtd::defaults {

// Archive tree shared with the reporter process.
inline constexpr const char* kStorageRoot = "/mnt/storage/";
// Lock files, pause/force-update flags and the passport file.
inline constexpr const char* kControlDir = "/tmp/";
// Front-panel LEDs: transmit (A) and receive (B).
inline constexpr const char* kLedTransmit = "/proc/leds/kr_red";
inline constexpr const char* kLedReceive = "/proc/leds/lan";
// Host service (configuration, publishing) and sensors service (relay outputs).
inline constexpr const char* kHostUrl = "http://127.0.0.1:8082/";
inline constexpr const char* kSensorsUrl = "http://127.0.0.1:4665/";
inline constexpr int kHostPort = 8082;
inline constexpr int kSensorsPort = 4665;
// Register-map templates of the Modbus template driver: the site's own first,
// then those the package ships.
inline constexpr const char* kTemplateDirSite = "/etc/mtd_main/templates/";
inline constexpr const char* kTemplateDirPackage = "/usr/share/mtd_main/templates/";
// Serial device used when the configuration names none.
inline constexpr const char* kSerialDevice = "/dev/ttyS1";

}  // namespace mtd::defaults
