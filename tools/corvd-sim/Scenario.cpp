#include "tools/corvd-sim/Scenario.h"

#include <cstdlib>
#include <ostream>
#include <sstream>
#include <vector>

#include "fwk/DaemonAddr.h"
#include "fwk/Root.h"
#include "fwk/daemon/corvd.h"
#include "fwk/daemon/host_conf.h"
#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Exception.h"

namespace CorvdSim {

using namespace InterfaceRouteInfo;

namespace {

// A daemon socket address for IPv4 or IPv6 text (a temporary of the daemon's pool).
unsigned long number(const std::string& word, const char* what) {
  char* end = nullptr;
  const unsigned long v = std::strtoul(word.c_str(), &end, 10);
  if (word.empty() || *end != '\0')
    throw Kel::RangeException(std::string("bad ") + what + " '" + word + "'");
  return v;
}

}  // namespace

struct Scenario::State {
  struct Vrf {
    Kel::Ptr<Routing::Config> config;
    Kel::Ptr<Routing6::Config> config6;
    Kel::Ptr<Kel::Dir> dir;
    Kel::Ptr<Kel::Dir> dir6;
    std::map<std::string, Kel::Ptr<Routing::RouteInput>> inputs;
    std::map<std::string, Kel::Ptr<Routing6::RouteInput>> inputs6;
    Kel::Ptr<Root> root;
  };
  Kel::Ptr<Interface::AllIntfStatusDir> all = Kel::make<Interface::AllIntfStatusDir>("all");
  Kel::Ptr<Interface::AllIntfStatusLocalDir> local =
      Kel::make<Interface::AllIntfStatusLocalDir>("local");
  Kel::Ptr<Ip::Status> ipStatus = Kel::make<Ip::Status>("ip");
  Kel::Ptr<Ip6::Status> ip6Status = Kel::make<Ip6::Status>("ip6");
  std::map<std::string, Vrf> vrfs;

