#include "tools/corvd-sim/FibSink.h"

#include <linux/if_link.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <iostream>

#include "fwk/daemon/corvd.h"

namespace CorvdSim {

namespace {

constexpr std::size_t kBatchBytes = 32 * 1024;  // requests sent in one datagram
constexpr std::size_t kMaxRequest = 8 * 1024;   // a request with RT_N_MULTIPATH hops fits
constexpr int kReportedFailures = 5;            // refusals written to stderr

constexpr double kSyncSlice = 0.04;  // seconds of requests per sync; the rest waits a turn
constexpr int kBudgetCheck = 64;     // requests between two reads of the clock

int addrLen(std::uint8_t family) { return family == AF_INET ? 4 : 16; }

double monotonicNow() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// The active entry of `h` as a route to install into `r` (its vector reused); false when the
// prefix has none.
bool activeRoute(const rt_head* h, FibSink::Prefix& p, FibSink::Route& r) {
  const rt_entry* rt = rt_head_active(h);
  if (!rt) return false;
  const sockaddr_un dest = rt_head_dest(h);
  int len = 0;
  const std::uint8_t* bytes = sockaddr_bytes(&dest, &len);
  if (!bytes || (len != 4 && len != 16)) return false;
  p = FibSink::Prefix{static_cast<std::uint8_t>(len == 4 ? AF_INET : AF_INET6), {}, h->rth_plen};
  std::memcpy(p.addr.data(), bytes, len);
  r.blackhole = rt->rt_adj.adj_n_gw == 0;
  r.hops.resize(rt->rt_adj.adj_n_gw);
  for (int j = 0; j < rt->rt_adj.adj_n_gw; ++j) {
    const sockaddr_un* router = rt->rt_adj.adj_routers[j];
    const if_addr* ifap = rt->rt_adj.adj_ifaps[j];
    FibSink::Hop& hop = r.hops[j];
    hop = FibSink::Hop{};
    hop.family = p.family;
    if (ifap) hop.dev = ifap->ifa_info.ifi_link->ifl_name;
    // A gateway that is the router's own address is the interface itself: a device route.
    if (!ifap || !sockaddr_equal(router, ifap->ifa_info.ifi_addr_local)) {
      int glen = 0;
      const std::uint8_t* g = sockaddr_bytes(router, &glen);
      if (g && glen == len) {
        std::memcpy(hop.gw.data(), g, glen);
        hop.hasGw = true;
      }
    }
  }
  return true;
}

}  // namespace

FibSink::FibSink(const std::string& netns, bool keepOnExit)
    : nl_(netns, {}, 8 << 20), keepOnExit_(keepOnExit) {
  inNetns(netns, [&] { ioctlFd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); });
  if (ioctlFd_ < 0) throw NetlinkError("cannot open a socket in '" + netns + "'");
  removeStale();
}

FibSink::~FibSink() {
  if (!keepOnExit_) {
    std::vector<std::string> vrfs;
    for (const auto& [vrf, routes] : installed_) vrfs.push_back(vrf);
    for (const auto& vrf : vrfs) forget(vrf);
  }
  if (ioctlFd_ >= 0) close(ioctlFd_);
}

void FibSink::removeStale() {
  std::vector<std::pair<Prefix, std::uint32_t>> stale;
  std::vector<std::uint32_t> metrics;
  const auto each = [&](const nlmsghdr* nlh) {
    if (nlh->nlmsg_type != RTM_NEWROUTE) return;
    const auto* rtm = static_cast<const rtmsg*>(mnl_nlmsg_get_payload(nlh));
    if (rtm->rtm_protocol != kFibProtocol) return;
    Prefix p{rtm->rtm_family, {}, rtm->rtm_dst_len};
    Attrs<RTA_MAX> tb;
    mnl_attr_parse(nlh, sizeof(*rtm), Attrs<RTA_MAX>::collect, &tb);
    const nlattr* dst = tb[RTA_DST];
    if (dst && mnl_attr_get_payload_len(dst) == std::size_t(addrLen(p.family))) {
      std::memcpy(p.addr.data(), mnl_attr_get_payload(dst), addrLen(p.family));
    }
    const std::uint32_t table = attrU32(tb[RTA_TABLE], rtm->rtm_table);
    const std::uint32_t metric = attrU32(tb[RTA_PRIORITY], 0);
    stale.emplace_back(p, table);
    metrics.push_back(metric);
  };
  while (!nl_.dump(RTM_GETROUTE, AF_UNSPEC, each)) {
    stale.clear();
    metrics.clear();
  }
  for (std::size_t i = 0; i < stale.size(); ++i) {
    char buf[512];
    nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
    nlh->nlmsg_type = RTM_DELROUTE;
    nlh->nlmsg_flags = NLM_F_REQUEST;
    nlh->nlmsg_seq = nl_.seqNew();
    auto* rtm = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg)));
    const auto& [p, table] = stale[i];
    rtm->rtm_family = p.family;
    rtm->rtm_dst_len = p.plen;
    rtm->rtm_table = table < 256 ? table : RT_TABLE_UNSPEC;
    rtm->rtm_protocol = kFibProtocol;
    rtm->rtm_scope = RT_SCOPE_NOWHERE;
    mnl_attr_put_u32(nlh, RTA_TABLE, table);
    mnl_attr_put_u32(nlh, RTA_PRIORITY, metrics[i]);
    if (p.plen) mnl_attr_put(nlh, RTA_DST, addrLen(p.family), p.addr.data());
    nl_.send(nlh);
    ++counters_.stale;
  }
  flush();
}

