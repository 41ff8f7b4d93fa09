#include "tests/module/IntfWorld.h"

#include <sstream>

namespace IntfTest {

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

void IntfWorld::device(const std::string& name, std::uint32_t ifIndex, std::uint32_t flags,
                       const std::string& mac) {
  auto d = Kel::make<KernelNetworkInfo::Interface>(name);
  d->ifIndexIs(ifIndex);
  d->flagsIs(flags);
  d->macAddrIs(Kanet::EthAddr::fromString(mac));
  kernel_->interfaceByNameIs(name, d);
}
void IntfWorld::deviceDel(const std::string& name) { kernel_->interfaceByNameDel(name); }
void IntfWorld::deviceFlags(const std::string& name, std::uint32_t flags) {
  kernel_->interfaceByName(name)->flagsIs(flags);
}
void IntfWorld::deviceMac(const std::string& name, const std::string& mac) {
  kernel_->interfaceByName(name)->macAddrIs(Kanet::EthAddr::fromString(mac));
}

void IntfWorld::status(const std::string& intfId, const std::string& deviceName, std::uint16_t mtu,
                       std::uint32_t ifIndex) {
  auto s = Kel::make<Interface::IntfStatus>(Kanet::IntfId(intfId));
  s->deviceNameIs(deviceName);
  if (ifIndex) s->ifIndexIs(ifIndex);
  s->mtuIs(mtu);
  s->operStatusIs(Interface::IntfOperStatus::intfOperUp);
  all_->intfStatusIs(Kanet::IntfId(intfId), s);
}
void IntfWorld::statusDel(const std::string& intfId) { all_->intfStatusDel(Kanet::IntfId(intfId)); }
void IntfWorld::mtu(const std::string& intfId, std::uint16_t mtu) {
  all_->intfStatus(Kanet::IntfId(intfId))->mtuIs(mtu);
}
void IntfWorld::oper(const std::string& intfId, bool up) {
  all_->intfStatus(Kanet::IntfId(intfId))
      ->operStatusIs(up ? Interface::IntfOperStatus::intfOperUp
                        : Interface::IntfOperStatus::intfOperDown);
}

void IntfWorld::ip(const std::string& vrf, const std::string& intfId, const std::string& primary,
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
void IntfWorld::ipDel(const std::string& vrf, const std::string& intfId) {
  if (auto v = ipStatus_->vrfIpIntfStatus(Ip::VrfName(vrf))) {
    v->ipIntfStatusDel(Kanet::IntfId(intfId));
  }
}
void IntfWorld::vrfDel(const std::string& vrf) { ipStatus_->vrfIpIntfStatusDel(Ip::VrfName(vrf)); }

void IntfWorld::ip6(const std::string& intfId, const std::vector<std::string>& addrs) {
  auto s = ip6Status_->intfNew(Ip::VrfName("default"), Kanet::IntfId(intfId));
  std::set<Kanet::Ip6AddrWithMask> want;
  for (const auto& a : addrs) want.insert(Kanet::Ip6AddrWithMask::fromString(a));
  for (auto it = s->addrIterator(); it; ++it) {
    if (!want.count(it.key())) s->addrDel(it.key());
  }
  for (const auto& a : want) s->addrIs(a, Ip6::AddressInfo{a});
}
void IntfWorld::ip6Del(const std::string& intfId) { ip6Status_->intfRemove(Kanet::IntfId(intfId)); }

void IntfWorld::settle() { Kel::activityManager()->runUntilIdle(); }

Table IntfWorld::daemonTable() {
  Table t;
  if_link_walk(&collectLink, &t);
  return t;
}

Table IntfWorld::reference() const {
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

}  // namespace IntfTest
