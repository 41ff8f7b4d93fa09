// The module tests' world: the state database's inputs of a Root (interface status, kernel devices
// of the namespace, IPv4 and IPv6 status, routing configurations with their route input
// directories) on manual time with every module trace recorded, published as the agents publish
// them; a Root made from them; the daemon's interface and routing tables read back; and the end
// of a world (the root and theRoot go, traces return to their defaults, the daemon must have seen
// no misuse, its log being the failure message, and the daemon and the activity manager are
// reset).
// reference() is what the daemon's interface table must hold once the module is quiescent,
// computed from the published state by the rules of interface mirroring, independently of the
// module's code: a link for every interface that is local (status and kernel device present)
// and has address status (IPv4 in the served VRF, or IPv6 where the root has an IPv6 status),
// carrying the device's ifIndex, name, MTU, MAC and flags, and exactly the listed addresses; plus
// "lo" with its loopback addresses when the kernel has it.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "fwk/DaemonAddr.h"
#include "fwk/Root.h"
#include "fwk/daemon/corvd.h"
#include "fwk/daemon/host_conf.h"
#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Dir.h"
#include "fwk/framework/Trace.h"

namespace ModuleTest {

using namespace InterfaceRouteInfo;

inline Kanet::IpAddr addr(const char* text) { return Kanet::IpAddr::fromString(text); }
inline Kanet::Ip6Addr addr6(const char* text) { return Kanet::Ip6Addr::fromString(text); }
inline Routing::RouteKey key(const char* text) {
  return Routing::RouteKey(Kanet::IpPrefix::fromString(text));
}
inline Routing6::RouteKey key6(const char* text) {
  return Routing6::RouteKey(Kanet::Ip6Prefix::fromString(text));
}

// The messages recorded at `level`, in order.
std::vector<std::string> messages(const Kel::TraceRecorder& rec, int level);
// A daemon socket address as the daemon writes it.
std::string sockText(const sockaddr_un* a);

// Kernel device flags used by the tests.
constexpr std::uint32_t kUp = 0x1;
constexpr std::uint32_t kRunning = 0x40;

// The daemon's interface table: "ifIndex name mtu M state S ll L" -> sorted addresses
// ("10.0.0.1/24", "2001:db8::1/64").
using Table = std::map<std::string, std::set<std::string>>;
Table daemonTable();

// One entry of the daemon's routing table: preference and "gateway dev D" per gateway.
struct Entry {
  int pref;
  std::vector<std::string> gws;
  bool operator==(const Entry&) const = default;
};
std::ostream& operator<<(std::ostream& os, const Entry& e);
// Every entry, by (protocol, "prefix/len"), in the order of the prefix's entries.
using Routes = std::map<std::pair<int, std::string>, std::vector<Entry>>;
Routes daemonEntries();
// What the daemon holds for one protocol: prefix text -> "pref P via G dev D, via ..." (or
// "pref P blackhole"), entries of one prefix joined with " | ".
std::map<std::string, std::string> daemonRoutes(uint16_t proto);

// One next hop as text: {intfId or "", hop or ""}.
using ViaText = std::pair<const char*, const char*>;

class World : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // A Root named `name` for `vrf` with every input of the world but those named in `without`
  // ("all", "local", "ip", "ip6", "routing", "routing6"), not yet initialized.
  Kel::Ptr<InterfaceRouteInfo::Root> makeRoot(const std::string& name, const std::string& vrf,
                                              const std::set<std::string>& without = {});
  // Starts the world's Root for `vrf` (after the inputs are set up).
  void start(const char* vrf = "default");
  // How many times `text` was traced at `level` since the recorder was last cleared.
  int traced(const std::string& text, int level = 0) const;

  // Kernel devices. device() makes a new device entity (a re-created device when the name is in
  // use); flags and MAC change in place.
  void device(const std::string& name, std::uint32_t ifIndex, std::uint32_t flags = kUp | kRunning,
              const std::string& mac = "00:00:00:00:00:01");
  void deviceDel(const std::string& name);
  void deviceFlags(const std::string& name, std::uint32_t flags);
  void deviceMac(const std::string& name, const std::string& mac);
  // Interface status, oper up (with the device's ifIndex when given).
  void status(const std::string& intfId, const std::string& deviceName, std::uint16_t mtu = 1500,
              std::uint32_t ifIndex = 0);
  void statusDel(const std::string& intfId);
  void mtu(const std::string& intfId, std::uint16_t mtu);
  void oper(const std::string& intfId, bool up);
  // IPv4 status of an interface in a VRF: primary ("" for none) and secondaries, set exactly.
  void ip(const std::string& vrf, const std::string& intfId, const std::string& primary,
          const std::vector<std::string>& secondaries = {});
  void ipDel(const std::string& vrf, const std::string& intfId);
  void vrfDel(const std::string& vrf);
  // IPv6 status of an interface (VRF "default"), set exactly.
  void ip6(const std::string& intfId, const std::vector<std::string>& addrs);
  void ip6Del(const std::string& intfId);

  // An interface for the route tests: its status and kernel device, and its link entered into the
  // daemon directly with address `addr` when given ("10.0.1.1/24", or "2001:db8::1/64"; `peer`
  // makes it point-to-point). The state database gives it no addresses, so interface mirroring
  // leaves the link alone.
  void intf(const char* intfId, const char* device, unsigned ifIndex, const char* addr = nullptr,
            const char* peer = nullptr);
  // Adds one more daemon address to an interface made with intf().
  void daemonAddr(unsigned ifIndex, const char* addr, const char* peer = nullptr);

  // The route input named `name` (created and published in the directory on first use).
  Kel::Ptr<Routing::RouteInput> input(const char* name, uint8_t proto = 8, uint8_t pref = 20);
  Kel::Ptr<Routing6::RouteInput> input6(const char* name, uint8_t proto = 8, uint8_t pref = 20);
  // Publishes `prefix` with next hops / interfaces (either may be empty per via).
  Kel::Ptr<Routing::Route> publish(const Kel::Ptr<Routing::RouteInput>& in, const char* prefix,
                                   std::vector<ViaText> vias);
  Kel::Ptr<Routing6::Route> publish6(const Kel::Ptr<Routing6::RouteInput>& in, const char* prefix,
                                     std::vector<ViaText> vias);

  // Runs the activity loop for `seconds` of manual time, or until nothing is armed.
  void run(double seconds = 1.0);
  void settle();

  Table reference() const;

  Kel::Ptr<Interface::AllIntfStatusDir> all_;
  Kel::Ptr<Interface::AllIntfStatusLocalDir> local_;
  Kel::Ptr<KernelNetworkInfo::Root> kernel_;
  Kel::Ptr<Ip::Status> ipStatus_;
  Kel::Ptr<Ip6::Status> ip6Status_;
  Kel::Ptr<Routing::Config> config_;
  Kel::Ptr<Routing6::Config> config6_;
  Kel::Ptr<Kel::Dir> dir_;
  Kel::Ptr<Kel::Dir> dir6_;
  Kel::Ptr<InterfaceRouteInfo::Root> root_;
  std::string vrf_;
  Kel::TraceRecorder rec_;
};

// A task that looks at the daemon's interface table at every address report (after every
// change, each being its own bracket) and counts the times an address was on two links at once.
class OverlapObserver {
 public:
  OverlapObserver();
  ~OverlapObserver();
  int overlaps() const { return overlaps_; }
  int reports() const { return reports_; }

 private:
  static void onChange(task* tp, if_addr*);
  task task_;
  int overlaps_ = 0;
  int reports_ = 0;
};

}  // namespace ModuleTest