std::uint32_t FibSink::tableOf(const std::string& vrf) {
  if (vrf == "default") return RT_TABLE_MAIN;
  if (auto it = tables_.find(vrf); it != tables_.end()) return it->second;
  std::uint32_t table = 0;
  const auto each = [&](const nlmsghdr* nlh) {
    if (nlh->nlmsg_type != RTM_NEWLINK) return;
    Attrs<IFLA_MAX> tb;
    mnl_attr_parse(nlh, sizeof(ifinfomsg), Attrs<IFLA_MAX>::collect, &tb);
    if (!tb[IFLA_LINKINFO] || attrStr(tb[IFLA_IFNAME]) != vrf) return;
    Attrs<IFLA_INFO_MAX> info;
    mnl_attr_parse_nested(tb[IFLA_LINKINFO], Attrs<IFLA_INFO_MAX>::collect, &info);
    if (!info[IFLA_INFO_DATA]) return;
    Attrs<IFLA_VRF_MAX> data;
    mnl_attr_parse_nested(info[IFLA_INFO_DATA], Attrs<IFLA_VRF_MAX>::collect, &data);
    table = attrU32(data[IFLA_VRF_TABLE], 0);
  };
  while (!nl_.dump(RTM_GETLINK, AF_UNSPEC, each)) table = 0;
  if (table) tables_[vrf] = table;
  return table;
}

bool FibSink::request(const Prefix& p, const Route* r, std::uint32_t table,
                      const std::string& vrf) {
  if (batch_.size() + kMaxRequest > kBatchBytes) flush();
  const std::size_t at = batch_.size();
  batch_.resize(at + kMaxRequest);
  nlmsghdr* nlh = mnl_nlmsg_put_header(batch_.data() + at);
  nlh->nlmsg_type = r ? RTM_NEWROUTE : RTM_DELROUTE;
  nlh->nlmsg_flags = NLM_F_REQUEST | (r ? NLM_F_CREATE | NLM_F_REPLACE : 0);
  nlh->nlmsg_seq = nl_.seqNew();
  auto* rtm = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg)));
  rtm->rtm_family = p.family;
  rtm->rtm_dst_len = p.plen;
  rtm->rtm_table = table < 256 ? table : RT_TABLE_UNSPEC;
  rtm->rtm_protocol = kFibProtocol;
  rtm->rtm_scope = RT_SCOPE_NOWHERE;
  rtm->rtm_type = r ? RTN_UNICAST : RTN_UNSPEC;  // a delete matches any type
  mnl_attr_put_u32(nlh, RTA_TABLE, table);
  mnl_attr_put_u32(nlh, RTA_PRIORITY, kFibMetric);
  if (p.plen) mnl_attr_put(nlh, RTA_DST, addrLen(p.family), p.addr.data());
  bool mapped = true;
  if (r) {
    rtm->rtm_scope = RT_SCOPE_UNIVERSE;
    if (r->blackhole) rtm->rtm_type = RTN_BLACKHOLE;
    auto indexOf = [&](const std::string& dev) -> int {
      ifreq ifr{};
      if (dev.empty() || dev.size() >= IFNAMSIZ) return 0;
      std::memcpy(ifr.ifr_name, dev.data(), dev.size());
      return ioctl(ioctlFd_, SIOCGIFINDEX, &ifr) == 0 ? ifr.ifr_ifindex : 0;
    };
    const bool linkScope = r->hops.size() == 1 && !r->hops[0].hasGw;
    if (linkScope) rtm->rtm_scope = RT_SCOPE_LINK;
    if (r->hops.size() == 1) {
      const Hop& h = r->hops[0];
      const int index = indexOf(h.dev);
      if (index) mnl_attr_put_u32(nlh, RTA_OIF, index);
      if (h.hasGw) mnl_attr_put(nlh, RTA_GATEWAY, addrLen(h.family), h.gw.data());
      mapped = index != 0 || (h.dev.empty() && h.hasGw);
    } else if (r->hops.size() > 1) {
      nlattr* nest = mnl_attr_nest_start(nlh, RTA_MULTIPATH);
      for (const Hop& h : r->hops) {
        auto* nh = static_cast<rtnexthop*>(mnl_nlmsg_get_payload_tail(nlh));
        nlh->nlmsg_len += RTNH_ALIGN(sizeof(rtnexthop));
        std::memset(nh, 0, sizeof *nh);
        nh->rtnh_ifindex = indexOf(h.dev);
        mapped = mapped && (nh->rtnh_ifindex != 0 || (h.dev.empty() && h.hasGw));
        if (h.hasGw) mnl_attr_put(nlh, RTA_GATEWAY, addrLen(h.family), h.gw.data());
        nh->rtnh_len = static_cast<unsigned short>(
            static_cast<char*>(mnl_nlmsg_get_payload_tail(nlh)) - reinterpret_cast<char*>(nh));
      }
      mnl_attr_nest_end(nlh, nest);
    }
  }
  if (!mapped) {
    batch_.resize(at);
    ++counters_.unmapped;
    return false;
  }
  batch_.resize(at + nlh->nlmsg_len);
  pending_[nlh->nlmsg_seq] = {vrf, p};
  return true;
}

