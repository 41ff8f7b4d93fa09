// The in-memory corvd's bookkeeping of its own use: misuse reports, per-function call
// counters, fault injection and the reset that returns the whole daemon to its start state.
//
// Invariants: every misuse the daemon detects adds exactly one message to the log and one to
// the count; the call that was misused does nothing (or as little as it safely can) and says so
// by its result. Counters only grow until corvd_reset.
// A caller must not keep pointers to daemon records across corvd_reset: everything is freed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Functions whose calls are counted; corvd_call_count takes the function's own name.
enum corvd_fn : int {
  CORVD_FN_rt_open,
  CORVD_FN_rt_close,
  CORVD_FN_rt_add,
  CORVD_FN_rt_change_s,
  CORVD_FN_rt_delete,
  CORVD_FN_rt_locate,
  CORVD_FN_rt_table_locate,
  CORVD_FN_gw_init,
  CORVD_FN_gw_free,
  CORVD_FN_if_conf_open,
  CORVD_FN_if_conf_close,
  CORVD_FN_if_conf_addlink,
  CORVD_FN_if_conf_dellink,
  CORVD_FN_if_conf_addaddr,
  CORVD_FN_if_conf_deladdr,
  CORVD_FN_ifl_locate_index,
  CORVD_FN_if_withdst,
  CORVD_FN_if_withdstaddr,
  CORVD_FN_sockbuild,
  CORVD_FN_sockdup,
  CORVD_FN_ifachange,  // address-change reports delivered (one per task and address)
  CORVD_FN_COUNT
};

// Number of misuses since the last reset.
uint64_t corvd_misuse_count();
// Their messages, oldest first: "<function>: <what was wrong>".
const std::vector<std::string>& corvd_misuse_log();
// Records one misuse. Used by the daemon's own functions.
void corvd_misuse(const char* fn, const std::string& what);

// Calls of the function named `name` (e.g. "rt_add") since the last reset; 0 for unknown names.
uint64_t corvd_call_count(const char* name);
const char* corvd_fn_name(corvd_fn fn);
extern uint64_t corvd_calls[CORVD_FN_COUNT];  // read through corvd_call_count

// Fault injection: the next `count` calls of rt_add (or rt_change_s) fail with a null result,
// after their arguments have been checked and without changing anything. 0 turns it off.
void corvd_fail_rt_add(unsigned count);
void corvd_fail_rt_change(unsigned count);
// Consumes one pending failure; used by rt_add / rt_change_s.
bool corvd_take_rt_add_failure();
bool corvd_take_rt_change_failure();

// Empties every table (routes, gateways, links, addresses), forgets registered tasks other
// than fwk_task and clears fwk_task's hook, closes both brackets, empties the socket pool and
// frees every lasting copy, and zeroes misuse, call counters and fault injection.
void corvd_reset();
