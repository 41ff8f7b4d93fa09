#include "fwk/daemon/task.h"

#include <algorithm>
#include <vector>

#include "fwk/daemon/misuse.h"

namespace {
task fwkTaskRecord = {"fwk", nullptr, nullptr};
std::vector<task*> others;
}  // namespace

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
