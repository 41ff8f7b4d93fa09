// The whole-module convergence test's fixture: route inputs of the model, publishing their
// routes into the state database, the entry a route must have by the rules of mirroring, and the
// comparison of one route input with the daemon's table and its own backlogs. The rules and what
// they leave to the order of events are described in ModuleConvergenceTest.cpp.
#pragma once

#include <algorithm>
#include <optional>

#include "tests/module/ConvergenceModel.h"
#include "tests/module/IntfWorld.h"

namespace IntfTest::Convergence {

class ModuleConvergence : public IntfWorld, public ::testing::WithParamInterface<unsigned> {
 protected:
  // A route input of the model: its name, live protocol, preference and routes by prefix
  // number; `entity` is null while the input is removed.
  template <class InputT>
  struct InputM {
    using Input = InputT;
    std::string name;
    int proto = 0;
    int pref = 0;
    std::map<int, RouteM> routes;
    Kel::Ptr<InputT> entity;
  };
  using In4 = InputM<Routing::RouteInput>;
  using In6 = InputM<Routing6::RouteInput>;

  std::string intfId(int i) const { return "Ethernet" + std::to_string(i); }
  std::string dev(int i) const { return "et" + std::to_string(i); }

  template <class Input>
  void publishRoute(InputM<Input>& in, const Family& fam, int k, const RouteM& r) {
    using Key = typename Input::Key;
    using Via = typename Input::Route::Via;
    using Addr = typename Input::Addr;
    const Key key(Key::Prefix::fromString(fam.prefix(k)));
    auto route = in.entity->routeNew(key);
    route->routeTypeIs(r.blackhole ? 1 : 0);
    for (auto it = route->viaIterator(); it; ++it) route->viaDel(it.key());
    for (const ViaM& v : r.vias) {
      Via via;
      if (v.intf >= 0) via.intfId = Kanet::IntfId(intfId(v.intf));
      if (v.hop >= 0) via.hop = Addr::fromString(fam.hop(v.hop));
      route->viaIs(via, true);
    }
  }

  template <class Input>
  void makeInput(Kel::Dir& dir, InputM<Input>& in, const Family& fam) {
    in.entity = Kel::make<Input>(Kel::Name(in.name));
    in.entity->routingProtoIs(static_cast<std::uint8_t>(in.proto));
    in.entity->preferenceIs(static_cast<std::uint8_t>(in.pref));
    for (const auto& [k, r] : in.routes) publishRoute(in, fam, k, r);
    dir.entityPtrIs(Kel::Name(in.name), in.entity);
  }

  // What the route resolves to over the daemon's addresses now, or nothing.
  // With `downToo`, as if every address were up.
  std::optional<Entry> resolve(const Family& fam, int k, const RouteM& r, int pref,
                               const DLinks& links, bool downToo = false) const {
    if (r.blackhole) return Entry{pref, {}};
    if (r.vias.empty()) return std::nullopt;
    const std::string p = fam.prefix(k);
    const Bytes dest = parse(p.substr(0, p.find('/'))).first;
    Entry e{pref, {}};
    bool allUp = true;
    for (const ViaM& v : r.vias) {
      const DAddr* a = nullptr;
      std::string gw;
      if (v.intf >= 0) {
        auto st = all_->intfStatus(Kanet::IntfId(intfId(v.intf)));
        if (!st || !kernel_->interfaceByName(st->deviceName())) return std::nullopt;
        if ((a = links.withdst(dest, fam.v6, downToo))) {
          gw = a->local;
        } else {
          auto link = links.byIndex.find(st->ifIndex());
          if (link == links.byIndex.end()) return std::nullopt;
          for (const DAddr& d : link->second) {
            if (d.v6 == fam.v6) {
              a = &d;
              break;
            }
          }
          if (!a) return std::nullopt;
          gw = a->remote;
        }
      } else {
        const Bytes hop = parse(fam.hop(v.hop)).first;
        if (!(a = links.withdst(hop, fam.v6, downToo))) return std::nullopt;
        char buf[INET6_ADDRSTRLEN];
        gw = inet_ntop(fam.v6 ? AF_INET6 : AF_INET, hop.data(), buf, sizeof buf);
      }
      allUp = allUp && a->up;
      e.gws.push_back(gw + " " + a->dev);
    }
    if (!allUp) e.pref = pref == 0 ? -1 : -pref;
    return e;
  }

  std::size_t exact = 0, lostable = 0, unresolved = 0;  // what the checks found

  template <class Sm, class Input>
  void check(const Sm& sm, const InputM<Input>& in, const Family& fam, const DLinks& links,
             const Routes& routes) {
    using Key = typename Input::Key;
    ASSERT_TRUE(sm) << in.name;
    EXPECT_EQ(sm->routeBacklog()->backlogCount(), 0u) << in.name;
    const auto& parked = *sm->unresolvedRouteBacklog();
    for (int k = 0; k < Family::kPrefixes; ++k) {
      const std::string p = fam.prefix(k);
      const Key key(Key::Prefix::fromString(p));
      auto found = routes.find({in.proto, key.toString()});
      const std::vector<Entry> none;
      const std::vector<Entry>& entries = found == routes.end() ? none : found->second;
      const bool isParked = static_cast<bool>(parked.backlog(key));
      auto r = in.routes.find(k);
      SCOPED_TRACE(in.name + " proto " + std::to_string(in.proto) + " " + p);
      if (r == in.routes.end()) {
        EXPECT_TRUE(entries.empty()) << entries.front();
        EXPECT_FALSE(isParked);
        continue;
      }
      const std::optional<Entry> want = resolve(fam, k, r->second, in.pref, links);
      if (r->second.lostable) ++lostable;
      if (!want) {
        // A next hop whose address is down: the report of its going down re-entered the route
        // without parking it (the daemon set its entry aside, and restores it when the address
        // comes up), unless the route was drained since.
        const bool down = resolve(fam, k, r->second, in.pref, links, true).has_value();
        if (!r->second.lostable && !down) {
          EXPECT_TRUE(isParked) << r->second;
        }
        ++unresolved;
        continue;
      }
      EXPECT_FALSE(isParked);
      // The expected entry, and beside it only entries of an earlier kind (see RouteM::mixed);
      // a route that may have been left out may hold anything that was left of it.
      std::vector<Entry> rest = entries;
      auto it = std::find(rest.begin(), rest.end(), *want);
      if (r->second.lostable && (it == rest.end() || !r->second.mixed)) continue;
      if (it == rest.end()) {
        ADD_FAILURE() << "want " << *want << "; have "
                      << (entries.empty() ? std::string("nothing")
                                          : ::testing::PrintToString(entries));
        continue;
      }
      rest.erase(it);
      for (const Entry& e : rest) {
        EXPECT_TRUE(r->second.mixed) << "extra " << e;
      }
      ++exact;
    }
    for (auto it = parked.backlogIterator(); it; ++it) {
      bool known = false;
      for (const auto& [k, r] : in.routes) {
        if (Key(Key::Prefix::fromString(fam.prefix(k))) == it.key()) {
          known = !resolve(fam, k, r, in.pref, links).has_value();
        }
      }
      EXPECT_TRUE(known) << in.name << " parks " << it.key();
    }
  }
};

}  // namespace IntfTest::Convergence
