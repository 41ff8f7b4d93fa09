// Vek::TimerWheel: many light clocks on one Kel::Clock notifiee.
// A wheel clock (Vek::TimerWheel::Clock) is armed for a time, which the wheel rounds up to its
// tick (times are first rounded to the microsecond) and files in the bucket of that tick: arming
// and disarming are O(1). The wheel keeps one notifiee armed on the underlying Kel::Clock, for the
// earliest non-empty tick (possibly earlier after a disarm: a wake-up that finds nothing due only
// re-arms). When it fires, every wheel clock whose tick has passed runs, earlier ticks first and,
// within a tick, in arming order when preserveOrder is set (most recently armed first otherwise).
// The wheel has initialMaxTicks buckets, one tick each, reused as time goes round; clocks armed
// further ahead wait in an ordered overflow list and move into the buckets as the wheel turns, so
// any time can be armed. Buckets are allocated a page at a time when a clock first lands in that
// page, so a wheel of many ticks that holds few clocks costs little memory and no start-up time. A
// time already passed fires at the next wake-up of the loop, or, when armed from a callback of the
// wheel, at the next tick. defaultBucketSize is the capacity reserved for the list of clocks due at
// one wake-up; buckets themselves are intrusive lists and need none. Contract of a wheel clock, as
// for Kel::Clock::Notifiee: timeMinIs(endOfTime) disarms, setting the time it already has does
// nothing, a NaN raises Kel::RangeException, it is disarmed before onTime() runs (which may arm it
// again), and destroying it, armed or not, is safe, also while other clocks' callbacks of the same
// wake-up are running. A wheel clock holds a strong reference to its wheel, and the wheel to its
// Kel::Clock. If a callback throws, the clocks of that wake-up that have not run yet are armed
// again for the next tick and the exception propagates.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Clock.h"
#include "fwk/framework/Entity.h"
#include "fwk/framework/Time.h"
#include "fwk/framework/TypeName.h"

namespace Vek {

class TimerWheel : public Kel::Entity {
 public:
  class Clock {
   public:
    Clock() = default;
    explicit Clock(const Kel::Ptr<TimerWheel>& wheel) { notifierIs(wheel); }
    Clock(const Clock&) = delete;
    Clock& operator=(const Clock&) = delete;
    virtual ~Clock();

    const Kel::Ptr<TimerWheel>& notifier() const { return wheel_; }
    // Moves the clock to another wheel, keeping its time; null detaches and disarms it.
    void notifierIs(const Kel::Ptr<TimerWheel>& wheel);

    // The armed time as given (not rounded); endOfTime when disarmed.
    double timeMin() const { return timeMin_; }
    void timeMinIs(double t);

    virtual void onTime() {}

   private:
    friend class TimerWheel;
    enum class Place : std::uint8_t { none, bucket, overflow, due };

    Kel::Ptr<TimerWheel> wheel_;
    double timeMin_ = Kel::endOfTime;
    std::int64_t tick_ = 0;
    Clock* prev_ = nullptr;
    Clock* next_ = nullptr;
    std::multimap<std::int64_t, Clock*>::iterator overflowPos_;
    std::size_t dueIndex_ = 0;
    Place place_ = Place::none;
  };

  // `manager` null means the clock's manager; `clock` null means the manager's main clock.
  // A tick of 0 ms or a wheel of 0 ticks raises Kel::RangeException.
  TimerWheel(Kel::ActivityManager* manager, const Kel::Ptr<Kel::Clock>& clock, unsigned tickMsecs,
             unsigned initialMaxTicks, bool preserveOrder, unsigned defaultBucketSize);
  ~TimerWheel() override;

  const Kel::Ptr<Kel::Clock>& clock() const { return kelClock_.notifier(); }
  unsigned tickMsecs() const { return static_cast<unsigned>(tickUsecs_ / 1000); }
  std::size_t tickCount() const { return tickCount_; }
  bool preserveOrder() const { return preserveOrder_; }
  unsigned defaultBucketSize() const { return defaultBucketSize_; }

  // Armed clocks (in buckets or in overflow), and those of them in overflow.
  std::size_t armedCount() const { return inWheel_ + overflow_.size(); }
  std::size_t overflowCount() const { return overflow_.size(); }
  // The time of the earliest tick with an armed clock; endOfTime when none is armed.
  double timeMin() const;

  // The tick a time fires at (rounded up), and the time of a tick.
  std::int64_t tickOf(double t) const;
  double tickTime(std::int64_t tick) const;

 private:
  class KelClock : public Kel::Clock::Notifiee {
   public:
    explicit KelClock(TimerWheel* owner) : owner_(owner) {}
    void onTime() override { owner_->fire(); }

   private:
    TimerWheel* owner_;
  };
  struct Bucket {
    Clock* head = nullptr;
    Clock* tail = nullptr;
  };
  static constexpr std::size_t kPageBuckets = 512;

  // The bucket of a slot, its page allocated on first use.
  Bucket& bucket(std::size_t slot);

  std::int64_t tickDown(double t) const;
  std::size_t slotOf(std::int64_t tick) const;
  void insert(Clock* c);
  void remove(Clock* c);
  void linkBucket(Clock* c);
  void unlinkBucket(Clock* c);
  std::size_t firstOccupied(std::size_t from, std::size_t to) const;
  std::int64_t nextWheelTick() const;
  std::int64_t earliestTick() const;
  void collectDue(std::int64_t nowTick);
  void migrate();
  void rearm();
  void fire();

  Kel::ActivityManager* manager_;
  std::int64_t tickUsecs_;
  bool preserveOrder_;
  unsigned defaultBucketSize_;
  std::size_t tickCount_;
  std::vector<std::unique_ptr<Bucket[]>> pages_;  // kPageBuckets buckets each; null until used
  std::vector<std::uint64_t> occupied_;           // one bit per non-empty bucket
  std::multimap<std::int64_t, Clock*> overflow_;
  std::vector<Clock*> due_;  // the clocks of the running wake-up; null once disarmed
  std::int64_t base_ = 0;    // the first tick not yet fired; buckets hold [base_, base_ + ticks)
  std::size_t inWheel_ = 0;
  bool firing_ = false;
  KelClock kelClock_{this};
};

}  // namespace Vek

KEL_TYPE_NAME(Vek::TimerWheel, "Vek::TimerWheel")
