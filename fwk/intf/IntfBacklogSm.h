// IntfBacklogSm: drains the interface backlog into the daemon's interface table.
//
// Every interface event becomes IntfBacklog::doAddBacklog(intfId, flapInterface); a new entry
// (or a new backlogDelay) runs scheduleBacklog, which arms backlogClock for now + backlogDelay
// unless a run is already pending (a pending run is never moved). A run (handleBacklog) walks the
// backlog from the bookmark (where the last run stopped; at the bookmark's successor when that
// entry has gone), calls processInterface for each entry and deletes the entries it finishes,
// until backlogQuantum seconds have passed (checked after each entry: at least one entry per run,
// and a run overruns by at most one entry); if entries remain it bookmarks the entry it stopped on
// and schedules the next run. The environment variable INTERFACEROUTEINFOSM_TEST, read once per
// run as a base-10 number, switches the daemon off: 1 or negative deletes each entry reached
// without processing it, 2 or more walks the entries and keeps them.
// processInterface (ProcessInterface.cpp) reconciles one interface: deletes, flaps or keeps it,
// creates and deletes its IntfStatusSm, deletes the daemon's stale addresses and adds the missing
// ones; no interface gets new addresses while any entry still needs cleaning.
// Also watches the namespace's DeviceIntfStatusDir: an interface becoming local or not, or its
// status changing, queues it (handleKernelIntf).
// Owns the timer wheel (tick 10 ms, 30000 ticks, order kept, 1024 per wake-up) on which every
// IntfStatusSm keeps its flag timer, and the IntfStatusSm of each interface it entered.
// Trace levels: links and addresses entered into or removed from the daemon, and flaps, at 0;
// entry/exit, the per-interface diagnostics and deferrals at 8.
#pragma once

#include <cstdint>

#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Attributes.h"
#include "fwk/framework/Clock.h"
#include "fwk/framework/TimerWheel.h"
#include "fwk/intf/IntfBacklog.h"
#include "fwk/intf/IntfStatusSm.h"
#include "fwk/model/InterfaceModel.h"
#include "fwk/model/IpStatusModel.h"
#include "fwk/model/KanetNames.h"

namespace InterfaceRouteInfo {

class IntfBacklogSm : public Kel::Reactor {
 public:
  using BacklogPtr = Kel::Ptr<IntfBacklog>;
  using ClockPtr = Kel::Ptr<Kel::Clock>;
  using AllDirPtr = Kel::Ptr<const Interface::AllIntfStatusDir>;
  using IpStatusPtr = Kel::Ptr<const Ip::Status>;
  using Ip6StatusPtr = Kel::Ptr<const Ip6::Status>;
  using DevDirPtr = Kel::Ptr<const Interface::DeviceIntfStatusDir>;
  using ManagerPtr = Kel::Ptr<const Interface::NetNsIntfStatusManager>;

  class KelBacklogClock : public Kel::Clock::Notifiee {
   public:
    explicit KelBacklogClock(IntfBacklogSm* owner) : owner_(owner) {}
    void onTime() override { owner_->handleBacklog(); }
    IntfBacklogSm* owner() const { return owner_; }

   private:
    IntfBacklogSm* owner_;
  };
  // A new entry or a new delay schedules a run; a bulk change does nothing (runs go by clock).
  class KelIntfBacklog : public IntfBacklog::Notifiee {
   public:
    explicit KelIntfBacklog(IntfBacklogSm* owner) : owner_(owner) {}
    void onBacklog(const Kanet::IntfId&) override { owner_->scheduleBacklog(); }
    void onBacklogDelay() override { owner_->scheduleBacklog(); }
    IntfBacklogSm* owner() const { return owner_; }

   private:
    IntfBacklogSm* owner_;
  };
  class KelKernelIntfStatusDir : public Interface::DeviceIntfStatusDir::Notifiee {
   public:
    explicit KelKernelIntfStatusDir(IntfBacklogSm* owner) : owner_(owner) {}
    void onIntfStatusAndDeviceName(const Kanet::IntfId& id) override {
      owner_->handleKernelIntf(id);
    }
    void onIntfStatusAndDeviceNamekelImmediate() override { owner_->handleKernelIntf(); }
    IntfBacklogSm* owner() const { return owner_; }

   private:
    IntfBacklogSm* owner_;
  };

#define KEL_ATTRS_IntfBacklogSm(A)                                            \
  A(INPUT, vrfName, VrfName, Ip::VrfName)                                     \
  A(INPUT, intfBacklog, IntfBacklog, BacklogPtr)                              \
  A(INPUT, backlogClock, BacklogClock, ClockPtr)                              \
  A(INPUT, allIntfStatusDir, AllIntfStatusDir, AllDirPtr)                     \
  A(INPUT, ipStatus, IpStatus, IpStatusPtr)                                   \
  A(INPUT, ip6Status, Ip6Status, Ip6StatusPtr)                                \
  A(INPUT, kernelIntfStatusDir, KernelIntfStatusDir, DevDirPtr)               \
  A(INPUT, intfStatusManager, IntfStatusManager, ManagerPtr)                  \
  A(SCALAR, backlogScheduled, BacklogScheduled, bool, false)                  \
  A(SCALAR, backlogCount, BacklogCount, std::uint32_t, 0)                     \
  A(SCALAR, backlogBookmark, BacklogBookmark, Kanet::IntfId, Kanet::IntfId()) \
  A(SCALAR, initialized, Initialized, bool, false)                            \
  A(CHILD, timerWheel, TimerWheel, Vek::TimerWheel)                           \
  A(CHILDREN, intfStatusSm, IntfStatusSm, Kanet::IntfId, IntfStatusSm)        \
  A(HANDLER, handleInitialized, HandleInitialized)                            \
  A(HANDLER, scheduleBacklog, ScheduleBacklog)                                \
  A(HANDLER, handleBacklog, HandleBacklog)                                    \
  A(HANDLER, handleKernelIntf, HandleKernelIntf)                              \
  A(HANDLER, processInterface, ProcessInterface)
  KEL_ENTITY(IntfBacklogSm, "InterfaceRouteInfo::IntfBacklogSm", KEL_ATTRS_IntfBacklogSm)
#undef KEL_ATTRS_IntfBacklogSm

  IntfBacklogSm(const Ip::VrfName& vrfName, const BacklogPtr& intfBacklog,
                const ClockPtr& backlogClock, const AllDirPtr& allIntfStatusDir,
                const IpStatusPtr& ipStatus, const Ip6StatusPtr& ip6Status,
                const DevDirPtr& kernelIntfStatusDir, const ManagerPtr& intfStatusManager);

  void handleInitialized();
  void scheduleBacklog();
  void handleBacklog();
  void handleKernelIntf(Kanet::IntfId intfId);
  void handleKernelIntf();
  // Reconciles one interface; true keeps its entry for a later run (adding addresses must wait).
  bool processInterface(Kanet::IntfId intfId, bool flapInterface);

  // The armed time of the drain clock (Kel::endOfTime when disarmed); for inspection.
  double backlogClockTimeMin() const { return kelBacklogClock_.timeMin(); }

 private:
  KelBacklogClock kelBacklogClock_{this};
  KelIntfBacklog kelIntfBacklog_{this};
  KelKernelIntfStatusDir kelKernelIntfStatusDir_{this};
};

KEL_FACTORY(intfBacklogSmFactory, IntfBacklogSm)

}  // namespace InterfaceRouteInfo
