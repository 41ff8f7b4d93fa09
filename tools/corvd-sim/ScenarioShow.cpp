#include "tools/corvd-sim/ScenarioShow.h"

#include <algorithm>
#include <cctype>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <ostream>
#include <set>
#include <sstream>

#include "fwk/daemon/misuse.h"
#include "fwk/daemon/rt_table.h"
#include "fwk/daemon/show.h"
#include "tools/corvd-sim/LoopObserver.h"
#include "tools/corvd-sim/ScenarioArgs.h"
#include "tools/corvd-sim/World.h"

namespace CorvdSim {

using Json = nlohmann::ordered_json;

namespace {

// The document as one line of JSON. Names come from the scenario or the kernel as bytes (a
// device name need not be UTF-8); bytes that are not UTF-8 are shown as U+FFFD.
std::string jsonLine(const Json& doc) {
  return doc.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
}

std::string text(const sockaddr_un* a) {
  char buf[96];
  sockaddr_format(a, buf, sizeof buf);
  return buf;
}

bool isV6(const sockaddr_un* a) { return a && a->sa_family == SA_FAMILY_INET6; }

// A link-layer address as people write it ("00:11:22:33:44:55"); "" when there is none.
std::string macText(const sockaddr_un* a) {
  const std::string t = text(a);
  const std::size_t slash = t.find('/');
  return t.rfind("ll:", 0) == 0 && slash != std::string::npos ? t.substr(slash + 1) : "";
}

std::string upper(std::string s) {
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

// The names of the IFS_* bits, as a list ("up", "broadcast", ...).
std::vector<std::string> stateWords(unsigned state) {
  std::vector<std::string> out;
  std::istringstream in(corvd_state_names(state));
  for (std::string w; in >> w;) {
    if (w != "-") out.push_back(w);
  }
  return out;
}

// The names of the host's route inputs of protocol `proto` in `w` (IPv4 or IPv6 ones).
std::string inputNames(World& w, unsigned proto, bool v6) {
  std::string out;
  auto add = [&](const auto& inputs) {
    for (const auto& [name, in] : inputs) {
      if (in->routingProto() != proto) continue;
      out += (out.empty() ? "" : ",") + name;
    }
  };
  if (v6) {
    add(w.inputs6);
  } else {
    add(w.inputs);
  }
  return out;
}

struct Options {
  std::string what;
  std::string vrf;
  std::string name;    // interfaces NAME
  std::string family;  // routes ipv4|ipv6
  bool brief = false;
  bool json = false;
};

Options parse(const std::vector<std::string>& w, ShowContext& ctx) {
  static const std::set<std::string> kinds = {"routes", "interfaces", "unresolved", "counters",
                                              "summary"};
  if (w.size() < 2 || !kinds.count(w[1])) {
    throw ArgError("show what? routes, interfaces, unresolved, counters or summary");
  }
  Options o;
  o.what = w[1];
  o.json = ctx.json;
  bool jsonWord = false;
  auto once = [](bool& seen, const std::string& word) {
    if (seen) throw ArgError(word + " given twice");
    seen = true;
  };
  bool brief = false;
  for (std::size_t i = 2; i < w.size(); ++i) {
    const std::string& x = w[i];
    if (x == "json") {
      once(jsonWord, x);
      o.json = true;
    } else if (x == "vrf" && o.what != "counters") {
      if (i + 1 >= w.size()) throw ArgError("'vrf' needs a value");
      if (!o.vrf.empty()) throw ArgError("vrf given twice");
      o.vrf = w[++i];
      if (!ctx.worlds.count(o.vrf)) throw ArgError("no vrf " + o.vrf.substr(0, 40));
    } else if ((x == "ipv4" || x == "ipv6") && o.what == "routes") {
      if (!o.family.empty()) throw ArgError("one family at most");
      o.family = x;
    } else if (x == "brief" && o.what == "interfaces") {
      once(brief, x);
      o.brief = true;
    } else if (o.what == "interfaces" && o.name.empty()) {
      o.name = x;
    } else {
      throw ArgError("unexpected '" + x.substr(0, 40) + "'");
    }
  }
  return o;
}

// ---- routes ----

struct RouteWalk {
  World* world = nullptr;
  const Options* o = nullptr;
  Json json = Json::array();
  std::ostringstream os;
};

void routeHead(rt_head* h, void* arg) {
  auto& r = *static_cast<RouteWalk*>(arg);
  const bool v6 = h->rth_inet6;
  if (!r.o->family.empty() && v6 != (r.o->family == "ipv6")) return;
  const sockaddr_un dest = rt_head_dest(h);
  const std::string dst = text(&dest) + "/" + std::to_string(h->rth_plen);
  if (!r.o->json) r.os << dst << '\n';
  for (const rt_entry* rt = h->rth_routes; rt; rt = rt_entry_next(rt)) {
    const unsigned proto = rt->rt_gwp->gw_proto;
    const std::string input = inputNames(*r.world, proto, v6);
    const bool selected = rt->rt_state & RTS_ACTIVE;
    const bool inactive = rt->rt_state & RTS_SETASIDE;
    const int n = rt->rt_adj.adj_n_gw;
    auto dev = [&](int j) {
      const if_addr* a = rt->rt_adj.adj_ifaps[j];
      return std::string(a ? a->ifa_info.ifi_link->ifl_name : "");
    };
    if (r.o->json) {
      Json e;
      e["vrf"] = r.world->vrf();
      e["type"] = n == 0 ? "blackhole" : "unicast";
      e["dst"] = h->rth_plen == 0 ? std::string("default") : dst;
      if (n == 1) {
        e["gateway"] = text(rt->rt_adj.adj_routers[0]);
        e["dev"] = dev(0);
      } else if (n > 1) {
        e["nexthops"] = Json::array();
        for (int j = 0; j < n; ++j) {
          e["nexthops"].push_back({{"gateway", text(rt->rt_adj.adj_routers[j])}, {"dev", dev(j)}});
        }
      }
      e["protocol"] = input.empty() ? std::to_string(proto) : input;
      e["proto"] = proto;
      e["pref"] = rt->rt_preference;
      e["tag"] = rt->rt_tag;
      e["selected"] = selected;
      e["flags"] = inactive ? Json::array({"inactive"}) : Json::array();
      if (input.empty()) e["input_gone"] = true;
      r.json.push_back(std::move(e));
      continue;
    }
    r.os << "  " << (selected ? '*' : ' ') << " proto " << proto << " ("
         << (input.empty() ? "input gone" : input) << ") pref " << rt->rt_preference << " tag "
         << rt->rt_tag;
    if (inactive) r.os << " inactive";
    if (n == 0) r.os << " blackhole";
    for (int j = 0; j < n; ++j) {
      r.os << (j ? ", via " : " via ") << text(rt->rt_adj.adj_routers[j]) << " dev "
           << (dev(j).empty() ? "-" : dev(j));
    }
    r.os << '\n';
  }
}

// ---- interfaces ----

struct LinkWalk {
  World* world = nullptr;
  const Options* o = nullptr;
  Json json = Json::array();
  std::ostringstream os;
  bool found = false;
};

void link(if_link* l, void* arg) {
  auto& k = *static_cast<LinkWalk*>(arg);
  if (!k.o->name.empty() && k.o->name != l->ifl_name) return;
  k.found = true;
  const bool up = l->ifl_state & IFS_UP;
  const std::string mac = macText(l->ifl_lladdr);
  if (k.o->json) {
    Json e;
    e["vrf"] = k.world->vrf();
    e["ifindex"] = l->ifl_index;
    e["ifname"] = l->ifl_name;
    e["flags"] = Json::array();
    for (const auto& f : stateWords(l->ifl_state)) e["flags"].push_back(upper(f));
    e["mtu"] = l->ifl_mtu;
    e["metric"] = l->ifl_metric;
    e["operstate"] = up ? "UP" : "DOWN";
    e["link_type"] = l->ifl_state & IFS_LOOPBACK ? "loopback" : "ether";
    e["address"] = mac;
    e["addr_info"] = Json::array();
    for (if_addr* a = l->ifl_addr_set.ias_first; a; a = a->ifa_next) {
      const if_info& i = a->ifa_info;
      Json ai;
      ai["family"] = isV6(i.ifi_addr_local) ? "inet6" : "inet";
      ai["local"] = text(i.ifi_addr_local);
      ai["prefixlen"] = sock_mask_len(i.ifi_netmask);
      if (i.ifi_state & IFS_POINTOPOINT) ai["address"] = text(i.ifi_addr_remote);
      ai["state"] = i.ifi_state & IFS_UP ? "up" : "down";
      ai["flags"] = Json::array();
      for (const auto& f : stateWords(i.ifi_state)) {
        if (f != "up") ai["flags"].push_back(f);
      }
      e["addr_info"].push_back(std::move(ai));
    }
    k.json.push_back(std::move(e));
    return;
  }
  std::vector<std::string> addrs;
  for (if_addr* a = l->ifl_addr_set.ias_first; a; a = a->ifa_next) {
    const if_info& i = a->ifa_info;
    addrs.push_back(text(i.ifi_addr_local) + "/" + std::to_string(sock_mask_len(i.ifi_netmask)));
  }
  if (k.o->brief) {
    k.os << std::left << std::setw(16) << l->ifl_name << ' ' << std::setw(5)
         << (up ? "UP" : "DOWN");
    for (const auto& a : addrs) k.os << ' ' << a;
    k.os << '\n';
    return;
  }
  std::string flags;
  for (const auto& f : stateWords(l->ifl_state)) {
    if (!flags.empty()) flags += ',';
    flags += upper(f);
  }
  k.os << l->ifl_index << ": " << l->ifl_name << ": <" << flags << "> mtu " << l->ifl_mtu
       << " metric " << l->ifl_metric << " state " << (up ? "UP" : "DOWN") << '\n';
  k.os << "    link/" << (l->ifl_state & IFS_LOOPBACK ? "loopback" : "ether") << ' '
       << (mac.empty() ? "-" : mac) << '\n';
  int j = 0;
  for (if_addr* a = l->ifl_addr_set.ias_first; a; a = a->ifa_next, ++j) {
    const if_info& i = a->ifa_info;
    k.os << "    " << (isV6(i.ifi_addr_local) ? "inet6 " : "inet ") << addrs[j];
    if (i.ifi_state & IFS_POINTOPOINT) k.os << " peer " << text(i.ifi_addr_remote);
    k.os << ' ' << (i.ifi_state & IFS_UP ? "up" : "down");
    for (const auto& f : stateWords(i.ifi_state)) {
      if (f != "up") k.os << ' ' << f;
    }
    k.os << '\n';
  }
}

// ---- summary ----

struct Tally {
  World* world = nullptr;
  std::size_t prefixes = 0;
  std::size_t entries = 0;
  std::map<std::pair<bool, unsigned>, std::size_t> perProto;  // (ipv6, proto) -> entries
  std::size_t links = 0;
  std::size_t v4 = 0;
  std::size_t v6 = 0;
};

void tallyHead(rt_head* h, void* arg) {
  auto& t = *static_cast<Tally*>(arg);
  ++t.prefixes;
  for (const rt_entry* rt = h->rth_routes; rt; rt = rt_entry_next(rt)) {
    ++t.entries;
    ++t.perProto[{h->rth_inet6 != 0, rt->rt_gwp->gw_proto}];
  }
}

void tallyLink(if_link* l, void* arg) {
  auto& t = *static_cast<Tally*>(arg);
  ++t.links;
  for (if_addr* a = l->ifl_addr_set.ias_first; a; a = a->ifa_next) {
    ++(isV6(a->ifa_info.ifi_addr_local) ? t.v6 : t.v4);
  }
}

// ---- the commands ----

void showCounters(ShowContext& ctx, bool json, std::ostream& out) {
  const auto backlogs = ctx.observer.backlogs();
  Json doc;
  doc["vrfs"] = Json::array();
  if (!json) out << "== counters\n";
  for (auto& [name, wd] : ctx.worlds) {
    wd->enter();
    Json v;
    v["vrf"] = name;
    v["calls"] = Json::object();
    std::ostringstream calls;
    for (int i = 0; i < CORVD_FN_COUNT; ++i) {
      const std::uint64_t n = corvd_calls[i];
      if (n == 0) continue;
      const char* fn = corvd_fn_name(static_cast<corvd_fn>(i));
      v["calls"][fn] = n;
      calls << ' ' << fn << ' ' << n;
    }
    v["misuse"] = corvd_misuse_count();
    v["misuses"] = corvd_misuse_log();
    v["backlogs"] = Json::array();
    if (!json) {
      out << "vrf " << name << ": misuse " << corvd_misuse_count() << '\n';
      for (const std::string& m : corvd_misuse_log()) out << "  misuse: " << m << '\n';
      out << "  daemon calls:" << (calls.str().empty() ? " none" : calls.str()) << '\n';
    }
    for (const auto& b : backlogs) {
      if (b.vrf != name) continue;
      v["backlogs"].push_back({{"name", b.name},
                               {"depth", b.depth},
                               {"max_depth", b.maxDepth},
                               {"queued", b.queued},
                               {"drained", b.drained},
                               {"drain_runs", b.drainRuns},
                               {"longest_slice_s", b.longestSlice}});
      if (!json) {
        out << "  " << b.name << ": depth " << b.depth << " max " << b.maxDepth << " queued "
            << b.queued << " drained " << b.drained << " runs " << b.drainRuns << " longest-slice "
            << b.longestSlice << " s\n";
      }
    }
    doc["vrfs"].push_back(std::move(v));
  }
  doc["loop"] = {{"callbacks", ctx.observer.callbacks()},
                 {"longest_callback_s", ctx.observer.longestCallback()}};
  if (json) {
    out << jsonLine(doc);
  } else {
    out << "loop: callbacks " << ctx.observer.callbacks() << " longest-callback "
        << ctx.observer.longestCallback() << " s\n";
  }
}

void showUnresolved(ShowContext& ctx, const Options& o, std::ostream& out) {
  const auto all = ctx.observer.unresolved();
  Json doc = Json::array();
  for (auto& [name, wd] : ctx.worlds) {
    if (!o.vrf.empty() && name != o.vrf) continue;
    if (!o.json) out << "== unresolved vrf " << name << '\n';
    std::size_t n = 0;
    for (const auto& u : all) {
      if (u.vrf != name) continue;
      ++n;
      if (o.json) {
        doc.push_back({{"vrf", u.vrf},
                       {"input", u.input},
                       {"family", u.ipv6 ? "inet6" : "inet"},
                       {"dst", u.key},
                       {"reason", u.reason}});
      } else {
        out << "  " << u.input << (u.ipv6 ? " (ipv6) " : " ") << u.key << ": " << u.reason << '\n';
      }
    }
    if (!o.json && n == 0) out << "  (none)\n";
  }
  if (o.json) out << jsonLine(doc);
}

void showSummary(ShowContext& ctx, const Options& o, std::ostream& out) {
  const auto unresolved = ctx.observer.unresolved();
  Json doc = Json::array();
  for (auto& [name, wd] : ctx.worlds) {
    if (!o.vrf.empty() && name != o.vrf) continue;
    wd->enter();
    Tally t;
    t.world = wd.get();
    rt_head_walk(tallyHead, &t);
    if_link_walk(tallyLink, &t);
    const std::size_t pending = queuedKeys(*wd);
    // The VRF's name by an init-capture: clang 14 (the fuzz preset) cannot capture a structured
    // binding.
    const auto parked = static_cast<std::size_t>(
        std::count_if(unresolved.begin(), unresolved.end(),
                      [&vrf = name](const auto& u) { return u.vrf == vrf; }));
    Json protos = Json::array();
    std::ostringstream per;
    for (const auto& [key, n] : t.perProto) {
      const std::string input = inputNames(*wd, key.second, key.first);
      protos.push_back({{"family", key.first ? "inet6" : "inet"},
                        {"proto", key.second},
                        {"input", input},
                        {"entries", n}});
      per << (per.str().empty() ? "" : ", ") << (input.empty() ? "input gone" : input)
          << (key.first ? " ipv6" : "") << " (proto " << key.second << ") " << n;
    }
    if (o.json) {
      doc.push_back({{"vrf", name},
                     {"started", static_cast<bool>(wd->root())},
                     {"prefixes", t.prefixes},
                     {"entries", t.entries},
                     {"protocols", protos},
                     {"links", t.links},
                     {"addresses", {{"inet", t.v4}, {"inet6", t.v6}}},
                     {"pending", pending},
                     {"unresolved", parked}});
      continue;
    }
    out << "== summary vrf " << name << (wd->root() ? "" : " (module stopped)") << '\n'
        << "  routes: " << t.prefixes << " prefixes, " << t.entries << " entries"
        << (per.str().empty() ? "" : " (" + per.str() + ")") << '\n'
        << "  interfaces: " << t.links << " links, " << t.v4 << " ipv4 and " << t.v6
        << " ipv6 addresses\n"
        << "  pending: " << pending << " key(s) queued, " << parked << " route(s) unresolved\n";
  }
  if (o.json) out << jsonLine(doc);
}

}  // namespace

std::size_t queuedKeys(World& w) {
  if (!w.root()) return 0;
  const std::size_t intfs = w.root()->intfBacklog() ? w.root()->intfBacklog()->backlogCount() : 0;
  std::size_t routes = 0;
  w.forEachRouteInputSm([&](const auto& sm, bool) {
    routes += sm.routeBacklog() ? sm.routeBacklog()->backlogCount() : 0;
  });
  return intfs + routes;
}

void runShow(const std::vector<std::string>& w, ShowContext& ctx, std::ostream& out) {
  const Options o = parse(w, ctx);
  if (o.what == "counters") return showCounters(ctx, o.json, out);
  if (o.what == "unresolved") return showUnresolved(ctx, o, out);
  if (o.what == "summary") return showSummary(ctx, o, out);
  Json doc = Json::array();
  bool found = false;
  std::ostringstream text;
  for (auto& [name, wd] : ctx.worlds) {
    if (!o.vrf.empty() && name != o.vrf) continue;
    wd->enter();
    std::string body;
    if (o.what == "routes") {
      RouteWalk r;
      r.world = wd.get();
      r.o = &o;
      rt_head_walk(routeHead, &r);
      for (auto& e : r.json) doc.push_back(std::move(e));
      body = r.os.str();
    } else {
      LinkWalk k;
      k.world = wd.get();
      k.o = &o;
      if_link_walk(link, &k);
      found = found || k.found;
      for (auto& e : k.json) doc.push_back(std::move(e));
      body = k.os.str();
    }
    if (o.json) continue;
    text << "== " << o.what << " vrf " << name << '\n' << body;
    if (const std::size_t queued = queuedKeys(*wd); queued != 0) {
      text << "(" << queued << " change(s) still queued in vrf " << name << ": run drains them)\n";
    }
  }
  if (!o.name.empty() && !found) throw ArgError("no interface " + o.name.substr(0, 40));
  out << (o.json ? jsonLine(doc) : text.str());
}

}  // namespace CorvdSim
