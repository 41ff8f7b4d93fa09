// Registration of notifiees with a notifier and delivery of notifications.
// A NotifierBase keeps the list of its registered notifiees; deliver() calls each of them that is
// registered when delivery starts (a snapshot) and still registered and active when its turn
// comes. So a notifiee may unregister itself or others, or be destroyed, during a delivery, and a
// notifiee registered during a delivery is first called on the next change. Registrations carry
// a serial number, so a notifiee destroyed and another built at the same address during a
// delivery is not mistaken for the old one. Exceptions thrown by a callback propagate to the
// mutator's caller; the notifiees after it in the snapshot are not called for that change.
#pragma once

#include <cstdint>
#include <vector>

namespace Kel {

class NotifierBase;

class NotifieeBase {
 public:
  NotifieeBase() = default;
  NotifieeBase(const NotifieeBase&) = delete;
  NotifieeBase& operator=(const NotifieeBase&) = delete;
  virtual ~NotifieeBase();

  // Registered with the current notifier's list (new notifiees register when given a notifier).
  bool isRegisteredNotifiee() const { return serial_ != 0; }
  void isRegisteredNotifieeIs(bool registered);
  // Delivery switch that keeps the registration.
  bool hasNotificationActive() const { return active_; }
  void hasNotificationActiveIs(bool active) { active_ = active; }

 protected:
  // Unregisters from the previous notifier, then registers with n (null: watches nothing).
  void notifierBaseIs(const NotifierBase* n);
  const NotifierBase* notifierBase() const { return notifier_; }

 private:
  friend class NotifierBase;
  const NotifierBase* notifier_ = nullptr;
  std::uint64_t serial_ = 0;
  bool active_ = true;
};

class NotifierBase {
 public:
  NotifierBase() = default;
  NotifierBase(const NotifierBase&) = delete;
  NotifierBase& operator=(const NotifierBase&) = delete;
  std::size_t notifieeCount() const { return regs_.size(); }

 protected:
  ~NotifierBase();

  // Calls f(N&) for every notifiee of the snapshot that is still registered and active.
  template <class N, class F>
  void deliver(F&& f) const {
    if (regs_.empty()) return;
    if (regs_.size() == 1) {  // common case: no copy of the list
      NotifieeBase* n = regs_[0].notifiee;
      if (n->active_) f(static_cast<N&>(*n));
      return;
    }
    const std::vector<Reg> snapshot = regs_;
    for (const Reg& r : snapshot) {
      if (!stillRegistered(r) || !r.notifiee->active_) continue;
      f(static_cast<N&>(*r.notifiee));
    }
  }

 private:
  friend class NotifieeBase;
  struct Reg {
    NotifieeBase* notifiee;
    std::uint64_t serial;
  };
  bool stillRegistered(const Reg& r) const;
  void add(NotifieeBase* n) const;
  void remove(NotifieeBase* n) const;
  mutable std::vector<Reg> regs_;
};

}  // namespace Kel
