// Fuzz target: IPv4 text. Reads the input as Kanet::IpAddr, IpPrefix, IpAddrWithMask and
// Routing::RouteKey and checks each against inet_pton / inet_ntop (fuzz/AddrTextChecks.h).
#include "fuzz/AddrTextChecks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::checkAddressTexts<Kanet::IpAddr>(data, size);
  return 0;
}
