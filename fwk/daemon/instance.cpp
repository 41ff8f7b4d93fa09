#include "fwk/daemon/instance.h"

#include <array>
#include <string>

#include "fwk/daemon/instance_state.h"
#include "fwk/daemon/misuse.h"

struct corvd_instance {
  std::string name;
  std::array<void*, 8> parked{};  // null while the instance is current
};

namespace {

const corvd_state_ops* const kShares[] = {&corvd_state_gw,   &corvd_state_ptree, &corvd_state_rt,
                                          &corvd_state_rib,  &corvd_state_if,    &corvd_state_task,
                                          &corvd_state_sock, &corvd_state_misuse};
static_assert(std::size(kShares) == std::tuple_size_v<decltype(corvd_instance::parked)>);

corvd_instance defaultInstance{"default", {}};
corvd_instance* current = &defaultInstance;

}  // namespace

corvd_instance* corvd_instance_new(const char* name) {
  auto* d = new corvd_instance{name ? name : "", {}};
  for (std::size_t i = 0; i < std::size(kShares); ++i) d->parked[i] = kShares[i]->make();
  return d;
}

void corvd_instance_use(corvd_instance* d) {
  if (!d) d = &defaultInstance;
  if (d == current) return;
  for (std::size_t i = 0; i < std::size(kShares); ++i) {
    // One exchange: d's state goes live, and the live one lands in d's parking place, which
    // then belongs to the instance that stops being current.
    kShares[i]->swap(d->parked[i]);
    current->parked[i] = d->parked[i];
    d->parked[i] = nullptr;
  }
  current = d;
}

corvd_instance* corvd_instance_current() { return current; }

const char* corvd_instance_name(const corvd_instance* d) {
  return d ? d->name.c_str() : defaultInstance.name.c_str();
}

void corvd_instance_free(corvd_instance* d) {
  if (!d || d == &defaultInstance) return;
  corvd_instance* back = current == d ? &defaultInstance : current;
  corvd_instance_use(d);
  corvd_reset();  // frees the tables the way the daemon does, with nothing reported
  corvd_instance_use(back);
  for (std::size_t i = 0; i < std::size(kShares); ++i) kShares[i]->destroy(d->parked[i]);
  delete d;
}
