// Kel::Reactor and Kel::ReferencedEntity: the framework attributes of reactors and of entities
// whose holders are told when outside references end.
//
// A Reactor (a type whose name ends in Sm) carries, besides its declared attributes:
//   kelFwkActivity()            the activity manager that was current when it was made; its
//                               clocks and timers run there
//   hasNotificationActiveIs(b)  switches delivery to all of its notifiees together: the adapters
//                               it holds as members (learnt by its factory, Kel::instantiate) and
//                               the members of its generated NOTIFIEES collections, including
//                               those made later; registrations are kept
//   kelDoZombieReactors(b)      the hook through which the framework tears down reactors whose
//                               owner is gone; the module adds no logic to it, it is recorded only
// A ReferencedEntity carries zeroReferencesIs(b), through which the framework reports that the
// entity's outside references ended; recorded only, nothing of the module acts on it.
// Both add rows to the type's attribute table ahead of the declared ones (Attributes.h).
#pragma once

#include <cstddef>
#include <vector>

#include "fwk/framework/Entity.h"
#include "fwk/framework/Notifiee.h"

namespace Kel {

class ActivityManager;
ActivityManager* activityManager();

class Reactor : public Entity {
 public:
  ActivityManager* kelFwkActivity() const { return activity_; }
  bool hasNotificationActive() const { return active_; }
  void hasNotificationActiveIs(bool active);
  bool kelZombieReactors() const { return zombies_; }
  void kelDoZombieReactors(bool doIt) { zombies_ = doIt; }

  // Called by the factory: of the notifiees made while the reactor was built, those inside the
  // most-derived object [object, object + size) are its member adapters; `collections` is the
  // generated switch of its NOTIFIEES collections.
  void kelAdopt(const std::vector<NotifieeBase*>& made, const void* object, std::size_t size,
                void (*collections)(Reactor&, bool));

 protected:
  explicit Reactor(Name name) : Entity(std::move(name)), activity_(activityManager()) {}

 private:
  ActivityManager* activity_;
  std::vector<NotifieeBase*> adapters_;
  void (*collections_)(Reactor&, bool) = nullptr;
  bool active_ = true;
  bool zombies_ = false;
};

class ReferencedEntity : public Entity {
 public:
  bool zeroReferences() const { return zeroReferences_; }
  void zeroReferencesIs(bool v) { zeroReferences_ = v; }

 protected:
  explicit ReferencedEntity(Name name) : Entity(std::move(name)) {}

 private:
  bool zeroReferences_ = false;
};

}  // namespace Kel
