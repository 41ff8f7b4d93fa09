#include "fwk/daemon/if_table.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "fwk/daemon/flat_map.h"
#include "fwk/daemon/instance_state.h"
#include "fwk/daemon/misuse.h"
#include "fwk/daemon/rt_table.h"

namespace {

constexpr uint32_t LINK_LIVE = 0x4C494E4B;
constexpr uint32_t ADDR_LIVE = 0x41444452;
constexpr uint32_t ADDR_REMOVED = 0x52454D44;

// An address or subnet as two words (IPv4 in lo), already masked.
struct Key {
  uint64_t hi;
  uint64_t lo;
  bool operator==(const Key&) const = default;
};
struct KeyHash {
  std::size_t operator()(const Key& k) const {
    uint64_t h = k.hi * 0x9E3779B97F4A7C15ull ^ (k.lo + 0x632BE59BD9B4E019ull);
    h ^= h >> 29;
    h *= 0xBF58476D1CE4E5B9ull;
    return static_cast<std::size_t>(h ^ (h >> 32));
  }
};
using Bucket = std::vector<if_addr*>;  // in add order (ifa_seq), also after a re-index
using KeyMap = FlatMap<Key, Bucket, KeyHash>;

struct FamilyIndex {
  int maxLen = 0;
  std::vector<KeyMap> byLen;       // subnet (and point-to-point peer) entries per length
  std::vector<uint32_t> lenCount;  // entries per length
  std::vector<int> lensPresent;    // lengths with entries, longest first
  KeyMap exact;                    // local and peer addresses
};

struct IndexHash {
  std::size_t operator()(unsigned long k) const {
    uint64_t h = k * 0x9E3779B97F4A7C15ull;
    return static_cast<std::size_t>(h ^ (h >> 29));
  }
};

// Frees an address record with its route-reference list (whose entries forget the address), so
// that no path that frees addresses (a reset, a parked instance destroyed, the tables destroyed
// at exit) leaves a list behind.
struct AddrFree {
  void operator()(if_addr* a) const {
    rt_ifa_forget(a);
    delete a;
  }
};
using AddrPtr = std::unique_ptr<if_addr, AddrFree>;

struct Table {
  std::map<unsigned long, std::unique_ptr<if_link>> links;  // owned, in ifIndex order
  FlatMap<unsigned long, if_link*, IndexHash> byIndex;      // the same links, for lookups
  std::unordered_map<if_addr*, AddrPtr> addrs;              // also removed ones not yet freed
  FamilyIndex v4;
  FamilyIndex v6;
  bool open = false;
  task* openTask = nullptr;
  uint64_t seq = 0;
  std::vector<std::pair<if_addr*, int>> reports;
  std::vector<if_addr*> removedAddrs;
  std::vector<std::unique_ptr<if_link>> removedLinks;
  // Names a live link held before a refresh gave it another: the devices that had its index.
  std::unordered_map<const if_link*, std::vector<std::string>> formerNames;
  Table() {
    v4.maxLen = 32;
    v6.maxLen = 128;
    for (FamilyIndex* f : {&v4, &v6}) {
      f->byLen.resize(static_cast<std::size_t>(f->maxLen) + 1);
      f->lenCount.assign(static_cast<std::size_t>(f->maxLen) + 1, 0);
    }
  }
};
Table t;

if_link* linkAt(unsigned long ifindex) {
  if_link* const* l = t.byIndex.find(ifindex);
  return l ? *l : nullptr;
}

FamilyIndex* indexOf(uint8_t family) {
  if (family == SA_FAMILY_INET) return &t.v4;
  if (family == SA_FAMILY_INET6) return &t.v6;
  return nullptr;
}

// The first `bits` bits (none below 1, all from 64) of eight bytes as memory holds them.
uint64_t leadingBits(int bits) {
  if (bits <= 0) return 0;
  const uint64_t top = bits >= 64 ? ~uint64_t{0} : ~(~uint64_t{0} >> bits);
  if constexpr (std::endian::native == std::endian::little) return __builtin_bswap64(top);
  return top;
}

// The address masked to `len` bits, a word at a time: IPv6 in hi then lo, IPv4 in lo behind 64
// bits that its length then also counts. Anything else (an unusable address) is the empty key.
Key keyOf(const sockaddr_un* a, int len) {
  int n = 0;
  const uint8_t* b = sockaddr_bytes(a, &n);
  Key k{0, 0};
  if (n == 16) {
    std::memcpy(&k.hi, b, 8);
    std::memcpy(&k.lo, b + 8, 8);
  } else if (n == 4) {
    std::memcpy(&k.lo, b, 4);
    len += 64;
  }
  k.hi &= leadingBits(len);
  k.lo &= leadingBits(len - 64);
  return k;
}

// Enters `a` at its place by ifa_seq: an address re-indexed by a refresh (a new netmask or
// peer, or the old ones back) keeps its original order among the addresses it ties with.
void bucketAdd(Bucket& b, if_addr* a) {
  auto at = std::upper_bound(b.begin(), b.end(), a->ifa_seq,
                             [](uint64_t seq, const if_addr* x) { return seq < x->ifa_seq; });
  b.insert(at, a);
}
void bucketDel(KeyMap& m, const Key& k, if_addr* a) {
  Bucket* v = m.find(k);
  if (!v) return;
  v->erase(std::remove(v->begin(), v->end(), a), v->end());
  if (v->empty()) m.erase(k);
}

void lenAdjust(FamilyIndex& f, int len, int delta) {
  uint32_t& c = f.lenCount[static_cast<std::size_t>(len)];
  bool had = c != 0;
  c = static_cast<uint32_t>(static_cast<int>(c) + delta);
  if (had == (c != 0)) return;
  f.lensPresent.clear();
  for (int l = f.maxLen; l >= 0; --l) {
    if (f.lenCount[static_cast<std::size_t>(l)]) f.lensPresent.push_back(l);
  }
}

bool isP2p(const if_addr* a) {
  return (a->ifa_info.ifi_state & IFS_POINTOPOINT) && a->ifa_info.ifi_addr_remote;
}

// Index entries of one address: its subnet, and for point-to-point its peer as a host.
void indexAddr(if_addr* a, bool add) {
  const if_info& i = a->ifa_info;
  FamilyIndex* f = indexOf(i.ifi_addr_local->sa_family);
  // A zero-length netmask gives the address no subnet: it serves only itself, as a host.
  int len = sock_mask_len(i.ifi_netmask);
  if (len == 0) len = f->maxLen;
  Key sub = keyOf(i.ifi_addr_local, len);
  Key local = keyOf(i.ifi_addr_local, f->maxLen);
  auto one = [&](KeyMap& m, const Key& k, int l) {
    if (add) {
      bucketAdd(m[k], a);
    } else {
      bucketDel(m, k, a);
    }
    if (l >= 0) lenAdjust(*f, l, add ? 1 : -1);
  };
  one(f->byLen[static_cast<std::size_t>(len)], sub, len);
  one(f->exact, local, -1);
  if (isP2p(a) && i.ifi_addr_remote->sa_family == i.ifi_addr_local->sa_family) {
    Key peer = keyOf(i.ifi_addr_remote, f->maxLen);
    one(f->byLen[static_cast<std::size_t>(f->maxLen)], peer, f->maxLen);
    one(f->exact, peer, -1);
  }
}

bool changeAllowed(task* tp, const char* fn) {
  if (!t.open) {
    corvd_misuse(fn, "interface change outside an if_conf_open/if_conf_close bracket");
    return false;
  }
  if (tp != t.openTask) {
    corvd_misuse(fn, "interface change by a task other than the one that opened the bracket");
    return false;
  }
  return true;
}

void queueReport(if_addr* a, int code) {
  ++a->ifa_pending;
  t.reports.emplace_back(a, code);
}

void setUp(if_addr* a, bool up) {
  if (up) {
    a->ifa_info.ifi_state |= IFS_UP;
    return;
  }
  a->ifa_info.ifi_state &= ~IFS_UP;
  rt_ifa_down(a);
}

void releaseAddrFields(if_info& i) {
  sock_release(i.ifi_addr_local);
  sock_release(i.ifi_addr_remote);
  sock_release(i.ifi_addr_broadcast);
  sock_release(i.ifi_netmask);
}

// Takes the request's copies over; false (with everything that was valid released) if any
// of them may not be stored.
bool takeRequest(if_info* ifi, const char* fn) {
  sockaddr_un* f[4] = {ifi->ifi_addr_local, ifi->ifi_addr_remote, ifi->ifi_addr_broadcast,
                       ifi->ifi_netmask};
  bool ok[4];
  bool all = true;
  for (int i = 0; i < 4; ++i) {
    ok[i] = sock_take_over(f[i], fn);
    all = all && ok[i];
  }
  if (all) return true;
  for (int i = 0; i < 4; ++i) {
    if (ok[i]) sock_release(f[i]);
  }
  return false;
}

if_link* liveLink(if_link* l, const char* fn) {
  if (!l || linkAt(l->ifl_index) != l) {
    corvd_misuse(fn, "request names no link of the table");
    return nullptr;
  }
  return l;
}

if_addr* findOnLink(if_link* l, const sockaddr_un* local) {
  for (if_addr* a = l->ifl_addr_set.ias_first; a; a = a->ifa_next) {
    if (sockaddr_equal(a->ifa_info.ifi_addr_local, local)) return a;
  }
  return nullptr;
}

// Unlinks the address from its link and the indexes; it is freed after its report.
void removeAddr(if_addr* a) {
  if_link* l = a->ifa_info.ifi_link;
  indexAddr(a, false);
  if_addr_set& s = l->ifl_addr_set;
  (a->ifa_prev ? a->ifa_prev->ifa_next : s.ias_first) = a->ifa_next;
  (a->ifa_next ? a->ifa_next->ifa_prev : s.ias_last) = a->ifa_prev;
  a->ifa_next = a->ifa_prev = nullptr;
  --s.ias_count;
  bool wasUp = a->ifa_info.ifi_state & IFS_UP;
  setUp(a, false);
  a->ifa_magic = ADDR_REMOVED;
  queueReport(a, wasUp ? IFC_DELETE | IFC_UPDOWN : IFC_DELETE);
  t.removedAddrs.push_back(a);
}

void freeAddr(if_addr* a) {
  releaseAddrFields(a->ifa_info);
  t.addrs.erase(a);
}

if_addr* lookup(const sockaddr_un* addr, bool exactFirst) {
  FamilyIndex* f = addr ? indexOf(addr->sa_family) : nullptr;
  if (!f) return nullptr;
  if (exactFirst) {
    if (const Bucket* b = f->exact.find(keyOf(addr, f->maxLen))) {
      for (if_addr* a : *b) {
        if (a->ifa_info.ifi_state & IFS_UP) return a;
      }
    }
  }
  for (int len : f->lensPresent) {
    const KeyMap& m = f->byLen[static_cast<std::size_t>(len)];
    const Bucket* b = m.find(keyOf(addr, len));
    if (!b) continue;
    for (if_addr* a : *b) {
      if (a->ifa_info.ifi_state & IFS_UP) return a;
    }
  }
  return nullptr;
}

}  // namespace

