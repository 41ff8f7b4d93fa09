// The in-memory corvd: the routing daemon's C interface as its modules see it. Include this
// one header to get the socket addresses, tasks, the interface table, the routing table, the
// misuse/counter/reset bookkeeping and the show functions.
//
// Everything here runs on one thread and keeps global tables; corvd_reset returns them to the
// start state. Tests of other layers can assert corvd_misuse_count() == 0 after their run.
#pragma once

#include "fwk/daemon/if_table.h"
#include "fwk/daemon/instance.h"
#include "fwk/daemon/misuse.h"
#include "fwk/daemon/rt_table.h"
#include "fwk/daemon/show.h"
#include "fwk/daemon/sockaddr.h"
#include "fwk/daemon/task.h"
