#include "tools/corvd-sim/Scenario.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <ostream>
#include <set>
#include <sstream>
#include <vector>

#include "fwk/daemon/host_conf.h"
#include "fwk/framework/Exception.h"
#include "fwk/framework/Trace.h"
#include "tools/corvd-sim/LoopObserver.h"
#include "tools/corvd-sim/ScenarioArgs.h"
#include "tools/corvd-sim/ScenarioGeneric.h"
#include "tools/corvd-sim/ScenarioRoutes.h"
#include "tools/corvd-sim/ScenarioShow.h"
#include "tools/corvd-sim/World.h"

namespace CorvdSim {

using namespace InterfaceRouteInfo;

namespace {

constexpr std::size_t kMaxLine = 4096;  // longer lines are refused, and quoted cut short

// What the host knows of an interface, to check lines and to republish on a VRF move.
struct IntfInfo {
  std::string device;
  std::string vrf = "default";
  bool hasV4 = false;
  std::vector<Kanet::IpAddrWithMask> v4;  // primary first
  bool hasV6 = false;
  std::vector<Kanet::Ip6AddrWithMask> v6;
};

void setV4(World& w, const std::string& vrf, const std::string& id,
           const std::vector<Kanet::IpAddrWithMask>& addrs) {
  auto s = w.ipStatus->vrfIpIntfStatusNew(Ip::VrfName(vrf))->ipIntfStatusNew(Kanet::IntfId(id));
  s->activeAddrWithMaskIs(addrs.empty() ? Kanet::IpAddrWithMask() : addrs.front());
  std::set<Kanet::IpAddrWithMask> want(addrs.begin() + (addrs.empty() ? 0 : 1), addrs.end());
  for (auto it = s->activeSecondaryWithMaskIterator(); it; ++it) {
    if (!want.count(it.key())) s->activeSecondaryWithMaskDel(it.key());
  }
  for (const auto& a : want) s->activeSecondaryWithMaskIs(a, true);
}

void delV4(World& w, const std::string& vrf, const std::string& id) {
  if (auto v = w.ipStatus->vrfIpIntfStatus(Ip::VrfName(vrf))) {
    v->ipIntfStatusDel(Kanet::IntfId(id));
  }
}

void setV6(World& w, const std::string& id, const std::vector<Kanet::Ip6AddrWithMask>& addrs) {
  auto s = w.ip6Status->intfNew(Ip::VrfName("default"), Kanet::IntfId(id));
  std::set<Kanet::Ip6AddrWithMask> want(addrs.begin(), addrs.end());
  for (auto it = s->addrIterator(); it; ++it) {
    if (!want.count(it.key())) s->addrDel(it.key());
  }
  for (const auto& a : want) s->addrIs(a, Ip6::AddressInfo{a});
}

}  // namespace

struct Scenario::State {
  LoopObserver observer;  // the trace sink while the worlds live: declared first, goes last
  std::map<std::string, std::unique_ptr<World>> worlds;
  // State-database events in order, replayed into a world made later.
  std::vector<std::function<void(World&)>> stateLog;
  double now = 0;
  bool realTime = false;
  bool json = false;                             // every show prints JSON
  std::map<std::string, std::uint32_t> devices;  // kernel device -> ifIndex
  std::map<std::string, IntfInfo> intfs;
  std::map<std::string, std::string> intfOfDevice;  // device -> the interface on it
  Watches watches;                                  // hold objects of the worlds: they go first

  ~State() {
    watches.clear();
    for (const auto& [name, w] : worlds) observer.dropVrf(name);
    worlds.clear();
    World::leave();
  }

  World& world(const std::string& vrf) {
    auto it = worlds.find(vrf);
    if (it != worlds.end()) {
      it->second->enter();
      return *it->second;
    }
    auto w = std::make_unique<World>(vrf, now, realTime);
    for (const auto& event : stateLog) event(*w);
    return *worlds.emplace(vrf, std::move(w)).first->second;
  }

