// Paths resolved step by step through GenericIf: object(id) for an attribute that holds an
// entity, iterator(id, key) for a member of a collection.
#include "tools/corvd-sim/ScenarioGeneric.h"

#include <ostream>

#include "fwk/Registration.h"
#include "fwk/framework/GenericAccess.h"

namespace CorvdSim {

namespace {

struct Step {
  std::string attr;
  bool keyed = false;
  std::string key;
};

[[noreturn]] void bad(const std::string& why) { throw Kel::RangeException(why); }

// "a/b[k/x]/c" -> a, b[k/x], c: a '/' inside brackets belongs to the key.
std::vector<Step> parsePath(const std::string& path) {
  std::vector<Step> steps;
  std::string cur;
  int depth = 0;
  auto flush = [&] {
    Step s;
    const std::size_t open = cur.find('[');
    if (open == std::string::npos) {
      s.attr = cur;
    } else {
      if (cur.back() != ']' || open == 0) bad("bad path step '" + cur + "'");
      s.attr = cur.substr(0, open);
      s.keyed = true;
      s.key = cur.substr(open + 1, cur.size() - open - 2);
    }
    if (s.attr.empty()) bad("empty path step");
    steps.push_back(std::move(s));
    cur.clear();
  };
  for (char c : path) {
    if (c == '[' && ++depth > 1) bad("'[' inside a key");
    if (c == ']' && --depth < 0) bad("']' without '['");
    if (c == '/' && depth == 0) {
      flush();
      continue;
    }
    cur += c;
  }
  if (depth != 0) bad("'[' without ']'");
  flush();
  return steps;
}

// The member `key` of collection `id`, or an error.
std::unique_ptr<Kel::GenericIterator> member(const Kel::GenericIf& o, unsigned id, const Step& s) {
  auto it = o.iterator(id, s.key);
  if (it->isNull()) bad("no member '" + s.key + "' in " + s.attr);
  return it;
}

// Follows one step from `o` to the entity it leads to.
Kel::GenericIfPtr follow(const Kel::GenericIf& o, const Step& s) {
  const unsigned id = o.attributeId(s.attr);
  Kel::GenericIfPtr next = s.keyed ? member(o, id, s)->object() : o.object(id);
  if (!next) bad(s.attr + (s.keyed ? "[" + s.key + "]" : "") + " holds no object");
  return next;
}

struct Resolved {
  World* world;
  Kel::GenericIfPtr root;
  Kel::GenericIfPtr parent;  // the object holding the last step (null: the path is the root)
  Step last;
};

Resolved resolve(const std::string& path, const std::function<World*(const std::string&)>& find) {
  std::vector<Step> steps = parsePath(path);
  const Step& first = steps.front();
  if (first.keyed || first.attr.rfind("root-", 0) != 0) bad("a path starts at root-VRF");
  const std::string vrf = first.attr.substr(5);
  World* w = find(vrf);
  if (!w || !w->root()) bad("no started vrf '" + vrf + "'");
  w->enter();
  InterfaceRouteInfo::kelInitInterfaceRouteInfo();
  Resolved r{w, InterfaceRouteInfo::moduleObject(w->root()), nullptr, first};
  if (steps.size() == 1) return r;
  Kel::GenericIfPtr at = r.root->clone();
  for (std::size_t i = 1; i + 1 < steps.size(); ++i) at = follow(*at, steps[i]);
  r.parent = std::move(at);
  r.last = steps.back();
  return r;
}

// The object the whole path leads to.
Kel::GenericIfPtr object(Resolved& r) {
  return r.parent ? follow(*r.parent, r.last) : std::move(r.root);
}

void list(const Kel::GenericIf& o, std::ostream& out) {
  for (const Kel::AttributeRecord& a : o.type().attributes) {
    if (a.kind == Kel::AttributeKind::handler) {
      out << a.name << "()\n";
      continue;
    }
    out << a.name << " " << const_cast<Kel::GenericIf&>(o).attributeString(a.id) << "\n";
  }
}

// Refuses an operation whose preconditions do not hold: a flap request is for an interface that
// the drain already handles (it has a status reactor), since a flap deletes and re-adds that
// reactor's link.
void checkPreconditions(const Resolved& r, const Kel::GenericIf& o, const std::string& op,
                        const std::vector<std::string>& args) {
  if (o.type().name != "InterfaceRouteInfo::IntfBacklog" || op != "doAddBacklog") return;
  if (args.size() != 2 || !Kel::strepToValue<bool>(args[1])) return;
  Kel::GenericIfPtr drain = follow(*r.root, Step{"intfBacklogSm", false, {}});
  if (drain->iterator(drain->attributeId("intfStatusSm"), args[0])->isNull()) {
    bad("cannot flap interface " + args[0] + ": it has no status reactor (intfStatusSm) yet");
  }
}

}  // namespace

struct Watches::Watch {
  World* world;
  Kel::GenericIfPtr object;
  Kel::GenericNotifieePtr notifiee;
};

Watches::Watches() = default;
Watches::~Watches() = default;
void Watches::clear() { watches_.clear(); }

void Watches::add(const std::string& path, World* world, Kel::GenericIfPtr object) {
  if (watches_.count(path)) bad("watched already");
  auto w = std::make_unique<Watch>(Watch{world, std::move(object), nullptr});
  w->notifiee = w->object->notifieeNew();
  // Every attribute prints its text as it is when the report runs.
  const Kel::GenericIf& o = *w->object;
  const std::string& key = watches_.emplace(path, std::move(w)).first->first;
  auto& n = *watches_.at(key)->notifiee;
  for (const Kel::AttributeRecord& a : o.type().attributes) {
    n.onAttributeIs(a.name, [this, &key, &o, &a] {
      *out_ << key << ": " << a.name << " " << const_cast<Kel::GenericIf&>(o).attributeString(a.id)
            << "\n";
    });
  }
}

void Watches::remove(const std::string& path) {
  if (!watches_.erase(path)) bad("not watched");
}

void Watches::report(std::ostream& out) {
  for (auto& [path, w] : watches_) {
    if (w->notifiee->pending().empty()) continue;
    w->world->enter();
    out_ = &out;
    w->notifiee->handleNotification();
  }
}

void Watches::dropVrf(const std::string& vrf) {
  const std::string prefix = "root-" + vrf;
  std::erase_if(watches_, [&](const auto& entry) {
    const std::string& path = entry.first;
    return path.rfind(prefix, 0) == 0 &&
           (path.size() == prefix.size() || path[prefix.size()] == '/');
  });
}

bool isGenericCommand(const std::string& cmd) {
  return cmd == "get" || cmd == "set" || cmd == "ls" || cmd == "call" || cmd == "watch" ||
         cmd == "unwatch";
}

void runGenericCommand(const std::vector<std::string>& w,
                       const std::function<World*(const std::string&)>& world, std::ostream& out,
                       Watches& watches) {
  const std::string& cmd = w[0];
  if ((cmd == "get" || cmd == "ls" || cmd == "watch" || cmd == "unwatch") && w.size() != 2) {
    bad("usage: " + cmd + " PATH");
  }
  if (cmd == "set" && w.size() != 3) bad("usage: set PATH VALUE");
  if (cmd == "call" && w.size() < 3) bad("usage: call PATH OPERATION ARGS");
  const std::string& path = w[1];
  try {
    if (cmd == "unwatch") {
      watches.remove(path);
      return;
    }
    Resolved r = resolve(path, world);
    if (cmd == "watch") {
      watches.add(path, r.world, object(r));
      return;
    }
    if (cmd == "call") {
      Kel::GenericIfPtr o = object(r);
      const std::vector<std::string> args(w.begin() + 3, w.end());
      const unsigned id = o->attributeId(w[2]);
      checkPreconditions(r, *o, w[2], args);
      o->call(id, args);
      return;
    }
    if (!r.parent) {
      if (cmd != "ls") bad("a root is an object, not a value (ls it)");
      list(*r.root, out);
      return;
    }
    const unsigned id = r.parent->attributeId(r.last.attr);
    if (cmd == "set") {
      if (r.last.keyed) bad("a member is not set by path");
      r.parent->attributeOp(Kel::AttributeOp::set, id, w[2]);
    } else if (cmd == "get") {
      out << (r.last.keyed ? member(*r.parent, id, r.last)->value() : r.parent->attributeString(id))
          << "\n";
    } else if (!r.last.keyed &&
               r.parent->attribute(id).flags.has(Kel::KelAttrIntrospectionFlags::isCollection)) {
      for (auto it = r.parent->iterator(id); !it->isNull(); it->advance()) {
        out << it->key() << " " << it->value() << "\n";
      }
    } else {
      list(*object(r), out);
    }
  } catch (const Kel::Exception& e) {
    throw Kel::RangeException(path + ": " + e.what());
  }
}

}  // namespace CorvdSim
