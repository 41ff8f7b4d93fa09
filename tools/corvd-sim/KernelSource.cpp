#include "tools/corvd-sim/KernelSource.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <utility>

#include "tools/corvd-sim/Netlink.h"

namespace CorvdSim {

namespace {

constexpr std::uint32_t kMaxMtu = 65535;  // the interface status holds 16 bits
constexpr std::size_t kMaxAddrs = 62;     // addresses one "ip" line takes
constexpr char kDefault[] = "default";

// A device name the kernel accepts and a scenario line carries as one word: 1 to 15 bytes, no
// '/' and no blank (the kernel refuses those), no '#' (a scenario line's comment starts there).
bool mirroredName(const std::string& name) {
  return !name.empty() && name.size() <= 15 &&
         std::none_of(name.begin(), name.end(),
                      [](unsigned char c) { return c == '/' || c == '#' || std::isspace(c); });
}

bool payloadAtLeast(const nlattr* a, std::size_t n) {
  return a && mnl_attr_get_payload_len(a) >= n;
}

std::string addrText(int family, const nlattr* a) {
  const std::size_t n = family == AF_INET ? 4 : 16;
  if (!payloadAtLeast(a, n)) return {};
  char buf[INET6_ADDRSTRLEN];
  if (!inet_ntop(family, mnl_attr_get_payload(a), buf, sizeof buf)) return {};
  return buf;
}

// True when no bit of the address (n bytes) is set beyond its first `len`: a network, as the
// kernel keeps routes.
bool networkOnly(const nlattr* a, std::size_t n, unsigned len) {
  const auto* b = static_cast<const std::uint8_t*>(mnl_attr_get_payload(a));
  for (std::size_t i = 0; i < n; ++i) {
    const unsigned first = 8 * static_cast<unsigned>(i);  // the byte's first bit
    const unsigned hostBits = len <= first ? 0xff : len >= first + 8 ? 0 : 0xff >> (len - first);
    if (b[i] & hostBits) return false;
  }
  return true;
}

std::string macText(const nlattr* a) {
  if (!a || mnl_attr_get_payload_len(a) != 6) return {};
  const auto* b = static_cast<const unsigned char*>(mnl_attr_get_payload(a));
  char buf[18];
  std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4],
                b[5]);
  return buf;
}

// The daemon's preference for a kernel protocol's input: connected routes first, then static,
// boot-time, the rest.
std::uint8_t protoPreference(std::uint8_t proto) {
  switch (proto) {
    case RTPROT_KERNEL:
      return 0;
    case RTPROT_STATIC:
      return 1;
    case RTPROT_BOOT:
      return 2;
    default:
      return 10;
  }
}

}  // namespace

std::string kernelProtoName(std::uint8_t proto) {
  static const std::map<std::uint8_t, const char*> names = {{RTPROT_REDIRECT, "redirect"},
                                                            {RTPROT_KERNEL, "kernel"},
                                                            {RTPROT_BOOT, "boot"},
                                                            {RTPROT_STATIC, "static"},
                                                            {RTPROT_RA, "ra"},
                                                            {RTPROT_DHCP, "dhcp"},
                                                            {RTPROT_BGP, "bgp"},
                                                            {RTPROT_ISIS, "isis"},
                                                            {RTPROT_OSPF, "ospf"},
                                                            {RTPROT_RIP, "rip"}};
  auto it = names.find(proto);
  return it != names.end() ? it->second : "proto" + std::to_string(proto);
}

KernelSource::KernelSource(Publisher& pub) : pub_(pub) { emit("vrf default"); }

void KernelSource::emit(const std::string& text) {
  ++counters_.lines;
  pub_.line(text);
}