  Vrf& vrf(const std::string& name) {
    auto [it, fresh] = vrfs.try_emplace(name);
    Vrf& v = it->second;
    if (fresh) {
      v.config = Kel::make<Routing::Config>(Kel::Name("routing-" + name));
      v.config6 = Kel::make<Routing6::Config>(Kel::Name("routing6-" + name));
      v.dir = Kel::make<Kel::Dir>(Kel::Name("routeInput-" + name));
      v.dir6 = Kel::make<Kel::Dir>(Kel::Name("route6Input-" + name));
      v.config->routeInputDirIs(v.dir);
      v.config6->routeInputDirIs(v.dir6);
    }
    return v;
  }
};

Scenario::Scenario(std::ostream& out) : s_(std::make_unique<State>()), out_(out) {}
Scenario::~Scenario() = default;

void Scenario::runText(const std::string& text, const std::string& source) {
  std::istringstream in(text);
  std::string line;
  int lineNo = 0;
  while (std::getline(in, line)) runLine(line, source, ++lineNo);
}

void Scenario::runLine(const std::string& line, const std::string& source, int lineNo) {
  std::vector<std::string> w;
  {
    std::istringstream words(line.substr(0, line.find('#')));
    for (std::string x; words >> x;) w.push_back(x);
  }
  if (w.empty()) return;
  auto fail = [&](const std::string& why) -> void {
    throw ScenarioError(source + ":" + std::to_string(lineNo) + ": " + why);
  };
  auto need = [&](std::size_t n, const char* usage) {
    if (w.size() < n) fail(std::string("usage: ") + usage);
  };
  State& s = *s_;
  try {
    const std::string& cmd = w[0];
    if (cmd == "link") {
      need(4, "link IFINDEX DEVICE INTFID [up|down]");
      const unsigned long index = number(w[1], "ifIndex");
      const bool up = w.size() < 5 || w[4] == "up";
      if (w.size() >= 5 && w[4] != "up" && w[4] != "down") fail("link state must be up or down");
      const Kanet::IntfId id(w[3]);
      auto status = s.all->intfStatus(id);
      if (!status) status = Kel::make<Interface::IntfStatus>(id);
      status->deviceNameIs(w[2]);
      status->ifIndexIs(static_cast<uint32_t>(index));
      status->operStatusUpIs(up);
      corvd_host_link(index, w[2].c_str(), up);
      s.all->intfStatusIs(id, status);
    } else if (cmd == "addr" || cmd == "unaddr") {
      need(3, "addr IFINDEX ADDR/LEN [peer ADDR]");
      const unsigned long index = number(w[1], "ifIndex");
      if (!ifl_locate_index(index)) fail("no link with ifIndex " + w[1]);
      if (cmd == "unaddr") {
        corvd_host_addr_del(index, daemonSock(w[2]));
        return;
      }
      const auto slash = w[2].find('/');
      if (slash == std::string::npos) fail("address needs a prefix length: " + w[2]);
      const std::string addr = w[2].substr(0, slash);
      const int len = static_cast<int>(number(w[2].substr(slash + 1), "prefix length"));
      sockaddr_un local = *daemonSock(addr);
      if (!sock_mask_by_len(local.sa_family, len)) fail("prefix length out of range: " + w[2]);
      sockaddr_un peer{};
      if (w.size() >= 5 && w[3] == "peer")
        peer = *daemonSock(w[4]);
      else if (w.size() != 3)
        fail("usage: addr IFINDEX ADDR/LEN [peer ADDR]");
      if (!corvd_host_addr(index, &local, len, w.size() >= 5 ? &peer : nullptr)) {
        fail("the daemon refused address " + w[2]);
      }
    } else if (cmd == "vrf") {
      need(2, "vrf NAME");
      const Ip::VrfName vrfName(w[1]);  // checks the name before anything is made
      State::Vrf& v = s.vrf(w[1]);
      if (v.root) fail("vrf " + w[1] + " is already started");
      v.root = rootFactory(Kel::Name("root-" + w[1]));
      v.root->vrfNameIs(vrfName);
      v.root->allIntfStatusDirIs(s.all);
      v.root->allIntfStatusLocalDirIs(s.local);
      v.root->ipStatusIs(s.ipStatus);
      v.root->ip6StatusIs(s.ip6Status);
      v.root->routingConfigIs(v.config);
      v.root->routing6ConfigIs(v.config6);
      v.root->initializedIs(true);
    } else if (cmd == "input") {
      need(5, "input VRF NAME proto N [pref N] [ipv6]");
      if (w[3] != "proto") fail("usage: input VRF NAME proto N [pref N] [ipv6]");
      const auto proto = number(w[4], "protocol");
      unsigned long pref = 0;
      bool v6 = false;
      for (std::size_t i = 5; i < w.size(); ++i) {
        if (w[i] == "pref" && i + 1 < w.size()) {
          pref = number(w[++i], "preference");
        } else if (w[i] == "ipv6") {
          v6 = true;
        } else {
          fail("unexpected '" + w[i] + "'");
        }
      }
      if (proto > 255 || pref > 255) fail("protocol and preference are 0..255");
      State::Vrf& v = s.vrf(w[1]);
      if (v6) {
        auto in = Kel::make<Routing6::RouteInput>(Kel::Name(w[2]));
        in->routingProtoIs(static_cast<uint8_t>(proto));
        in->preferenceIs(static_cast<uint8_t>(pref));
        in->redistributeNameIs(w[2]);
        v.inputs6[w[2]] = in;
        v.dir6->entityPtrIs(Kel::Name(w[2]), in);
      } else {
        auto in = Kel::make<Routing::RouteInput>(Kel::Name(w[2]));
        in->routingProtoIs(static_cast<uint8_t>(proto));
        in->preferenceIs(static_cast<uint8_t>(pref));
        v.inputs[w[2]] = in;
        v.dir->entityPtrIs(Kel::Name(w[2]), in);
      }
    } else if (cmd == "proto") {
      need(4, "proto VRF NAME N");
      State::Vrf& v = s.vrf(w[1]);
      const auto proto = number(w[3], "protocol");
      if (proto > 255) fail("protocol is 0..255");
      if (auto it = v.inputs.find(w[2]); it != v.inputs.end()) {
        it->second->routingProtoIs(static_cast<uint8_t>(proto));
      } else if (auto it6 = v.inputs6.find(w[2]); it6 != v.inputs6.end()) {
        it6->second->routingProtoIs(static_cast<uint8_t>(proto));
      } else {
        fail("no route input " + w[2] + " in vrf " + w[1]);
      }
    } else if (cmd == "route" || cmd == "blackhole" || cmd == "withdraw") {
      need(4, "route VRF INPUT PREFIX [via HOP] [dev INTFID]...");
      State::Vrf& v = s.vrf(w[1]);
      const bool v6 = w[3].find(':') != std::string::npos;
      // Parse the vias first: nothing is applied when the line is bad.
      std::vector<std::pair<std::string, std::string>> vias;  // {intfId, hop}
      for (std::size_t i = 4; i < w.size(); i += 2) {
        if (cmd != "route") fail("unexpected '" + w[i] + "'");
        if (i + 1 >= w.size()) fail("'" + w[i] + "' needs a value");
        if (w[i] == "via") {
          if (vias.empty() || !vias.back().second.empty()) vias.emplace_back();
          vias.back().second = w[i + 1];
        } else if (w[i] == "dev") {
          if (vias.empty() || !vias.back().first.empty()) vias.emplace_back();
          vias.back().first = w[i + 1];
        } else {
          fail("unexpected '" + w[i] + "'");
        }
      }
      auto apply = [&](auto& inputs, auto parsePrefix, auto parseAddr) {
        auto it = inputs.find(w[2]);
        if (it == inputs.end()) fail("no route input " + w[2] + " in vrf " + w[1]);
        auto& in = it->second;
        using InputT = typename std::decay_t<decltype(*in)>;
        using KeyT = typename InputT::Key;
        const KeyT k(parsePrefix(w[3]));
        std::vector<typename InputT::Route::Via> parsed;
        for (auto& [intf, hop] : vias) {
          typename InputT::Route::Via via;
          via.intfId = Kanet::IntfId(intf);
          if (!hop.empty()) via.hop = parseAddr(hop);
          parsed.push_back(via);
        }
        if (cmd == "withdraw") {
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
      need(3, "unpublish VRF INPUT");
      State::Vrf& v = s.vrf(w[1]);
      v.inputs.erase(w[2]);
      v.inputs6.erase(w[2]);
      v.dir->entityPtrDel(Kel::Name(w[2]));
      v.dir6->entityPtrDel(Kel::Name(w[2]));
    } else if (cmd == "run") {
      need(2, "run SECONDS");
      char* end = nullptr;
      const double seconds = std::strtod(w[1].c_str(), &end);
      if (*end != '\0' || !(seconds >= 0)) fail("bad duration '" + w[1] + "'");
      Kel::activityManager()->runUntil(Kel::activityManager()->now() + seconds);
    } else if (cmd == "show") {
      need(2, "show routes|interfaces");
      if (w[1] == "routes") {
        out_ << "== routes\n" << corvd_show_routes();
      } else if (w[1] == "interfaces") {
        out_ << "== interfaces\n" << corvd_show_interfaces();
      } else {
        fail("show what? routes or interfaces");
      }
    } else {
      fail("unknown command '" + cmd + "'");
    }
  } catch (const Kel::Exception& e) {
    fail(e.what());
  }
}

}  // namespace CorvdSim
