#include "fwk/intf/IntfBacklog.h"

#include "fwk/ModuleSupport.h"

namespace InterfaceRouteInfo {

void IntfBackLogEntry::kelMemberOf(IntfBacklog* backlog) {
  if (needClean() && backlog_) --backlog_->needCleanCount_;
  backlog_ = backlog;
  if (needClean() && backlog_) ++backlog_->needCleanCount_;
}

void IntfBackLogEntry::kelNeedCleanChanged() {
  if (!backlog_) return;
  if (needClean()) {
    ++backlog_->needCleanCount_;
  } else {
    --backlog_->needCleanCount_;
  }
}

IntfBacklog::~IntfBacklog() {
  // Entries held elsewhere must not reach back into a backlog that is gone.
  for (auto [id, entry] : backlogCollection()) entry->kelMemberOf(nullptr);
}

void IntfBacklog::doAddBacklog(Kanet::IntfId intfId, bool flapInterface) {
  IRI_SIGNATURE("void InterfaceRouteInfo::IntfBacklog::doAddBacklog(Kanet::IntfId, bool)");
  IRI_TRACE(8, IRI_FUNCTION_NAME_()
                   << " intfId " << intfId << " flapInterface " << (flapInterface ? 1 : 0));
  IntfBackLogEntryPtr entry = backlog(intfId);
  if (!entry) {
    entry = backlogIs(intfId);
    entry->flapInterfaceIs(flapInterface);
  } else if (flapInterface) {
    entry->flapInterfaceIs(true);
  }
  entry->needCleanIs(true);
}

}  // namespace InterfaceRouteInfo
