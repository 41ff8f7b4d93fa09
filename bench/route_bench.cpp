// Route mirroring at full-table scale, on the real clock with the default quantum (0.08 s) and
// delay (0.04 s), tracing off: publish N routes whose next hops resolve to a few daemon
// interfaces, run the activity loop until every one is in the daemon's table, then withdraw them
// all and run until the table is empty again.
// Reported per run: wall seconds and CPU ns per route for mirroring and for withdrawal, the
// longest single drain slice, the longest time the thread was held at once anywhere (queuing a
// new input's keys, a withdraw-all, any callback), the number of drain batches, and bytes per
// installed route, split into the state database's own routes (model) and what the module and
// the daemon hold for them, and their sum (measured by counting live heap bytes and the daemon's
// record pages).
// module_ipv4/module_ipv6 time the module's own bookkeeping apart from the stand-ins (below).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>

#include "bench/BenchSupport.h"
#include "fwk/Root.h"
#include "fwk/daemon/corvd.h"
#include "fwk/daemon/host_conf.h"
#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Trace.h"

namespace {

using namespace InterfaceRouteInfo;
using BenchSupport::cpuSeconds;
using BenchSupport::minorFaults;
using BenchSupport::processBytes;
using BenchSupport::runUntil;
using BenchSupport::wallSeconds;

// A module started over four interfaces, each with an IPv4 and an IPv6 subnet, and empty
// route input directories; tracing off.
struct World {
  Kel::Ptr<Kel::Dir> dir;
  Kel::Ptr<Kel::Dir> dir6;
  Kel::Ptr<Root> root;

  World() {
    corvd_reset();
    Kel::activityManager()->reset();
    Kel::traceConfigIs("");  // tracing off
    auto all = Kel::make<Interface::AllIntfStatusDir>("all");
    for (unsigned i = 1; i <= 4; ++i) {
      corvd_host_link(i, ("et" + std::to_string(i)).c_str(), true);
      corvd_host_addr(i, sockbuild_in(0, Kanet::IpAddr(0x0a000001u + (i << 8)).valueNetworkOrder()),
                      24);
      uint8_t b[16] = {0x20, 0x01, 0x0d, 0xb8, 0, static_cast<uint8_t>(i)};
      b[15] = 1;
      corvd_host_addr(i, sockbuild_in6(0, b), 64);
    }
    auto config = Kel::make<Routing::Config>("routing");
    auto config6 = Kel::make<Routing6::Config>("routing6");
    dir = Kel::make<Kel::Dir>("routeInput");
    dir6 = Kel::make<Kel::Dir>("route6Input");
    config->routeInputDirIs(dir);
    config6->routeInputDirIs(dir6);
    root = rootFactory("root");
    root->vrfNameIs(Ip::VrfName("default"));
    root->allIntfStatusDirIs(all);
    root->allIntfStatusLocalDirIs(Kel::make<Interface::AllIntfStatusLocalDir>("local"));
    root->ipStatusIs(Kel::make<Ip::Status>("ip"));
    root->ip6StatusIs(Kel::make<Ip6::Status>("ip6"));
    root->routingConfigIs(config);
    root->routing6ConfigIs(config6);
    root->initializedIs(true);
  }
  ~World() {
    root = nullptr;
    theRootDel();
    corvd_reset();
    Kel::activityManager()->reset();
  }

