// Writes the hand-built seeds of the netlink fuzz target into the directory it is given
// (fuzz/corpus/netlink/): one file per seed, in the target's input layout (a control byte, then
// rtnetlink messages built with libmnl as the kernel sends them). The inputs the fuzzer found
// faults with are kept beside these (docs/FUZZING.md) and are not written here.
//
//   build/fuzz/fuzz/netlink_seeds fuzz/corpus/netlink
#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

constexpr std::uint8_t kAllKinds = 15;  // KernelSource::kAll
constexpr std::uint8_t kRunBetween = 0x10;
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
  std::vector<Hop> hops;  // several: a multipath route
  std::uint8_t tos = 0;
  std::uint32_t flags = 0;
};

void putAddr(nlmsghdr* nlh, std::uint16_t type, int family, const char* text) {
  unsigned char bytes[16];
  inet_pton(family, text, bytes);
  mnl_attr_put(nlh, type, family == AF_INET ? 4 : 16, bytes);
}

class Seed {
 public:
  explicit Seed(std::uint8_t control) : bytes_{control} {}

  Seed& link(int index, const char* name, std::uint32_t flags = kUp, std::uint32_t table = 0,
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
    return append(nlh);
  }
  // The loopback device as the kernel reports it: operstate unknown, lower layer up.
  Seed& loopback() {
    nlmsghdr* nlh = header(RTM_NEWLINK);
    auto* ifi = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
    ifi->ifi_index = 1;
    ifi->ifi_flags = IFF_UP | IFF_LOOPBACK | IFF_RUNNING | IFF_LOWER_UP;
    mnl_attr_put_strz(nlh, IFLA_IFNAME, "lo");
    mnl_attr_put_u32(nlh, IFLA_MTU, 65536);
    mnl_attr_put_u8(nlh, IFLA_OPERSTATE, IF_OPER_UNKNOWN);
    return append(nlh);
  }
  Seed& addr(int family, int index, const char* text, int len, std::uint32_t flags = 0,
             std::uint16_t type = RTM_NEWADDR) {
    nlmsghdr* nlh = header(type);
    auto* ifa = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
    ifa->ifa_family = static_cast<std::uint8_t>(family);
    ifa->ifa_prefixlen = static_cast<std::uint8_t>(len);
    ifa->ifa_index = static_cast<std::uint32_t>(index);
    putAddr(nlh, IFA_ADDRESS, family, text);
    if (family == AF_INET) putAddr(nlh, IFA_LOCAL, family, text);
    mnl_attr_put_u32(nlh, IFA_FLAGS, flags);
    return append(nlh);
  }
  Seed& route(const Route& r) {
    nlmsghdr* nlh = header(r.type);
    auto* rtm = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg)));
    rtm->rtm_family = static_cast<std::uint8_t>(r.family);
    rtm->rtm_dst_len = static_cast<std::uint8_t>(r.len);
    rtm->rtm_tos = r.tos;
    rtm->rtm_table = r.table < 256 ? static_cast<std::uint8_t>(r.table) : RT_TABLE_COMPAT;
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
    return append(nlh);
  }
  // The end of a dump (in the target: ends the dump, or starts the next one).
  Seed& done() { return append(header(NLMSG_DONE)); }
  Seed& other(std::uint16_t type) { return append(header(type)); }

  void write(const std::string& dir, const char* name) const {
    const std::string path = dir + "/" + name;
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes_.data()),
               static_cast<std::streamsize>(bytes_.size()));
    if (bytes_.size() > 512) std::fprintf(stderr, "%s: %zu bytes\n", name, bytes_.size());
  }

 private:
  nlmsghdr* header(std::uint16_t type) {
    buf_.assign(MNL_SOCKET_BUFFER_SIZE, 0);
    nlmsghdr* nlh = mnl_nlmsg_put_header(buf_.data());
    nlh->nlmsg_type = type;
    return nlh;
  }
  Seed& append(const nlmsghdr* nlh) {
    const auto* p = reinterpret_cast<const std::uint8_t*>(nlh);
    bytes_.insert(bytes_.end(), p, p + NLMSG_ALIGN(nlh->nlmsg_len));
    return *this;
  }

  std::vector<std::uint8_t> bytes_;
  std::vector<char> buf_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
    return 2;
  }
  const std::string dir = argv[1];

  Seed(0).loopback().link(2, "eth0").link(3, "eth1", IFF_UP).write(dir, "links");
  // A secondary before the primary; the primary's removal promotes the secondary.
  Seed(0)
      .link(2, "eth0")
      .addr(AF_INET, 2, "10.0.0.2", 24, IFA_F_SECONDARY)
      .addr(AF_INET, 2, "10.0.0.1", 24)
      .addr(AF_INET, 2, "10.0.0.1", 24, 0, RTM_DELADDR)
      .addr(AF_INET, 2, "10.0.0.2", 24)
      .write(dir, "addr_v4");
  Seed(0)
      .link(2, "eth0")
      .addr(AF_INET6, 2, "2001:db8::1", 64, IFA_F_PERMANENT)
      .addr(AF_INET6, 2, "fe80::1", 64)
      .write(dir, "addr_v6");
  Seed(kRunBetween)
      .link(2, "eth0")
      .addr(AF_INET, 2, "10.0.0.1", 24)
      .route({.dst = "10.1.0.0", .len = 16, .gateway = "10.0.0.254", .oif = 2, .metric = 100})
      .route({.gateway = "10.0.0.254", .oif = 2, .proto = RTPROT_DHCP})
      .route({.dst = "10.0.0.0", .len = 24, .oif = 2, .proto = RTPROT_KERNEL})
      .write(dir, "route_gateway");
  Seed(0)
      .link(2, "eth0")
      .link(3, "eth1")
      .addr(AF_INET, 2, "10.0.0.1", 24)
      .addr(AF_INET, 3, "10.0.1.1", 24)
      .route({.dst = "10.2.0.0", .len = 16, .hops = {{"10.0.0.254", 2}, {"10.0.1.254", 3}}})
      .write(dir, "multipath_hops_end_message");
  Seed(0)
      .route({.dst = "192.0.2.0", .len = 24, .kind = RTN_BLACKHOLE})
      .route({.family = AF_INET6, .dst = "2001:db8:dead::", .len = 48, .kind = RTN_BLACKHOLE})
      .write(dir, "route_blackhole");
  Seed(kRunBetween)
      .link(2, "eth0")
      .addr(AF_INET6, 2, "2001:db8::1", 64)
      .route({.family = AF_INET6, .dst = "2001:db8:1::", .len = 48, .gateway = "fe80::1", .oif = 2})
      .route({.family = AF_INET6, .dst = "2001:db8::", .len = 64, .oif = 2, .proto = RTPROT_RA})
      .write(dir, "route_v6");
  Seed(0)
      .link(10, "blue", kUp, 100)
      .link(2, "eth0", kUp, 0, 10)
      .addr(AF_INET, 2, "10.1.0.1", 24)
      .route({.table = 100, .dst = "10.8.0.0", .len = 16, .gateway = "10.1.0.5", .oif = 2})
      .route({.dst = "10.9.0.0", .len = 16, .gateway = "10.1.0.6", .oif = 2})
      .write(dir, "vrf_slave");
  Seed(0)
      .link(10, "blue", kUp, 100)
      .link(2, "eth0", kUp, 0, 10)
      .addr(AF_INET6, 2, "2001:db8::1", 64)
      .route({.table = 100, .dst = "10.8.0.0", .len = 16, .gateway = "10.1.0.5", .oif = 2})
      .link(10, "blue", kUp, 100, 0, RTM_DELLINK)
      .link(11, "red", kUp, 100)
      .write(dir, "vrf_gone");
  Seed(kRunBetween)
      .link(2, "eth0")
      .addr(AF_INET, 2, "10.0.0.1", 24)
      .route({.dst = "10.1.0.0", .len = 16, .gateway = "10.0.0.254", .oif = 2})
      .route({.type = RTM_DELROUTE, .dst = "10.1.0.0", .len = 16, .gateway = "10.0.0.254"})
      .addr(AF_INET, 2, "10.0.0.1", 24, 0, RTM_DELADDR)
      .link(2, "eth0", 0, 0, 0, RTM_DELLINK)
      .write(dir, "deletes");
  Seed(kAllKinds)
      .link(2, "eth0")
      .link(3, "eth1")
      .addr(AF_INET, 2, "10.0.0.1", 24)
      .route({.dst = "10.1.0.0", .len = 16, .gateway = "10.0.0.254", .oif = 2})
      .done()
      .route({.dst = "10.2.0.0", .len = 16, .gateway = "10.0.1.254", .oif = 3})
      .done()
      .link(2, "eth0")
      .addr(AF_INET, 2, "10.0.0.1", 24)
      .write(dir, "resync");
  Seed(0)
      .link(2, "eth0")
      .link(3, "eth1")
      .route({.dst = "10.3.0.0", .len = 16, .gateway = "10.0.0.254", .oif = 2, .metric = 200})
      .route({.dst = "10.3.0.0", .len = 16, .gateway = "10.0.1.254", .oif = 3, .metric = 100})
      .route({.type = RTM_DELROUTE, .dst = "10.3.0.0", .len = 16, .metric = 100})
      .write(dir, "metrics");
  Seed(0)
      .link(2, "eth0")
      .route({.table = RT_TABLE_LOCAL, .dst = "10.0.0.1", .len = 32, .oif = 2})
      .route({.dst = "10.4.0.0", .len = 16, .oif = 2, .proto = RTPROT_UNSPEC})
      .route({.dst = "10.5.0.0", .len = 16, .oif = 2, .flags = RTM_F_CLONED})
      .route({.dst = "10.6.0.0", .len = 16, .oif = 2, .tos = 0x10})
      .route({.dst = "10.7.0.0", .len = 16, .oif = 2, .kind = RTN_UNREACHABLE})
      .addr(AF_INET, 2, "0.0.0.0", 8)
      .link(0, "eth9")
      .other(NLMSG_ERROR)
      .other(RTM_GETLINK)
      .write(dir, "ignored");
  Seed(0)
      .link(2, "tun0", kUp | IFF_POINTOPOINT)
      .addr(AF_INET, 2, "10.9.0.1", 32)
      .write(dir, "point_to_point_address");
  Seed(0)
      .link(2, "eth0")
      .addr(AF_INET, 2, "10.0.0.1", 24)
      .link(2, "wan0")
      .link(3, "eth0")
      .write(dir, "rename");
  return 0;
}
