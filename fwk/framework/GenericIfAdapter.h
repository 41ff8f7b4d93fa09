// GenericIf_Adapter_<T>: a notifiee that a generic client registers with an object of type T to
// learn, by attribute name, what changed.
//
// Every notification of T (every attribute the type's Notifiee reports) records the attribute's
// id, once until it is handled, in the order of first change. handleNotification() runs later,
// from the client's activity: for each recorded id, in that order, it calls the callback the
// client registered for that attribute (onAttributeIs, by name), then forgets the id. An exception
// from a callback goes to onNotificationException(id) and the remaining ids are still handled.
// Attributes without a callback are forgotten silently.
#pragma once

#include <functional>
#include <map>
#include <string_view>
#include <vector>

#include "fwk/framework/GenericAccess.h"

namespace Kel {

template <class T>
class GenericIf_Adapter_ : public T::Notifiee {
 public:
  using Callback = std::function<void()>;

  explicit GenericIf_Adapter_(const Ptr<const T>& watched) { this->notifierIs(watched); }

  // Raises "<Type> has no attribute '<name>'" for an unknown name.
  void onAttributeIs(std::string_view name, Callback callback) {
    const AttributeRecord* a = typeRecord<T>().attribute(name);
    if (!a) {
      throw RangeException(typeRecord<T>().name + " has no attribute '" + std::string(name) + "'");
    }
    callbacks_[a->id] = std::move(callback);
  }
  void onNotificationExceptionIs(std::function<void(unsigned)> f) { onException_ = std::move(f); }

  // Ids changed and not handled yet, in the order of their first change.
  const std::vector<unsigned>& pending() const { return pending_; }

  void handleNotification() {
    std::vector<unsigned> ids;
    ids.swap(pending_);
    for (unsigned id : ids) {
      auto it = callbacks_.find(id);
      if (it == callbacks_.end()) continue;
      try {
        it->second();
      } catch (const Exception&) {
        if (onException_) onException_(id);
      }
    }
  }

 private:
  void kelAttributeChanged(unsigned declared) override {
    const unsigned id = frameworkRowCount<T>() + declared;
    for (unsigned p : pending_) {
      if (p == id) return;
    }
    pending_.push_back(id);
  }

  std::map<unsigned, Callback> callbacks_;
  std::function<void(unsigned)> onException_;
  std::vector<unsigned> pending_;
};

}  // namespace Kel
