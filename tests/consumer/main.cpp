// Uses the installed module: starts nothing, but makes a Root, parses an address and reaches the
// in-memory daemon, so every layer's headers and library are needed.
#include <iostream>

#include "fwk/Root.h"
#include "fwk/daemon/corvd.h"

int main() {
  auto root = InterfaceRouteInfo::rootFactory("consumer");
  const auto addr = Kanet::IpAddrWithMask::fromString("10.0.0.1/24");
  std::cout << root->name() << " " << addr << " links " << if_link_count() << "\n";
  return addr.maskLen() == 24 && if_link_count() == 0 ? 0 : 1;
}
