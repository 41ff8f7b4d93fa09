#include "fwk/framework/Notifiee.h"

#include <algorithm>

namespace Kel {

namespace {
std::uint64_t nextSerial = 1;
}

NotifieeBase::~NotifieeBase() { notifierBaseIs(nullptr); }

void NotifieeBase::isRegisteredNotifieeIs(bool registered) {
  if (registered == isRegisteredNotifiee() || !notifier_) return;
  if (registered) {
    notifier_->add(this);
  } else {
    notifier_->remove(this);
  }
}

void NotifieeBase::notifierBaseIs(const NotifierBase* n) {
  if (n == notifier_) return;
  if (notifier_ && isRegisteredNotifiee()) notifier_->remove(this);
  notifier_ = n;
  if (notifier_) notifier_->add(this);
}

NotifierBase::~NotifierBase() {
  for (const Reg& r : regs_) {
    r.notifiee->notifier_ = nullptr;
    r.notifiee->serial_ = 0;
  }
}

bool NotifierBase::stillRegistered(const Reg& r) const {
  return std::any_of(regs_.begin(), regs_.end(), [&](const Reg& x) {
    return x.notifiee == r.notifiee && x.serial == r.serial;
  });
}

void NotifierBase::add(NotifieeBase* n) const {
  n->serial_ = nextSerial++;
  regs_.push_back({n, n->serial_});
}

void NotifierBase::remove(NotifieeBase* n) const {
  auto it = std::find_if(regs_.begin(), regs_.end(), [&](const Reg& r) { return r.notifiee == n; });
  if (it != regs_.end()) regs_.erase(it);
  n->serial_ = 0;
}

}  // namespace Kel
