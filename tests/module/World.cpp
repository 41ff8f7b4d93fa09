#include "tests/module/World.h"

#include <sstream>

namespace ModuleTest {

namespace {

std::string linkKey(unsigned long index, const std::string& name, unsigned mtu, unsigned state,
                    const std::string& ll) {
  std::ostringstream os;
  os << index << ' ' << name << " mtu " << mtu << " state " << state << " ll " << ll;
  return os.str();
}

void collectLink(if_link* l, void* arg) {
  auto& table = *static_cast<Table*>(arg);
  std::set<std::string>& addrs =
      table[linkKey(l->ifl_index, l->ifl_name, l->ifl_mtu, l->ifl_state, sockText(l->ifl_lladdr))];
  for (if_addr* a = l->ifl_addr_set.ias_first; a; a = a->ifa_next) {
    addrs.insert(sockText(a->ifa_info.ifi_addr_local) + "/" +
                 std::to_string(sock_mask_len(a->ifa_info.ifi_netmask)));
  }
}

void collectHead(rt_head* h, void* arg) {
  const sockaddr_un dest = rt_head_dest(h);
  for (rt_entry* rt = h->rth_routes; rt; rt = rt_entry_next(rt)) {
    Entry e{rt->rt_preference, {}};
    for (int j = 0; j < rt->rt_adj.adj_n_gw; ++j) {
      const if_addr* a = rt->rt_adj.adj_ifaps[j];
      e.gws.push_back(sockText(rt->rt_adj.adj_routers[j]) + " dev " +
                      (a ? a->ifa_info.ifi_link->ifl_name : "-"));
    }
    (*static_cast<Routes*>(
        arg))[{rt->rt_gwp->gw_proto, sockText(&dest) + "/" + std::to_string(h->rth_plen)}]
        .push_back(e);
  }
}

std::string llText(const Kanet::EthAddr& mac, int type) {
  std::ostringstream os;
  os << "ll:" << type;
  for (int i = 0; i < 6; ++i) {
    char b[4];
    std::snprintf(b, sizeof b, "%02x", mac.u8(i));
    os << (i ? ":" : "/") << b;
  }
  return os.str();
}

}  // namespace

std::vector<std::string> messages(const Kel::TraceRecorder& rec, int level) {
  std::vector<std::string> out;
  for (const auto& r : rec.records()) {
    if (r.level == level) out.push_back(r.message);
  }
  return out;
}

std::string sockText(const sockaddr_un* a) {
  char buf[96];
  sockaddr_format(a, buf, sizeof buf);
  return buf;
}

Table daemonTable() {
  Table t;
  if_link_walk(&collectLink, &t);
  return t;
}

std::ostream& operator<<(std::ostream& os, const Entry& e) {
  os << "pref " << e.pref;
  for (const auto& g : e.gws) os << " via " << g;
  return os;
}

Routes daemonEntries() {
  Routes out;
  rt_head_walk(&collectHead, &out);
  return out;
}

std::map<std::string, std::string> daemonRoutes(uint16_t proto) {
  std::map<std::string, std::string> out;
  for (const auto& [at, entries] : daemonEntries()) {
    if (at.first != proto) continue;
    std::string& all = out[at.second];
    for (const Entry& e : entries) {
      all += (all.empty() ? "pref " : " | pref ") + std::to_string(e.pref);
      if (e.gws.empty()) all += " blackhole";
      for (std::size_t j = 0; j < e.gws.size(); ++j) all += (j ? ", via " : " via ") + e.gws[j];
    }
  }
  return out;
}

OverlapObserver::OverlapObserver() : task_{"observer", &OverlapObserver::onChange, this} {
  task_register(&task_);
}
OverlapObserver::~OverlapObserver() { task_unregister(&task_); }

void OverlapObserver::onChange(task* tp, if_addr*) {
  auto& self = *static_cast<OverlapObserver*>(tp->task_data);
  ++self.reports_;
  struct Walk {
    std::map<std::string, unsigned long> seen;
    int overlaps = 0;
    static void link(if_link* l, void* arg) {
      auto& w = *static_cast<Walk*>(arg);
      for (if_addr* a = l->ifl_addr_set.ias_first; a; a = a->ifa_next) {
        auto [it, fresh] = w.seen.emplace(sockText(a->ifa_info.ifi_addr_local), l->ifl_index);
        if (!fresh && it->second != l->ifl_index) ++w.overlaps;
      }
    }
  } walk;
  if_link_walk(&Walk::link, &walk);
  self.overlaps_ += walk.overlaps;
}

void World::SetUp() {
  corvd_reset();
  Kel::activityManager()->reset();
  Kel::activityManager()->manualTimeIs(100.0);
  Kel::traceSinkIs(&rec_);
  Kel::traceConfigIs("InterfaceRouteInfo/0-9");
  all_ = Kel::make<Interface::AllIntfStatusDir>("all");
  local_ = Kel::make<Interface::AllIntfStatusLocalDir>("local");
  kernel_ = local_->kernelNetworkInfoNew(Kanet::NamespaceName());
  ipStatus_ = Kel::make<Ip::Status>("ip");
  ip6Status_ = Kel::make<Ip6::Status>("ip6");
  config_ = Kel::make<Routing::Config>("routing");
  config6_ = Kel::make<Routing6::Config>("routing6");
  dir_ = Kel::make<Kel::Dir>("routeInput");
  dir6_ = Kel::make<Kel::Dir>("route6Input");
  config_->routeInputDirIs(dir_);
  config6_->routeInputDirIs(dir6_);
}

void World::TearDown() {
  root_ = nullptr;
  InterfaceRouteInfo::theRootDel();
  Kel::traceSinkIs(nullptr);
  Kel::traceConfigIs("InterfaceRouteInfo/0");
  std::string misuse;
  for (const auto& m : corvd_misuse_log()) misuse += m + "\n";
  EXPECT_EQ(corvd_misuse_count(), 0u) << misuse;
  corvd_reset();
  Kel::activityManager()->reset();
}

Kel::Ptr<InterfaceRouteInfo::Root> World::makeRoot(const std::string& name, const std::string& vrf,
                                                   const std::set<std::string>& without) {
  auto root = InterfaceRouteInfo::rootFactory(Kel::Name(name));
  root->vrfNameIs(Ip::VrfName(vrf));
  if (!without.count("all")) root->allIntfStatusDirIs(all_);
  if (!without.count("local")) root->allIntfStatusLocalDirIs(local_);
  if (!without.count("ip")) root->ipStatusIs(ipStatus_);
  if (!without.count("ip6")) root->ip6StatusIs(ip6Status_);
  if (!without.count("routing")) root->routingConfigIs(config_);
  if (!without.count("routing6")) root->routing6ConfigIs(config6_);
  return root;
}

void World::start(const char* vrf) {
  vrf_ = vrf;
  root_ = makeRoot(std::string("root-") + vrf, vrf);
  root_->initializedIs(true);
}

int World::traced(const std::string& text, int level) const {
  int n = 0;
  for (const auto& r : rec_.records()) n += r.level == level && r.message == text;
  return n;
}

void World::device(const std::string& name, std::uint32_t ifIndex, std::uint32_t flags,
                   const std::string& mac) {
  auto d = Kel::make<KernelNetworkInfo::Interface>(name);
  d->ifIndexIs(ifIndex);
  d->flagsIs(flags);
  d->macAddrIs(Kanet::EthAddr::fromString(mac));
  kernel_->interfaceByNameIs(name, d);
}
void World::deviceDel(const std::string& name) { kernel_->interfaceByNameDel(name); }
void World::deviceFlags(const std::string& name, std::uint32_t flags) {
  kernel_->interfaceByName(name)->flagsIs(flags);
}
void World::deviceMac(const std::string& name, const std::string& mac) {
  kernel_->interfaceByName(name)->macAddrIs(Kanet::EthAddr::fromString(mac));
}

void World::status(const std::string& intfId, const std::string& deviceName, std::uint16_t mtu,
                   std::uint32_t ifIndex) {
  auto s = Kel::make<Interface::IntfStatus>(Kanet::IntfId(intfId));
  s->deviceNameIs(deviceName);
  if (ifIndex) s->ifIndexIs(ifIndex);
  s->mtuIs(mtu);
  s->operStatusIs(Interface::IntfOperStatus::intfOperUp);
  all_->intfStatusIs(Kanet::IntfId(intfId), s);
}
void World::statusDel(const std::string& intfId) { all_->intfStatusDel(Kanet::IntfId(intfId)); }
void World::mtu(const std::string& intfId, std::uint16_t mtu) {
  all_->intfStatus(Kanet::IntfId(intfId))->mtuIs(mtu);
}
void World::oper(const std::string& intfId, bool up) {
  all_->intfStatus(Kanet::IntfId(intfId))
      ->operStatusIs(up ? Interface::IntfOperStatus::intfOperUp
                        : Interface::IntfOperStatus::intfOperDown);
}

void World::ip(const std::string& vrf, const std::string& intfId, const std::string& primary,
               const std::vector<std::string>& secondaries) {
  auto s = ipStatus_->vrfIpIntfStatusNew(Ip::VrfName(vrf))->ipIntfStatusNew(Kanet::IntfId(intfId));
  s->activeAddrWithMaskIs(primary.empty() ? Kanet::IpAddrWithMask()
                                          : Kanet::IpAddrWithMask::fromString(primary));
  std::set<Kanet::IpAddrWithMask> want;
  for (const auto& a : secondaries) want.insert(Kanet::IpAddrWithMask::fromString(a));
  for (auto it = s->activeSecondaryWithMaskIterator(); it; ++it) {
    if (!want.count(it.key())) s->activeSecondaryWithMaskDel(it.key());
  }
  for (const auto& a : want) s->activeSecondaryWithMaskIs(a, true);
}
void World::ipDel(const std::string& vrf, const std::string& intfId) {
  if (auto v = ipStatus_->vrfIpIntfStatus(Ip::VrfName(vrf))) {
    v->ipIntfStatusDel(Kanet::IntfId(intfId));
  }
}
void World::vrfDel(const std::string& vrf) { ipStatus_->vrfIpIntfStatusDel(Ip::VrfName(vrf)); }

void World::ip6(const std::string& intfId, const std::vector<std::string>& addrs) {
  auto s = ip6Status_->intfNew(Ip::VrfName("default"), Kanet::IntfId(intfId));
  std::set<Kanet::Ip6AddrWithMask> want;
  for (const auto& a : addrs) want.insert(Kanet::Ip6AddrWithMask::fromString(a));
  for (auto it = s->addrIterator(); it; ++it) {
    if (!want.count(it.key())) s->addrDel(it.key());
  }
  for (const auto& a : want) s->addrIs(a, Ip6::AddressInfo{a});
}
void World::ip6Del(const std::string& intfId) { ip6Status_->intfRemove(Kanet::IntfId(intfId)); }

void World::intf(const char* intfId, const char* device, unsigned ifIndex, const char* addr,
                 const char* peer) {
  status(intfId, device, 1500, ifIndex);
  this->device(device, ifIndex);
  corvd_host_link(ifIndex, device, true);
  if (addr) daemonAddr(ifIndex, addr, peer);
}

void World::daemonAddr(unsigned ifIndex, const char* addr, const char* peer) {
  const std::string a(addr);
  const auto slash = a.find('/');
  sockaddr_un local = *daemonSock(a.substr(0, slash));
  sockaddr_un remote{};
  if (peer) remote = *daemonSock(peer);
  ASSERT_NE(
      corvd_host_addr(ifIndex, &local, std::stoi(a.substr(slash + 1)), peer ? &remote : nullptr),
      nullptr);
}

namespace {

// The input `name` of a directory, made and published on first use.
template <class Input>
Kel::Ptr<Input> inputOf(Kel::Dir& dir, const char* name, uint8_t proto, uint8_t pref) {
  if (auto e = Kel::ptr_cast<Input>(dir.entityPtr(Kel::Name(name)))) return e;
  auto in = Kel::make<Input>(Kel::Name(name));
  in->routingProtoIs(proto);
  in->preferenceIs(pref);
  in->redistributeNameIs(std::string(name) + "-redist");
  dir.entityPtrIs(Kel::Name(name), in);
  return in;
}

template <class Input, class ParseAddr>
Kel::Ptr<typename Input::Route> publishTo(const Kel::Ptr<Input>& in, const typename Input::Key& k,
                                          const std::vector<ViaText>& vias, ParseAddr parse) {
  auto r = in->routeNew(k);
  for (auto [intf, hop] : vias) {
    typename Input::Route::Via v;
    v.intfId = Kanet::IntfId(intf);
    if (*hop) v.hop = parse(hop);
    r->viaIs(v, true);
  }
  return r;
}

}  // namespace

Kel::Ptr<Routing::RouteInput> World::input(const char* name, uint8_t proto, uint8_t pref) {
  return inputOf<Routing::RouteInput>(*dir_, name, proto, pref);
}

Kel::Ptr<Routing6::RouteInput> World::input6(const char* name, uint8_t proto, uint8_t pref) {
  return inputOf<Routing6::RouteInput>(*dir6_, name, proto, pref);
}

Kel::Ptr<Routing::Route> World::publish(const Kel::Ptr<Routing::RouteInput>& in, const char* prefix,
                                        std::vector<ViaText> vias) {
  return publishTo(in, key(prefix), vias, addr);
}

Kel::Ptr<Routing6::Route> World::publish6(const Kel::Ptr<Routing6::RouteInput>& in,
                                          const char* prefix, std::vector<ViaText> vias) {
  return publishTo(in, key6(prefix), vias, addr6);
}

void World::run(double seconds) {
  Kel::activityManager()->runUntil(Kel::activityManager()->now() + seconds);
}

void World::settle() { Kel::activityManager()->runUntilIdle(); }

Table World::reference() const {
  Table t;
  const bool isDefault = vrf_ == "default";
  auto linkState = [](std::uint32_t kernelFlags, bool loopbackId) {
    unsigned state = krt_if_flags(kernelFlags);
    if (kernelFlags & 0x40) state |= 0x800000;
    if (loopbackId) state |= 0x8000000;
    return state;
  };
  for (auto [id, st] : all_->intfStatusCollection()) {
    auto dev = kernel_->interfaceByName(st->deviceName());
    if (!dev) continue;
    Kel::Ptr<Ip::IpIntfStatus> v4;
    if (auto v = ipStatus_->vrfIpIntfStatus(Ip::VrfName(vrf_))) v4 = v->ipIntfStatus(id);
    Kel::Ptr<Ip6::IntfStatus> v6 = isDefault ? ip6Status_->intf(id) : nullptr;
    if (!v4 && !v6) continue;
    std::set<std::string>& addrs =
        t[linkKey(dev->ifIndex(), st->deviceName(), st->mtu(),
                  linkState(dev->flags(), Kanet::LoopbackIntfId::isLoopbackIntfId(id)),
                  llText(dev->macAddr(), 2))];
    if (v4) {
      if (v4->activeAddrWithMask().address() != Kanet::IpAddr()) {
        addrs.insert(v4->activeAddrWithMask().toString());
      }
      for (auto [a, on] : v4->activeSecondaryWithMaskCollection()) addrs.insert(a.toString());
    }
    if (v6) {
      for (auto [a, info] : v6->addrCollection()) addrs.insert(a.toString());
    }
  }
  if (auto lo = kernel_->interfaceByName("lo")) {
    t[linkKey(lo->ifIndex(), "lo", 16536, linkState(lo->flags(), true), llText(lo->macAddr(), 0))] =
        {"127.0.0.1/24", "::1/0"};
  }
  return t;
}

}  // namespace ModuleTest
