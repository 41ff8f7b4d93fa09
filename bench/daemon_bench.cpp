// Hot paths of the in-memory corvd at scale: adding, locating and deleting 1M IPv4 routes,
// and resolving next hops among 10k interface addresses. Bytes per installed route come from
// the allocator's in-use figures (heap chunks plus mmapped blocks) and the daemon's own table
// mappings (the prefix index from 2 MB up) before and after installing the routes.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "fwk/daemon/big_table.h"
#include "fwk/daemon/corvd.h"

namespace {

constexpr int kRoutes = 1 << 20;
constexpr int kLinks = 10000;

uint32_t prefixAddr(int i) { return htonl(0x20000000u + (static_cast<uint32_t>(i) << 8)); }

// Bytes the allocator has handed out, including blocks it serves by mmap, and the daemon's
// large tables, which it maps itself.
std::size_t bytesInUse() {
  struct mallinfo2 m = mallinfo2();
  return m.uordblks + m.hblkhd + bigTableMappedBytes();
}

struct Fixture {
  gw_entry* gw = nullptr;
  std::vector<if_addr*> ifaps;
  std::size_t bytesPerRoute = 0;

  // 10k links with one /24 each (10.x.y.1/24, x.y from the link number), all up.
  void interfaces() {
    for (int l = 0; l < kLinks; ++l) {
      char name[17];
      std::snprintf(name, sizeof name, "e%d", l);
      if_conf_open(fwk_task, 0);
      if_link* link = if_conf_addlink(fwk_task, nullptr, static_cast<unsigned long>(l + 1), IFS_UP,
                                      0, 1500, name, static_cast<int>(strlen(name)), nullptr);
      if_info req{};
      req.ifi_link = link;
      req.ifi_addr_local = sockdup(sockbuild_in(0, htonl(0x0A000001u | (l << 8))));
      req.ifi_netmask = sock_mask_by_len(SA_FAMILY_INET, 24);
      ifaps.push_back(if_conf_addaddr(fwk_task, &req));
      if_conf_close(fwk_task, 1);
    }
  }

  void addAll() {
    rt_open(fwk_task);
    for (int i = 0; i < kRoutes; ++i) add(i);
    rt_close(fwk_task, 0, 1, 0);
  }

  rt_entry* add(int i) {
    rt_parms rtp{};
    rtp.rtp_dest = sockbuild_in(0, prefixAddr(i));
    rtp.rtp_dest_mask = sock_mask_by_len(SA_FAMILY_INET, 24);
    rtp.rtp_gwp = gw;
    rtp.rtp_preference = 20;
    rtp.rtp_n_gw = 1;
    int l = i % kLinks;
    rtp.rtp_routers[0] = sockbuild_in(0, htonl(0x0A000002u | (l << 8)));
    if_addr* ifap[RT_N_MULTIPATH] = {ifaps[static_cast<std::size_t>(l)]};
    return rt_add(&rtp, ifap);
  }

  Fixture() {
    corvd_reset();
    interfaces();
    gw = gw_init(nullptr, 5, fwk_task, 0, 0, nullptr, 0x800);
    std::size_t before = bytesInUse();
    addAll();
    bytesPerRoute = (bytesInUse() - before) / kRoutes;
  }
};

Fixture& installed() {
  static Fixture f;
  return f;
}

void BM_rt_locate(benchmark::State& state) {
  Fixture& f = installed();
  rt_bits bits;
  rt_make_bits(&bits, 1, 5);
  sockaddr_un* mask = sock_mask_by_len(SA_FAMILY_INET, 24);
  uint32_t i = 0;
  for (auto _ : state) {
    i = (i + 40503) & (kRoutes - 1);
    benchmark::DoNotOptimize(
        rt_locate(0, sockbuild_in(0, prefixAddr(static_cast<int>(i))), mask, &bits));
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["bytes_per_route"] = static_cast<double>(f.bytesPerRoute);
  state.counters["routes"] = static_cast<double>(rt_entry_count());
}

void BM_if_withdst(benchmark::State& state) {
  installed();
  uint32_t i = 0;
  for (auto _ : state) {
    i = (i + 7919) % kLinks;
    benchmark::DoNotOptimize(if_withdst(sockbuild_in(0, htonl(0x0A000009u | (i << 8)))));
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["addresses"] = static_cast<double>(if_addr_count());
}

// Deletes and re-adds batches of routes in a table that holds 1M.
void BM_rt_delete_add(benchmark::State& state) {
  Fixture& f = installed();
  rt_bits bits;
  rt_make_bits(&bits, 1, 5);
  sockaddr_un* mask = sock_mask_by_len(SA_FAMILY_INET, 24);
  int i = 0;
  for (auto _ : state) {
    i = (i + 40503) & (kRoutes - 1);
    rt_open(fwk_task);
    rt_delete(rt_locate(0, sockbuild_in(0, prefixAddr(i)), mask, &bits));
    f.add(i);
    rt_close(fwk_task, 0, 1, 0);
  }
  state.SetItemsProcessed(state.iterations());
}

// Fills an empty table with 1M routes per iteration.
void BM_rt_add_1M(benchmark::State& state) {
  Fixture& f = installed();
  for (auto _ : state) {
    state.PauseTiming();
    rt_open(fwk_task);
    gw_free(f.gw);
    rt_close(fwk_task, 0, 1, 0);
    f.gw = gw_init(nullptr, 5, fwk_task, 0, 0, nullptr, 0x800);
    state.ResumeTiming();
    f.addAll();
  }
  state.SetItemsProcessed(state.iterations() * kRoutes);
  state.counters["misuse"] = static_cast<double>(corvd_misuse_count());
}

// Deletes 1M routes per iteration (re-installed untimed).
void BM_rt_delete_1M(benchmark::State& state) {
  Fixture& f = installed();
  rt_bits bits;
  rt_make_bits(&bits, 1, 5);
  sockaddr_un* mask = sock_mask_by_len(SA_FAMILY_INET, 24);
  for (auto _ : state) {
    rt_open(fwk_task);
    for (int i = 0; i < kRoutes; ++i) {
      rt_delete(rt_locate(0, sockbuild_in(0, prefixAddr(i)), mask, &bits));
    }
    rt_close(fwk_task, 0, 1, 0);
    state.PauseTiming();
    f.addAll();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kRoutes);
}

}  // namespace

BENCHMARK(BM_rt_locate);
BENCHMARK(BM_if_withdst);
BENCHMARK(BM_rt_delete_add);
BENCHMARK(BM_rt_add_1M)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_rt_delete_1M)->Unit(benchmark::kMillisecond)->Iterations(3);