  void publish(std::function<void(World&)> event) {
    for (auto& [name, w] : worlds) {
      w->enter();
      event(*w);
    }
    stateLog.push_back(std::move(event));
  }
};

Scenario::Scenario(std::ostream& out, bool realTime) : s_(std::make_unique<State>()), out_(out) {
  s_->realTime = realTime;
}
Scenario::~Scenario() = default;

void Scenario::forEachWorld(const std::function<void(World&)>& fn) {
  for (auto& [name, w] : s_->worlds) {
    w->enter();
    fn(*w);
  }
}

bool Scenario::stopWorld(const std::string& vrf) {
  auto it = s_->worlds.find(vrf);
  if (it == s_->worlds.end()) return false;
  s_->watches.dropVrf(vrf);
  s_->observer.dropVrf(vrf);
  s_->worlds.erase(it);
  World::leave();
  return true;
}

Kel::Ptr<Root> Scenario::root(const std::string& vrf) const {
  auto it = s_->worlds.find(vrf);
  return it == s_->worlds.end() ? nullptr : it->second->root();
}

void Scenario::runText(const std::string& text, const std::string& source) {
  std::istringstream in(text);
  std::string line;
  int lineNo = 0;
  while (std::getline(in, line)) runLine(line, source, ++lineNo);
}

void Scenario::runFile(const std::string& path) {
  if (path == "-") {
    runStream(std::cin, "(standard input)");
    return;
  }
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec)) {
    throw ScenarioError("cannot read " + path + ": it is a directory");
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ScenarioError("cannot read " + path);
  runStream(in, path);
}

void Scenario::runStream(std::istream& in, const std::string& source) {
  std::string line;
  int lineNo = 0;
  for (;;) {
    line.clear();
    int c = 0;
    while ((c = in.get()) != std::char_traits<char>::eof() && c != '\n') {
      if (line.size() > kMaxLine) break;  // runLine refuses it; read no further
      line.push_back(static_cast<char>(c));
    }
    if (in.bad()) {
      throw ScenarioError("cannot read " + source + " after line " + std::to_string(lineNo));
    }
    if (c == std::char_traits<char>::eof() && line.empty()) return;
    runLine(line, source, ++lineNo);
    if (c == std::char_traits<char>::eof()) return;
  }
}

std::size_t Scenario::unresolvedCount() {
  std::size_t n = 0;
  forEachWorld([&n](World& w) {
    w.forEachRouteInputSm([&n](const auto& sm, bool) {
      n += sm.unresolvedRouteBacklog() ? sm.unresolvedRouteBacklog()->backlogCount() : 0;
    });
  });
  World::leave();
  return n;
}

std::uint64_t Scenario::misuseCount() {
  std::uint64_t n = 0;
  forEachWorld([&](World&) { n += corvd_misuse_count(); });
  World::leave();
  return n;
}

void Scenario::runLine(const std::string& line, const std::string& source, int lineNo) {
  try {
    runCommand(line, source, lineNo);
  } catch (...) {
    flush();
    throw;
  }
  for (auto& [name, w] : s_->worlds) {
    w->enter();
    s_->observer.observe(*w);
  }
  s_->watches.report(out_);
  flush();
}

void Scenario::flush() {
  // Show output and trace lines (stderr) appear in the order the lines ran.
  out_.flush();
  std::cerr.flush();
}

void Scenario::traceConfigIs(const std::string& text) { s_->observer.traceConfigIs(text); }
void Scenario::traceStampIs(bool on) { s_->observer.traceStampIs(on); }
void Scenario::progressIs(bool on) { s_->observer.progressIs(on); }
void Scenario::jsonIs(bool on) { s_->json = on; }

std::size_t Scenario::runFirstDue(World& w) { return s_->observer.runFirstDue(w); }

