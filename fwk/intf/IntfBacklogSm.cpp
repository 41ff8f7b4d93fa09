// The interface backlog's scheduler and drain.
#include "fwk/intf/IntfBacklogSm.h"

#include <cstdlib>

#include "fwk/ModuleSupport.h"
#include "fwk/framework/Time.h"

namespace InterfaceRouteInfo {

namespace {
constexpr const char* kTestEnvironment = "INTERFACEROUTEINFOSM_TEST";

// The test mode: the variable's value as a base-10 number (0 for text that is none), 0 unset.
long testMode() {
  const char* v = std::getenv(kTestEnvironment);
  return v ? std::strtol(v, nullptr, 10) : 0;
}
}  // namespace

IntfBacklogSm::IntfBacklogSm(const Ip::VrfName& vrfName, const BacklogPtr& intfBacklog,
                             const ClockPtr& backlogClock, const AllDirPtr& allIntfStatusDir,
                             const IpStatusPtr& ipStatus, const Ip6StatusPtr& ip6Status,
                             const DevDirPtr& kernelIntfStatusDir,
                             const ManagerPtr& intfStatusManager)
    : Kel::Reactor(intfBacklog ? intfBacklog->name() : Kel::Name()) {
  kelInputsIs(vrfName, intfBacklog, backlogClock, allIntfStatusDir, ipStatus, ip6Status,
              kernelIntfStatusDir, intfStatusManager);
  kelBacklogClock_.notifierIs(backlogClock);
  kelIntfBacklog_.notifierIs(intfBacklog);
  kelKernelIntfStatusDir_.notifierIs(kernelIntfStatusDir);
}

void IntfBacklogSm::handleInitialized() {
  IRI_TRACE(8, IRI_FUNCTION_NAME_());
  kelBacklogClock_.timeMinIs(Kel::endOfTime);
  initializedIs(true);
  scheduleBacklog();
  Kel::ActivityManager* manager = Kel::activityManager();
  timerWheelIs(manager, manager->clock(), 10u, 30000u, true, 1024u);
}

void IntfBacklogSm::scheduleBacklog() {
  IRI_TRACE(8, IRI_FUNCTION_NAME_());
  if (backlogScheduled()) return;
  kelBacklogClock_.timeMinIs(Kel::now() + intfBacklog()->backlogDelay());
  backlogScheduledIs(true);
}

void IntfBacklogSm::handleKernelIntf(Kanet::IntfId intfId) {
  IRI_TRACE(8, IRI_FUNCTION_NAME_() << intfId);
  intfBacklog()->doAddBacklog(intfId, false);
  IRI_TRACE_END();
}

void IntfBacklogSm::handleKernelIntf() {
  for (auto [id, entry] : kernelIntfStatusDir()->intfStatusAndDeviceNameCollection()) {
    handleKernelIntf(id);
  }
  IRI_TRACE_END();
}

void IntfBacklogSm::handleBacklog() {
  if (!initialized()) return;
  IRI_TRACE_BEGIN();
  IntfBacklog& backlog = *intfBacklog();
  kelBacklogClock_.timeMinIs(Kel::endOfTime);
  const double start = Kel::now();
  auto it = backlog.backlogIterator();
  if (!backlogBookmark().empty()) {
    it = backlog.backlogCollection().resumeAt(backlogBookmark());
    backlogBookmarkIs(Kanet::IntfId());
  }
  const long mode = testMode();
  while (it) {
    const Kanet::IntfId id = it.key();
    if (mode == 0) {
      if (!processInterface(id, it.value()->flapInterface())) backlog.backlogDel(id);
    } else if (mode < 0 || mode == 1) {
      backlog.backlogDel(id);
    }
    ++it;
    if (!(start + backlog.backlogQuantum() > Kel::now())) break;
  }
  backlogScheduledIs(false);
  if (backlog.backlogCount() != 0) {
    if (it) backlogBookmarkIs(it.key());
    scheduleBacklog();
  }
  backlogCountIs(backlogCount() + 1);
  IRI_TRACE_END();
}

}  // namespace InterfaceRouteInfo