const corvd_state_ops corvd_state_if = corvd_state_ops_of<Table, t>();

void if_conf_open(task* tp, int /*flags*/) {
  ++corvd_calls[CORVD_FN_if_conf_open];
  if (t.open) {
    corvd_misuse("if_conf_open", "bracket opened while already open");
    return;
  }
  if (!task_known(tp)) {
    corvd_misuse("if_conf_open", "unknown task");
    return;
  }
  t.open = true;
  t.openTask = tp;
}

void if_conf_close(task* tp, int /*flags*/) {
  ++corvd_calls[CORVD_FN_if_conf_close];
  if (!t.open) {
    corvd_misuse("if_conf_close", "bracket closed while not open");
    return;
  }
  if (tp != t.openTask) corvd_misuse("if_conf_close", "bracket closed by another task");
  t.open = false;
  t.openTask = nullptr;
  // Hooks may open a new bracket; its reports are delivered by its own close, so take ours.
  std::vector<std::pair<if_addr*, int>> reports;
  reports.swap(t.reports);
  std::vector<if_addr*> removed;
  removed.swap(t.removedAddrs);
  std::vector<std::unique_ptr<if_link>> removedLinks;
  removedLinks.swap(t.removedLinks);
  for (auto& [a, code] : reports) {
    a->ifa_change = code;
    task_report_ifachange(a);
    --a->ifa_pending;
    if ((a->ifa_info.ifi_state & IFS_UP) && a->ifa_magic == ADDR_LIVE) rt_ifa_restore(a);
  }
  for (if_addr* a : removed) {
    rt_ifa_gone(a);
    freeAddr(a);
  }
}

