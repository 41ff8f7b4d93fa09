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

NotifierBase::~NotifierBase() {
  for (std::size_t i = 0; i < regs_.size(); ++i) {
    regs_[i]->notifier_ = nullptr;
    regs_[i]->serial_ = 0;
  }
}

// The snapshot's notifiee is read only once it is found on the list: a registered notifiee is
// alive (its destructor unregisters it), and another built at the same address meanwhile has
// another serial.
bool NotifierBase::stillRegistered(const Reg& r) const {
  for (std::size_t i = 0; i < regs_.size(); ++i) {
    if (regs_[i] == r.notifiee) return r.notifiee->serial_ == r.serial;
  }
  return false;
}

void NotifierBase::add(NotifieeBase* n) const {
  n->serial_ = nextSerial++;
  if (nextSerial == 0) nextSerial = 1;
  regs_.push_back(n);
}

void NotifierBase::remove(NotifieeBase* n) const {
  for (std::size_t i = 0; i < regs_.size(); ++i) {
    if (regs_[i] != n) continue;
    regs_.eraseAt(i);
    break;
  }
  n->serial_ = 0;
}

}  // namespace Kel
