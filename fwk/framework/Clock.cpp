#include "fwk/framework/Clock.h"

#include <cmath>

#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Exception.h"

namespace Kel {

Clock::Clock(Name name, ActivityManager* manager)
    : Entity(std::move(name)), manager_(manager ? manager : Kel::activityManager()) {
  manager_->clockAdd(this);
}

Clock::~Clock() { manager_->clockDel(this); }

Clock::Notifiee::~Notifiee() {
  dequeue();
  // Unregister while the clock is still held; the Ptr member is released after this body.
  notifierBaseIs(nullptr);
}

void Clock::Notifiee::notifierIs(const Ptr<Clock>& clock) {
  if (clock == clock_) return;
  dequeue();
  const Ptr<Clock> keep = clock_;
  clock_ = clock;
  notifierBaseIs(clock.ptr());
  if (!clock_) {
    timeMin_ = endOfTime;
    return;
  }
  if (timeMin_ != endOfTime) enqueue();
}

void Clock::Notifiee::timeMinIs(double t) {
  if (std::isnan(t)) throw RangeException("Kel::Clock::Notifiee::timeMinIs: time is not a number");
  if (t == timeMin_) return;
  dequeue();
  timeMin_ = t;
  if (clock_ && t != endOfTime) enqueue();
}

void Clock::Notifiee::enqueue() {
  const Key key{timeMin_, clock_->manager_->armingSeqNew()};
  pos_ = clock_->queue_.emplace(key, this).first;
  queued_ = true;
}

void Clock::Notifiee::dequeue() {
  if (!queued_) return;
  clock_->queue_.erase(pos_);
  queued_ = false;
}

}  // namespace Kel
