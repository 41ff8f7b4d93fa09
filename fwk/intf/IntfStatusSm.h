// IntfStatusSm: the per-interface reactor that enters one interface's link into the daemon.
//
// Made by interface reconciliation (IntfBacklogSm::processInterface) when an interface is to be
// added, and deleted there when the interface is removed or flapped (the link's deletion in the
// daemon is done there too, never here). Its first scan adds the link at once. It watches the
// kernel's device (flags, MAC) and the interface status (MTU, oper status):
//   - a flags change arms kernelNotifClock, a clock on the shared timer wheel, for time 0 (the
//     wheel's next turn) unless it is armed already, so a burst of flag changes refreshes the link
//     once; the clock firing refreshes the link (handleIntfStatus);
//   - a MAC or MTU change refreshes the link at once, and every refresh first disarms a pending
//     flag timer;
//   - an oper-status change asks the interface backlog for a flap (doAddBacklog(intfId, true)).
// A refresh is one if_conf_open / if_conf_addlink / if_conf_close bracket with the daemon's bits
// for the kernel flags, IFS_NOAGE (0x800000) when the device runs (kernel flag 0x40) and
// IFS_EXTERNAL (0x8000000) for a loopback interface id; the link-layer address is built with
// type code 2.
// Trace levels: the link entered into the daemon at 0; entry traces, timer arming and the kernel
// flags at 8.
#pragma once

#include <cstdint>

#include "fwk/framework/Attributes.h"
#include "fwk/framework/TimerWheel.h"
#include "fwk/intf/IntfBacklog.h"
#include "fwk/model/InterfaceModel.h"
#include "fwk/model/KernelNetworkInfo.h"

namespace InterfaceRouteInfo {

class IntfStatusSm : public Kel::Reactor {
 public:
  using IntfStatusPtr = Kel::Ptr<const Interface::IntfStatus>;
  using KernelIntfPtr = Kel::Ptr<const KernelNetworkInfo::Interface>;
  using BacklogPtr = Kel::Ptr<IntfBacklog>;
  using WheelPtr = Kel::Ptr<Vek::TimerWheel>;

  class KelKernelIntf : public KernelNetworkInfo::Interface::Notifiee {
   public:
    explicit KelKernelIntf(IntfStatusSm* owner) : owner_(owner) {}
    void onFlags() override { owner_->armNotifTimer(); }
    void onMacAddr() override { owner_->handleIntfStatus(); }
    IntfStatusSm* owner() const { return owner_; }

   private:
    IntfStatusSm* owner_;
  };
  class KelIntfStatus : public Interface::IntfStatus::Notifiee {
   public:
    explicit KelIntfStatus(IntfStatusSm* owner) : owner_(owner) {}
    void onMtu() override { owner_->handleIntfStatus(); }
    void onOperStatus() override { owner_->handleInterfaceUpDown(); }
    IntfStatusSm* owner() const { return owner_; }

   private:
    IntfStatusSm* owner_;
  };
  class KelKernelNotifClock : public Vek::TimerWheel::Clock {
   public:
    explicit KelKernelNotifClock(IntfStatusSm* owner) : owner_(owner) {}
    void onTime() override { owner_->handleIntfStatus(); }
    IntfStatusSm* owner() const { return owner_; }

   private:
    IntfStatusSm* owner_;
  };

#define KEL_ATTRS_IntfStatusSm(A)                  \
  A(INPUT, intfId, IntfId, Kanet::IntfId)          \
  A(INPUT, ifIndex, IfIndex, std::uint32_t)        \
  A(INPUT, deviceName, DeviceName, Kel::String8)   \
  A(INPUT, intfStatus, IntfStatus, IntfStatusPtr)  \
  A(INPUT, kernelIntf, KernelIntf, KernelIntfPtr)  \
  A(INPUT, intfBacklog, IntfBacklog, BacklogPtr)   \
  A(INPUT, timerWheel, TimerWheel, WheelPtr)       \
  A(SCALAR, initialized, Initialized, bool, false) \
  A(HANDLER, handleInitialized, HandleInitialized) \
  A(HANDLER, handleIntfStatus, HandleIntfStatus)   \
  A(HANDLER, handleInterfaceUpDown, HandleInterfaceUpDown)
  KEL_ENTITY(IntfStatusSm, "InterfaceRouteInfo::IntfStatusSm", KEL_ATTRS_IntfStatusSm)
#undef KEL_ATTRS_IntfStatusSm

  IntfStatusSm(const Kanet::IntfId& intfId, std::uint32_t ifIndex, const Kel::String8& deviceName,
               const IntfStatusPtr& intfStatus, const KernelIntfPtr& kernelIntf,
               const BacklogPtr& intfBacklog, const WheelPtr& timerWheel);

  void handleInitialized();
  void handleIntfStatus();
  void handleInterfaceUpDown();
  void armNotifTimer();
  void disarmNotifTimer();

  // The flag timer's armed time; endOfTime when disarmed.
  double kernelNotifClockTimeMin() const { return kernelNotifClock_.timeMin(); }

 private:
  KelKernelIntf kelKernelIntf_{this};
  KelIntfStatus kelIntfStatus_{this};
  KelKernelNotifClock kernelNotifClock_{this};
};

KEL_FACTORY(intfStatusSmFactory, IntfStatusSm)

}  // namespace InterfaceRouteInfo
