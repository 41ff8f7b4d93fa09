// What the module test worlds share: the state database's inputs of a Root (interface status,
// kernel devices of the namespace, IPv4 and IPv6 status, routing configurations with their route
// input directories) on manual time with every module trace recorded; a Root made from them; the
// messages traced at one level; and the end of a world (the root and theRoot go, traces return to
// their defaults, the daemon must have seen no misuse, its log being the failure message, and the
// daemon and the activity manager are reset).
#pragma once

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "fwk/Root.h"
#include "fwk/daemon/corvd.h"
#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Dir.h"
#include "fwk/framework/Trace.h"

// The messages recorded at `level`, in order.
inline std::vector<std::string> messages(const Kel::TraceRecorder& rec, int level) {
  std::vector<std::string> out;
  for (const auto& r : rec.records()) {
    if (r.level == level) out.push_back(r.message);
  }
  return out;
}

// A daemon socket address as the daemon writes it.
inline std::string sockText(const sockaddr_un* a) {
  char buf[96];
  sockaddr_format(a, buf, sizeof buf);
  return buf;
}

class ModuleWorld : public ::testing::Test {
 protected:
  void SetUp() override {
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
  void TearDown() override {
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

  // A Root named `name` for `vrf` with every input of the world but those named in `without`
  // ("all", "local", "ip", "ip6", "routing", "routing6"), not yet initialized.
  Kel::Ptr<InterfaceRouteInfo::Root> makeRoot(const std::string& name, const std::string& vrf,
                                              const std::set<std::string>& without = {}) {
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
  // Starts the world's Root for `vrf` (after the inputs are set up).
  void start(const char* vrf = "default") {
    vrf_ = vrf;
    root_ = makeRoot(std::string("root-") + vrf, vrf);
    root_->initializedIs(true);
  }

  Kel::Ptr<Interface::AllIntfStatusDir> all_;
  Kel::Ptr<Interface::AllIntfStatusLocalDir> local_;
  Kel::Ptr<KernelNetworkInfo::Root> kernel_;
  Kel::Ptr<Ip::Status> ipStatus_;
  Kel::Ptr<Ip6::Status> ip6Status_;
  Kel::Ptr<Routing::Config> config_;
  Kel::Ptr<Routing6::Config> config6_;
  Kel::Ptr<Kel::Dir> dir_;
  Kel::Ptr<Kel::Dir> dir6_;
  Kel::Ptr<InterfaceRouteInfo::Root> root_;
  std::string vrf_;
  Kel::TraceRecorder rec_;
};
