// Daemon socket addresses for the model's addresses, and back. Each call returns a daemon temporary
// (sockbuild_in / sockbuild_in6): copy it before the daemon's pool of temporaries comes round,
// or sockdup it to keep it.
#pragma once

#include <cstdint>
#include <string_view>
#include <type_traits>

#include "fwk/daemon/corvd.h"
#include "fwk/model/KanetIpAddr.h"

namespace InterfaceRouteInfo {

inline sockaddr_un* daemonSock(const Kanet::IpAddr& a) {
  return sockbuild_in(0, a.valueNetworkOrder());
}

inline sockaddr_un* daemonSock(const Kanet::Ip6Addr& a) {
  return sockbuild_in6(0, a.bytes().data());
}

// The model's address held by a daemon socket address of its family: the inverse of daemonSock.
template <class Addr>
Addr modelAddr(const sockaddr_un* s) {
  int n = 0;
  const uint8_t* bytes = sockaddr_bytes(s, &n);
  if constexpr (std::is_same_v<Addr, Kanet::IpAddr>) {
    return Kanet::IpAddr(static_cast<std::uint32_t>(bytes[0]) << 24 |
                         static_cast<std::uint32_t>(bytes[1]) << 16 |
                         static_cast<std::uint32_t>(bytes[2]) << 8 | bytes[3]);
  } else {
    return Kanet::Ip6Addr::fromBytes(bytes);
  }
}

// An IPv4 or IPv6 address in text (IPv6 when it holds a colon); malformed text raises the
// address type's Kel::RangeException.
inline sockaddr_un* daemonSock(std::string_view text) {
  if (text.find(':') != std::string_view::npos) {
    return daemonSock(Kanet::Ip6Addr::fromString(text));
  }
  return daemonSock(Kanet::IpAddr::fromString(text));
}

}  // namespace InterfaceRouteInfo
