#include "fwk/Root.h"

#include "fwk/ModuleSupport.h"

namespace InterfaceRouteInfo {

namespace {
Kel::Ptr<Root> processRoot;
Kel::Ptr<Root>* rootSlot = &processRoot;
Kel::Ptr<Root>& currentRoot() { return *rootSlot; }
}  // namespace

void theRootSlotIs(Kel::Ptr<Root>* slot) { rootSlot = slot ? slot : &processRoot; }

const Kel::Ptr<Root>& theRoot() { return currentRoot(); }
void theRootDel() { currentRoot() = nullptr; }

Kel::Ptr<Root> rootFactory(Kel::Name name) { return Kel::make<Root>(std::move(name)); }

void Root::handleInitialized() {
  IRI_TRACE_BEGIN();
  if (!initialized()) {
    IRI_TRACE(0, "Initialized flag is not true");
    return;
  }
  IRI_ASSERT(allIntfStatusDir());
  IRI_ASSERT(allIntfStatusLocalDir());
  IRI_ASSERT(ipStatus());
  IRI_ASSERT(routingConfig());
  IRI_TRACE(0, "All our needs are satisfied. Instantiating state machines");

  kernelIntfStatusDirIs(Kel::Name("fwk"));
  intfStatusManagerIs(nullptr, allIntfStatusDir(), allIntfStatusLocalDir(), kernelIntfStatusDir(),
                      nullptr, nullptr, netNs());

  IRI_TRACE(0, "Instantiating intfBacklogSm for vrf " << vrfName());
  intfBacklogIs(Kel::Name(vrfName().str()));
  intfBacklogSmIs(vrfName(), intfBacklog(), Kel::activityManager()->clock(), allIntfStatusDir(),
                  ipStatus(), ip6Status(), kernelIntfStatusDir(), intfStatusManager());

  IRI_TRACE(0, "Instantiating vrfIpIntfStatusSm");
  vrfIpIntfStatusSmIs(vrfName(), ipStatus(), intfBacklog());

  IRI_TRACE(0, "Instantiating RoutingConfigSm");
  routingConfigSmIs(routingConfig(), kernelIntfStatusDir(), intfStatusManager());

  if (vrfName() == Ip::VrfName("default")) {
    IRI_ASSERT(ip6Status());
    IRI_ASSERT(routing6Config());
    IRI_TRACE(0, "Instantiating vrfIp6IntfStatusSm");
    vrfIp6IntfStatusSmIs(vrfName(), ip6Status(), intfBacklog());
    IRI_TRACE(0, "Instantiating Route6InputDirSm");
    routing6ConfigSmIs(routing6Config(), kernelIntfStatusDir(), intfStatusManager());
  }

  loopbackSmIs(intfStatusManager()->kernelNetworkInfoRoot());

  if (currentRoot().ptr() != this) currentRoot() = Kel::Ptr<Root>(this);
  fwk_task->task_ifachange_method = &Root::handleIfaChange;
  IRI_TRACE_END();
}

}  // namespace InterfaceRouteInfo
