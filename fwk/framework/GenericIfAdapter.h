// GenericIf_Adapter_<T>: a notifiee that a generic client registers with an object of type T to
// learn, by attribute name, what changed. It is the GenericNotifiee (GenericIf.h) that
// GenericIf::notifieeNew() hands out, and can be made directly by clients that know T.
//
// Every notification of T (every attribute the type's Notifiee reports) records the attribute's
// id, once until it is handled, in the order of first change; so do the ends of the object's
// life (Notifiee.h), under the ids of the framework rows "isNondestructing" and
// "zeroReferencesIs". handleNotification() runs later, from the client's activity: for each
// recorded id, in that order, it calls the callback the client registered for that attribute
// (onAttributeIs, by name), then forgets the id. An exception from a callback goes to
// onNotificationException(id) and the remaining ids are still handled. Attributes without a
// callback are forgotten silently.
#pragma once

#include <functional>
#include <map>
#include <string_view>
#include <vector>

#include "fwk/framework/GenericAccess.h"

namespace Kel {

template <class T>
class GenericIf_Adapter_ : public T::Notifiee, public GenericNotifiee {
 public:
  explicit GenericIf_Adapter_(const Ptr<const T>& watched) { T::Notifiee::notifierIs(watched); }

  const TypeRecord& type() const override { return typeRecord<T>(); }

  void onAttributeIs(std::string_view name, Callback callback) override {
    const AttributeRecord* a = typeRecord<T>().attribute(name);
    if (!a) {
      throw RangeException(typeRecord<T>().name + " has no attribute '" + std::string(name) + "'");
    }
    callbacks_[a->id] = std::move(callback);
  }
  void onNotificationExceptionIs(std::function<void(unsigned)> f) override {
    onException_ = std::move(f);
  }

  const std::vector<unsigned>& pending() const override { return pending_; }

  void handleNotification() override {
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

  using T::Notifiee::notifierIs;
  void notifierIs(const GenericIf* object) override {
    Ptr<const T> watched;
    if (object) {
      const auto* typed = dynamic_cast<const GenericIf_<T>*>(object);
      if (!typed) {
        throw RangeException(type().name + " notifiee cannot watch " + object->type().name);
      }
      watched = typed->entity();
    }
    pending_.clear();
    T::Notifiee::notifierIs(watched);
  }

 private:
  void kelAttributeChanged(unsigned declared) override {
    record(frameworkRowCount<T>() + declared);
  }
  void kelLifeEvent(LifeEvent e) override {
    const char* row = e == LifeEvent::isNondestructing ? "isNondestructing" : "zeroReferencesIs";
    if (const AttributeRecord* a = typeRecord<T>().attribute(row)) record(a->id);
  }
  void record(unsigned id) {
    for (unsigned p : pending_) {
      if (p == id) return;
    }
    pending_.push_back(id);
  }

  std::map<unsigned, Callback> callbacks_;
  std::function<void(unsigned)> onException_;
  std::vector<unsigned> pending_;
};

template <class T>
GenericNotifieePtr GenericIf_<T>::notifieeNew() const {
  if constexpr (requires { typename T::Notifiee; }) {
    return std::make_unique<GenericIf_Adapter_<T>>(object_);
  } else if constexpr (std::is_base_of_v<Entity, T>) {
    throw RangeException(type().name + " has no notifiees");
  } else {
    throw RangeException(type().name + " is a value: nothing to watch");
  }
}

}  // namespace Kel