  // The route input reactor of protocol `name`, once its input is in the directory.
  template <bool V6>
  auto inputSm(const char* name) const {
    if constexpr (V6) {
      return root->routing6ConfigSm()->routeInputDirSm()->routeInputSm(name);
    } else {
      return root->routingConfigSm()->routeInputDirSm()->routeInputSm(name);
    }
  }
};

template <bool V6>
using Traits = std::conditional_t<V6, Ip6RouteTraits, Ip4RouteTraits>;

// A protocol's input (protocol 8) with n routes, each with one next hop on one of the four
// interfaces, published before the input is in a directory.
template <bool V6>
auto publish(const char* name, long n) {
  using Input = typename Traits<V6>::RouteInput;
  auto in = Kel::make<Input>(Kel::Name(name));
  in->routingProtoIs(8);
  in->preferenceIs(20);
  for (long i = 0; i < n; ++i) {
    const auto hopIntf = static_cast<uint8_t>(1 + i % 4);
    if constexpr (V6) {
      Kanet::Ip6Addr dest;
      dest.u8Is(0, 0x20);
      dest.u8Is(1, 0x01);
      dest.u8Is(2, 0x0d);
      dest.u8Is(3, 0xb9);
      dest.u8Is(4, static_cast<uint8_t>(i >> 16));
      dest.u8Is(5, static_cast<uint8_t>(i >> 8));
      dest.u8Is(6, static_cast<uint8_t>(i));
      Kanet::Ip6Addr hop = Kanet::Ip6Addr::fromString("2001:db8::2");
      hop.u8Is(5, hopIntf);
      auto r = in->routeNew(Routing6::RouteKey(dest, 56));
      r->viaIs(Routing6::Via{Kanet::IntfId(), hop}, true);
    } else {
      // 11.0.0.0/24 upwards: 2M /24s end at 41.133.132.0/24, clear of 127/8 and the interfaces.
      const Kanet::IpAddr dest(0x0b000000u + (static_cast<uint32_t>(i) << 8));
      const Kanet::IpAddr hop(0x0a000002u + (static_cast<uint32_t>(hopIntf) << 8));
      auto r = in->routeNew(Routing::RouteKey(dest, 24));
      r->viaIs(Routing::Via{Kanet::IntfId(), hop}, true);
    }
  }
  return in;
}

template <bool V6>
void mirror(benchmark::State& state) {
  const long n = state.range(0);
  for (auto _ : state) {
    World world;
    auto& dir = world.dir;
    auto& dir6 = world.dir6;
    // The state database's routes, published before the protocol's input is in the directory.
    const long long before = processBytes();
    auto in = publish<V6>("bgp", n);
    const long long modelBytes = processBytes() - before;

    // Mirror: the input appears in the directory; the module queues and drains every route.
    const long long beforeMirror = processBytes();
    const long long f0 = minorFaults();
    const double w0 = wallSeconds();
    const double c0 = cpuSeconds();
    (V6 ? dir6 : dir)->entityPtrIs(Kel::Name("bgp"), in);
    const double queued = wallSeconds() - w0;
    const double mirrorLongest =
        runUntil([&] { return rt_entry_count() == static_cast<std::size_t>(n); });
    const double mirrorWall = wallSeconds() - w0;
    const double mirrorCpu = cpuSeconds() - c0;
    const long long mirrorFaults = minorFaults() - f0;
    const long long moduleDaemonBytes = processBytes() - beforeMirror;
    const long long resident = BenchSupport::residentBytes();
    if (rt_entry_count() != static_cast<std::size_t>(n)) state.SkipWithError("not all mirrored");
    // The module's own share: the route input reactor's adapters and its backlogs (drained by
    // now). The rest of the growth is the daemon's.
    const auto inputSm = world.template inputSm<V6>("bgp");
    const std::size_t moduleBytes =
        inputSm->routeCollection().heapBytes() +
        inputSm->routeBacklog()->backlogCollection().heapBytes() +
        inputSm->unresolvedRouteBacklog()->backlogCollection().heapBytes();

    // Withdraw every route and run until the table is empty.
    const long long f1 = minorFaults();
    const double w1 = wallSeconds();
    const double c1 = cpuSeconds();
    in->routeDelAll();
    const double withdrawQueued = wallSeconds() - w1;
    const double withdrawLongest = runUntil([&] { return rt_entry_count() == 0; });
    const double withdrawWall = wallSeconds() - w1;
    const double withdrawCpu = cpuSeconds() - c1;
    const long long withdrawFaults = minorFaults() - f1;

    const auto sm = inputSm->routeBacklogSm();
    state.counters["mirror_wall_s"] = mirrorWall;
    state.counters["mirror_queue_s"] = queued;
    state.counters["withdraw_queue_s"] = withdrawQueued;
    state.counters["mirror_cpu_ns_per_route"] = mirrorCpu * 1e9 / static_cast<double>(n);
    state.counters["mirror_longest_slice_ms"] = mirrorLongest * 1e3;
    state.counters["withdraw_wall_s"] = withdrawWall;
    state.counters["withdraw_cpu_ns_per_route"] = withdrawCpu * 1e9 / static_cast<double>(n);
    state.counters["withdraw_longest_slice_ms"] = withdrawLongest * 1e3;
    state.counters["mirror_minor_faults"] = static_cast<double>(mirrorFaults);
    state.counters["withdraw_minor_faults"] = static_cast<double>(withdrawFaults);
    state.counters["batches"] = sm ? sm->backlogCount() : 0;
    // The longest time the thread was held at once anywhere: the scan that queues every key of
    // the new input, the publisher's routeDelAll (one notification per key inside one call), and
    // every callback of the loop.
    state.counters["longest_hold_ms"] =
        std::max({queued, mirrorLongest, withdrawQueued, withdrawLongest}) * 1e3;
    state.counters["whole_B_per_route"] =
        static_cast<double>(modelBytes + moduleDaemonBytes) / static_cast<double>(n);
    // Resident bytes of the whole process per route, as the peer daemon's anchor reports them;
    // meaningful for the first size a program runs (run one size per program, by filter).
    state.counters["rss_B_per_route"] = static_cast<double>(resident) / static_cast<double>(n);
    state.counters["module_daemon_B_per_route"] =
        static_cast<double>(moduleDaemonBytes) / static_cast<double>(n);
    state.counters["model_B_per_route"] = static_cast<double>(modelBytes) / static_cast<double>(n);
    state.counters["module_B_per_route"] =
        static_cast<double>(moduleBytes) / static_cast<double>(n);
    state.counters["daemon_B_per_route"] =
        static_cast<double>(moduleDaemonBytes - static_cast<long long>(moduleBytes)) /
        static_cast<double>(n);
  }
}

// The module's own bookkeeping a route, apart from the stand-ins: its adapters, its backlogs and
// the drain's work a key, with the daemon left out by INTERFACEROUTEINFOSM_TEST (the drain then
// consumes each key without looking it up or touching the daemon). Mirroring: queuing a new
// input's keys and draining them; withdrawal: the publisher's withdraw-all and draining that,
// less the withdraw-all's own share in the state database (its walk and the routes it frees,
// timed on a twin input that nothing watches). Not counted here: the drain's translation of a
// route into daemon calls, which runs only with the daemon.
template <bool V6>
void bookkeeping(benchmark::State& state) {
  const long n = state.range(0);
  for (auto _ : state) {
    World world;
    auto in = publish<V6>("bgp", n);
    auto twin = publish<V6>("twin", n);
    const double t0 = cpuSeconds();
    twin->routeDelAll();
    const double modelDelAll = cpuSeconds() - t0;

    ::setenv("INTERFACEROUTEINFOSM_TEST", "1", 1);
    const double c0 = cpuSeconds();
    (V6 ? world.dir6 : world.dir)->entityPtrIs(Kel::Name("bgp"), in);
    const double c1 = cpuSeconds();
    const auto inputSm = world.template inputSm<V6>("bgp");
    const auto& backlog = inputSm->routeBacklog()->backlogCollection();
    runUntil([&] { return backlog.size() == 0; });
    const double c2 = cpuSeconds();
    in->routeDelAll();
    const double c3 = cpuSeconds();
    runUntil([&] { return backlog.size() == 0; });
    const double c4 = cpuSeconds();
    ::unsetenv("INTERFACEROUTEINFOSM_TEST");
    if (inputSm->routeCollection().size() != 0) state.SkipWithError("adapters left");

    const auto perRoute = [&](double s) { return s * 1e9 / static_cast<double>(n); };
    state.counters["module_mirror_ns_per_route"] = perRoute(c2 - c0);
    state.counters["module_withdraw_ns_per_route"] = perRoute(c4 - c2 - modelDelAll);
    state.counters["queue_ns"] = perRoute(c1 - c0);
    state.counters["drain_ns"] = perRoute(c2 - c1);
    state.counters["withdraw_all_ns"] = perRoute(c3 - c2 - modelDelAll);
    state.counters["withdraw_drain_ns"] = perRoute(c4 - c3);
    state.counters["model_withdraw_all_ns"] = perRoute(modelDelAll);
  }
}

// The sizes show how the cost per route scales (the goal: within 25 % from 10k to 2M).
BENCHMARK(mirror<false>)
    ->Name("mirror_ipv4")
    ->Arg(10000)
    ->Arg(100000)
    ->Arg(1000000)
    ->Arg(2000000)
    ->Iterations(1)
    ->Unit(benchmark::kSecond);
BENCHMARK(mirror<true>)
    ->Name("mirror_ipv6")
    ->Arg(250000)
    ->Arg(1000000)
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

// The module's share at the sizes of the mirror (the goal: 0.15 µs a route).
BENCHMARK(bookkeeping<false>)
    ->Name("module_ipv4")
    ->Arg(10000)
    ->Arg(1000000)
    ->Arg(2000000)
    ->Iterations(1)
    ->Unit(benchmark::kSecond);
BENCHMARK(bookkeeping<true>)
    ->Name("module_ipv6")
    ->Arg(250000)
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

}  // namespace
