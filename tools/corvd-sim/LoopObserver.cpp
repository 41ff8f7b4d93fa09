#include "tools/corvd-sim/LoopObserver.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <set>
#include <sstream>
#include <tuple>

#include "fwk/framework/ActivityManager.h"
#include "tools/corvd-sim/World.h"

namespace CorvdSim {

namespace {

constexpr const char* kFacility = "InterfaceRouteInfo";

double wallNow() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::string statsKey(const std::string& vrf, const std::string& name) { return vrf + '\n' + name; }

}  // namespace

// Watches one unresolved backlog and remembers, per key, the reason traced just before it came.
struct LoopObserver::Tap {
  virtual ~Tap() = default;
  virtual void list(std::vector<Unresolved>& out) const = 0;
  std::string vrf;
  std::string input;
  bool ipv6 = false;
  std::map<std::string, std::string> reasons;
};

template <class Backlog>
struct LoopObserver::TapOf : LoopObserver::Tap, Backlog::Notifiee {
  TapOf(LoopObserver& o, const Kel::Ptr<Backlog>& b) : observer(o) { this->notifierIs(b); }
  void onBacklog(const typename Backlog::Key& key) override {
    std::ostringstream text;
    text << key;
    if (this->notifier()->backlog(key)) {
      reasons[text.str()] = observer.lastReason_;
    } else {
      reasons.erase(text.str());
    }
  }
  void list(std::vector<Unresolved>& out) const override {
    for (auto it = this->notifier()->backlogIterator(); it; ++it) {
      std::ostringstream text;
      text << it.key();
      auto r = reasons.find(text.str());
      out.push_back({vrf, input, ipv6, text.str(),
                     r == reasons.end() ? "(set aside before corvd-sim watched)" : r->second});
    }
  }
  LoopObserver& observer;
};

LoopObserver::LoopObserver() : previous_(Kel::traceSink()) {
  Kel::traceSinkIs(this);
  showLevel0_ = Kel::traceHandle(kFacility)->levelEnabled(0);
  Kel::traceHandle(kFacility)->levelIs(0, true);
}

LoopObserver::~LoopObserver() {
  taps_.clear();
  Kel::traceSinkIs(previous_);
  if (!showLevel0_) Kel::traceHandle(kFacility)->levelIs(0, false);
}

void LoopObserver::traceConfigIs(const std::string& text) {
  Kel::traceConfigIs(text);
  Kel::TraceHandle* h = Kel::traceHandle(kFacility);
  showLevel0_ = h->levelEnabled(0);
  h->enabledIs(true);
  h->levelIs(0, true);
}

void LoopObserver::record(const Kel::TraceRecord& r) {
  if (r.level == 0 && r.facility == kFacility) {
    lastReason_ = r.message;
    if (!showLevel0_) return;
  }
  const World* w = World::current();
  if (!stamp_ || !w) {
    previous_->record(r);
    return;
  }
  std::cerr << "[t=" << const_cast<World*>(w)->activity().currentTime() << " vrf=" << w->vrf()
            << "] " << Kel::traceLine(r) << '\n';
}

void LoopObserver::observe(World& w) { sample(w, -1); }

void LoopObserver::sample(World& w, double slice) {
  std::set<std::string> present;
  auto note = [&](const std::string& name, std::size_t depth) {
    present.insert(name);
    BacklogStats& s = stats_[statsKey(w.vrf(), name)];
    s.vrf = w.vrf();
    s.name = name;
    if (depth > s.depth) {
      s.queued += depth - s.depth;
    } else if (depth < s.depth && slice >= 0) {
      s.drained += s.depth - depth;
      ++s.drainRuns;
      s.longestSlice = std::max(s.longestSlice, slice);
    }
    s.depth = depth;
    s.maxDepth = std::max(s.maxDepth, depth);
  };
  std::vector<const void*> live;
  if (w.root() && w.root()->intfBacklog()) {
    note("intfBacklog", w.root()->intfBacklog()->backlogCount());
  }
  w.forEachRouteInputSm([&](const auto& sm, bool ipv6) {
    const std::string input = sm.name();
    if (sm.routeBacklog()) {
      note(std::string(ipv6 ? "route6Backlog " : "routeBacklog ") + input,
           sm.routeBacklog()->backlogCount());
    }
    const auto& unresolved = sm.unresolvedRouteBacklog();
    if (!unresolved) return;
    live.push_back(unresolved.ptr());
    auto& tap = taps_[unresolved.ptr()];
    if (!tap) {
      using Backlog = std::remove_cv_t<std::remove_pointer_t<decltype(unresolved.ptr())>>;
      tap = std::make_unique<TapOf<Backlog>>(*this, unresolved);
      tap->vrf = w.vrf();
      tap->input = input;
      tap->ipv6 = ipv6;
    }
  });
  // Backlogs whose reactor went: stop watching them (and let them go).
  for (auto it = taps_.begin(); it != taps_.end();) {
    if (it->second->vrf == w.vrf() &&
        std::find(live.begin(), live.end(), it->first) == live.end()) {
      it = taps_.erase(it);
    } else {
      ++it;
    }
  }
  // Backlogs that went (an input removed, the module stopped): nothing is pending there now.
  for (auto& [key, s] : stats_) {
    if (s.vrf == w.vrf() && !present.count(s.name)) s.depth = 0;
  }
}

std::size_t LoopObserver::runFirstDue(World& w) {
  sample(w, -1);
  const double start = wallNow();
  const std::size_t fired = w.activity().runFirstDue();
  if (fired == 0) return 0;
  const double slice = wallNow() - start;
  ++callbacks_;
  longestCallback_ = std::max(longestCallback_, slice);
  sample(w, slice);
  return fired;
}

void LoopObserver::runUntil(World& w, double until) {
  Kel::ActivityManager& am = w.activity();
  Kel::ManualTimeSource* manual = am.manualTime();
  std::size_t atOneTime = 0;  // callbacks at one instant: a loop that re-arms at once ends here
  double instant = -1;
  for (;;) {
    const double next = am.nextTime();
    if (next > until || next == Kel::endOfTime) break;
    if (manual && next > manual->current()) manual->timeIs(next);
    const double now = am.currentTime();
    atOneTime = now == instant ? atOneTime + 1 : 0;
    instant = now;
    if (atOneTime >= Kel::ActivityManager::kDefaultMaxPasses) break;
    if (runFirstDue(w) == 0) break;
    if (progress_) progressTick();
  }
  if (manual && manual->current() < until) manual->timeIs(until);
}

void LoopObserver::progressTick() {
  const double now = wallNow();
  if (lastProgress_ == 0) lastProgress_ = now;
  if (now - lastProgress_ < 1.0) return;
  lastProgress_ = now;
  std::uint64_t queued = 0;
  std::uint64_t drained = 0;
  std::size_t pending = 0;
  for (const auto& [key, s] : stats_) {
    queued += s.queued;
    drained += s.drained;
    pending += s.depth;
  }
  std::cerr << "corvd-sim: keys queued " << queued << ", drained " << drained << ", pending "
            << pending << '\n';
}

void LoopObserver::dropVrf(const std::string& vrf) {
  for (auto it = taps_.begin(); it != taps_.end();) {
    it = it->second->vrf == vrf ? taps_.erase(it) : std::next(it);
  }
  for (auto& [key, s] : stats_) {
    if (s.vrf == vrf) s.depth = 0;
  }
}

std::vector<LoopObserver::BacklogStats> LoopObserver::backlogs() const {
  std::vector<BacklogStats> out;
  for (const auto& [key, s] : stats_) out.push_back(s);
  return out;
}

std::vector<LoopObserver::Unresolved> LoopObserver::unresolved() const {
  std::vector<Unresolved> out;
  for (const auto& [backlog, tap] : taps_) tap->list(out);
  std::stable_sort(out.begin(), out.end(), [](const Unresolved& a, const Unresolved& b) {
    return std::tie(a.vrf, a.ipv6, a.input) < std::tie(b.vrf, b.ipv6, b.input);
  });
  return out;
}

}  // namespace CorvdSim
