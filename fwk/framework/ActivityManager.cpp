#include "fwk/framework/ActivityManager.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "fwk/framework/Exception.h"

namespace Kel {

// Marks the loop as running for the duration of one public run call.
class ActivityManager::RunScope {
 public:
  explicit RunScope(ActivityManager& m) : m_(m) {
    if (m_.running_) throw Exception("Kel::ActivityManager: the loop is run from its own callback");
    m_.running_ = true;
    m_.stopRequested_ = false;
  }
  ~RunScope() { m_.running_ = false; }
  RunScope(const RunScope&) = delete;
  RunScope& operator=(const RunScope&) = delete;

 private:
  ActivityManager& m_;
};

ActivityManager::ActivityManager() : source_(std::make_unique<RealTimeSource>()) {
  clock_ = make<Clock>("mainClock", this);
}

ActivityManager::~ActivityManager() {
  clock_ = nullptr;
  if (!clocks_.empty()) {
    std::fprintf(stderr, "Kel::ActivityManager %p destroyed while %zu clock(s) remain\n",
                 static_cast<const void*>(this), clocks_.size());
    std::abort();
  }
}

void ActivityManager::clockDel(Clock* c) {
  auto it = std::find(clocks_.begin(), clocks_.end(), c);
  if (it != clocks_.end()) clocks_.erase(it);
}

void ActivityManager::timeSourceIs(std::unique_ptr<TimeSource> source) {
  if (!source) source = std::make_unique<RealTimeSource>();
  manual_ = dynamic_cast<ManualTimeSource*>(source.get());
  source_ = std::move(source);
}

ManualTimeSource& ActivityManager::manualTimeIs(double start) {
  auto source = std::make_unique<ManualTimeSource>(start);
  ManualTimeSource& ref = *source;
  timeSourceIs(std::move(source));
  return ref;
}

double ActivityManager::nextTime() const {
  double t = endOfTime;
  for (const Clock* c : clocks_) t = std::min(t, c->timeMin());
  return t;
}

std::size_t ActivityManager::firePass() {
  const double t = currentTime();
  // The armings due when the pass begins; each is looked up again before it fires, so one
  // disarmed, re-armed or destroyed meanwhile is skipped (sequences are never reused).
  struct Due {
    Ptr<Clock> clock;
    Clock::Key key;
  };
  std::vector<Due> due;
  std::size_t contributors = 0;
  for (Clock* c : clocks_) {
    const std::size_t before = due.size();
    for (const auto& [key, n] : c->queue_) {
      if (key.time > t) break;
      due.push_back({Ptr<Clock>(c), key});
    }
    if (due.size() != before) ++contributors;
  }
  if (contributors > 1) {
    std::stable_sort(due.begin(), due.end(),
                     [](const Due& a, const Due& b) { return a.key < b.key; });
  }
  std::size_t fired = 0;
  for (const Due& d : due) {
    if (stopRequested_) break;
    fired += fire(*d.clock, d.key);
  }
  return fired;
}

std::size_t ActivityManager::fire(Clock& c, const Clock::Key& key) {
  auto it = c.queue_.find(key);
  if (it == c.queue_.end()) return 0;
  Clock::Notifiee* n = it->second;
  n->dequeue();
  n->timeMin_ = endOfTime;
  if (!n->hasNotificationActive() || !n->isRegisteredNotifiee()) return 0;
  ++fired_;
  n->onTime();
  return 1;
}

std::size_t ActivityManager::runFirstDue() {
  RunScope scope(*this);
  Clock* first = nullptr;
  for (Clock* c : clocks_) {
    if (c->queue_.empty() || c->queue_.begin()->first.time > currentTime()) continue;
    if (!first || c->queue_.begin()->first < first->queue_.begin()->first) first = c;
  }
  if (!first) return 0;
  const Ptr<Clock> keep(first);
  const Clock::Key key = first->queue_.begin()->first;
  return fire(*first, key);
}

void ActivityManager::waitUntil(double t) {
  const double dt = t - currentTime();
  if (dt > 0) std::this_thread::sleep_for(std::chrono::duration<double>(dt));
}

std::size_t ActivityManager::runOnce() {
  RunScope scope(*this);
  return firePass();
}

std::size_t ActivityManager::runUntil(double t, std::size_t maxPasses) {
  RunScope scope(*this);
  std::size_t fired = 0;
  for (std::size_t pass = 0; pass < maxPasses && !stopRequested_; ++pass) {
    const double next = nextTime();
    if (next > t || next == endOfTime) break;
    if (manual_) {
      if (next > manual_->current()) manual_->timeIs(next);
    } else {
      waitUntil(next);
    }
    fired += firePass();
  }
  if (stopRequested_) return fired;
  if (manual_) {
    if (manual_->current() < t) manual_->timeIs(t);
  } else if (t != endOfTime) {
    waitUntil(t);
  }
  return fired;
}

std::size_t ActivityManager::runUntilIdle(std::size_t maxPasses) {
  RunScope scope(*this);
  std::size_t fired = 0;
  for (std::size_t pass = 0; pass < maxPasses && !stopRequested_; ++pass) {
    const double next = nextTime();
    if (next == endOfTime) break;
    if (manual_) {
      if (next > manual_->current()) manual_->timeIs(next);
    } else {
      waitUntil(next);
    }
    fired += firePass();
  }
  return fired;
}

void ActivityManager::reset() {
  for (Clock* c : clocks_) {
    while (!c->queue_.empty()) {
      Clock::Notifiee* n = c->queue_.begin()->second;
      n->dequeue();
      n->timeMin_ = endOfTime;
    }
  }
  realTimeIs();
  stopRequested_ = false;
  fired_ = 0;
}

namespace {
ActivityManager* processManager() {
  // Never destroyed: clocks and notifiees in static storage may outlive any exit-time order.
  static ActivityManager* const manager = new ActivityManager();
  return manager;
}
ActivityManager* currentManager = nullptr;
}  // namespace

ActivityManager* activityManager() { return currentManager ? currentManager : processManager(); }

void activityManagerIs(ActivityManager* m) { currentManager = m; }

}  // namespace Kel
