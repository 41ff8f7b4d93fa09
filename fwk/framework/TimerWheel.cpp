#include "fwk/framework/TimerWheel.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "fwk/framework/Exception.h"

namespace Vek {

namespace {

// Far enough for any use, near enough that microseconds fit in 64 bits.
constexpr double kTimeLimit = 1e12;

std::int64_t usecsOf(double t) {
  return std::llround(std::clamp(t, -kTimeLimit, kTimeLimit) * 1e6);
}

std::int64_t floorDiv(std::int64_t a, std::int64_t b) {
  const std::int64_t q = a / b;
  return (a % b != 0 && a < 0) ? q - 1 : q;
}

std::int64_t ceilDiv(std::int64_t a, std::int64_t b) {
  const std::int64_t q = a / b;
  return (a % b != 0 && a > 0) ? q + 1 : q;
}

}  // namespace

// ---- wheel clock ----

TimerWheel::Clock::~Clock() {
  if (wheel_) wheel_->remove(this);
}

void TimerWheel::Clock::notifierIs(const Kel::Ptr<TimerWheel>& wheel) {
  if (wheel == wheel_) return;
  if (wheel_) wheel_->remove(this);
  const Kel::Ptr<TimerWheel> keep = wheel_;
  wheel_ = wheel;
  if (!wheel_) {
    timeMin_ = Kel::endOfTime;
    return;
  }
  if (timeMin_ != Kel::endOfTime) wheel_->insert(this);
}

void TimerWheel::Clock::timeMinIs(double t) {
  if (std::isnan(t)) {
    throw Kel::RangeException("Vek::TimerWheel::Clock::timeMinIs: time is not a number");
  }
  if (t == timeMin_) return;
  if (wheel_) wheel_->remove(this);
  timeMin_ = t;
  if (wheel_ && t != Kel::endOfTime) wheel_->insert(this);
}

// ---- wheel ----

TimerWheel::TimerWheel(Kel::ActivityManager* manager, const Kel::Ptr<Kel::Clock>& clock,
                       unsigned tickMsecs, unsigned initialMaxTicks, bool preserveOrder,
                       unsigned defaultBucketSize)
    : Kel::Entity("timerWheel"),
      manager_(manager ? manager
               : clock ? clock->activityManager()
                       : Kel::activityManager()),
      tickUsecs_(static_cast<std::int64_t>(tickMsecs) * 1000),
      preserveOrder_(preserveOrder),
      defaultBucketSize_(defaultBucketSize),
      tickCount_(initialMaxTicks) {
  if (tickMsecs == 0) throw Kel::RangeException("Vek::TimerWheel: tickMsecs must be at least 1");
  if (initialMaxTicks == 0) {
    throw Kel::RangeException("Vek::TimerWheel: initialMaxTicks must be at least 1");
  }
  pages_.resize((initialMaxTicks + kPageBuckets - 1) / kPageBuckets);
  occupied_.resize((initialMaxTicks + 63) / 64);
  due_.reserve(defaultBucketSize);
  kelClock_.notifierIs(clock ? clock : manager_->clock());
}

TimerWheel::~TimerWheel() {
  // Armed clocks hold the wheel, so none can be left.
  if (armedCount() != 0) {
    std::fprintf(stderr, "Vek::TimerWheel %p destroyed with %zu armed clock(s)\n",
                 static_cast<const void*>(this), armedCount());
    std::abort();
  }
}

std::int64_t TimerWheel::tickOf(double t) const { return ceilDiv(usecsOf(t), tickUsecs_); }

std::int64_t TimerWheel::tickDown(double t) const { return floorDiv(usecsOf(t), tickUsecs_); }

double TimerWheel::tickTime(std::int64_t tick) const {
  return static_cast<double>(tick * tickUsecs_) / 1e6;
}

std::size_t TimerWheel::slotOf(std::int64_t tick) const {
  const auto n = static_cast<std::int64_t>(tickCount_);
  return static_cast<std::size_t>(((tick % n) + n) % n);
}

double TimerWheel::timeMin() const {
  return armedCount() == 0 ? Kel::endOfTime : tickTime(earliestTick());
}

void TimerWheel::insert(Clock* c) {
  // An empty wheel restarts at the present tick, so that near times land in the buckets; not
  // during a wake-up, whose passed ticks must not fire again.
  if (armedCount() == 0 && !firing_) base_ = tickDown(manager_->currentTime());
  c->tick_ = std::max(tickOf(c->timeMin_), base_);
  if (c->tick_ - base_ < static_cast<std::int64_t>(tickCount_)) {
    linkBucket(c);
  } else {
    c->overflowPos_ = overflow_.emplace(c->tick_, c);  // after equal ticks: arming order
    c->place_ = Clock::Place::overflow;
  }
  const double at = tickTime(c->tick_);
  if (at < kelClock_.timeMin()) kelClock_.timeMinIs(at);
}

void TimerWheel::remove(Clock* c) {
  switch (c->place_) {
    case Clock::Place::none:
      return;
    case Clock::Place::bucket:
      unlinkBucket(c);
      break;
    case Clock::Place::overflow:
      overflow_.erase(c->overflowPos_);
      break;
    case Clock::Place::due:
      due_[c->dueIndex_] = nullptr;
      break;
  }
  c->place_ = Clock::Place::none;
  if (armedCount() == 0) kelClock_.timeMinIs(Kel::endOfTime);
}

TimerWheel::Bucket& TimerWheel::bucket(std::size_t slot) {
  std::unique_ptr<Bucket[]>& page = pages_[slot / kPageBuckets];
  if (!page) page = std::make_unique<Bucket[]>(kPageBuckets);
  return page[slot % kPageBuckets];
}

void TimerWheel::linkBucket(Clock* c) {
  const std::size_t slot = slotOf(c->tick_);
  Bucket& b = bucket(slot);
  occupied_[slot / 64] |= std::uint64_t{1} << (slot % 64);
  if (!b.head) {
    c->prev_ = c->next_ = nullptr;
    b.head = b.tail = c;
  } else if (preserveOrder_) {
    c->prev_ = b.tail;
    c->next_ = nullptr;
    b.tail->next_ = c;
    b.tail = c;
  } else {
    c->prev_ = nullptr;
    c->next_ = b.head;
    b.head->prev_ = c;
    b.head = c;
  }
  c->place_ = Clock::Place::bucket;
  ++inWheel_;
}

void TimerWheel::unlinkBucket(Clock* c) {
  const std::size_t slot = slotOf(c->tick_);
  Bucket& b = bucket(slot);
  (c->prev_ ? c->prev_->next_ : b.head) = c->next_;
  (c->next_ ? c->next_->prev_ : b.tail) = c->prev_;
  c->prev_ = c->next_ = nullptr;
  if (!b.head) occupied_[slot / 64] &= ~(std::uint64_t{1} << (slot % 64));
  --inWheel_;
}

// The first non-empty bucket in [from, to), or `to` when there is none.
std::size_t TimerWheel::firstOccupied(std::size_t from, std::size_t to) const {
  std::size_t i = from;
  while (i < to) {
    const std::uint64_t word = occupied_[i / 64] >> (i % 64);
    if (word != 0) return std::min(to, i + static_cast<std::size_t>(std::countr_zero(word)));
    i = (i / 64 + 1) * 64;
  }
  return to;
}

std::int64_t TimerWheel::nextWheelTick() const {
  const std::size_t n = tickCount_;
  const std::size_t start = slotOf(base_);
  std::size_t slot = firstOccupied(start, n);
  if (slot == n) slot = firstOccupied(0, start);
  return base_ + static_cast<std::int64_t>((slot + n - start) % n);
}

std::int64_t TimerWheel::earliestTick() const {
  return inWheel_ != 0 ? nextWheelTick() : overflow_.begin()->first;
}

// Moves every clock whose tick is at or before nowTick into due_, in firing order.
void TimerWheel::collectDue(std::int64_t nowTick) {
  auto take = [this](Clock* c) {
    c->place_ = Clock::Place::due;
    c->dueIndex_ = due_.size();
    due_.push_back(c);
  };
  while (inWheel_ != 0) {
    const std::int64_t tick = nextWheelTick();
    if (tick > nowTick) break;
    const std::size_t slot = slotOf(tick);
    Bucket& b = bucket(slot);
    for (Clock* c = b.head; c;) {
      Clock* next = c->next_;
      c->prev_ = c->next_ = nullptr;
      take(c);
      --inWheel_;
      c = next;
    }
    b = Bucket{};
    occupied_[slot / 64] &= ~(std::uint64_t{1} << (slot % 64));
  }
  // Overflow ticks all follow the buckets' ticks.
  while (!overflow_.empty() && overflow_.begin()->first <= nowTick) {
    Clock* c = overflow_.begin()->second;
    overflow_.erase(overflow_.begin());
    take(c);
  }
}

// Moves overflow clocks whose tick now falls within the buckets' range into their buckets.
void TimerWheel::migrate() {
  const auto n = static_cast<std::int64_t>(tickCount_);
  while (!overflow_.empty() && overflow_.begin()->first - base_ < n) {
    Clock* c = overflow_.begin()->second;
    overflow_.erase(overflow_.begin());
    linkBucket(c);
  }
}

void TimerWheel::rearm() { kelClock_.timeMinIs(timeMin()); }

void TimerWheel::fire() {
  const Kel::Ptr<TimerWheel> self(this);  // a callback may drop the wheel's last holder
  const std::int64_t nowTick = tickDown(manager_->currentTime());
  collectDue(nowTick);
  if (nowTick + 1 > base_) {
    base_ = nowTick + 1;
    migrate();
  }
  firing_ = true;
  std::size_t i = 0;
  try {
    for (; i < due_.size(); ++i) {
      Clock* c = due_[i];
      if (!c) continue;
      c->place_ = Clock::Place::none;
      c->timeMin_ = Kel::endOfTime;
      c->onTime();
    }
  } catch (...) {
    for (++i; i < due_.size(); ++i) {
      if (Clock* c = due_[i]) {
        c->place_ = Clock::Place::none;
        insert(c);
      }
    }
    due_.clear();
    firing_ = false;
    rearm();
    throw;
  }
  due_.clear();
  firing_ = false;
  rearm();
}

}  // namespace Vek