void Scenario::runCommand(const std::string& line, const std::string& source, int lineNo) {
  auto fail = [&](const std::string& why) -> void {
    throw ScenarioError(source + ":" + std::to_string(lineNo) + ": " + why);
  };
  if (line.size() > kMaxLine) fail("line longer than " + std::to_string(kMaxLine) + " bytes");
  std::vector<std::string> w;
  {
    std::istringstream words(line.substr(0, line.find('#')));
    for (std::string x; words >> x;) w.push_back(x);
  }
  if (w.empty()) return;
  auto need = [&](std::size_t min, std::size_t max, const char* usage) {
    if (w.size() < min || w.size() > max) fail(std::string("usage: ") + usage);
  };
  State& s = *s_;
  auto knownIntf = [&](const std::string& id) -> IntfInfo& {
    auto it = s.intfs.find(id);
    if (it == s.intfs.end()) fail("unknown interface '" + id + "' (declare it with intf)");
    return it->second;
  };
  auto knownDevice = [&](const std::string& name) {
    if (!s.devices.count(name)) fail("no kernel device '" + name + "'");
  };
  try {
    const std::string& cmd = w[0];
    if (cmd == "device") {
      need(3, 7, "device DEV IFINDEX [flags F] [mac M]");
      const std::string name = deviceName(w[1]);
      const auto index = static_cast<std::uint32_t>(number(w[2], "ifIndex", 1, 0xffffffffu));
      std::uint32_t flags = 0x41;  // up, running
      Kanet::EthAddr mac;
      for (std::size_t i = 3; i < w.size(); i += 2) {
        if (i + 1 >= w.size()) fail("'" + w[i] + "' needs a value");
        if (w[i] == "flags") {
          flags = kernelFlags(w[i + 1]);
        } else if (w[i] == "mac") {
          mac = Kanet::EthAddr::fromString(w[i + 1]);
        } else {
          fail("unexpected '" + w[i] + "'");
        }
      }
      for (const auto& [other, otherIndex] : s.devices) {
        if (otherIndex == index && other != name) {
          fail("ifIndex " + w[2] + " is the kernel's already (device " + other + ")");
        }
      }
      s.devices[name] = index;
      // The status agent keeps each interface's ifIndex equal to its device's, before the
      // device appears (routes read the ifIndex of a local interface from its status).
      std::vector<std::string> onDevice;
      for (const auto& [id, info] : s.intfs) {
        if (info.device == name) onDevice.push_back(id);
      }
      s.publish([name, index, flags, mac, onDevice](World& wd) {
        for (const auto& id : onDevice) wd.all->intfStatus(Kanet::IntfId(id))->ifIndexIs(index);
        auto d = Kel::make<KernelNetworkInfo::Interface>(name);
        d->ifIndexIs(index);
        d->flagsIs(flags);
        d->macAddrIs(mac);
        wd.kernel->interfaceByNameIs(name, d);
      });
    } else if (cmd == "nodevice") {
      need(2, 2, "nodevice DEV");
      knownDevice(w[1]);
      s.devices.erase(w[1]);
      s.publish([name = w[1]](World& wd) { wd.kernel->interfaceByNameDel(name); });
    } else if (cmd == "flags" || cmd == "mac") {
      need(3, 3, cmd == "flags" ? "flags DEV F" : "mac DEV M");
      knownDevice(w[1]);
      if (cmd == "flags") {
        const std::uint32_t flags = kernelFlags(w[2]);
        s.publish(
            [name = w[1], flags](World& wd) { wd.kernel->interfaceByName(name)->flagsIs(flags); });
      } else {
        const Kanet::EthAddr mac = Kanet::EthAddr::fromString(w[2]);
        s.publish(
            [name = w[1], mac](World& wd) { wd.kernel->interfaceByName(name)->macAddrIs(mac); });
      }
    } else if (cmd == "intf") {
      need(3, 7, "intf INTFID DEV [vrf V] [mtu N]");
      const std::string id = intfIdText(w[1]);
      const std::string dev = deviceName(w[2]);
      std::string vrf;
      int mtu = -1;
      for (std::size_t i = 3; i < w.size(); i += 2) {
        if (i + 1 >= w.size()) fail("'" + w[i] + "' needs a value");
        if (w[i] == "vrf") {
          vrf = Ip::VrfName(w[i + 1]).str();
          if (vrf.empty()) fail("empty VRF name");
        } else if (w[i] == "mtu") {
          mtu = static_cast<int>(number(w[i + 1], "mtu", 68, 65535));
        } else {
          fail("unexpected '" + w[i] + "'");
        }
      }
      auto it = s.intfs.find(id);
      if (it == s.intfs.end()) {
        // A kernel device is one interface's: two interfaces on one device would both add,
        // flap and delete the daemon's one link of it.
        if (auto other = s.intfOfDevice.find(dev); other != s.intfOfDevice.end()) {
          fail("device " + dev + " has interface '" + other->second +
               "' already (nointf it first)");
        }
        IntfInfo info;
        info.device = dev;
        if (!vrf.empty()) info.vrf = vrf;
        s.intfs[id] = info;
        s.intfOfDevice[dev] = id;
        const auto m = static_cast<std::uint16_t>(mtu < 0 ? 1500 : mtu);
        const auto known = s.devices.find(dev);
        const std::uint32_t index = known == s.devices.end() ? 0 : known->second;
        s.publish([id, dev, m, index](World& wd) {
          auto st = Kel::make<Interface::IntfStatus>(Kanet::IntfId(id));
          st->deviceNameIs(dev);
          st->ifIndexIs(index);
          st->mtuIs(m);
          st->operStatusIs(Interface::IntfOperStatus::intfOperUp);
          wd.all->intfStatusIs(Kanet::IntfId(id), st);
        });
        return;
      }
      IntfInfo& info = it->second;
      if (info.device != dev) {
        fail("interface '" + id + "' is on device " + info.device + " (nointf it first)");
      }
      if (!vrf.empty() && vrf != info.vrf && info.hasV6 && vrf != "default") {
        fail("interface '" + id + "' has IPv6 addresses, mirrored only in the VRF default");
      }
      if (mtu >= 0) {
        s.publish([id, m = static_cast<std::uint16_t>(mtu)](World& wd) {
          wd.all->intfStatus(Kanet::IntfId(id))->mtuIs(m);
        });
      }
      if (!vrf.empty() && vrf != info.vrf) {
        const std::string from = info.vrf;
        info.vrf = vrf;
        if (info.hasV4) {
          s.publish([id, from, vrf, addrs = info.v4](World& wd) {
            delV4(wd, from, id);
            setV4(wd, vrf, id, addrs);
          });
        }
      }
    } else if (cmd == "nointf") {
      need(2, 2, "nointf INTFID");
      IntfInfo info = knownIntf(w[1]);
      s.intfs.erase(w[1]);
      s.intfOfDevice.erase(info.device);
      s.publish([id = w[1], info](World& wd) {
        if (info.hasV4) delV4(wd, info.vrf, id);
        if (info.hasV6) wd.ip6Status->intfRemove(Kanet::IntfId(id));
        wd.all->intfStatusDel(Kanet::IntfId(id));
      });
    } else if (cmd == "mtu") {
      need(3, 3, "mtu INTFID N");
      knownIntf(w[1]);
      const auto m = static_cast<std::uint16_t>(number(w[2], "mtu", 68, 65535));
      s.publish([id = w[1], m](World& wd) { wd.all->intfStatus(Kanet::IntfId(id))->mtuIs(m); });
    } else if (cmd == "oper") {
      need(3, 3, "oper INTFID up|down");
      knownIntf(w[1]);
      if (w[2] != "up" && w[2] != "down") fail("oper status must be up or down");
      const auto st = w[2] == "up" ? Interface::IntfOperStatus::intfOperUp
                                   : Interface::IntfOperStatus::intfOperDown;
      s.publish(
          [id = w[1], st](World& wd) { wd.all->intfStatus(Kanet::IntfId(id))->operStatusIs(st); });
    } else if (cmd == "ip") {
      need(3, 64, "ip INTFID A/L [A/L]...");
      IntfInfo& info = knownIntf(w[1]);
      std::vector<Kanet::IpAddrWithMask> addrs;
      for (std::size_t i = 2; i < w.size(); ++i) {
        const auto a = Kanet::IpAddrWithMask::fromString(w[i]);
        if (a.address() == Kanet::IpAddr()) fail("0.0.0.0 is no interface address");
        for (const auto& b : addrs) {
          if (b.address() == a.address()) fail("address " + w[i] + " given twice");
        }
        addrs.push_back(a);
      }
      info.hasV4 = true;
      info.v4 = addrs;
      s.publish([id = w[1], vrf = info.vrf, addrs](World& wd) { setV4(wd, vrf, id, addrs); });
    } else if (cmd == "noip") {
      need(2, 2, "noip INTFID");
      IntfInfo& info = knownIntf(w[1]);
      info.hasV4 = false;
      info.v4.clear();
      s.publish([id = w[1], vrf = info.vrf](World& wd) { delV4(wd, vrf, id); });
    } else if (cmd == "ip6") {
      need(3, 64, "ip6 INTFID A/L...");
      IntfInfo& info = knownIntf(w[1]);
      if (info.vrf != "default") {
        fail("IPv6 addresses are mirrored only in the VRF default ('" + w[1] + "' is in " +
             info.vrf + ")");
      }
      std::vector<Kanet::Ip6AddrWithMask> addrs;
      for (std::size_t i = 2; i < w.size(); ++i) {
        const auto a = Kanet::Ip6AddrWithMask::fromString(w[i]);
        for (const auto& b : addrs) {
          if (b.address() == a.address()) fail("address " + w[i] + " given twice");
        }
        addrs.push_back(a);
      }
      info.hasV6 = true;
      info.v6 = addrs;
      s.publish([id = w[1], addrs](World& wd) { setV6(wd, id, addrs); });
    } else if (cmd == "noip6") {
      need(2, 2, "noip6 INTFID");
      IntfInfo& info = knownIntf(w[1]);
      info.hasV6 = false;
      info.v6.clear();
      s.publish([id = w[1]](World& wd) { wd.ip6Status->intfRemove(Kanet::IntfId(id)); });
    } else if (cmd == "novrf") {
      need(2, 2, "novrf V");
      const Ip::VrfName vrf(w[1]);
      for (auto& [id, info] : s.intfs) {
        if (info.vrf != w[1]) continue;
        info.hasV4 = info.hasV6 = false;
        info.v4.clear();
        info.v6.clear();
      }
      s.publish([vrf](World& wd) {
        wd.ipStatus->vrfIpIntfStatusDel(vrf);
        if (auto v6 = wd.ip6Status->vrfIp6IntfStatus(vrf)) {
          std::vector<Kanet::IntfId> ids;
          for (auto [id, st] : v6->ip6IntfStatusCollection()) ids.push_back(id);
          for (const auto& id : ids) wd.ip6Status->intfRemove(id);
          wd.ip6Status->vrfIp6IntfStatusDel(vrf);
        }
      });
    } else if (cmd == "vrf") {
      need(2, 2, "vrf NAME");
      const Ip::VrfName vrfName(w[1]);  // checks the name before anything is made
      if (vrfName.empty()) fail("empty VRF name");
      World& v = s.world(w[1]);
      if (v.root()) fail("vrf " + w[1] + " is already started");
      v.startRoot();
    } else if (cmd == "trace") {
      need(2, 2, "trace LEVELS");
      // Only the module traces: a facility other than it (or "*") is a typing mistake.
      std::string config = w[1] == "none" ? std::string() : w[1];
      for (std::size_t at = 0; at < config.size();) {
        const std::size_t end = std::min(config.find(';', at), config.size());
        const std::string entry = config.substr(at, end - at);
        const std::string facility = entry.substr(0, entry.find('/'));
        if (facility != "InterfaceRouteInfo" && facility != "*") {
          fail("unknown trace facility '" + facility.substr(0, 40) + "' (InterfaceRouteInfo or *)");
        }
        at = end + 1;
      }
      s.observer.traceConfigIs(config);
    } else if (cmd == "stop") {
      need(2, 2, "stop VRF");
      auto it = s.worlds.find(w[1]);
      if (it == s.worlds.end() || !it->second->root()) fail("vrf " + w[1] + " is not started");
      s.watches.dropVrf(w[1]);
      it->second->stopRoot();
    } else if (isRouteCommand(cmd)) {
      runRouteCommand(
          w, [&](const std::string& vrf) -> World& { return s.world(vrf); },
          [&](const std::string& vrf) { return s.worlds.count(vrf) != 0; });
    } else if (cmd == "daemon-netmask") {
      // A daemon-side test event: the module never changes a mask in place (it deletes the
      // address and adds it again), so this is the only way a scenario shows a subnet change.
      need(4, 4, "daemon-netmask VRF DEV A/L");
      auto world = s.worlds.find(w[1]);
      if (world == s.worlds.end()) fail("no vrf " + w[1]);
      knownDevice(w[2]);
      const auto a = Kanet::IpAddrWithMask::fromString(w[3]);
      world->second->enter();
      const unsigned long index = s.devices.at(w[2]);
      if_link* link = ifl_locate_index(index);
      if (!link) fail("the daemon of vrf " + w[1] + " has no link for " + w[2]);
      const sockaddr_un local = *sockbuild_in(0, a.address().valueNetworkOrder());
      bool held = false;
      for (const if_addr* x = link->ifl_addr_set.ias_first; x; x = x->ifa_next) {
        held = held || sockaddr_equal(x->ifa_info.ifi_addr_local, &local);
      }
      if (!held) fail(w[2] + " holds no address " + a.address().toString() + " in the daemon");
      corvd_host_addr(index, &local, a.maskLen());
    } else if (cmd == "run") {
      need(2, 2, "run SECONDS");
      const double until = s.now + duration(w[1]);
      for (auto& [name, wd] : s.worlds) {
        wd->enter();
        s.observer.runUntil(*wd, until);
      }
      s.now = until;
    } else if (cmd == "show") {
      ShowContext ctx{s.worlds, s.observer, s.json};
      runShow(w, ctx, out_);
    } else if (isGenericCommand(cmd)) {
      runGenericCommand(
          w,
          [&](const std::string& vrf) -> World* {
            auto it = s.worlds.find(vrf);
            return it == s.worlds.end() ? nullptr : it->second.get();
          },
          out_, s.watches);
    } else {
      fail("unknown command '" + cmd.substr(0, 40) + "'");
    }
  } catch (const Kel::Exception& e) {
    fail(e.what());
  } catch (const ArgError& e) {
    fail(e.what());
  }
}

}  // namespace CorvdSim
