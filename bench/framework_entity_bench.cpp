// Hot operations of the entity framework: an attribute set delivered to one notifiee, and keyed
// collection insert/erase as the backlogs use them.
#include <benchmark/benchmark.h>

#include <cstdint>

#include "fwk/framework/Attributes.h"

namespace {

class Counter : public Kel::Entity {
 public:
#define KEL_ATTRS_BenchCounter(A)           \
  A(SCALAR, value, Value, std::uint64_t, 0) \
  A(COLLECTION, backlog, Backlog, std::uint64_t, bool)
  KEL_ENTITY(Counter, "Bench::Counter", KEL_ATTRS_BenchCounter)
  Counter() : Kel::Entity("counter") {}
};

struct Sink : Counter::Notifiee {
  std::uint64_t calls = 0;
  void onValue() override { ++calls; }
  void onBacklog(const std::uint64_t&) override { ++calls; }
};

void attributeSetWithOneNotifiee(benchmark::State& state) {
  auto c = Kel::make<Counter>();
  Sink sink;
  sink.notifierIs(c);
  std::uint64_t v = 0;
  for (auto _ : state) c->valueIs(++v);
  benchmark::DoNotOptimize(sink.calls);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(attributeSetWithOneNotifiee);

// Insert n keys then drain them in order, as a backlog does.
void collectionInsertThenDrain(benchmark::State& state) {
  const auto n = static_cast<std::uint64_t>(state.range(0));
  auto c = Kel::make<Counter>();
  Sink sink;
  sink.notifierIs(c);
  for (auto _ : state) {
    for (std::uint64_t k = 0; k < n; ++k) c->backlogIs(k * 2654435761u, true);
    for (auto it = c->backlogIterator(); it; ++it) c->backlogDel(it.key());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(n));
}
BENCHMARK(collectionInsertThenDrain)->Arg(1000)->Arg(100000);

}  // namespace
