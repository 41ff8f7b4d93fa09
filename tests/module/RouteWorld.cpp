#include "tests/module/RouteWorld.h"

#include <sstream>

namespace RouteTest {

namespace {

struct Collect {
  uint16_t proto;
  std::map<std::string, std::string>* out;
};

void collectHead(rt_head* rth, void* arg) {
  auto& c = *static_cast<Collect*>(arg);
  std::string all;
  for (rt_entry* rt = rth->rth_routes; rt; rt = rt->rt_next) {
    if (rt->rt_gwp->gw_proto != c.proto) continue;
    std::ostringstream os;
    os << "pref " << rt->rt_preference;
    if (rt->rt_adj.adj_n_gw == 0) os << " blackhole";
    for (int j = 0; j < rt->rt_adj.adj_n_gw; ++j) {
      const if_addr* a = rt->rt_adj.adj_ifaps[j];
      os << (j ? ", via " : " via ") << sockText(rt->rt_adj.adj_routers[j]) << " dev "
         << (a ? a->ifa_info.ifi_link->ifl_name : "-");
    }
    all += (all.empty() ? "" : " | ") + os.str();
  }
  if (all.empty()) return;
  (*c.out)[sockText(&rth->rth_dest) + "/" + std::to_string(rth->rth_plen)] = all;
}

}  // namespace

std::map<std::string, std::string> daemonRoutes(uint16_t proto) {
  std::map<std::string, std::string> out;
  Collect c{proto, &out};
  rt_head_walk(&collectHead, &c);
  return out;
}

std::vector<std::string> events(const Kel::TraceRecorder& rec) { return messages(rec, 0); }

void RouteWorld::intf(const char* intfId, const char* device, unsigned ifIndex, const char* addr,
                      const char* peer) {
  const Kanet::IntfId id(intfId);
  auto status = Kel::make<Interface::IntfStatus>(id);
  status->deviceNameIs(device);
  status->ifIndexIs(ifIndex);
  status->operStatusIs(Interface::IntfOperStatus::intfOperUp);
  all_->intfStatusIs(id, status);
  // The kernel's device makes the interface local to the namespace; its link and addresses are
  // entered into the daemon directly (the state database gives it no addresses, so interface
  // mirroring leaves it alone).
  auto kernelIntf = Kel::make<KernelNetworkInfo::Interface>(device);
  kernelIntf->ifIndexIs(ifIndex);
  kernel_->interfaceByNameIs(device, kernelIntf);
  corvd_host_link(ifIndex, device, true);
  if (addr) daemonAddr(ifIndex, addr, peer);
}

void RouteWorld::daemonAddr(unsigned ifIndex, const char* addr, const char* peer) {
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

Kel::Ptr<Routing::RouteInput> RouteWorld::input(const char* name, uint8_t proto, uint8_t pref) {
  return inputOf<Routing::RouteInput>(*dir_, name, proto, pref);
}

Kel::Ptr<Routing6::RouteInput> RouteWorld::input6(const char* name, uint8_t proto, uint8_t pref) {
  return inputOf<Routing6::RouteInput>(*dir6_, name, proto, pref);
}

Kel::Ptr<Routing::Route> RouteWorld::publish(const Kel::Ptr<Routing::RouteInput>& in,
                                             const char* prefix, std::vector<ViaText> vias) {
  return publishTo(in, key(prefix), vias, ip);
}

Kel::Ptr<Routing6::Route> RouteWorld::publish6(const Kel::Ptr<Routing6::RouteInput>& in,
                                               const char* prefix, std::vector<ViaText> vias) {
  return publishTo(in, key6(prefix), vias, ip6);
}

void RouteWorld::run(double seconds) {
  Kel::activityManager()->runUntil(Kel::activityManager()->now() + seconds);
}

}  // namespace RouteTest