if_link* if_conf_addlink(task* tp, if_link* existing, unsigned long ifindex, flag_t state,
                         metric_t metric, mtu_t mtu, const char* name, int namelen,
                         sockaddr_un* lladdr) {
  ++corvd_calls[CORVD_FN_if_conf_addlink];
  if (!changeAllowed(tp, "if_conf_addlink")) return nullptr;
  if (!sock_check_usable(lladdr, "if_conf_addlink")) return nullptr;
  if (existing && !liveLink(existing, "if_conf_addlink")) return nullptr;
  if_link* l = existing;
  if (!l) l = linkAt(ifindex);
  if (l && l->ifl_index != ifindex) {  // re-indexed: move it to its new key
    if (linkAt(ifindex)) {
      corvd_misuse("if_conf_addlink", "ifIndex " + std::to_string(ifindex) + " already in use");
      return nullptr;
    }
    auto node = t.links.extract(l->ifl_index);
    node.key() = ifindex;
    t.links.insert(std::move(node));
    t.byIndex.erase(l->ifl_index);
    t.byIndex[ifindex] = l;
    l->ifl_index = ifindex;
  }
  bool wasUp = false;
  if (!l) {
    auto fresh = std::make_unique<if_link>();
    std::memset(fresh.get(), 0, sizeof(if_link));
    l = fresh.get();
    l->ifl_index = ifindex;
    l->ifl_magic = LINK_LIVE;
    t.links.emplace(ifindex, std::move(fresh));
    t.byIndex[ifindex] = l;
  } else {
    wasUp = l->ifl_state & IFS_UP;
  }
  std::size_t n =
      name && namelen > 0 ? std::min<std::size_t>(static_cast<std::size_t>(namelen), 16) : 0;
  if (name) n = strnlen(name, n);
  if (l->ifl_name[0] && std::string_view(l->ifl_name) != std::string_view(name ? name : "", n)) {
    std::vector<std::string>& former = t.formerNames[l];
    if (std::find(former.begin(), former.end(), l->ifl_name) == former.end()) {
      former.emplace_back(l->ifl_name);
    }
  }
  std::memset(l->ifl_name, 0, sizeof l->ifl_name);
  if (n) std::memcpy(l->ifl_name, name, n);
  l->ifl_state = state;
  l->ifl_metric = metric;
  l->ifl_mtu = mtu;
  sock_release(l->ifl_lladdr);
  l->ifl_lladdr = nullptr;
  if (lladdr) {
    l->ifl_lladdr = sockdup(lladdr);
    sock_take_over(l->ifl_lladdr, "if_conf_addlink");
  }
  bool up = state & IFS_UP;
  constexpr flag_t inherited = IFS_POINTOPOINT | IFS_LOOPBACK | IFS_BROADCAST;
  for (if_addr* a = l->ifl_addr_set.ias_first; a; a = a->ifa_next) {
    a->ifa_info.ifi_state |= state & inherited;
  }
  if (up != wasUp) {
    for (if_addr* a = l->ifl_addr_set.ias_first; a; a = a->ifa_next) {
      setUp(a, up);
      queueReport(a, IFC_UPDOWN);
    }
  }
  return l;
}

