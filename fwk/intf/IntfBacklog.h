// InterfaceRouteInfo::IntfBacklog: the interfaces waiting to be reconciled with the daemon's
// interface table, one entry per interface however many changes it had (IntfBackLogEntry).
//
// doAddBacklog(intfId, flapInterface) is the one producer entry point: it makes the entry when
// there is none (with the requested flap), raises flapInterface on a flap request (a request
// without flap never clears a pending one), and always sets needClean. Making an entry notifies
// the backlog's notifiees with the key (IntfBacklogSm schedules its drain); changing an existing
// entry notifies the entry's own notifiees only (a non-empty backlog already has a drain
// scheduled). backlogQuantum (seconds of work per drain run, default 0.08) and backlogDelay
// (seconds from scheduling to draining, default 0.04) are read by IntfBacklogSm and never changed
// by the module itself. needCleanCount() is the number of entries whose needClean is set, kept
// exact by the entries themselves (IntfBackLogEntry.h).
#pragma once

#include <cstddef>

#include "fwk/IntfBackLogEntry.h"
#include "fwk/framework/Attributes.h"

namespace InterfaceRouteInfo {

class IntfBacklog : public Kel::ReferencedEntity {
 public:
#define KEL_ATTRS_IntfBacklog(A)                                \
  A(ENTRIES, backlog, Backlog, Kanet::IntfId, IntfBackLogEntry) \
  A(SECONDS, backlogQuantum, BacklogQuantum, 0.08)              \
  A(SECONDS, backlogDelay, BacklogDelay, 0.04)                  \
  A(ACTION, doAddBacklog, DoAddBacklog)
  KEL_ENTITY(IntfBacklog, "InterfaceRouteInfo::IntfBacklog", KEL_ATTRS_IntfBacklog)
#undef KEL_ATTRS_IntfBacklog

  explicit IntfBacklog(Kel::Name name) : Kel::ReferencedEntity(std::move(name)) {}
  ~IntfBacklog() override;

  void doAddBacklog(Kanet::IntfId intfId, bool flapInterface);

  // Entries whose needClean is set.
  std::size_t needCleanCount() const { return needCleanCount_; }

 private:
  friend class IntfBackLogEntry;
  std::size_t needCleanCount_ = 0;
};

KEL_FACTORY(intfBacklogFactory, IntfBacklog)

}  // namespace InterfaceRouteInfo
