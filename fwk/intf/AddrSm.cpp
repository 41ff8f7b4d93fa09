// The address reactors: the VRF selection rule and the queuing of address changes.
#include "fwk/intf/AddrSm.h"

#include "fwk/ModuleSupport.h"

namespace InterfaceRouteInfo {

// ---- IpIntfStatusSm / Ip6IntfStatusSm ----

template <class Traits>
IntfAddrSmT<Traits>::IntfAddrSmT(const VrfStatusPtr& vrfIpIntfStatus, const BacklogPtr& intfBacklog)
    : Kel::Reactor(vrfIpIntfStatus ? vrfIpIntfStatus->vrfName().str() : std::string()) {
  kelInputsIs(vrfIpIntfStatus, intfBacklog);
  kelVrfStatus_.notifierIs(vrfIpIntfStatus);
  for (auto [id, status] : Traits::intfs(*vrfIpIntfStatus)) kelAdapterSync(id);
}

template <class Traits>
void IntfAddrSmT<Traits>::kelAdapterSync(const Kanet::IntfId& id) {
  if (auto status = Traits::intfs(*vrfIpIntfStatus()).find(id); status && *status) {
    ipIntfStatusIs(*status);
  } else {
    ipIntfStatusDel(id);
  }
}

template <class Traits>
void IntfAddrSmT<Traits>::kelIntfStatusChanged(const Kanet::IntfId& id) {
  kelAdapterSync(id);
  handleIpIntfStatus(id);
}

template <class Traits>
void IntfAddrSmT<Traits>::kelIntfStatusResync() {
  for (auto it = ipIntfStatusIterator(); it; ++it) {
    if (!Traits::intfs(*vrfIpIntfStatus()).contains(it.key())) ipIntfStatusDel(it.key());
  }
  for (auto [id, status] : Traits::intfs(*vrfIpIntfStatus())) kelAdapterSync(id);
  handleIpIntfStatus();
}

template <class Traits>
void IntfAddrSmT<Traits>::handleInitialized() {
  IRI_SIGNATURE("void ", Traits::smType, "::handleInitialized()");
  if constexpr (Traits::entryExitTraces) {
    IRI_TRACE_BEGIN();
  } else {
    IRI_TRACE(8, IRI_FUNCTION_NAME_());
  }
  IRI_TRACE(0, "IpIntfStatusSm initialized");
  initializedIs(true);
  handleIpIntfStatus();
  if constexpr (Traits::entryExitTraces) IRI_TRACE_END();
}

template <class Traits>
void IntfAddrSmT<Traits>::handleIpIntfStatus() {
  IRI_SIGNATURE("void ", Traits::smType, "::", Traits::handleIntf, "()");
  if constexpr (Traits::entryExitTraces) {
    IRI_TRACE_BEGIN();
  } else {
    IRI_TRACE(8, IRI_FUNCTION_NAME_());
  }
  for (auto [id, status] : Traits::intfs(*vrfIpIntfStatus())) handleIpIntfStatus(id);
  if constexpr (Traits::entryExitTraces) IRI_TRACE_END();
}

template <class Traits>
void IntfAddrSmT<Traits>::handleIpIntfStatus(Kanet::IntfId intfId) {
  IRI_SIGNATURE("void ", Traits::smType, "::", Traits::handleIntf, "(Kanet::IntfId)");
  if constexpr (Traits::entryExitTraces) {
    IRI_TRACE_BEGIN();
  } else {
    IRI_TRACE(8, IRI_FUNCTION_NAME_() << " intfId " << intfId);
  }
  intfBacklog()->doAddBacklog(intfId, false);
  if constexpr (Traits::entryExitTraces) IRI_TRACE_END();
}

template <class Traits>
void IntfAddrSmT<Traits>::KelIpIntfStatus::handleIpAddress() {
  IRI_SIGNATURE("void ", Traits::smType, "::", Traits::adapter, "::", Traits::handleAddress, "()");
  const Kanet::IntfId intfId = this->notifier()->intfId();
  if constexpr (Traits::entryExitTraces) {
    IRI_TRACE_BEGIN();
  } else {
    IRI_TRACE(8, IRI_FUNCTION_NAME_() << " intfId " << intfId);
  }
  owner_->handleIpIntfStatus(intfId);
  if constexpr (Traits::entryExitTraces) IRI_TRACE_END();
}

template <class Traits>
void IntfAddrSmT<Traits>::doPrepareToDie() {
  IRI_SIGNATURE("void ", Traits::smType, "::doPrepareToDie()");
  IRI_TRACE_BEGIN();
  IRI_TRACE(0, "Deleting all interfaces");
  for (auto [id, status] : Traits::intfs(*vrfIpIntfStatus())) {
    intfBacklog()->doAddBacklog(id, false);
  }
  IRI_TRACE_END();
}

// ---- VrfIpIntfStatusSm / VrfIp6IntfStatusSm ----

template <class Traits>
VrfAddrSmT<Traits>::VrfAddrSmT(const Ip::VrfName& vrfName, const StatusPtr& ipStatus,
                               const BacklogPtr& intfBacklog)
    : Kel::Reactor(vrfName.str()) {
  kelInputsIs(vrfName, ipStatus, intfBacklog);
  kelStatus_.notifierIs(ipStatus);
}

template <class Traits>
void VrfAddrSmT<Traits>::handleInitialized() {
  IRI_SIGNATURE("void ", Traits::vrfSmType, "::handleInitialized()");
  IRI_TRACE_BEGIN();
  IRI_TRACE(0, "VrfIpIntfStatusSm initialized");
  initializedIs(true);
  handleVrfIpIntfStatus();
  IRI_TRACE_END();
}

template <class Traits>
void VrfAddrSmT<Traits>::handleVrfIpIntfStatus() {
  IRI_SIGNATURE("void ", Traits::vrfSmType, "::", Traits::handleVrf, "()");
  IRI_TRACE_BEGIN();
  for (auto [name, status] : Traits::vrfs(*ipStatus())) handleVrfIpIntfStatus(name);
  IRI_TRACE_END();
}

template <class Traits>
void VrfAddrSmT<Traits>::handleVrfIpIntfStatus(Ip::VrfName vrf) {
  IRI_SIGNATURE("void ", Traits::vrfSmType, "::", Traits::handleVrf, "(Ip::VrfName)");
  IRI_TRACE_BEGIN();
  if constexpr (Traits::emptyVrfCheck) {
    if (vrf.empty()) {
      IRI_TRACE(8, "Empty vrfName, expected a valid vrfName");
      return;
    }
  }
  if (vrf != vrfName()) {
    IRI_TRACE(8, "Looking for vrf " << vrfName() << ". Found vrf " << vrf);
    IRI_TRACE_END();
    return;
  }
  if (auto entry = Traits::vrf(*ipStatus(), vrfName())) {
    if constexpr (Traits::namesVrf) {
      IRI_TRACE(0, Traits::instantiating << vrf);
    } else {
      IRI_TRACE(0, Traits::instantiating);
    }
    ipIntfStatusSmIs(entry, intfBacklog());
  } else {
    if constexpr (Traits::namesVrf) {
      IRI_TRACE(0, Traits::destroying << vrf);
    } else {
      IRI_TRACE(0, Traits::destroying);
    }
    // The served VRF's entry is only seen to go after it was seen to come, so the reactor exists.
    if (ipIntfStatusSm()) ipIntfStatusSm()->doPrepareToDie();
    ipIntfStatusSmDel();
  }
  IRI_TRACE_END();
}

template class IntfAddrSmT<Ip4AddrTraits>;
template class IntfAddrSmT<Ip6AddrTraits>;
template class VrfAddrSmT<Ip4AddrTraits>;
template class VrfAddrSmT<Ip6AddrTraits>;

}  // namespace InterfaceRouteInfo