void if_conf_dellink(task* tp, unsigned long ifindex, const char* name) {
  ++corvd_calls[CORVD_FN_if_conf_dellink];
  if (!changeAllowed(tp, "if_conf_dellink")) return;
  auto it = t.links.find(ifindex);
  if (it == t.links.end()) {
    corvd_misuse("if_conf_dellink", "no link with ifIndex " + std::to_string(ifindex));
    return;
  }
  if_link* l = it->second.get();
  if (name && std::strncmp(name, l->ifl_name, 16) != 0) {
    // The caller names a device that had this index before a refresh gave the link to another
    // one: that device is gone already, and the link is the other's. Nothing to remove.
    auto former = t.formerNames.find(l);
    if (former != t.formerNames.end()) {
      auto& names = former->second;
      auto match = std::find(names.begin(), names.end(), std::string(name, strnlen(name, 16)));
      if (match != names.end()) {
        names.erase(match);
        if (names.empty()) t.formerNames.erase(former);
        return;
      }
    }
    corvd_misuse("if_conf_dellink",
                 std::string("name ") + name + " does not match link " + l->ifl_name);
    return;
  }
  t.formerNames.erase(l);
  while (l->ifl_addr_set.ias_first) removeAddr(l->ifl_addr_set.ias_first);
  sock_release(l->ifl_lladdr);
  l->ifl_lladdr = nullptr;
  l->ifl_magic = 0;
  t.removedLinks.push_back(std::move(it->second));
  t.links.erase(it);
  t.byIndex.erase(ifindex);
}

