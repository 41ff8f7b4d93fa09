#include "fwk/framework/Reactor.h"

namespace Kel {

void Reactor::hasNotificationActiveIs(bool active) {
  active_ = active;
  for (NotifieeBase* n : adapters_) n->hasNotificationActiveIs(active);
  if (collections_) collections_(*this, active);
}

void Reactor::kelAdopt(const std::vector<NotifieeBase*>& made, const void* object, std::size_t size,
                       void (*collections)(Reactor&, bool)) {
  const char* lo = static_cast<const char*>(object);
  const char* hi = lo + size;
  for (NotifieeBase* n : made) {
    const char* at = reinterpret_cast<const char*>(n);
    if (at >= lo && at < hi) adapters_.push_back(n);
  }
  collections_ = collections;
}

}  // namespace Kel
