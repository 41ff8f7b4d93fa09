// Registration of notifiees with a notifier and delivery of notifications.
// A NotifierBase keeps the list of its registered notifiees; deliver() calls each of them that is
// registered when delivery starts (a snapshot) and still registered and active when its turn
// comes. So a notifiee may unregister itself or others, or be destroyed, during a delivery, and a
// notifiee registered during a delivery is first called on the next change. Registrations carry
// a serial number (32 bits, never 0; a wrap would have to land on the same address within one
// delivery to matter), so a notifiee destroyed and another built at the same address during a
// delivery is not mistaken for the old one. Exceptions thrown by a callback propagate to the
// mutator's caller; the notifiees after it in the snapshot are not called for that change.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace Kel {

class NotifierBase;

// The ends of a watched entity's life that the framework reports to its notifiees, besides the
// changes of its declared attributes: the state database marks it as going away
// (Entity::isNondestructingIs), its outside references ended (ReferencedEntity::zeroReferencesIs).
enum class LifeEvent { isNondestructing, zeroReferences };

class NotifieeBase {
 public:
  [[gnu::always_inline]] NotifieeBase() {
    if (collector_) collector_->push_back(this);
  }
  NotifieeBase(const NotifieeBase&) = delete;
  NotifieeBase& operator=(const NotifieeBase&) = delete;
  virtual ~NotifieeBase();

  // Registered with the current notifier's list (new notifiees register when given a notifier).
  bool isRegisteredNotifiee() const { return serial_ != 0; }
  void isRegisteredNotifieeIs(bool registered);
  // Delivery switch that keeps the registration.
  bool hasNotificationActive() const { return active_; }
  void hasNotificationActiveIs(bool active) { active_ = active; }

  // Told of a life event of the notifier; most notifiees ignore them (the generic adapter,
  // GenericIfAdapter.h, reports them by attribute name).
  virtual void kelLifeEvent(LifeEvent) {}

  // While a collector is set, every notifiee made is appended to it (a reactor's factory learns
  // so which adapters the new reactor owns). Returns the previous collector.
  static std::vector<NotifieeBase*>* collectorIs(std::vector<NotifieeBase*>* c) {
    std::vector<NotifieeBase*>* old = collector_;
    collector_ = c;
    return old;
  }
  // No collector while it lives (notifiees made for a collection are not the reactor's own).
  struct CollectorPause {
    CollectorPause() : old(collectorIs(nullptr)) {}
    ~CollectorPause() { collectorIs(old); }
    CollectorPause(const CollectorPause&) = delete;
    CollectorPause& operator=(const CollectorPause&) = delete;
    std::vector<NotifieeBase*>* old;
  };

 protected:
  // Unregisters from the previous notifier, then registers with n (null: watches nothing).
  inline void notifierBaseIs(const NotifierBase* n);
  const NotifierBase* notifierBase() const { return notifier_; }
  // Two bytes that would otherwise be padding, for a notifiee made by the million to name its
  // owner by a Kel::Handle (0 until set).
  std::uint16_t ownerHandle() const { return ownerHandle_; }
  void ownerHandleIs(std::uint16_t h) { ownerHandle_ = h; }

 private:
  friend class NotifierBase;
  const NotifierBase* notifier_ = nullptr;
  std::uint32_t serial_ = 0;  // 0: not registered
  bool active_ = true;
  std::uint16_t ownerHandle_ = 0;
  static inline std::vector<NotifieeBase*>* collector_ = nullptr;
};

// The handle sits in what would be the padding after the flag: a notifiee is three words.
static_assert(sizeof(NotifieeBase) == 3 * sizeof(void*));

class NotifierBase {
 public:
  NotifierBase() = default;
  NotifierBase(const NotifierBase&) = delete;
  NotifierBase& operator=(const NotifierBase&) = delete;
  std::size_t notifieeCount() const { return regs_.size(); }

 protected:
  ~NotifierBase();

  // Calls f(N&) for every notifiee of the snapshot that is still registered and active.
  // Inline up to one notifiee (most notifiers have none or one, and a mutator notifies once a
  // change); the snapshot of a longer list is taken out of line.
  template <class N, class F>
  [[gnu::always_inline]] void deliver(F&& f) const {
    if (regs_.empty()) return;
    if (regs_.size() == 1) {  // common case: no copy of the list
      NotifieeBase* n = regs_[0];
      if (n->active_) f(static_cast<N&>(*n));
      return;
    }
    deliverToMany<N>(f);
  }

 private:
  template <class N, class F>
  [[gnu::noinline]] void deliverToMany(F& f) const {
    const std::vector<Reg> snapshot = regs_.snapshot();
    for (const Reg& r : snapshot) {
      if (!stillRegistered(r) || !r.notifiee->active_) continue;
      f(static_cast<N&>(*r.notifiee));
    }
  }

  friend class NotifieeBase;
  // A registration as a delivery's snapshot holds it: the notifiee and its serial then. The list
  // itself keeps only the notifiees; a registered one's serial is its own serial_.
  struct Reg {
    NotifieeBase* notifiee;
    std::uint32_t serial;
  };
  // The registered notifiees in order, in one word: most notifiers have at most one notifiee (a
  // route watched by its protocol's reactor), and a million routes each pay for every word. The
  // word is null (none), one notifiee, or, with its low bit set (a notifiee is aligned to a
  // word), a heap list of two or more.
  class RegList {
   public:
    RegList() = default;
    RegList(const RegList&) = delete;
    RegList& operator=(const RegList&) = delete;
    ~RegList() { delete many(); }
    std::size_t size() const { return many() ? many()->size() : (word_ ? 1 : 0); }
    bool empty() const { return word_ == nullptr; }
    NotifieeBase* operator[](std::size_t i) const {
      return many() ? (*many())[i] : static_cast<NotifieeBase*>(word_);
    }
    void push_back(NotifieeBase* n) {
      if (auto* m = many()) {
        m->push_back(n);
      } else if (!word_) {
        word_ = n;
      } else {
        auto* list = new std::vector<NotifieeBase*>{static_cast<NotifieeBase*>(word_), n};
        word_ = reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(list) | kMany);
      }
    }
    void eraseAt(std::size_t i) {
      auto* m = many();
      if (!m) {
        word_ = nullptr;
        return;
      }
      m->erase(m->begin() + static_cast<std::ptrdiff_t>(i));
      if (m->size() > 1) return;
      word_ = m->front();  // one left: back in the word
      delete m;
    }
    std::vector<Reg> snapshot() const {
      std::vector<Reg> out;
      out.reserve(size());
      for (std::size_t i = 0; i < size(); ++i) out.push_back({(*this)[i], (*this)[i]->serial_});
      return out;
    }

   private:
    static constexpr std::uintptr_t kMany = 1;
    std::vector<NotifieeBase*>* many() const {
      auto w = reinterpret_cast<std::uintptr_t>(word_);
      return w & kMany ? reinterpret_cast<std::vector<NotifieeBase*>*>(w & ~kMany) : nullptr;
    }
    void* word_ = nullptr;
  };
  static_assert(alignof(NotifieeBase) > 1);
  bool stillRegistered(const Reg& r) const;
  void add(NotifieeBase* n) const;
  void remove(NotifieeBase* n) const;
  mutable RegList regs_;
};

inline void NotifieeBase::notifierBaseIs(const NotifierBase* n) {
  if (n == notifier_) return;
  if (notifier_ && isRegisteredNotifiee()) notifier_->remove(this);
  notifier_ = n;
  if (notifier_) notifier_->add(this);
}

}  // namespace Kel