void KernelSource::message(const nlmsghdr* nlh) {
  // libmnl reads attributes up to the message's length rounded up to 4 bytes, which the kernel
  // always pads its rtnetlink messages to; a message of another length would be read past.
  if (nlh->nlmsg_len != NLMSG_ALIGN(nlh->nlmsg_len)) {
    ++counters_.ignored;
    return;
  }
  switch (nlh->nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
      return linkMessage(nlh);
    case RTM_NEWADDR:
    case RTM_DELADDR:
      return addrMessage(nlh);
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
      return routeMessage(nlh);
    default:
      ++counters_.ignored;
  }
}

void KernelSource::dumpBegin(unsigned kinds) {
  ++gen_;
  if (kinds & kRoutes4) routeDumpWanted_ = false;
}

void KernelSource::dumpEnd(unsigned kinds) {
  if (kinds & kLinks) {
    std::vector<std::uint32_t> gone;
    for (const auto& [index, l] : links_) {
      if (l.gen != gen_) gone.push_back(index);
    }
    for (auto index : gone) linkGone(index);
  }
  if (kinds & kAddrs) {
    for (auto* table : {&v4_, &v6_}) {
      for (auto& [index, addrs] : *table) {
        const auto n = addrs.size();
        std::erase_if(addrs, [&](const Addr& a) { return a.gen != gen_; });
        if (addrs.size() != n) syncAddrs(index);
      }
    }
  }
  std::vector<RouteKey> changed;  // syncRoute may erase from routes_
  for (auto& [key, slot] : routes_) {
    const bool dumped = key.family == AF_INET ? (kinds & kRoutes4) : (kinds & kRoutes6);
    if (!dumped) continue;
    const auto n = slot.byMetric.size();
    std::erase_if(slot.byMetric, [&](const auto& p) { return p.second.gen != gen_; });
    if (slot.byMetric.size() != n) changed.push_back(key);
  }
  for (const auto& key : changed) syncRoute(key);
}

void KernelSource::linkMessage(const nlmsghdr* nlh) {
  if (mnl_nlmsg_get_payload_len(nlh) < sizeof(ifinfomsg)) {
    ++counters_.ignored;
    return;
  }
  const auto* ifi = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(nlh));
  const auto index = static_cast<std::uint32_t>(ifi->ifi_index);
  ++counters_.messages;
  if (nlh->nlmsg_type == RTM_DELLINK) {
    if (links_.count(index)) linkGone(index);
    return;
  }
  Attrs<IFLA_MAX> tb;
  mnl_attr_parse(nlh, sizeof(*ifi), Attrs<IFLA_MAX>::collect, &tb);
  const std::string name = attrStr(tb[IFLA_IFNAME]);
  if (index == 0 || !mirroredName(name)) {
    // Renamed to a name that is not mirrored, a known device is gone as far as the worlds know.
    if (!name.empty() && links_.count(index)) linkGone(index);
    ++counters_.ignored;
    return;
  }
  auto found = links_.find(index);
  if (found != links_.end() && found->second.name != name) linkGone(index);  // renamed
  // The kernel's names are unique: a device that held the name under another index is gone, its
  // removal lost in an overrun or still to come (a new dump shows the new device before dumpEnd).
  auto other = std::find_if(links_.begin(), links_.end(), [&](const auto& x) {
    return x.first != index && x.second.name == name;
  });
  if (other != links_.end()) linkGone(other->first);
  Link& l = links_[index];
  const Link was = l;
  // A device going down loses its IPv4 routes without a message.
  if ((l.flags & ~ifi->ifi_flags) & (IFF_UP | IFF_LOWER_UP)) routeDumpWanted_ = true;
  l.name = name;
  l.flags = ifi->ifi_flags;
  // A change message may leave out what did not change; a dump gives everything.
  if (tb[IFLA_ADDRESS]) l.mac = macText(tb[IFLA_ADDRESS]);
  if (tb[IFLA_MTU]) l.mtu = attrU32(tb[IFLA_MTU], l.mtu);
  l.oper = attrU8(tb[IFLA_OPERSTATE], l.oper);
  l.master = attrU32(tb[IFLA_MASTER], 0);
  l.gen = gen_;
  if (tb[IFLA_LINKINFO]) {
    Attrs<IFLA_INFO_MAX> info;
    mnl_attr_parse_nested(tb[IFLA_LINKINFO], Attrs<IFLA_INFO_MAX>::collect, &info);
    if (attrStr(info[IFLA_INFO_KIND]) == "vrf" && info[IFLA_INFO_DATA]) {
      Attrs<IFLA_VRF_MAX> vrf;
      mnl_attr_parse_nested(info[IFLA_INFO_DATA], Attrs<IFLA_VRF_MAX>::collect, &vrf);
      l.table = attrU32(vrf[IFLA_VRF_TABLE], l.table);
      l.isVrf = l.table != 0 && name != kDefault;
    }
  }
  // A VRF device whose table changes (or that says table 0) stops being that VRF first: its
  // world goes, and it and its slaves move to "default" until the VRF starts again.
  const bool sameVrf = was.isVrf && l.isVrf && was.table == l.table;
  if (was.isVrf && !sameVrf) {
    const bool isVrf = std::exchange(l.isVrf, false);
    vrfStopped(index, was);
    l.isVrf = isVrf;
  }
  syncLink(index);
  if (l.isVrf && !sameVrf) vrfStarted(index);
}