if_addr* if_conf_addaddr(task* tp, if_info* ifi) {
  ++corvd_calls[CORVD_FN_if_conf_addaddr];
  if (!ifi) {
    corvd_misuse("if_conf_addaddr", "null request");
    return nullptr;
  }
  if (!takeRequest(ifi, "if_conf_addaddr")) return nullptr;
  if_info req = *ifi;
  auto refuse = [&](const char* what) -> if_addr* {
    if (what) corvd_misuse("if_conf_addaddr", what);
    releaseAddrFields(req);
    return nullptr;
  };
  if (!changeAllowed(tp, "if_conf_addaddr")) return refuse(nullptr);
  if_link* l = liveLink(req.ifi_link, "if_conf_addaddr");
  if (!l) return refuse(nullptr);
  const sockaddr_un* local = req.ifi_addr_local;
  FamilyIndex* f = local ? indexOf(local->sa_family) : nullptr;
  if (!f) return refuse("local address missing or not IPv4/IPv6");
  int len = req.ifi_netmask ? sock_mask_len(req.ifi_netmask) : f->maxLen;
  if (len < 0 || (req.ifi_netmask && req.ifi_netmask->sa_family != local->sa_family)) {
    return refuse("netmask not contiguous or of another family");
  }
  // A request may name no peer, also on a point-to-point link (the system's state may not know
  // it): the address is then its own peer. A peer of the other family is a caller's fault.
  if (req.ifi_addr_remote && req.ifi_addr_remote->sa_family != local->sa_family) {
    return refuse("peer address of another family");
  }
  sock_release(req.ifi_netmask);
  req.ifi_netmask = sock_mask_by_len(local->sa_family, len);
  if (!req.ifi_addr_remote) {
    req.ifi_addr_remote = sockdup(local);
    sock_take_over(req.ifi_addr_remote, "if_conf_addaddr");
  }
  constexpr flag_t inherited = IFS_POINTOPOINT | IFS_LOOPBACK | IFS_BROADCAST;
  flag_t state = (req.ifi_state & ~IFS_UP) | (l->ifl_state & (inherited | IFS_UP));
  if_addr* a = findOnLink(l, local);
  if (a) {  // refresh
    if_info& cur = a->ifa_info;
    bool subnet = cur.ifi_netmask != req.ifi_netmask ||
                  !sockaddr_equal(cur.ifi_addr_remote, req.ifi_addr_remote) ||
                  ((cur.ifi_state ^ state) & IFS_POINTOPOINT);
    if (subnet) indexAddr(a, false);
    sockaddr_un* oldLocal = cur.ifi_addr_local;
    sock_release(cur.ifi_addr_remote);
    sock_release(cur.ifi_addr_broadcast);
    cur.ifi_addr_local = req.ifi_addr_local;
    cur.ifi_addr_remote = req.ifi_addr_remote;
    cur.ifi_addr_broadcast = req.ifi_addr_broadcast;
    cur.ifi_netmask = req.ifi_netmask;
    cur.ifi_state = state;
    cur.ifi_rtflags = req.ifi_rtflags;
    cur.ifi_metric = req.ifi_metric;
    cur.ifi_mtu = req.ifi_mtu;
    cur.ifi_alias_idx = req.ifi_alias_idx;
    sock_release(oldLocal);
    if (subnet) {
      indexAddr(a, true);
      queueReport(a, IFC_NETMASK);
    }
    return a;
  }
  AddrPtr owned(new if_addr);
  std::memset(owned.get(), 0, sizeof(if_addr));
  a = owned.get();
  t.addrs.emplace(a, std::move(owned));
  a->ifa_info = req;
  a->ifa_info.ifi_u = a->ifa_info.ifi_plink = a->ifa_info.ifi_ulink = nullptr;
  a->ifa_info.ifi_llink = a->ifa_info.ifi_blink = nullptr;
  a->ifa_info.ifi_state = state;
  a->ifa_info.ifi_link = l;
  a->ifa_magic = ADDR_LIVE;
  a->ifa_self = a;
  a->ifa_seq = ++t.seq;
  if_addr_set& s = l->ifl_addr_set;
  a->ifa_prev = s.ias_last;
  (s.ias_last ? s.ias_last->ifa_next : s.ias_first) = a;
  s.ias_last = a;
  ++s.ias_count;
  indexAddr(a, true);
  queueReport(a, IFC_ADD);
  return a;
}

