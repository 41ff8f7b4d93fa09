// The per-interface reactor: the link entered into the daemon, the coalesced flag timer, flaps.
#include "fwk/intf/IntfStatusSm.h"

#include <limits>

#include "fwk/ModuleSupport.h"
#include "fwk/daemon/corvd.h"
#include "fwk/intf/LinkState.h"

namespace InterfaceRouteInfo {

namespace {
bool disarmed(double timeMin) { return timeMin > std::numeric_limits<double>::max(); }
}  // namespace

IntfStatusSm::IntfStatusSm(const Kanet::IntfId& intfId, std::uint32_t ifIndex,
                           const Kel::String8& deviceName, const IntfStatusPtr& intfStatus,
                           const KernelIntfPtr& kernelIntf, const BacklogPtr& intfBacklog,
                           const WheelPtr& timerWheel)
    : Kel::Reactor(intfId.toString()) {
  kelInputsIs(intfId, ifIndex, deviceName, intfStatus, kernelIntf, intfBacklog, timerWheel);
  kelKernelIntf_.notifierIs(kernelIntf);
  kelIntfStatus_.notifierIs(intfStatus);
  kernelNotifClock_.notifierIs(timerWheel);
}

void IntfStatusSm::handleInitialized() {
  IRI_TRACE_BEGIN();
  initializedIs(true);
  handleIntfStatus();
  IRI_TRACE_END();
}

void IntfStatusSm::armNotifTimer() {
  IRI_TRACE(8, IRI_FUNCTION_NAME_() << " ifIndex " << ifIndex());
  if (!disarmed(kernelNotifClock_.timeMin())) return;
  kernelNotifClock_.timeMinIs(0);
  IRI_TRACE(8, " kernelNotifClock armed");
}

void IntfStatusSm::disarmNotifTimer() {
  IRI_TRACE(8, IRI_FUNCTION_NAME_() << " ifIndex " << ifIndex());
  if (disarmed(kernelNotifClock_.timeMin())) return;
  kernelNotifClock_.timeMinIs(std::numeric_limits<double>::infinity());
  IRI_TRACE(8, " kernelNotifClock disarmed");
}

void IntfStatusSm::handleIntfStatus() {
  IRI_TRACE(8, IRI_FUNCTION_NAME_() << " intfId " << intfId());
  disarmNotifTimer();
  const flag_t flags =
      linkState(kernelIntf()->flags(), Kanet::LoopbackIntfId::isLoopbackIntfId(intfId()));
  IRI_TRACE(8, "Kernel flags: " << static_cast<unsigned>(flags));
  std::uint8_t mac[6];
  linkLayerBytes(kernelIntf()->macAddr(), mac);
  sockaddr_un* lladdr = sockbuild_ll(2, mac, 6);
  if_link* ifl = ifl_locate_index(ifIndex());
  if_conf_open(fwk_task, 0);
  if_conf_addlink(fwk_task, ifl, ifIndex(), flags, 0, intfStatus()->mtu(), deviceName().c_str(),
                  static_cast<int>(deviceName().size()), lladdr);
  if_conf_close(fwk_task, 1);
  IRI_TRACE(
      0, "Interface " << intfId() << " with ifIndex " << ifIndex() << " has been added to corvd");
}

void IntfStatusSm::handleInterfaceUpDown() {
  IRI_TRACE_BEGIN();
  intfBacklog()->doAddBacklog(intfId(), true);
  IRI_TRACE_END();
}

}  // namespace InterfaceRouteInfo