void FibSink::flush() {
  if (!batch_.empty()) nl_.send(batch_.data(), batch_.size());
  batch_.clear();
  // The kernel handles a datagram's requests before send returns: what it refused is queued.
  for (;;) {
    const auto got = nl_.receive([&](const nlmsghdr* nlh) {
      if (nlh->nlmsg_type != NLMSG_ERROR) return;
      const auto* e = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(nlh));
      if (e->error == 0) return;
      ++counters_.failed;
      auto it = pending_.find(nlh->nlmsg_seq);
      if (counters_.failed <= kReportedFailures) {
        std::cerr << "corvd-sim: fib " << nl_.netns()
                  << ": the kernel refused a route: " << std::strerror(-e->error)
                  << (e->error == -EPERM ? " (needs CAP_NET_ADMIN)" : "") << "\n";
      }
      if (it == pending_.end()) return;
      // Not installed: forgetting it makes the next change of the prefix try again.
      auto vrf = installed_.find(it->second.first);
      if (vrf != installed_.end()) vrf->second.erase(it->second.second);
    });
    if (got == NetlinkSocket::Recv::kEmpty) break;
    if (got == NetlinkSocket::Recv::kOverrun) {
      std::cerr << "corvd-sim: fib " << nl_.netns() << ": answers lost in an overrun\n";
    }
  }
  pending_.clear();
}

struct FibSink::Walk {
  FibSink* self;
  const std::string& vrf;
  std::uint32_t table;
  std::map<Prefix, Installed>& have;
  Prefix p{};
  Route r;
};

void FibSink::visit(rt_head* h, void* arg) {
  auto& w = *static_cast<Walk*>(arg);
  if (!activeRoute(h, w.p, w.r)) return;
  auto it = w.have.find(w.p);
  const bool isNew = it == w.have.end();
  if (!isNew) it->second.gen = w.self->gen_;
  if (!isNew && it->second.route == w.r) return;
  if (w.self->overBudget()) return;                         // the next sync comes back to it
  if (!w.self->request(w.p, &w.r, w.table, w.vrf)) return;  // not installable: swept below
  ++(isNew ? w.self->counters_.installed : w.self->counters_.changed);
  w.have[w.p] = Installed{w.r, w.self->gen_};
}

bool FibSink::overBudget() {
  if (behind_) return true;
  if (++requests_ % kBudgetCheck == 0 && monotonicNow() > sliceEnd_) behind_ = true;
  return behind_;
}

void FibSink::sync(const std::string& vrf) {
  const std::uint32_t table = tableOf(vrf);
  if (!table) return;
  ++gen_;
  behind_ = false;
  sliceEnd_ = monotonicNow() + kSyncSlice;
  Walk walk{this, vrf, table, installed_[vrf], {}, {}};
  rt_head_visit(visit, &walk);
  // What the walk did not see (gone, or no longer installable) is deleted.
  for (auto it = walk.have.begin(); it != walk.have.end();) {
    if (it->second.gen == gen_ || overBudget()) {
      ++it;
      continue;
    }
    request(it->first, nullptr, table, vrf);
    ++counters_.removed;
    it = walk.have.erase(it);
  }
  flush();
}

void FibSink::forget(const std::string& vrf) {
  auto it = installed_.find(vrf);
  if (it == installed_.end()) return;
  const std::uint32_t table = tableOf(vrf);
  for (const auto& [p, r] : it->second) {
    if (table) request(p, nullptr, table, vrf);
    ++counters_.removed;
  }
  installed_.erase(vrf);
  tables_.erase(vrf);
  flush();
}

}  // namespace CorvdSim
