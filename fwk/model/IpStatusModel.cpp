#include "fwk/model/IpStatusModel.h"

namespace Ip6 {

VrfIp6IntfStatusPtr Status::vrfIp6IntfStatusNew(const Ip::VrfName& vrf) {
  if (auto v = vrfIp6IntfStatus(vrf)) return v;
  auto v = Kel::make<VrfIp6IntfStatus>(vrf);
  vrfIp6IntfStatusIs(vrf, v);
  return v;
}

IntfStatusPtr Status::intfNew(const Ip::VrfName& vrf, const Kanet::IntfId& id) {
  VrfIp6IntfStatusPtr v = vrfIp6IntfStatusNew(vrf);
  if (auto s = v->ip6IntfStatus(id)) return s;
  IntfStatusPtr s = intf(id);
  if (s) {
    for (auto [name, other] : vrfIp6IntfStatusCollection()) other->ip6IntfStatusDel(id);
  } else {
    s = Kel::make<IntfStatus>(id);
    intfIs(id, s);
  }
  v->ip6IntfStatusIs(id, s);
  return s;
}

void Status::intfRemove(const Kanet::IntfId& id) {
  for (auto [name, v] : vrfIp6IntfStatusCollection()) v->ip6IntfStatusDel(id);
  intfDel(id);
}

}  // namespace Ip6
