// The in-memory corvd: the routing daemon's C interface as its modules see it. Include this
// one header to get the socket addresses, tasks, the interface table, the routing table, the
// misuse/counter/reset bookkeeping and the show functions.
//
// Everything here runs on one thread and keeps global tables; corvd_reset returns them to the
// start state. Tests of other layers can assert corvd_misuse_count() == 0 after their run.
//
// Results versus misuse: a function refuses what the state of the tables does not allow by its
// result, and counts a misuse only for a breach of its calling contract (misuse.h). In
// particular rt_add for a prefix that already holds an entry of the same gateway (gw_entry) with
// the same gateway addresses in the same order (a blackhole drained again) returns null, leaves
// that entry as it is and counts no misuse; the module traces it as
// "Could not add route to corvd( rt_add failure )". rt_change_s refuses the same way a gateway
// set that another entry of the gateway already has. A change outside an rt_open/rt_close
// bracket, a recycled temporary, a gateway or entry that is gone are misuses.
#pragma once

#include "fwk/daemon/if_table.h"
#include "fwk/daemon/instance.h"
#include "fwk/daemon/misuse.h"
#include "fwk/daemon/rt_table.h"
#include "fwk/daemon/show.h"
#include "fwk/daemon/sockaddr.h"
#include "fwk/daemon/task.h"
