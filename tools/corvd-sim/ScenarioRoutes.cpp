#include "tools/corvd-sim/ScenarioRoutes.h"

#include "fwk/framework/Exception.h"
#include "tools/corvd-sim/ScenarioArgs.h"
#include "tools/corvd-sim/World.h"

namespace CorvdSim {

namespace {

void need(const std::vector<std::string>& w, std::size_t min, std::size_t max, const char* usage) {
  if (w.size() < min || w.size() > max) throw ArgError(std::string("usage: ") + usage);
}

}  // namespace

bool isRouteCommand(const std::string& cmd) {
  return cmd == "input" || cmd == "proto" || cmd == "route" || cmd == "blackhole" ||
         cmd == "withdraw" || cmd == "unpublish";
}

void runRouteCommand(const std::vector<std::string>& w,
                     const std::function<World&(const std::string&)>& world,
                     const std::function<bool(const std::string&)>& known) {
  const std::string& cmd = w[0];
  if (cmd == "input") {
    need(w, 5, 8, "input VRF NAME proto N [pref N] [ipv6]");
    if (w[3] != "proto") throw ArgError("usage: input VRF NAME proto N [pref N] [ipv6]");
    const Ip::VrfName vrfName(w[1]);
    const auto proto = static_cast<std::uint8_t>(number(w[4], "protocol", 0, 255));
    std::uint8_t pref = 0;
    bool v6 = false;
    for (std::size_t i = 5; i < w.size(); ++i) {
      if (w[i] == "pref" && i + 1 < w.size()) {
        pref = static_cast<std::uint8_t>(number(w[++i], "preference", 0, 255));
      } else if (w[i] == "ipv6") {
        v6 = true;
      } else {
        throw ArgError("unexpected '" + w[i] + "'");
      }
    }
    if (w[2].empty() || w[2].size() > 100) throw ArgError("bad input name");
    World& v = world(w[1]);
    if (v.inputs.count(w[2]) || v.inputs6.count(w[2])) {
      throw ArgError("route input " + w[2] + " exists in vrf " + w[1]);
    }
    if (v6) {
      auto in = Kel::make<Routing6::RouteInput>(Kel::Name(w[2]));
      in->routingProtoIs(proto);
      in->preferenceIs(pref);
      in->redistributeNameIs(w[2]);
      v.inputs6[w[2]] = in;
      v.dir6->entityPtrIs(Kel::Name(w[2]), in);
    } else {
      auto in = Kel::make<Routing::RouteInput>(Kel::Name(w[2]));
      in->routingProtoIs(proto);
      in->preferenceIs(pref);
      v.inputs[w[2]] = in;
      v.dir->entityPtrIs(Kel::Name(w[2]), in);
    }
  } else if (cmd == "proto") {
    need(w, 4, 4, "proto VRF NAME N");
    if (!known(w[1])) throw ArgError("no route input " + w[2] + " in vrf " + w[1]);
    World& v = world(w[1]);
    const auto proto = static_cast<std::uint8_t>(number(w[3], "protocol", 0, 255));
    auto set = [&](auto& input) {
      if (proto == 0 && input->routingProto() != 0) {
        throw ArgError("a route input's protocol number cannot go back to 0");
      }
      input->routingProtoIs(proto);
    };
    if (auto it = v.inputs.find(w[2]); it != v.inputs.end()) {
      set(it->second);
    } else if (auto it6 = v.inputs6.find(w[2]); it6 != v.inputs6.end()) {
      set(it6->second);
    } else {
      throw ArgError("no route input " + w[2] + " in vrf " + w[1]);
    }
  } else if (cmd == "route" || cmd == "blackhole" || cmd == "withdraw") {
    if (w.size() < 4 || (cmd != "route" && w.size() > 4)) {
      throw ArgError(cmd == "route" ? "usage: route VRF INPUT PREFIX [via HOP] [dev INTFID]..."
                                    : "usage: " + cmd + " VRF INPUT PREFIX");
    }
    if (!known(w[1])) throw ArgError("no route input " + w[2] + " in vrf " + w[1]);
    World& v = world(w[1]);
    const bool v6 = w[3].find(':') != std::string::npos;
    // Parse the vias first: nothing is applied when the line is bad.
    std::vector<std::pair<std::string, std::string>> vias;  // {intfId, hop}
    for (std::size_t i = 4; i < w.size(); i += 2) {
      if (i + 1 >= w.size()) throw ArgError("'" + w[i] + "' needs a value");
      if (w[i] == "via") {
        if (vias.empty() || !vias.back().second.empty()) vias.emplace_back();
        vias.back().second = w[i + 1];
      } else if (w[i] == "dev") {
        if (vias.empty() || !vias.back().first.empty()) vias.emplace_back();
        vias.back().first = intfIdText(w[i + 1]);
      } else {
        throw ArgError("unexpected '" + w[i] + "'");
      }
    }
    auto apply = [&](auto& inputs, auto parsePrefix, auto parseAddr) {
      auto it = inputs.find(w[2]);
      if (it == inputs.end()) {
        throw ArgError(std::string(v6 ? "no IPv6 route input " : "no route input ") + w[2] +
                       " in vrf " + w[1]);
      }
      auto& in = it->second;
      using InputT = typename std::decay_t<decltype(*in)>;
      using KeyT = typename InputT::Key;
      const KeyT k(parsePrefix(w[3]));
      std::vector<typename InputT::Route::Via> parsed;
      for (auto& [intf, hop] : vias) {
        typename InputT::Route::Via via;
        via.intfId = Kanet::IntfId(intf);
        if (!hop.empty()) via.hop = parseAddr(hop);
        if (via.intfId.empty() && via.hop == typename InputT::Addr()) {
          throw ArgError("a via needs an interface or a next hop other than " + hop);
        }
        parsed.push_back(via);
      }
      if (cmd == "withdraw") {
        if (!in->route(k)) throw ArgError("route input " + w[2] + " holds no route " + w[3]);
        in->routeDel(k);
        return;
      }
      auto r = in->routeNew(k);
      r->routeTypeIs(cmd == "blackhole" ? RoutingModel::routeTypeBlackhole
                                        : RoutingModel::routeTypeUnicast);
      for (auto it2 = r->viaIterator(); it2; ++it2) {
        const auto old = it2.key();
        bool keep = false;
        for (const auto& p : parsed) keep = keep || p == old;
        if (!keep) r->viaDel(old);
      }
      for (const auto& p : parsed) r->viaIs(p, true);
    };
    if (v6) {
      apply(
          v.inputs6, [](const std::string& t) { return Kanet::Ip6Prefix::fromString(t); },
          [](const std::string& t) { return Kanet::Ip6Addr::fromString(t); });
    } else {
      apply(
          v.inputs, [](const std::string& t) { return Kanet::IpPrefix::fromString(t); },
          [](const std::string& t) { return Kanet::IpAddr::fromString(t); });
    }
  } else if (cmd == "unpublish") {
    need(w, 3, 3, "unpublish VRF INPUT");
    if (!known(w[1])) throw ArgError("no route input " + w[2] + " in vrf " + w[1]);
    World& v = world(w[1]);
    if (!v.inputs.count(w[2]) && !v.inputs6.count(w[2])) {
      throw ArgError("no route input " + w[2] + " in vrf " + w[1]);
    }
    v.inputs.erase(w[2]);
    v.inputs6.erase(w[2]);
    v.dir->entityPtrDel(Kel::Name(w[2]));
    v.dir6->entityPtrDel(Kel::Name(w[2]));
  }
}

}  // namespace CorvdSim
