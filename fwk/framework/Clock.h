// Kel::Clock: a notifier of time. Each of its notifiees wants to be called once the framework's
// time reaches the notifiee's timeMin; the activity manager's loop (ActivityManager.h) does the
// calling, in order of (time, arming sequence), so firing is deterministic.
// Contract of Clock::Notifiee:
// - notifierIs(clock) attaches it to a clock; an armed notifiee moved to another clock stays armed
//   for the same time there; notifierIs(nullptr) detaches and disarms it.
// - timeMinIs(t) arms it for t, replacing any earlier arming; setting the time it already has does
//   nothing (it keeps its place among equal times); timeMinIs(endOfTime) disarms; a NaN time
//   raises Kel::RangeException. Without a clock the time is kept and armed once a clock is given.
// - Before onTime() runs, the notifiee is disarmed (timeMin() == endOfTime), so onTime may arm it
//   again. A notifiee whose delivery is off (hasNotificationActiveIs(false)) or that is no longer
//   registered is disarmed at its time without being called.
// - Destroying a notifiee, armed or not, detaches it. The notifiee holds a strong reference to its
//   clock, so a clock lives as long as any notifiee is attached to it.
// A clock belongs to one activity manager (the process-wide one unless given) and must always be
// owned by Kel::Ptr (Kel::make<Kel::Clock>(name)).
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>

#include "fwk/framework/Entity.h"
#include "fwk/framework/Time.h"
#include "fwk/framework/TypeName.h"

namespace Kel {

class ActivityManager;

class Clock : public Entity {
 public:
  class Notifiee;

  // Position of one arming: time first, then the manager-wide arming sequence.
  struct Key {
    double time;
    std::uint64_t seq;
    friend bool operator<(const Key& a, const Key& b) {
      return a.time < b.time || (a.time == b.time && a.seq < b.seq);
    }
    friend bool operator==(const Key& a, const Key& b) = default;
  };
  using Queue = std::map<Key, Notifiee*>;

  class Notifiee : public NotifieeBase {
   public:
    Notifiee() = default;
    ~Notifiee() override;

    const Ptr<Clock>& notifier() const { return clock_; }
    void notifierIs(const Ptr<Clock>& clock);

    // The armed time; endOfTime when disarmed.
    double timeMin() const { return timeMin_; }
    void timeMinIs(double t);

    // Called once the framework's time reaches timeMin.
    virtual void onTime() {}

   private:
    friend class Clock;
    friend class ActivityManager;
    void enqueue();
    void dequeue();

    Ptr<Clock> clock_;
    double timeMin_ = endOfTime;
    bool queued_ = false;
    Queue::iterator pos_;
  };

  // `manager` null means the process-wide activity manager.
  explicit Clock(Name name, ActivityManager* manager = nullptr);
  ~Clock() override;

  ActivityManager* activityManager() const { return manager_; }
  // The earliest armed time of its notifiees; endOfTime when none is armed.
  double timeMin() const { return queue_.empty() ? endOfTime : queue_.begin()->first.time; }
  std::size_t armedCount() const { return queue_.size(); }

 private:
  friend class ActivityManager;
  ActivityManager* manager_;
  Queue queue_;
};

}  // namespace Kel

KEL_TYPE_NAME(Kel::Clock, "Kel::Clock")
