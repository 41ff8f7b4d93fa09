// What the interface path hands the daemon for a link, built the same way by the per-interface
// reactor and the loopback reactor:
//   linkState   the daemon's bits for the kernel flags (krt_if_flags), IFS_NOAGE (0x800000) when
//               the kernel reports the device running (0x40), IFS_EXTERNAL (0x8000000) when
//               `external` (a loopback interface, "lo")
//   linkLayerBytes   the 6 bytes of a MAC read as three 16-bit words, high byte first in each
#pragma once

#include <cstdint>

#include "fwk/daemon/corvd.h"
#include "fwk/model/KanetIpAddr.h"

namespace InterfaceRouteInfo {

inline flag_t linkState(std::uint32_t kernelFlags, bool external) {
  constexpr std::uint32_t kKernelRunning = 0x40;
  constexpr flag_t kNoAge = 0x800000;
  constexpr flag_t kExternal = 0x8000000;
  flag_t flags = krt_if_flags(kernelFlags);
  if (kernelFlags & kKernelRunning) flags |= kNoAge;
  if (external) flags |= kExternal;
  return flags;
}

inline void linkLayerBytes(const Kanet::EthAddr& mac, std::uint8_t (&bytes)[6]) {
  for (int i = 0; i < 3; ++i) {
    const std::uint16_t word = mac.word(i);
    bytes[2 * i] = static_cast<std::uint8_t>(word >> 8);
    bytes[2 * i + 1] = static_cast<std::uint8_t>(word & 0xff);
  }
}

}  // namespace InterfaceRouteInfo
