// The kernel source: turns rtnetlink messages of one network namespace (links, addresses,
// routes, from a dump or a notification) into the state-database events that scenario lines
// publish, and hands them to a Publisher as scenario lines. Every kernel fact thus passes the
// same checks and the same publishing code as a typed scenario, and can be replayed by hand.
//
// What is published (interface id = device name):
//  - each device: "device" (ifIndex, kernel flags, MAC when it has six bytes) and "intf" (MTU,
//    capped at 65535, and the VRF: a slave of a Linux VRF device goes to that VRF, a VRF device
//    to its own, the rest to "default"); "oper" down unless operstate is up, or unknown with the
//    lower layer up (dummy and loopback devices report unknown). A device whose name a scenario
//    line cannot carry as one word (with a '#', which the kernel allows) is not mirrored;
//  - IPv4 addresses of the device's VRF, primary first: the kernel's first address without
//    IFA_F_SECONDARY; the kernel's promotions arrive as new flags and are followed. IPv6
//    addresses only for devices in "default" (the module serves IPv6 there only);
//  - routes of the main table into "default" and of a VRF device's table into that VRF; the
//    local table and tables of no VRF never; unicast and blackhole routes only, TOS 0 only,
//    IPv6 only in "default". One route input per kernel protocol (kernelProtoName): its daemon
//    protocol number is the kernel's number, 1..255; kernel protocol 0 (unspecified) has no
//    daemon number and is not mirrored (counted). When one prefix is in one protocol several
//    times (different metrics), the lowest metric is published; multipath next hops are vias.
//    A destination with host bits set is malformed (ignored); an all-zero gateway is none.
//  - a VRF device appearing starts its VRF ("vrf NAME"); its disappearance stops the VRF's
//    world (Publisher::vrfGone), which takes the VRF's routes and inputs along; its slaves go
//    back to "default", and its table's routes are published again when another VRF device
//    takes the table.
// Resynchronisation: dumpBegin(kinds), the dump's messages, dumpEnd(kinds) removes what the dump
// did not show. A name that appears under a new ifIndex ends the device that held it (the
// kernel's names are unique; its removal was lost, or comes later in the dump). IPv4 routes removed
// by the kernel without a message (a device going away, an address deleted) are caught by a new
// IPv4 route dump, which routeDumpWanted() asks for.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace CorvdSim {

// Where the kernel source's events go.
class Publisher {
 public:
  virtual ~Publisher() = default;
  // One scenario line. A refused line is the publisher's to report; the source goes on.
  virtual void line(const std::string& text) = 0;
  // The VRF's device is gone: its world stops.
  virtual void vrfGone(const std::string& vrf) = 0;
};

// The kernel route protocol's name in route input names ("kernel", "static", ...; "proto<N>").
std::string kernelProtoName(std::uint8_t proto);

class KernelSource {
 public:
  enum Kind : unsigned { kLinks = 1, kAddrs = 2, kRoutes4 = 4, kRoutes6 = 8, kAll = 15 };
  struct Counters {
    std::uint64_t messages = 0;     // link, address and route messages handled
    std::uint64_t lines = 0;        // scenario lines published
    std::uint64_t ignored = 0;      // messages of no interest or malformed
    std::uint64_t unspecProto = 0;  // route messages of kernel protocol 0
  };

  explicit KernelSource(Publisher& pub);

  // Handles one RTM_{NEW,DEL}{LINK,ADDR,ROUTE} message, reading only its nlmsg_len bytes;
  // anything else, and a length the kernel never sends (not a multiple of 4), is ignored.
  void message(const nlmsghdr* nlh);
  void dumpBegin(unsigned kinds);
  void dumpEnd(unsigned kinds);
  bool routeDumpWanted() const { return routeDumpWanted_; }
  const Counters& counters() const { return counters_; }

 private:
  struct Link {
    std::string name;
    std::uint32_t flags = 0;
    std::string mac;  // empty when not six bytes
    std::uint32_t mtu = 0;
    std::uint8_t oper = 0;
    std::uint32_t master = 0;
    bool isVrf = false;
    std::uint32_t table = 0;  // a VRF device's table
    std::uint64_t gen = 0;
  };
  struct Addr {
    std::string text;  // "A/L"
    bool secondary = false;
    std::uint64_t gen = 0;
  };
  struct Published {  // what the scenario world has of a device
    std::uint32_t index = 0;
    std::uint32_t flags = 0;
    std::string mac;
    std::uint32_t mtu = 0;
    bool up = false;
    std::string vrf;
    std::string v4, v6;  // the words of the last "ip" / "ip6" line
  };
  struct RouteKey {
    std::uint32_t table;
    std::uint8_t family;
    std::uint8_t proto;
    std::string prefix;
    auto operator<=>(const RouteKey&) const = default;
  };
  struct Path {
    std::string vias;  // " via A dev D ..." or empty for a blackhole
    bool blackhole = false;
    std::uint64_t gen = 0;
  };
  struct RouteSlot {
    std::map<std::uint32_t, Path> byMetric;
    std::string vrf;   // where it is published
    std::string line;  // the line that published it; empty when not published
  };

  void emit(const std::string& text);
  void linkMessage(const nlmsghdr* nlh);
  void addrMessage(const nlmsghdr* nlh);
  void routeMessage(const nlmsghdr* nlh);
  void linkGone(std::uint32_t index);
  std::string vrfOf(const Link& l) const;
  void syncLink(std::uint32_t index);
  void syncAddrs(std::uint32_t index);
  void syncRoute(const RouteKey& key);
  void syncTable(std::uint32_t table);
  std::string tableVrf(std::uint32_t table) const;
  void vrfStarted(std::uint32_t index);
  // Stops the world of the VRF device `was` (at index), which is gone or no longer that VRF.
  void vrfStopped(std::uint32_t index, const Link& was);

  Publisher& pub_;
  Counters counters_;
  std::uint64_t gen_ = 1;
  bool routeDumpWanted_ = false;
  std::map<std::uint32_t, Link> links_;
  std::map<std::uint32_t, std::vector<Addr>> v4_, v6_;
  std::map<std::string, Published> published_;            // by device name
  std::map<std::uint32_t, std::string> vrfTables_;        // started VRFs by table
  std::set<std::pair<std::string, std::string>> inputs_;  // (vrf, input) published
  std::map<RouteKey, RouteSlot> routes_;
};

}  // namespace CorvdSim