void KernelSource::vrfStarted(std::uint32_t index) {
  const Link& l = links_.at(index);
  vrfTables_[l.table] = l.name;
  emit("vrf " + l.name);
  for (const auto& [other, link] : links_) {
    if (link.master == index) syncLink(other);
  }
  syncTable(l.table);
}

void KernelSource::linkGone(std::uint32_t index) {
  const Link l = links_.at(index);
  if (auto it = published_.find(l.name); it != published_.end() && it->second.index == index) {
    emit("nointf " + l.name);
    emit("nodevice " + l.name);
    published_.erase(it);
  }
  links_.erase(index);
  v4_.erase(index);
  v6_.erase(index);
  // The kernel drops the IPv4 routes over the device without telling.
  routeDumpWanted_ = true;
  for (auto& [other, link] : links_) {
    if (link.master == index) link.master = 0;
  }
  if (l.isVrf) vrfStopped(index, l);
}

void KernelSource::vrfStopped(std::uint32_t index, const Link& l) {
  // The world goes with its routes and inputs; the table's routes are published again if a VRF
  // device takes the table later. A table another VRF device took since stays that device's.
  const bool ownedTable = tableVrf(l.table) == l.name;
  if (ownedTable) vrfTables_.erase(l.table);
  for (auto& [key, slot] : routes_) {
    if (slot.vrf != l.name) continue;
    slot.line.clear();
    slot.vrf.clear();
  }
  std::erase_if(inputs_, [&](const auto& in) { return in.first == l.name; });
  pub_.vrfGone(l.name);
  for (auto& [other, link] : links_) syncLink(other);
  // The kernel lets VRF devices share a table: another one that uses it takes it over.
  if (!ownedTable) return;
  for (const auto& [other, link] : links_) {
    if (other != index && link.isVrf && link.table == l.table) {
      vrfTables_[l.table] = link.name;
      syncTable(l.table);
      return;
    }
  }
}

std::string KernelSource::vrfOf(const Link& l) const {
  if (l.isVrf) return l.name;
  auto master = links_.find(l.master);
  if (l.master && master != links_.end() && master->second.isVrf) return master->second.name;
  return kDefault;
}

