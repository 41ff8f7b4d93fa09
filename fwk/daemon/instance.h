// Daemon instances: one in-memory corvd per VRF in one process.
//
// On a router each VRF is served by its own daemon process. A host that runs several VRFs in one
// process makes one instance per VRF and makes an instance current before it calls anything of
// the daemon on that VRF's behalf: every daemon function works on the current instance's tables
// (interface table, routing table, gateways and prefix trees, tasks and the module task's hook,
// rib, misuse log, call counters, fault injection, lasting socket copies). fwk_task keeps its
// address and always stands for the current instance's module task. The shared masks and the
// pool of socket temporaries belong to the process: a temporary never outlives the call it was
// built for, so no instance can see another's.
// The default instance exists from the start and is current until another is made current.
// Records of an instance (links, addresses, entries, gateways) stay valid while other instances
// are current; a caller must not hand one instance's records to another.
// Switching is O(1): the current instance's tables are parked and the other's taken out.
#pragma once

struct corvd_instance;

// A fresh, empty daemon named `name` (not current).
corvd_instance* corvd_instance_new(const char* name);
// Makes `d` current; null makes the default instance current.
void corvd_instance_use(corvd_instance* d);
corvd_instance* corvd_instance_current();
const char* corvd_instance_name(const corvd_instance* d);
// Frees everything `d` holds, without reports, and `d` itself (the default instance cannot be
// freed: null and the default are ignored). Freeing the current instance makes the default
// current.
void corvd_instance_free(corvd_instance* d);
