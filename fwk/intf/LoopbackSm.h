// LoopbackSm: enters the loopback device "lo" into the daemon, which no interface status of the
// state database describes.
//
// Watches the namespace's kernel devices (KernelNetworkInfo::Root.interfaceByName). Once
// initialized, every change of that collection, whatever device it concerns, enters "lo" again
// when the kernel has it: the link (the daemon's bits for its kernel flags, IFS_NOAGE when it
// runs, IFS_EXTERNAL always; MTU 16536; link-layer type code 0), then 127.0.0.1 with prefix
// length 24, then ::1 with prefix length 0, each in its own if_conf_open/if_conf_close bracket.
// The daemon treats the repeated link and addresses as updates. "lo" is never removed.
// Trace levels: the link and addresses entered at 0, entry/exit at 8.
#pragma once

#include "fwk/framework/Attributes.h"
#include "fwk/model/KernelNetworkInfo.h"

namespace InterfaceRouteInfo {

class LoopbackSm : public Kel::Reactor {
 public:
  using KernelRootPtr = Kel::Ptr<const KernelNetworkInfo::Root>;

  class KelKernelNetworkInfoRoot : public KernelNetworkInfo::Root::Notifiee {
   public:
    explicit KelKernelNetworkInfoRoot(LoopbackSm* owner) : owner_(owner) {}
    void onInterfaceByName(const Kel::String8&) override { owner_->handleLoopbackDevice(); }
    void onInterfaceByNamekelImmediate() override { owner_->handleLoopbackDevice(); }
    LoopbackSm* owner() const { return owner_; }

   private:
    LoopbackSm* owner_;
  };

#define KEL_ATTRS_LoopbackSm(A)                                         \
  A(INPUT, kernelNetworkInfoRoot, KernelNetworkInfoRoot, KernelRootPtr) \
  A(SCALAR, initialized, Initialized, bool, false)                      \
  A(HANDLER, handleInitialized, HandleInitialized)                      \
  A(HANDLER, handleLoopbackDevice, HandleLoopbackDevice)
  KEL_ENTITY(LoopbackSm, "InterfaceRouteInfo::LoopbackSm", KEL_ATTRS_LoopbackSm)
#undef KEL_ATTRS_LoopbackSm

  explicit LoopbackSm(const KernelRootPtr& kernelNetworkInfoRoot);

  void handleInitialized();
  void handleLoopbackDevice();

 private:
  KelKernelNetworkInfoRoot kelKernelNetworkInfoRoot_{this};
};

KEL_FACTORY(loopbackSmFactory, LoopbackSm)

}  // namespace InterfaceRouteInfo
