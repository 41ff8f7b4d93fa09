// The table of interface-name texts behind Kanet::IntfId: each distinct text once, with the
// number of ids that name it; the last id to go takes its text out.
#include "fwk/model/KanetIntfId.h"

#include <unordered_map>

namespace Kanet {

// Never destroyed: ids with static storage may outlive any other static object.
std::unordered_map<std::string_view, IntfId::Text*>& IntfId::texts() {
  static auto* t = new std::unordered_map<std::string_view, Text*>();
  return *t;
}

IntfId::Text* IntfId::intern(std::string_view name) {
  if (name.empty()) return nullptr;
  auto& table = texts();
  if (auto it = table.find(name); it != table.end()) {
    ++it->second->ids;
    return it->second;
  }
  auto* t = new Text{std::string(name), std::hash<std::string_view>()(name), 1};
  table.emplace(std::string_view(t->name), t);
  return t;
}

void IntfId::release(Text* t) {
  texts().erase(std::string_view(t->name));
  delete t;
}

const std::string& IntfId::emptyText() {
  static const auto* empty = new std::string();
  return *empty;
}

std::size_t IntfId::emptyHash() {
  static const std::size_t h = std::hash<std::string_view>()(std::string_view());
  return h;
}

std::size_t IntfId::textCount() { return texts().size(); }

}  // namespace Kanet