void KernelSource::syncLink(std::uint32_t index) {
  const Link& l = links_.at(index);
  const std::string vrf = vrfOf(l);
  const std::uint32_t mtu = std::clamp<std::uint32_t>(l.mtu, 68, kMaxMtu);
  const bool up = l.oper == IF_OPER_UP ||
                  (l.oper == IF_OPER_UNKNOWN && (l.flags & IFF_UP) && (l.flags & IFF_LOWER_UP));
  const std::string mac = l.mac.empty() ? "" : " mac " + l.mac;
  auto it = published_.find(l.name);
  if (it == published_.end() || it->second.index != index) {
    emit("device " + l.name + " " + std::to_string(index) + " flags " + std::to_string(l.flags) +
         mac);
    if (it == published_.end()) {
      emit("intf " + l.name + " " + l.name + " vrf " + vrf + " mtu " + std::to_string(mtu));
      it = published_.emplace(l.name, Published{}).first;
      it->second.vrf = vrf;
      it->second.mtu = mtu;
      it->second.up = true;
    }
    it->second.index = index;
    it->second.flags = l.flags;
    it->second.mac = l.mac;
  }
  Published& p = it->second;
  if (p.flags != l.flags) emit("flags " + l.name + " " + std::to_string(l.flags));
  if (p.mac != l.mac && !l.mac.empty()) emit("mac " + l.name + " " + l.mac);
  if (p.mtu != mtu) emit("mtu " + l.name + " " + std::to_string(mtu));
  if (p.vrf != vrf) {
    if (!p.v6.empty()) emit("noip6 " + l.name);
    p.v6.clear();
    emit("intf " + l.name + " " + l.name + " vrf " + vrf);
  }
  if (p.up != up) emit("oper " + l.name + (up ? " up" : " down"));
  p.flags = l.flags;
  p.mac = l.mac;
  p.mtu = mtu;
  p.vrf = vrf;
  p.up = up;
  syncAddrs(index);
}

void KernelSource::addrMessage(const nlmsghdr* nlh) {
  if (mnl_nlmsg_get_payload_len(nlh) < sizeof(ifaddrmsg)) {
    ++counters_.ignored;
    return;
  }
  const auto* ifa = static_cast<const ifaddrmsg*>(mnl_nlmsg_get_payload(nlh));
  const int family = ifa->ifa_family;
  const int maxLen = family == AF_INET ? 32 : 128;
  if ((family != AF_INET && family != AF_INET6) || ifa->ifa_prefixlen > maxLen) {
    ++counters_.ignored;
    return;
  }
  Attrs<IFA_MAX> tb;
  mnl_attr_parse(nlh, sizeof(*ifa), Attrs<IFA_MAX>::collect, &tb);
  // IFA_LOCAL is the local address (IFA_ADDRESS the peer on a point-to-point link).
  const std::string a = addrText(family, tb[IFA_LOCAL] ? tb[IFA_LOCAL] : tb[IFA_ADDRESS]);
  if (a.empty() || (family == AF_INET && a == "0.0.0.0")) {
    ++counters_.ignored;
    return;
  }
  ++counters_.messages;
  const std::uint32_t flags = attrU32(tb[IFA_FLAGS], ifa->ifa_flags);
  const std::string text = a + "/" + std::to_string(ifa->ifa_prefixlen);
  auto& addrs = (family == AF_INET ? v4_ : v6_)[ifa->ifa_index];
  auto it = std::find_if(addrs.begin(), addrs.end(), [&](const Addr& x) { return x.text == text; });
  if (nlh->nlmsg_type == RTM_DELADDR) {
    if (it != addrs.end()) addrs.erase(it);
    // Routes through the address's subnet may have gone without a message.
    if (family == AF_INET) routeDumpWanted_ = true;
  } else if (it != addrs.end()) {
    it->secondary = flags & IFA_F_SECONDARY;
    it->gen = gen_;
  } else {
    addrs.push_back(Addr{text, static_cast<bool>(flags & IFA_F_SECONDARY), gen_});
  }
  if (links_.count(ifa->ifa_index)) syncAddrs(ifa->ifa_index);
}

