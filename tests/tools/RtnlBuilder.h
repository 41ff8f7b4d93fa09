// Builds rtnetlink messages as the kernel sends them (libmnl), for what feeds corvd-sim's kernel
// source without a kernel: its message tests and the netlink fuzz target's seed writer. Each call
// builds one message in the builder's buffer and returns it, writable (a test may cut or change
// it) and valid until the next call. Route attributes come in a fixed order, RTA_MULTIPATH last.
#pragma once

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include <cstdint>
#include <vector>

namespace RtnlTest {

// A device that is up, running and has carrier.
constexpr std::uint32_t kUp = IFF_UP | IFF_RUNNING | IFF_LOWER_UP;

struct Hop {
  const char* gateway;
  int oif;
};

struct Route {
  std::uint16_t type = RTM_NEWROUTE;
  int family = AF_INET;
  std::uint32_t table = RT_TABLE_MAIN;
  const char* dst = nullptr;  // null: the default route
  int len = 0;
  const char* gateway = nullptr;
  int oif = 0;
  std::uint8_t proto = RTPROT_STATIC;
  std::uint8_t kind = RTN_UNICAST;
  std::uint32_t metric = 0;
  std::vector<Hop> hops{};  // several: a multipath route
  std::uint8_t tos = 0;
  std::uint32_t flags = 0;
};

class RtnlBuilder {
 public:
  // A device: operstate up when it has carrier; a VRF device (table set) carries its table and
  // no MAC, a slave its master's index.
  nlmsghdr* link(int index, const char* name, std::uint32_t flags = kUp, std::uint32_t table = 0,
                 std::uint32_t master = 0, std::uint16_t type = RTM_NEWLINK) {
    nlmsghdr* nlh = header(type);
    auto* ifi = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
    ifi->ifi_index = index;
    ifi->ifi_flags = flags;
    mnl_attr_put_strz(nlh, IFLA_IFNAME, name);
    if (type == RTM_NEWLINK) {
      const unsigned char mac[6] = {0x02, 0, 0, 0, 0, static_cast<unsigned char>(index)};
      if (!table) mnl_attr_put(nlh, IFLA_ADDRESS, sizeof mac, mac);
      mnl_attr_put_u32(nlh, IFLA_MTU, 1500);
      mnl_attr_put_u8(nlh, IFLA_OPERSTATE, (flags & IFF_LOWER_UP) ? IF_OPER_UP : IF_OPER_DOWN);
      if (master) mnl_attr_put_u32(nlh, IFLA_MASTER, master);
    }
    if (table) {
      nlattr* info = mnl_attr_nest_start(nlh, IFLA_LINKINFO);
      mnl_attr_put_strz(nlh, IFLA_INFO_KIND, "vrf");
      nlattr* data = mnl_attr_nest_start(nlh, IFLA_INFO_DATA);
      mnl_attr_put_u32(nlh, IFLA_VRF_TABLE, table);
      mnl_attr_nest_end(nlh, data);
      mnl_attr_nest_end(nlh, info);
    }
    return nlh;
  }
  // The loopback device as the kernel reports it: operstate unknown, lower layer up.
  nlmsghdr* loopback() {
    nlmsghdr* nlh = header(RTM_NEWLINK);
    auto* ifi = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
    ifi->ifi_index = 1;
    ifi->ifi_flags = IFF_UP | IFF_LOOPBACK | IFF_RUNNING | IFF_LOWER_UP;
    mnl_attr_put_strz(nlh, IFLA_IFNAME, "lo");
    mnl_attr_put_u32(nlh, IFLA_MTU, 65536);
    mnl_attr_put_u8(nlh, IFLA_OPERSTATE, IF_OPER_UNKNOWN);
    return nlh;
  }
  // An address (IPv4 with its local address too), with its flags.
  nlmsghdr* addr(int family, int index, const char* text, int len, std::uint32_t flags = 0,
                 std::uint16_t type = RTM_NEWADDR) {
    nlmsghdr* nlh = header(type);
    auto* ifa = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
    ifa->ifa_family = static_cast<std::uint8_t>(family);
    ifa->ifa_prefixlen = static_cast<std::uint8_t>(len);
    ifa->ifa_index = static_cast<std::uint32_t>(index);
    putAddr(nlh, IFA_ADDRESS, family, text);
    if (family == AF_INET) putAddr(nlh, IFA_LOCAL, family, text);
    mnl_attr_put_u32(nlh, IFA_FLAGS, flags);
    return nlh;
  }
  // Attributes in this order: table, destination, metric, gateway, device, next hops.
  nlmsghdr* route(const Route& r) {
    nlmsghdr* nlh = header(r.type);
    auto* rtm = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg)));
    rtm->rtm_family = static_cast<std::uint8_t>(r.family);
    rtm->rtm_dst_len = static_cast<std::uint8_t>(r.len);
    rtm->rtm_tos = r.tos;
    rtm->rtm_table = r.table < 256 ? static_cast<std::uint8_t>(r.table)
                                   : static_cast<std::uint8_t>(RT_TABLE_COMPAT);
    rtm->rtm_protocol = r.proto;
    rtm->rtm_scope = r.gateway || !r.hops.empty() ? RT_SCOPE_UNIVERSE : RT_SCOPE_LINK;
    rtm->rtm_type = r.kind;
    rtm->rtm_flags = r.flags;
    mnl_attr_put_u32(nlh, RTA_TABLE, r.table);
    if (r.dst) putAddr(nlh, RTA_DST, r.family, r.dst);
    if (r.metric) mnl_attr_put_u32(nlh, RTA_PRIORITY, r.metric);
    if (r.gateway) putAddr(nlh, RTA_GATEWAY, r.family, r.gateway);
    if (r.oif) mnl_attr_put_u32(nlh, RTA_OIF, static_cast<std::uint32_t>(r.oif));
    if (!r.hops.empty()) {
      nlattr* mp = mnl_attr_nest_start(nlh, RTA_MULTIPATH);
      for (const Hop& h : r.hops) {
        auto* nh = static_cast<rtnexthop*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtnexthop)));
        nh->rtnh_ifindex = h.oif;
        const std::uint32_t start = nlh->nlmsg_len - sizeof(rtnexthop);
        putAddr(nlh, RTA_GATEWAY, r.family, h.gateway);
        nh->rtnh_len = static_cast<unsigned short>(nlh->nlmsg_len - start);
      }
      mnl_attr_nest_end(nlh, mp);
    }
    return nlh;
  }
  // A message of that type with no body (NLMSG_DONE, say).
  nlmsghdr* header(std::uint16_t type) {
    buf_.assign(MNL_SOCKET_BUFFER_SIZE, 0);
    nlmsghdr* nlh = mnl_nlmsg_put_header(buf_.data());
    nlh->nlmsg_type = type;
    return nlh;
  }

 private:
  static void putAddr(nlmsghdr* nlh, std::uint16_t type, int family, const char* text) {
    unsigned char bytes[16];
    inet_pton(family, text, bytes);
    mnl_attr_put(nlh, type, family == AF_INET ? 4 : 16, bytes);
  }

  std::vector<char> buf_;
};

}  // namespace RtnlTest