void if_conf_deladdr(task* tp, if_info* ifi) {
  ++corvd_calls[CORVD_FN_if_conf_deladdr];
  if (!ifi) {
    corvd_misuse("if_conf_deladdr", "null request");
    return;
  }
  if (!takeRequest(ifi, "if_conf_deladdr")) return;
  if_info req = *ifi;
  do {
    if (!changeAllowed(tp, "if_conf_deladdr")) break;
    if_link* l = liveLink(req.ifi_link, "if_conf_deladdr");
    if (!l) break;
    if_addr* a = req.ifi_addr_local ? findOnLink(l, req.ifi_addr_local) : nullptr;
    if (!a) {
      corvd_misuse("if_conf_deladdr", "no such address on link " + std::string(l->ifl_name));
      break;
    }
    removeAddr(a);
  } while (false);
  releaseAddrFields(req);
}

if_link* ifl_locate_index(unsigned long ifindex) {
  ++corvd_calls[CORVD_FN_ifl_locate_index];
  return linkAt(ifindex);
}

flag_t krt_if_flags(uint32_t k) {
  flag_t s = 0;
  if (k & KERNEL_IFF_UP) s |= IFS_UP;
  if (k & KERNEL_IFF_BROADCAST) s |= IFS_BROADCAST;
  if (k & KERNEL_IFF_LOOPBACK) s |= IFS_LOOPBACK;
  if (k & KERNEL_IFF_POINTOPOINT) s |= IFS_POINTOPOINT;
  if (k & KERNEL_IFF_RUNNING) s |= IFS_RUNNING;
  if (k & KERNEL_IFF_MULTICAST) s |= IFS_MULTICAST;
  return s;
}

if_addr* if_withdst(const sockaddr_un* addr) {
  ++corvd_calls[CORVD_FN_if_withdst];
  if (!sock_check_usable(addr, "if_withdst")) return nullptr;
  return lookup(addr, false);
}

if_addr* if_withdstaddr(const sockaddr_un* addr) {
  ++corvd_calls[CORVD_FN_if_withdstaddr];
  if (!sock_check_usable(addr, "if_withdstaddr")) return nullptr;
  return lookup(addr, true);
}

bool if_addr_alive(const if_addr* ifap) {
  return ifap && t.addrs.count(const_cast<if_addr*>(ifap)) != 0 && ifap->ifa_magic == ADDR_LIVE;
}

std::size_t if_link_count() { return t.links.size(); }
std::size_t if_addr_count() { return t.addrs.size() - t.removedAddrs.size(); }

void if_link_walk(void (*fn)(if_link*, void*), void* arg) {
  for (auto& [index, l] : t.links) fn(l.get(), arg);
}

void if_table_reset() {
  for (auto& [a, owned] : t.addrs) releaseAddrFields(a->ifa_info);
  for (auto& [index, l] : t.links) sock_release(l->ifl_lladdr);
  for (auto& l : t.removedLinks) sock_release(l->ifl_lladdr);
  t = Table();
}