void KernelSource::syncAddrs(std::uint32_t index) {
  // Addresses of a device not known (yet) are kept and published with the device.
  auto link = links_.find(index);
  if (link == links_.end()) return;
  const Link& l = link->second;
  auto pub = published_.find(l.name);
  if (pub == published_.end() || pub->second.index != index) return;
  Published& p = pub->second;
  // Primary first (the kernel's first address without the secondary flag), then the rest in the
  // kernel's order; one address for each local address (the kernel may hold it twice with
  // different prefix lengths; the first is kept).
  auto words = [](const std::vector<Addr>& addrs, bool primaryFirst) {
    std::vector<const Addr*> order;
    for (const auto& a : addrs) order.push_back(&a);
    auto primary = std::find_if(order.begin(), order.end(), [](auto* a) { return !a->secondary; });
    if (primaryFirst && primary != order.end()) std::rotate(order.begin(), primary, primary + 1);
    std::string out;
    std::set<std::string> seen;
    for (const Addr* a : order) {
      if (!seen.insert(a->text.substr(0, a->text.find('/'))).second) continue;
      if (seen.size() > kMaxAddrs) break;
      out += " " + a->text;
    }
    return out;
  };
  const auto v4 = v4_.find(index);
  const std::string w4 = v4 == v4_.end() ? "" : words(v4->second, true);
  if (w4 != p.v4) emit(w4.empty() ? "noip " + l.name : "ip " + l.name + w4);
  p.v4 = w4;
  const auto v6 = v6_.find(index);
  const std::string w6 = v6 == v6_.end() || p.vrf != kDefault ? "" : words(v6->second, false);
  if (w6 != p.v6) emit(w6.empty() ? "noip6 " + l.name : "ip6 " + l.name + w6);
  p.v6 = w6;
}

void KernelSource::routeMessage(const nlmsghdr* nlh) {
  if (mnl_nlmsg_get_payload_len(nlh) < sizeof(rtmsg)) {
    ++counters_.ignored;
    return;
  }
  const auto* rtm = static_cast<const rtmsg*>(mnl_nlmsg_get_payload(nlh));
  const int family = rtm->rtm_family;
  const int maxLen = family == AF_INET ? 32 : 128;
  if ((family != AF_INET && family != AF_INET6) || rtm->rtm_dst_len > maxLen ||
      (rtm->rtm_flags & RTM_F_CLONED) || rtm->rtm_tos != 0 ||
      (rtm->rtm_type != RTN_UNICAST && rtm->rtm_type != RTN_BLACKHOLE)) {
    ++counters_.ignored;
    return;
  }
  Attrs<RTA_MAX> tb;
  mnl_attr_parse(nlh, sizeof(*rtm), Attrs<RTA_MAX>::collect, &tb);
  const std::uint32_t table = attrU32(tb[RTA_TABLE], rtm->rtm_table);
  if (table == RT_TABLE_LOCAL) {
    ++counters_.ignored;
    return;
  }
  if (rtm->rtm_protocol == RTPROT_UNSPEC) {
    ++counters_.unspecProto;
    return;
  }
  ++counters_.messages;
  std::string dst =
      tb[RTA_DST] ? addrText(family, tb[RTA_DST]) : (family == AF_INET ? "0.0.0.0" : "::");
  // A destination with host bits set is no route the kernel holds (it refuses to add one).
  if (dst.empty() ||
      (tb[RTA_DST] && !networkOnly(tb[RTA_DST], family == AF_INET ? 4 : 16, rtm->rtm_dst_len))) {
    ++counters_.ignored;
    return;
  }
  const RouteKey key{table, static_cast<std::uint8_t>(family), rtm->rtm_protocol,
                     dst + "/" + std::to_string(rtm->rtm_dst_len)};
  const std::uint32_t metric = attrU32(tb[RTA_PRIORITY], 0);
  RouteSlot& slot = routes_[key];
  if (nlh->nlmsg_type == RTM_DELROUTE) {
    slot.byMetric.erase(metric);
    return syncRoute(key);
  }
  Path path;
  path.gen = gen_;
  path.blackhole = rtm->rtm_type == RTN_BLACKHOLE;
  auto hop = [&](const nlattr* gw, std::uint32_t oif) {
    // An all-zero gateway is none (the kernel leaves the attribute out then).
    const std::string g = addrText(family, gw);
    if (!g.empty() && g != "0.0.0.0" && g != "::") path.vias += " via " + g;
    auto link = links_.find(oif);
    if (oif && link != links_.end()) path.vias += " dev " + link->second.name;
  };
  if (tb[RTA_MULTIPATH]) {
    const auto* nh = static_cast<const rtnexthop*>(mnl_attr_get_payload(tb[RTA_MULTIPATH]));
    int len = static_cast<int>(mnl_attr_get_payload_len(tb[RTA_MULTIPATH]));
    // RTNH_OK reads rtnh_len before it compares it with what is left: a whole header must be
    // left first, or the last hop's successor is read past the attribute (and the message).
    for (; len >= static_cast<int>(sizeof(*nh)) && RTNH_OK(nh, len);
         len -= NLMSG_ALIGN(nh->rtnh_len), nh = RTNH_NEXT(nh)) {
      Attrs<RTA_MAX> sub;
      mnl_attr_parse_payload(RTNH_DATA(nh), nh->rtnh_len - sizeof(*nh), Attrs<RTA_MAX>::collect,
                             &sub);
      hop(sub[RTA_GATEWAY], static_cast<std::uint32_t>(nh->rtnh_ifindex));
    }
  } else {
    hop(tb[RTA_GATEWAY], attrU32(tb[RTA_OIF], 0));
  }
  if (!path.blackhole && path.vias.empty()) {
    ++counters_.ignored;
    return;
  }
  slot.byMetric[metric] = path;
  syncRoute(key);
}

