#include "tools/corvd-sim/KernelMode.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <iostream>

#include "fwk/daemon/corvd.h"
#include "tools/corvd-sim/World.h"

namespace CorvdSim {

namespace {

constexpr double kReadSlice = 0.02;  // seconds of reading before the worlds get their turn

double monotonic() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// True when both names are the same namespace (the same file, or bind mounts of one).
bool sameNetns(const std::string& a, const std::string& b) {
  if (a == b) return true;
  struct stat sa {};
  struct stat sb {};
  if (stat(("/run/netns/" + a).c_str(), &sa) != 0) return false;
  if (stat(("/run/netns/" + b).c_str(), &sb) != 0) return false;
  return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

const std::vector<unsigned>& sourceGroups() {
  static const std::vector<unsigned> groups = {RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR,
                                               RTNLGRP_IPV6_IFADDR, RTNLGRP_IPV4_ROUTE,
                                               RTNLGRP_IPV6_ROUTE};
  return groups;
}

// What changes a daemon's tables leaves in its call counters (per instance).
std::uint64_t daemonVersion() {
  return corvd_call_count("rt_add") + corvd_call_count("rt_change_s") +
         corvd_call_count("rt_delete") + corvd_call_count("if_conf_close");
}

}  // namespace

KernelRunner::KernelRunner(const KernelOptions& opts, std::ostream& out)
    : opts_(opts),
      out_(out),
      scenario_(out, true),
      nl_(opts.netns, sourceGroups(), opts.sourceBuffer),
      dump_(opts.netns, {}, 4 << 20) {
  scenario_.traceStampIs(opts.traceStamp);
  if (!opts.fibNetns.empty()) {
    if (sameNetns(opts.netns, opts.fibNetns)) {
      throw NetlinkError("--fib " + opts.fibNetns +
                         " names the source namespace: the routes installed would be read back");
    }
    fib_ = std::make_unique<FibSink>(opts.fibNetns, opts.fibKeep);
  }
  source_ = std::make_unique<KernelSource>(static_cast<Publisher&>(*this));
  resync(KernelSource::kAll);
  counters_.resyncs = 0;
}

KernelRunner::~KernelRunner() {
  // The FIB's routes go before the worlds (their removal needs nothing of them).
  fib_.reset();
}

void KernelRunner::line(const std::string& text) {
  try {
    scenario_.runLine(text, "kernel " + opts_.netns, ++lineNo_);
  } catch (const ScenarioError& e) {
    ++counters_.refused;
    std::cerr << "corvd-sim: refused: " << e.what() << " [" << text.substr(0, 200) << "]\n";
  }
}

void KernelRunner::vrfGone(const std::string& vrf) {
  if (fib_) fib_->forget(vrf);
  daemonVersions_.erase(vrf);
  fibPending_.erase(vrf);
  scenario_.stopWorld(vrf);
}

void KernelRunner::resync(unsigned kinds) {
  ++counters_.resyncs;
  const auto each = [&](const nlmsghdr* nlh) { source_->message(nlh); };
  for (;;) {
    source_->dumpBegin(kinds);
    bool complete = true;
    if (kinds & KernelSource::kLinks)
      complete = complete && dump_.dump(RTM_GETLINK, AF_UNSPEC, each);
    if (kinds & KernelSource::kAddrs)
      complete = complete && dump_.dump(RTM_GETADDR, AF_UNSPEC, each);
    if ((kinds & KernelSource::kRoutes4) && (kinds & KernelSource::kRoutes6)) {
      complete = complete && dump_.dump(RTM_GETROUTE, AF_UNSPEC, each);
    } else if (kinds & KernelSource::kRoutes4) {
      complete = complete && dump_.dump(RTM_GETROUTE, AF_INET, each);
    }
    if (complete) break;
    // Messages were dropped during the dump: everything is dumped again.
    ++counters_.overruns;
    kinds = KernelSource::kAll;
  }
  source_->dumpEnd(kinds);
}

void KernelRunner::readSource(double until) {
  const auto each = [&](const nlmsghdr* nlh) { source_->message(nlh); };
  while (monotonic() < until) {
    const auto got = nl_.receive(each);
    if (got == NetlinkSocket::Recv::kEmpty) break;
    if (got == NetlinkSocket::Recv::kOverrun) {
      ++counters_.overruns;
      std::cerr << "corvd-sim: kernel " << opts_.netns
                << ": netlink buffer overrun, resynchronising by a new dump\n";
      resync(KernelSource::kAll);
    }
  }
  if (source_->routeDumpWanted()) resync(KernelSource::kRoutes4);
}

void KernelRunner::noteDaemon(const std::string& vrf) {
  if (!fib_) return;
  const std::uint64_t v = daemonVersion();
  auto [it, isNew] = daemonVersions_.try_emplace(vrf, v);
  if (isNew || it->second != v) fibPending_.insert(vrf);
  it->second = v;
}

bool KernelRunner::runOneCallback() {
  // The worlds after the one that ran last come first, so that a busy VRF cannot starve others.
  bool ran = false;
  const auto tryWorld = [&](World& w, bool afterLast) {
    if (ran || (w.vrf() > lastWorld_) != afterLast) return;
    if (scenario_.runFirstDue(w) == 0) return;
    ran = true;
    lastWorld_ = w.vrf();
    noteDaemon(w.vrf());
  };
  scenario_.forEachWorld([&](World& w) { tryWorld(w, true); });
  scenario_.forEachWorld([&](World& w) { tryWorld(w, false); });
  World::leave();
  return ran;
}

bool KernelRunner::syncOneFib() {
  if (!fib_ || fibPending_.empty()) return false;
  auto next = fibPending_.upper_bound(lastFib_);
  const std::string vrf = next == fibPending_.end() ? *fibPending_.begin() : *next;
  lastFib_ = vrf;
  bool behind = false;
  scenario_.forEachWorld([&](World& w) {
    if (w.vrf() != vrf) return;
    fib_->sync(vrf);
    behind = fib_->behind();
  });
  World::leave();
  if (!behind) fibPending_.erase(vrf);
  return true;
}

bool KernelRunner::turn(double maxWait, int extraFd) {
  double due = maxWait;
  scenario_.forEachWorld([&](World& w) {
    noteDaemon(w.vrf());  // lines applied since (a route input removed, say) change it directly
    due = std::min(due, std::max(w.activity().nextTime() - w.activity().currentTime(), 0.0));
  });
  World::leave();
  const double wait = fibPending_.empty() ? due : 0;
  pollfd fds[2] = {{nl_.fd(), POLLIN, 0}, {extraFd, POLLIN, 0}};
  poll(fds, extraFd >= 0 ? 2 : 1, static_cast<int>(std::ceil(wait * 1000)));
  const bool readable = fds[0].revents & (POLLIN | POLLERR);
  const double start = monotonic();
  for (int i = 0; i < 3; ++i) {
    const int phase = (phase_ + i) % 3;
    bool did = false;
    if (phase == 0 && readable) {
      readSource(start + kReadSlice);
      did = true;
    } else if (phase == 1) {
      did = runOneCallback();
    } else if (phase == 2) {
      did = syncOneFib();
    }
    if (did) {
      phase_ = (phase + 1) % 3;
      double& longest = phase == 0   ? counters_.longestRead
                        : phase == 1 ? counters_.longestCallback
                                     : counters_.longestFib;
      longest = std::max(longest, monotonic() - start);
      break;
    }
  }
  counters_.longestSlice = std::max(counters_.longestSlice, monotonic() - start);
  return extraFd >= 0 && (fds[1].revents & POLLIN);
}

void KernelRunner::show() {
  const std::string json = opts_.json ? " json" : "";
  line("show interfaces" + json);
  line("show routes" + json);
  line("show counters" + json);
  const auto& s = source_->counters();
  out_ << "== kernel " << opts_.netns << ": messages " << s.messages << " lines " << s.lines
       << " ignored " << s.ignored << " unspec-proto " << s.unspecProto << " overruns "
       << counters_.overruns << " resyncs " << counters_.resyncs << " refused " << counters_.refused
       << " longest-slice " << counters_.longestSlice << " (read " << counters_.longestRead
       << " callback " << counters_.longestCallback << " fib " << counters_.longestFib << ")\n";
  if (fib_) {
    const auto& f = fib_->counters();
    out_ << "== fib " << fib_->netns() << " proto " << int(kFibProtocol) << ": installed "
         << f.installed << " changed " << f.changed << " removed " << f.removed << " failed "
         << f.failed << " unmapped " << f.unmapped << " stale " << f.stale << "\n";
  }
  out_.flush();
}

int runKernelMode(const KernelOptions& opts, std::ostream& out) {
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGINT);
  sigaddset(&mask, SIGTERM);
  sigaddset(&mask, SIGUSR1);
  sigprocmask(SIG_BLOCK, &mask, nullptr);
  const int sfd = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
  try {
    KernelRunner runner(opts, out);
    const double end = opts.forSeconds < 0 ? INFINITY : monotonic() + opts.forSeconds;
    for (bool running = true; running;) {
      const double left = end - monotonic();
      if (left <= 0) break;
      if (!runner.turn(std::min(left, 1.0), sfd)) continue;
      signalfd_siginfo si;
      while (read(sfd, &si, sizeof si) == sizeof si) {
        if (si.ssi_signo == SIGUSR1) {
          runner.show();
        } else {
          running = false;
        }
      }
    }
    runner.show();
  } catch (const NetlinkError& e) {
    std::cerr << "corvd-sim: " << e.what() << "\n";
    close(sfd);
    return 1;
  }
  close(sfd);
  return 0;
}

}  // namespace CorvdSim
