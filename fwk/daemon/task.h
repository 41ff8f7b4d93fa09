// Daemon tasks: the records on whose behalf protocols and modules call the daemon, and the
// delivery of interface-address change reports to them.
//
// fwk_task always points at the daemon's own record for the module task; it is registered from
// the start and stays registered. Other tasks join with task_register. A report goes to every
// registered task that has a task_ifachange_method, fwk_task first, then in registration order.
// A callback may call the routing-table functions (with its own rt_open/rt_close bracket) but
// must not open the interface-configuration bracket: reports are delivered from if_conf_close.
// A caller must not free a registered task record before task_unregister.
#pragma once

struct _task;
struct _if_addr;

// Called with the task and the changed address; the address's ifa_change says what changed.
typedef void (*task_ifachange_fn)(struct _task*, struct _if_addr*);

typedef struct _task {
  const char* task_name;                    // label shown in tables; not owned
  task_ifachange_fn task_ifachange_method;  // address-change hook, or null
  void* task_data;                          // free for the owner
} task;

// The module's daemon task (never null).
extern task* fwk_task;

// Adds `tp` to the tasks that receive reports; registering twice is a misuse.
void task_register(task* tp);
// Removes it; fwk_task cannot be removed (misuse).
void task_unregister(task* tp);
// True for fwk_task and registered tasks.
bool task_known(const task* tp);
// Calls every registered hook with `ifap` (whose ifa_change the caller has set).
void task_report_ifachange(struct _if_addr* ifap);
// Forgets registered tasks and clears fwk_task's hook and data. For corvd_reset only.
void task_reset();
