// Fuzz target: IPv6 text. Reads the input as Kanet::Ip6Addr, Ip6Prefix, Ip6AddrWithMask and
// Routing6::RouteKey and checks each against inet_pton / inet_ntop (fuzz/AddrTextChecks.h).
#include "fuzz/AddrTextChecks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::checkAddressTexts<Kanet::Ip6Addr>(data, size);
  return 0;
}
