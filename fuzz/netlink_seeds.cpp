// Writes the hand-built seeds of the netlink fuzz target into the directory it is given
// (fuzz/corpus/netlink/): one file per seed, in the target's input layout (a control byte, then
// rtnetlink messages built with libmnl as the kernel sends them). The inputs the fuzzer found
// faults with are kept beside these (docs/FUZZING.md) and are not written here.
//
//   build/fuzz/fuzz/netlink_seeds fuzz/corpus/netlink
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "tests/tools/RtnlBuilder.h"

namespace {

using RtnlTest::kUp;

constexpr std::uint8_t kAllKinds = 15;  // KernelSource::kAll
constexpr std::uint8_t kRunBetween = 0x10;

// One seed: the control byte, then the messages appended in order.
class Seed {
 public:
  explicit Seed(std::uint8_t control) : bytes_{control} {}

  Seed& link(int index, const char* name, std::uint32_t flags = kUp, std::uint32_t table = 0,
             std::uint32_t master = 0, std::uint16_t type = RTM_NEWLINK) {
    return append(msg_.link(index, name, flags, table, master, type));
  }
  Seed& loopback() { return append(msg_.loopback()); }
  Seed& addr(int family, int index, const char* text, int len, std::uint32_t flags = 0,
             std::uint16_t type = RTM_NEWADDR) {
    return append(msg_.addr(family, index, text, len, flags, type));
  }
  Seed& route(const RtnlTest::Route& r) { return append(msg_.route(r)); }
  // The end of a dump (in the target: ends the dump, or starts the next one).
  Seed& done() { return append(msg_.header(NLMSG_DONE)); }
  Seed& other(std::uint16_t type) { return append(msg_.header(type)); }

  void write(const std::string& dir, const char* name) const {
    const std::string path = dir + "/" + name;
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes_.data()),
               static_cast<std::streamsize>(bytes_.size()));
    if (bytes_.size() > 512) std::fprintf(stderr, "%s: %zu bytes\n", name, bytes_.size());
  }

 private:
  Seed& append(const nlmsghdr* nlh) {
    const auto* p = reinterpret_cast<const std::uint8_t*>(nlh);
    bytes_.insert(bytes_.end(), p, p + NLMSG_ALIGN(nlh->nlmsg_len));
    return *this;
  }

  std::vector<std::uint8_t> bytes_;
  RtnlTest::RtnlBuilder msg_;
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
