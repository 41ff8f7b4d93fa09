#include "tools/corvd-sim/World.h"

namespace CorvdSim {

namespace {
World* currentWorld = nullptr;
}  // namespace

World* World::current() { return currentWorld; }

World::World(const std::string& vrf, double now, bool realTime)
    : vrf_(vrf), daemon_(corvd_instance_new(vrf.c_str())) {
  if (!realTime) activity_.manualTimeIs(now);
  enter();
  all = Kel::make<Interface::AllIntfStatusDir>("all");
  local = Kel::make<Interface::AllIntfStatusLocalDir>("local");
  kernel = local->kernelNetworkInfoNew(Kanet::NamespaceName());
  ipStatus = Kel::make<Ip::Status>("ip");
  ip6Status = Kel::make<Ip6::Status>("ip6");
  config = Kel::make<Routing::Config>(Kel::Name("routing-" + vrf));
  config6 = Kel::make<Routing6::Config>(Kel::Name("routing6-" + vrf));
  dir = Kel::make<Kel::Dir>(Kel::Name("routeInput-" + vrf));
  dir6 = Kel::make<Kel::Dir>(Kel::Name("route6Input-" + vrf));
  config->routeInputDirIs(dir);
  config6->routeInputDirIs(dir6);
}

World::~World() {
  enter();
  root_ = nullptr;
  theRoot_ = nullptr;
  inputs.clear();
  inputs6.clear();
  dir = dir6 = nullptr;
  config = nullptr;
  config6 = nullptr;
  ipStatus = nullptr;
  ip6Status = nullptr;
  kernel = nullptr;
  local = nullptr;
  all = nullptr;
  activity_.reset();
  leave();
  corvd_instance_free(daemon_);
}

void World::enter() {
  corvd_instance_use(daemon_);
  Kel::activityManagerIs(&activity_);
  InterfaceRouteInfo::theRootSlotIs(&theRoot_);
  currentWorld = this;
}

void World::leave() {
  corvd_instance_use(nullptr);
  Kel::activityManagerIs(nullptr);
  InterfaceRouteInfo::theRootSlotIs(nullptr);
  currentWorld = nullptr;
}

void World::startRoot() {
  enter();
  root_ = InterfaceRouteInfo::rootFactory(Kel::Name("root-" + vrf_));
  root_->vrfNameIs(Ip::VrfName(vrf_));
  root_->allIntfStatusDirIs(all);
  root_->allIntfStatusLocalDirIs(local);
  root_->ipStatusIs(ipStatus);
  root_->routingConfigIs(config);
  if (isDefault()) {
    root_->ip6StatusIs(ip6Status);
    root_->routing6ConfigIs(config6);
  }
  root_->initializedIs(true);
}

void World::stopRoot() {
  enter();
  root_ = nullptr;
  theRoot_ = nullptr;
  fwk_task->task_ifachange_method = nullptr;
}

}  // namespace CorvdSim
