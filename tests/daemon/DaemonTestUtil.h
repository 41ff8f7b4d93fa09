// Helpers shared by the daemon tests: building requests the way the module does (sockdup
// copies inside one if_conf bracket) and a fixture that starts and ends with an empty daemon.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

#include "fwk/daemon/corvd.h"
#include "fwk/daemon/host_conf.h"

inline uint32_t ip4(const char* text) {
  in_addr a{};
  inet_pton(AF_INET, text, &a);
  return a.s_addr;
}

inline sockaddr_un* in4(const char* text) { return sockbuild_in(0, ip4(text)); }

inline sockaddr_un* in6(const char* text) {
  uint8_t b[16] = {};
  inet_pton(AF_INET6, text, b);
  return sockbuild_in6(0, b);
}

inline if_link* addLink(unsigned long index, const char* name, bool up, flag_t extra = 0) {
  return corvd_host_link(index, name, up, extra);
}

// Adds local/len (with `peer` as the point-to-point peer when given) to the link `index`.
inline if_addr* addAddr(unsigned long index, sockaddr_un* local, int len,
                        sockaddr_un* peer = nullptr) {
  return corvd_host_addr(index, local, len, peer);
}

inline void delAddr(unsigned long index, sockaddr_un* local) { corvd_host_addr_del(index, local); }

inline void delLink(unsigned long index) { corvd_host_link_del(index); }

// A route request for dest/len of gateway `gw` at preference `pref`, through `vias` (none: a
// blackhole).
inline rt_parms routeParms(gw_entry* gw, sockaddr_un* dest, int len, int pref = 0,
                           std::initializer_list<sockaddr_un*> vias = {}) {
  rt_parms rtp{};
  rtp.rtp_dest = dest;
  rtp.rtp_dest_mask = sock_mask_by_len(dest->sa_family, len);
  rtp.rtp_gwp = gw;
  rtp.rtp_preference = pref;
  for (sockaddr_un* via : vias) rtp.rtp_routers[rtp.rtp_n_gw++] = via;
  return rtp;
}

inline std::string misuseText() {
  std::string out;
  for (const auto& m : corvd_misuse_log()) out += m + "\n";
  return out;
}

class DaemonTest : public ::testing::Test {
 protected:
  void SetUp() override { corvd_reset(); }
  void TearDown() override {
    corvd_reset();
    EXPECT_EQ(sock_live_copies(), 0u);
  }
};