std::string KernelSource::tableVrf(std::uint32_t table) const {
  if (table == RT_TABLE_MAIN) return kDefault;
  auto it = vrfTables_.find(table);
  return it == vrfTables_.end() ? "" : it->second;
}

void KernelSource::syncRoute(const RouteKey& key) {
  auto it = routes_.find(key);
  if (it == routes_.end()) return;
  RouteSlot& slot = it->second;
  std::string vrf = tableVrf(key.table);
  if (key.family == AF_INET6 && vrf != kDefault) vrf.clear();  // not served outside "default"
  const bool v6 = key.family == AF_INET6;
  const std::string input = "rtproto-" + kernelProtoName(key.proto) + (v6 ? "-v6" : "");
  std::string want;
  if (!vrf.empty() && !slot.byMetric.empty()) {
    const Path& best = slot.byMetric.begin()->second;  // lowest metric
    want = best.blackhole ? "blackhole " + vrf + " " + input + " " + key.prefix
                          : "route " + vrf + " " + input + " " + key.prefix + best.vias;
  }
  if (want == slot.line) {
    if (slot.byMetric.empty()) routes_.erase(it);
    return;
  }
  if (!slot.line.empty() && (want.empty() || slot.vrf != vrf)) {
    emit("withdraw " + slot.vrf + " " + input + " " + key.prefix);
  }
  if (!want.empty() && inputs_.insert({vrf, input}).second) {
    emit("input " + vrf + " " + input + " proto " + std::to_string(key.proto) + " pref " +
         std::to_string(protoPreference(key.proto)) + (v6 ? " ipv6" : ""));
  }
  if (!want.empty()) emit(want);
  slot.line = want;
  slot.vrf = vrf;
  if (slot.byMetric.empty()) routes_.erase(it);
}

void KernelSource::syncTable(std::uint32_t table) {
  std::vector<RouteKey> keys;
  for (const auto& [key, slot] : routes_) {
    if (key.table == table) keys.push_back(key);
  }
  for (const auto& key : keys) syncRoute(key);
}

}  // namespace CorvdSim
