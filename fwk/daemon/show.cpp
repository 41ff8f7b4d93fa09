#include "fwk/daemon/show.h"

#include <sstream>

#include "fwk/daemon/if_table.h"
#include "fwk/daemon/misuse.h"
#include "fwk/daemon/rt_table.h"

namespace {

std::string text(const sockaddr_un* a) {
  char buf[96];
  sockaddr_format(a, buf, sizeof buf);
  return buf;
}

std::string headText(const rt_head* h) {
  sockaddr_un d = rt_head_dest(h);
  return text(&d);
}

std::string jsonString(const std::string& s) {
  std::string out = "\"";
  for (char c : s) {
    if (c == '"' || c == '\\') out += '\\';
    if (static_cast<unsigned char>(c) < 0x20) {
      out += "\\u00";
      out += "0123456789abcdef"[(c >> 4) & 0xF];
      out += "0123456789abcdef"[c & 0xF];
      continue;
    }
    out += c;
  }
  return out + "\"";
}

const char* familyName(const sockaddr_un* a) {
  return a && a->sa_family == SA_FAMILY_INET6 ? "inet6" : "inet";
}

void linkText(if_link* l, void* arg) {
  auto& os = *static_cast<std::ostringstream*>(arg);
  os << "link " << l->ifl_index << ' ' << l->ifl_name << " mtu " << l->ifl_mtu << " metric "
     << l->ifl_metric << " state " << corvd_state_names(l->ifl_state) << " ll "
     << text(l->ifl_lladdr) << '\n';
  for (if_addr* a = l->ifl_addr_set.ias_first; a; a = a->ifa_next) {
    const if_info& i = a->ifa_info;
    os << "  " << familyName(i.ifi_addr_local) << ' ' << text(i.ifi_addr_local) << '/'
       << sock_mask_len(i.ifi_netmask) << " peer " << text(i.ifi_addr_remote) << " state "
       << corvd_state_names(i.ifi_state) << '\n';
  }
}

void entryText(std::ostream& os, const rt_entry* rt) {
  os << "  " << (rt->rt_state & RTS_ACTIVE ? '*' : ' ') << " proto " << rt->rt_gwp->gw_proto
     << " pref " << rt->rt_preference << " tag " << rt->rt_tag;
  if (rt->rt_adj.adj_n_gw == 0) os << " blackhole";
  for (int j = 0; j < rt->rt_adj.adj_n_gw; ++j) {
    const if_addr* a = rt->rt_adj.adj_ifaps[j];
    os << (j ? ", via " : " via ") << text(rt->rt_adj.adj_routers[j]) << " dev "
       << (a ? a->ifa_info.ifi_link->ifl_name : "-");
  }
  os << '\n';
}

void headText(rt_head* h, void* arg) {
  auto& os = *static_cast<std::ostringstream*>(arg);
  os << headText(h) << '/' << static_cast<int>(h->rth_plen) << '\n';
  for (const rt_entry* rt = h->rth_routes; rt; rt = rt_entry_next(rt)) entryText(os, rt);
}

struct JsonSink {
  std::ostringstream os;
  bool first = true;
  void sep() {
    if (!first) os << ',';
    first = false;
  }
};

void linkJson(if_link* l, void* arg) {
  auto& j = *static_cast<JsonSink*>(arg);
  j.sep();
  j.os << "{\"index\":" << l->ifl_index << ",\"name\":" << jsonString(l->ifl_name)
       << ",\"state\":" << l->ifl_state << ",\"mtu\":" << l->ifl_mtu
       << ",\"metric\":" << l->ifl_metric << ",\"lladdr\":" << jsonString(text(l->ifl_lladdr))
       << ",\"addrs\":[";
  for (if_addr* a = l->ifl_addr_set.ias_first; a; a = a->ifa_next) {
    const if_info& i = a->ifa_info;
    j.os << (a == l->ifl_addr_set.ias_first ? "" : ",")
         << "{\"local\":" << jsonString(text(i.ifi_addr_local))
         << ",\"len\":" << sock_mask_len(i.ifi_netmask)
         << ",\"peer\":" << jsonString(text(i.ifi_addr_remote)) << ",\"state\":" << i.ifi_state
         << "}";
  }
  j.os << "]}";
}

void headJson(rt_head* h, void* arg) {
  auto& j = *static_cast<JsonSink*>(arg);
  j.sep();
  j.os << "{\"prefix\":" << jsonString(headText(h) + "/" + std::to_string(h->rth_plen))
       << ",\"entries\":[";
  for (const rt_entry* rt = h->rth_routes; rt; rt = rt_entry_next(rt)) {
    j.os << (rt == h->rth_routes ? "" : ",") << "{\"proto\":" << rt->rt_gwp->gw_proto
         << ",\"pref\":" << rt->rt_preference << ",\"tag\":" << rt->rt_tag
         << ",\"active\":" << (rt->rt_state & RTS_ACTIVE ? "true" : "false") << ",\"gateways\":[";
    for (int g = 0; g < rt->rt_adj.adj_n_gw; ++g) {
      const if_addr* a = rt->rt_adj.adj_ifaps[g];
      j.os << (g ? "," : "") << "{\"via\":" << jsonString(text(rt->rt_adj.adj_routers[g]))
           << ",\"dev\":" << jsonString(a ? a->ifa_info.ifi_link->ifl_name : "") << "}";
    }
    j.os << "]}";
  }
  j.os << "]}";
}

}  // namespace

std::string corvd_state_names(unsigned state) {
  static const std::pair<unsigned, const char*> names[] = {{IFS_UP, "up"},
                                                           {IFS_BROADCAST, "broadcast"},
                                                           {IFS_POINTOPOINT, "p2p"},
                                                           {IFS_LOOPBACK, "loopback"},
                                                           {IFS_MULTICAST, "multicast"},
                                                           {IFS_LINKLOCAL, "linklocal"},
                                                           {IFS_RUNNING, "running"},
                                                           {IFS_NOAGE, "noage"},
                                                           {IFS_EXTERNAL, "external"}};
  std::string out;
  for (auto& [bit, name] : names) {
    if (!(state & bit)) continue;
    if (!out.empty()) out += ' ';
    out += name;
  }
  return out.empty() ? "-" : out;
}

std::string corvd_show_interfaces() {
  std::ostringstream os;
  if_link_walk(linkText, &os);
  return os.str();
}

std::string corvd_show_routes() {
  std::ostringstream os;
  rt_head_walk(headText, &os);
  return os.str();
}

std::string corvd_json() {
  JsonSink links;
  if_link_walk(linkJson, &links);
  JsonSink routes;
  rt_head_walk(headJson, &routes);
  std::ostringstream os;
  os << "{\"links\":[" << links.os.str() << "],\"routes\":[" << routes.os.str() << "],\"misuse\":[";
  const auto& log = corvd_misuse_log();
  for (std::size_t i = 0; i < log.size(); ++i) os << (i ? "," : "") << jsonString(log[i]);
  os << "],\"calls\":{";
  for (int i = 0; i < CORVD_FN_COUNT; ++i) {
    os << (i ? "," : "") << jsonString(corvd_fn_name(static_cast<corvd_fn>(i))) << ':'
       << corvd_calls[i];
  }
  os << "}}";
  return os.str();
}
