// Churn: N cycles, each publishing 1,000 routes in a new route input, mirroring them, withdrawing
// them all, and taking the input out of the directory (every tenth cycle also flaps one of the
// daemon's links, so address reports run over live routes). Manual time, tracing off. After a
// warm-up of 100 cycles the process's bytes (heap and the daemon's record pages), the live
// entities, the daemon's socket-address copies and its route entries must come back to the same
// values after every later cycle (bytes within a few record pages): any growth is reported as an
// error of the benchmark, with the per-cycle growth of each count.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include "bench/BenchSupport.h"
#include "fwk/Root.h"
#include "fwk/daemon/corvd.h"
#include "fwk/daemon/host_conf.h"
#include "fwk/daemon/record_arena.h"
#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Dir.h"
#include "fwk/framework/Trace.h"

namespace {

using namespace InterfaceRouteInfo;
using BenchSupport::cpuSeconds;
using BenchSupport::processBytes;

struct Counts {
  long long bytes;
  long entities;
  std::size_t copies;
  std::size_t entries;
};

Counts counts() {
  return {processBytes(), Kel::Entity::liveCount(), sock_live_copies(), rt_entry_count()};
}

void churn(benchmark::State& state) {
  const long cycles = state.range(0);
  constexpr long kRoutes = 1000;
  constexpr long kWarmUp = 100;
  // The daemon's record pages come back in batches (RecordArena::kReturnBatch in each of its two
  // arenas, entries and gateways): that many pages, and a few more, are not growth.
  const long long kByteSlack =
      64 * 1024 + 2 * static_cast<long long>(RecordArena::kReturnBatch) * sysconf(_SC_PAGESIZE);
  for (auto _ : state) {
    corvd_reset();
    Kel::activityManager()->reset();
    Kel::activityManager()->manualTimeIs(0.0);
    Kel::traceConfigIs("");
    for (unsigned i = 1; i <= 4; ++i) {
      corvd_host_link(i, ("et" + std::to_string(i)).c_str(), true);
      corvd_host_addr(i, sockbuild_in(0, Kanet::IpAddr(0x0a000001u + (i << 8)).valueNetworkOrder()),
                      24);
    }
    auto config = Kel::make<Routing::Config>("routing");
    auto config6 = Kel::make<Routing6::Config>("routing6");
    auto dir = Kel::make<Kel::Dir>("routeInput");
    config->routeInputDirIs(dir);
    config6->routeInputDirIs(Kel::make<Kel::Dir>("route6Input"));
    auto root = rootFactory("root");
    root->vrfNameIs(Ip::VrfName("default"));
    root->allIntfStatusDirIs(Kel::make<Interface::AllIntfStatusDir>("all"));
    root->allIntfStatusLocalDirIs(Kel::make<Interface::AllIntfStatusLocalDir>("local"));
    root->ipStatusIs(Kel::make<Ip::Status>("ip"));
    root->ip6StatusIs(Kel::make<Ip6::Status>("ip6"));
    root->routingConfigIs(config);
    root->routing6ConfigIs(config6);
    root->initializedIs(true);
    auto settle = [] {
      Kel::ActivityManager& am = *Kel::activityManager();
      while (am.nextTime() != Kel::endOfTime) am.runUntil(am.nextTime());
    };
    settle();

    Counts base{};
    long grewAt = -1;
    const double c0 = cpuSeconds();
    for (long c = 0; c < cycles; ++c) {
      auto in = Kel::make<Routing::RouteInput>(Kel::Name("bgp"));
      in->routingProtoIs(8);
      in->preferenceIs(20);
      for (long r = 0; r < kRoutes; ++r) {
        const Kanet::IpAddr dest(0x64000000u + (static_cast<uint32_t>(r) << 8));
        const Kanet::IpAddr hop(0x0a000002u + (static_cast<uint32_t>(1 + r % 4) << 8));
        in->routeNew(Routing::RouteKey(dest, 24))->viaIs(Routing::Via{Kanet::IntfId(), hop}, true);
      }
      dir->entityPtrIs(Kel::Name("bgp"), in);
      settle();
      if (c % 10 == 0) {  // a link flap while the routes are in the daemon
        const unsigned link = 1 + static_cast<unsigned>(c / 10 % 4);
        const std::string name = "et" + std::to_string(link);
        corvd_host_link(link, name.c_str(), false);
        corvd_host_link(link, name.c_str(), true);
        settle();
      }
      in->routeDelAll();
      settle();
      dir->entityPtrDel(Kel::Name("bgp"));
      settle();
      in = nullptr;
      if (c + 1 == kWarmUp) base = counts();
      if (c + 1 > kWarmUp && grewAt < 0) {
        const Counts now = counts();
        if (now.bytes > base.bytes + kByteSlack || now.entities > base.entities ||
            now.copies > base.copies || now.entries > base.entries) {
          grewAt = c + 1;
        }
      }
    }
    const double cpu = cpuSeconds() - c0;
    const Counts end = counts();
    const double later = static_cast<double>(cycles - kWarmUp);
    state.counters["cpu_us_per_cycle"] = cpu * 1e6 / static_cast<double>(cycles);
    state.counters["bytes_growth_per_cycle"] = static_cast<double>(end.bytes - base.bytes) / later;
    state.counters["entities_growth"] = static_cast<double>(end.entities - base.entities);
    state.counters["copies_growth"] = static_cast<double>(end.copies) - base.copies;
    state.counters["entries_left"] = static_cast<double>(end.entries);
    state.counters["first_growth_cycle"] = static_cast<double>(grewAt);
    if (grewAt >= 0) {
      state.SkipWithError(
          ("the process grew after warm-up (first at cycle " + std::to_string(grewAt) + ")")
              .c_str());
    }
    root = nullptr;
    theRootDel();
    corvd_reset();
    Kel::activityManager()->reset();
  }
}

BENCHMARK(churn)->Name("churn")->Arg(10000)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
