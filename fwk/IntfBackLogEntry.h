// InterfaceRouteInfo::IntfBackLogEntry: one interface waiting in the interface backlog (member
// of IntfBacklog's `backlog` collection, keyed by its interface).
//   intfId         the key, fixed when the entry is made
//   flapInterface  the interface is to be removed from the daemon and re-added; set by a request
//                  to flap and cleared only by the flap itself
//   needClean      the interface's stale daemon addresses are still to be deleted; while any entry
//                  has it, no interface of the backlog is given new addresses
// Both flags start false. The entry is an entity (reference-counted, with notifiees); mutators
// notify only on change. While the entry belongs to a backlog, every change of needClean, by
// whatever path (the module's handlers, a tool writing the attribute), and the entry's leaving
// the backlog with the flag set keep the backlog's count of entries needing a clean exact
// (IntfBacklog::needCleanCount), so that "does any entry still need cleaning" costs O(1).
#pragma once

#include "fwk/framework/Attributes.h"
#include "fwk/model/KanetIntfId.h"

namespace InterfaceRouteInfo {

class IntfBacklog;

class IntfBackLogEntry : public Kel::Entity {
 public:
#define KEL_ATTRS_IntfBackLogEntry(A)                  \
  A(INPUT, intfId, IntfId, Kanet::IntfId)              \
  A(SCALAR, flapInterface, FlapInterface, bool, false) \
  A(SIGNAL, needClean, NeedClean, bool, false, kelNeedCleanChanged)
  KEL_ENTITY(IntfBackLogEntry, "InterfaceRouteInfo::IntfBackLogEntry", KEL_ATTRS_IntfBackLogEntry)
#undef KEL_ATTRS_IntfBackLogEntry

  explicit IntfBackLogEntry(const Kanet::IntfId& intfId) : Kel::Entity(kNamedByKey) {
    kelInputsIs(intfId);
  }
  const Kanet::IntfId& key() const { return intfId(); }
  KEL_NAMED_BY_KEY

  // Membership of a backlog (null: none), kept by the backlog's collection.
  void kelMemberOf(IntfBacklog* backlog);

 private:
  void kelNeedCleanChanged();
  IntfBacklog* backlog_ = nullptr;
};

using IntfBackLogEntryPtr = Kel::Ptr<IntfBackLogEntry>;

}  // namespace InterfaceRouteInfo
