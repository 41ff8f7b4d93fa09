// Interface mirroring at scale, on the real clock with the default quantum (0.08 s) and delay
// (0.04 s), tracing off: N interfaces (kernel device, status, an IPv4 primary and a secondary,
// an IPv6 address) published at once into a started module, then the loop runs until the
// daemon's interface table holds every link and address; then a flap storm (every interface's
// oper status toggled) and the loop runs until every link is back with its addresses.
// Reported per phase: wall seconds, CPU microseconds per interface, the longest loop pass (an
// upper bound of the longest drain slice: a pass may fire more than one callback), drain runs;
// and heap bytes per interface, split into the state database's objects (model) and what the
// module and the daemon hold for them.
#include <benchmark/benchmark.h>

#include "bench/BenchSupport.h"
#include "fwk/Root.h"
#include "fwk/daemon/corvd.h"
#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Dir.h"
#include "fwk/framework/Trace.h"

namespace {

using namespace InterfaceRouteInfo;
using BenchSupport::cpuSeconds;
using BenchSupport::processBytes;
using BenchSupport::runUntil;
using BenchSupport::wallSeconds;

void intfMirror(benchmark::State& state) {
  const long n = state.range(0);
  for (auto _ : state) {
    corvd_reset();
    Kel::activityManager()->reset();
    Kel::traceConfigIs("");  // tracing off
    auto all = Kel::make<Interface::AllIntfStatusDir>("all");
    auto local = Kel::make<Interface::AllIntfStatusLocalDir>("local");
    auto kernel = local->kernelNetworkInfoNew(Kanet::NamespaceName());
    auto ipStatus = Kel::make<Ip::Status>("ip");
    auto ip6Status = Kel::make<Ip6::Status>("ip6");
    auto config = Kel::make<Routing::Config>("routing");
    auto config6 = Kel::make<Routing6::Config>("routing6");
    config->routeInputDirIs(Kel::make<Kel::Dir>("routeInput"));
    config6->routeInputDirIs(Kel::make<Kel::Dir>("route6Input"));
    auto root = rootFactory("root");
    root->vrfNameIs(Ip::VrfName("default"));
    root->allIntfStatusDirIs(all);
    root->allIntfStatusLocalDirIs(local);
    root->ipStatusIs(ipStatus);
    root->ip6StatusIs(ip6Status);
    root->routingConfigIs(config);
    root->routing6ConfigIs(config6);
    root->initializedIs(true);
    const std::size_t addrs = static_cast<std::size_t>(3 * n);
    auto mirrored = [&] {
      return if_link_count() == static_cast<std::size_t>(n) && if_addr_count() == addrs &&
             root->intfBacklog()->backlogCount() == 0;
    };

    // Everything published at once, in one burst, before the loop runs.
    const long long before = processBytes();
    const double w0 = wallSeconds();
    const double c0 = cpuSeconds();
    auto vrf = ipStatus->vrfIpIntfStatusNew(Ip::VrfName("default"));
    for (long i = 0; i < n; ++i) {
      const std::string dev = "et" + std::to_string(i);
      const Kanet::IntfId id("Ethernet" + std::to_string(i));
      auto d = Kel::make<KernelNetworkInfo::Interface>(dev);
      d->ifIndexIs(static_cast<std::uint32_t>(2 + i));
      d->flagsIs(0x41);
      d->macAddrIs(Kanet::EthAddr(0x0200, static_cast<std::uint16_t>(i >> 16),
                                  static_cast<std::uint16_t>(i)));
      kernel->interfaceByNameIs(dev, d);
      auto st = Kel::make<Interface::IntfStatus>(id);
      st->deviceNameIs(dev);
      st->operStatusIs(Interface::IntfOperStatus::intfOperUp);
      all->intfStatusIs(id, st);
      const auto u = static_cast<std::uint32_t>(i);
      auto v4 = vrf->ipIntfStatusNew(id);
      v4->activeAddrWithMaskIs(Kanet::IpAddrWithMask(Kanet::IpAddr(0x0a000001u + (u << 8)), 24));
      v4->activeSecondaryWithMaskIs(
          Kanet::IpAddrWithMask(Kanet::IpAddr(0x64000001u + (u << 8)), 24), true);
      Kanet::Ip6Addr a6 = Kanet::Ip6Addr::fromString("2001:db8::1");
      a6.u8Is(4, static_cast<std::uint8_t>(u >> 16));
      a6.u8Is(5, static_cast<std::uint8_t>(u >> 8));
      a6.u8Is(6, static_cast<std::uint8_t>(u));
      const Kanet::Ip6AddrWithMask m6(a6, 64);
      ip6Status->intfNew(Ip::VrfName("default"), id)->addrIs(m6, Ip6::AddressInfo{m6});
    }
    const double publishWall = wallSeconds() - w0;
    const long long afterPublish = processBytes();
    const double longest = runUntil(mirrored);
    const double mirrorWall = wallSeconds() - w0;
    const double mirrorCpu = cpuSeconds() - c0;
    if (!mirrored()) state.SkipWithError("not all mirrored");
    const long long whole = processBytes() - before;
    const auto runs = root->intfBacklogSm()->backlogCount();

    // Flap storm: every interface's oper status toggles once.
    const double w1 = wallSeconds();
    const double c1 = cpuSeconds();
    const auto dellinks = corvd_call_count("if_conf_dellink");
    for (auto [id, st] : all->intfStatusCollection()) {
      st->operStatusIs(Interface::IntfOperStatus::intfOperDown);
    }
    const double flapLongest =
        runUntil([&] { return mirrored() && corvd_call_count("if_conf_dellink") == dellinks + n; });
    const double flapWall = wallSeconds() - w1;
    const double flapCpu = cpuSeconds() - c1;
    if (!mirrored()) state.SkipWithError("flap storm did not settle");

    const double dn = static_cast<double>(n);
    state.counters["mirror_wall_s"] = mirrorWall;
    state.counters["publish_wall_s"] = publishWall;
    state.counters["mirror_cpu_us_per_intf"] = mirrorCpu * 1e6 / dn;
    state.counters["mirror_longest_pass_ms"] = longest * 1e3;
    state.counters["mirror_drain_runs"] = runs;
    state.counters["flap_wall_s"] = flapWall;
    state.counters["flap_cpu_us_per_intf"] = flapCpu * 1e6 / dn;
    state.counters["flap_longest_pass_ms"] = flapLongest * 1e3;
    state.counters["model_B_per_intf"] = static_cast<double>(afterPublish - before) / dn;
    state.counters["whole_B_per_intf"] = static_cast<double>(whole) / dn;

    root = nullptr;
    theRootDel();
    corvd_reset();
    Kel::activityManager()->reset();
  }
}

BENCHMARK(intfMirror)
    ->Name("intf_mirror")
    ->Arg(30000)
    ->Arg(3000)
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

}  // namespace
