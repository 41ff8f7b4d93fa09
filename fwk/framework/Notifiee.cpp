#include "fwk/framework/Notifiee.h"

namespace Kel {

namespace {
std::uint32_t nextSerial = 1;
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
  for (std::size_t i = 0; i < regs_.size(); ++i) {
    regs_[i].notifiee->notifier_ = nullptr;
    regs_[i].notifiee->serial_ = 0;
  }
}

bool NotifierBase::stillRegistered(const Reg& r) const {
  for (std::size_t i = 0; i < regs_.size(); ++i) {
    if (regs_[i].notifiee == r.notifiee && regs_[i].serial == r.serial) return true;
  }
  return false;
}

void NotifierBase::add(NotifieeBase* n) const {
  n->serial_ = nextSerial++;
  if (nextSerial == 0) nextSerial = 1;
  regs_.push_back({n, n->serial_});
}

void NotifierBase::remove(NotifieeBase* n) const {
  for (std::size_t i = 0; i < regs_.size(); ++i) {
    if (regs_[i].notifiee != n) continue;
    regs_.eraseAt(i);
    break;
  }
  n->serial_ = 0;
}

}  // namespace Kel
