#include "fwk/daemon/task.h"

#include <algorithm>
#include <vector>

#include "fwk/daemon/instance_state.h"
#include "fwk/daemon/misuse.h"

namespace {
task fwkTaskRecord = {"fwk", nullptr, nullptr};
std::vector<task*> others;

// An instance's tasks: the module task's hook and data (its record keeps its address) and the
// other registered tasks.
struct Tasks {
  task record = {"fwk", nullptr, nullptr};
  std::vector<task*> others;
};
void swapTasks(void* parked) {
  auto& p = *static_cast<Tasks*>(parked);
  std::swap(fwkTaskRecord.task_ifachange_method, p.record.task_ifachange_method);
  std::swap(fwkTaskRecord.task_data, p.record.task_data);
  others.swap(p.others);
}
}  // namespace

const corvd_state_ops corvd_state_task = {[]() -> void* { return new Tasks(); }, &swapTasks,
                                          [](void* parked) { delete static_cast<Tasks*>(parked); }};

task* fwk_task = &fwkTaskRecord;

bool task_known(const task* tp) {
  return tp == &fwkTaskRecord || std::find(others.begin(), others.end(), tp) != others.end();
}

void task_register(task* tp) {
  if (!tp || task_known(tp)) {
    corvd_misuse("task_register", tp ? "task registered twice" : "null task");
    return;
  }
  others.push_back(tp);
}

void task_unregister(task* tp) {
  auto it = std::find(others.begin(), others.end(), tp);
  if (it == others.end()) {
    corvd_misuse("task_unregister", "task not registered");
    return;
  }
  others.erase(it);
}

void task_report_ifachange(_if_addr* ifap) {
  if (fwkTaskRecord.task_ifachange_method) {
    ++corvd_calls[CORVD_FN_ifachange];
    fwkTaskRecord.task_ifachange_method(&fwkTaskRecord, ifap);
  }
  std::vector<task*> snapshot = others;  // a hook may unregister a task
  for (task* tp : snapshot) {
    if (!task_known(tp) || !tp->task_ifachange_method) continue;
    ++corvd_calls[CORVD_FN_ifachange];
    tp->task_ifachange_method(tp, ifap);
  }
}

void task_reset() {
  others.clear();
  fwkTaskRecord.task_ifachange_method = nullptr;
  fwkTaskRecord.task_data = nullptr;
}
