#include "fwk/daemon/misuse.h"

#include <cstring>

#include "fwk/daemon/if_table.h"
#include "fwk/daemon/instance_state.h"
#include "fwk/daemon/rt_table.h"
#include "fwk/daemon/sockaddr.h"
#include "fwk/daemon/task.h"

uint64_t corvd_calls[CORVD_FN_COUNT];

namespace {

const char* const fnNames[CORVD_FN_COUNT] = {
    "rt_open",          "rt_close",        "rt_add",          "rt_change_s",     "rt_delete",
    "rt_locate",        "rt_table_locate", "gw_init",         "gw_free",         "if_conf_open",
    "if_conf_close",    "if_conf_addlink", "if_conf_dellink", "if_conf_addaddr", "if_conf_deladdr",
    "ifl_locate_index", "if_withdst",      "if_withdstaddr",  "sockbuild",       "sockdup",
    "ifachange"};

std::vector<std::string> misuseLog;
unsigned failRtAdd = 0;
unsigned failRtChange = 0;

// An instance's bookkeeping: misuse log, call counters, fault injection.
struct Bookkeeping {
  std::vector<std::string> log;
  uint64_t calls[CORVD_FN_COUNT] = {};
  unsigned failRtAdd = 0;
  unsigned failRtChange = 0;
};
void swapBookkeeping(void* parked) {
  auto& p = *static_cast<Bookkeeping*>(parked);
  misuseLog.swap(p.log);
  std::swap_ranges(std::begin(corvd_calls), std::end(corvd_calls), std::begin(p.calls));
  std::swap(failRtAdd, p.failRtAdd);
  std::swap(failRtChange, p.failRtChange);
}

}  // namespace

const corvd_state_ops corvd_state_misuse = {
    []() -> void* { return new Bookkeeping(); }, &swapBookkeeping,
    [](void* parked) { delete static_cast<Bookkeeping*>(parked); }};

uint64_t corvd_misuse_count() { return misuseLog.size(); }

const std::vector<std::string>& corvd_misuse_log() { return misuseLog; }

void corvd_misuse(const char* fn, const std::string& what) {
  misuseLog.push_back(std::string(fn) + ": " + what);
}

const char* corvd_fn_name(corvd_fn fn) { return fn < CORVD_FN_COUNT ? fnNames[fn] : "?"; }

uint64_t corvd_call_count(const char* name) {
  for (int i = 0; i < CORVD_FN_COUNT; ++i) {
    if (std::strcmp(fnNames[i], name) == 0) return corvd_calls[i];
  }
  return 0;
}

void corvd_fail_rt_add(unsigned count) { failRtAdd = count; }
void corvd_fail_rt_change(unsigned count) { failRtChange = count; }

bool corvd_take_rt_add_failure() {
  if (failRtAdd == 0) return false;
  --failRtAdd;
  return true;
}

bool corvd_take_rt_change_failure() {
  if (failRtChange == 0) return false;
  --failRtChange;
  return true;
}

void corvd_reset() {
  rt_table_reset();  // routes first: they hold references to interface addresses
  if_table_reset();
  task_reset();
  sock_reset();
  misuseLog.clear();
  std::memset(corvd_calls, 0, sizeof corvd_calls);
  failRtAdd = 0;
  failRtChange = 0;
}
