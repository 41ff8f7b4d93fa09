#include "fwk/daemon/rt_table.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "fwk/daemon/instance_state.h"
#include "fwk/daemon/misuse.h"
#include "fwk/daemon/prefix_index.h"
#include "fwk/daemon/prefix_key.h"
#include "fwk/daemon/record_arena.h"
#include "fwk/daemon/rt_internal.h"

using namespace corvd_rt;

rt_rib rib = {0};

namespace {

// Prefix heads of one family, made kChunk at a time and never moved (entries point at them): 16
// bytes an IPv4 prefix and 32 an IPv6 one, and nothing more. An emptied head waits on `free` for
// the next prefix.
template <class Head>
struct Heads {
  static constexpr std::size_t kChunk = 1024;
  std::vector<std::unique_ptr<Head[]>> chunks;
  std::size_t made = 0;
  std::vector<Head*> free;

  Head* take() {
    if (!free.empty()) {
      Head* h = free.back();
      free.pop_back();
      return h;
    }
    if (made == chunks.size() * kChunk) chunks.emplace_back(new Head[kChunk]);
    Head* h = &chunks[made / kChunk][made % kChunk];
    ++made;
    return h;
  }
  // Every head made, emptied ones included (their rth_routes is null).
  template <class F>
  void forEach(F&& f) {
    for (std::size_t i = 0; i < made; ++i) f(chunks[i / kChunk][i % kChunk]);
  }
};

// The prefixes are found through one index per family. A slot holds the prefix's first entry in
// selection order (by its 32-bit reference in the entry arena). An IPv4 slot keeps its key, with
// that entry's protocol as the key's tag (gw_proto is fixed while a gateway owns entries), so that
// rt_locate usually answers from the slot alone: at a million prefixes the head and the entry are
// each a cache miss. An IPv6 slot keeps only the key's hash and finds the prefix through its
// entry's head: 8 bytes instead of 24, a third of the lines and pages, and a hit reads the entry
// and head that its caller, which locates a route to change or delete it, reads next anyway.
using Index4 = PrefixIndex<KeyedSlot<Key4, rt_entry, EntryRef>>;
using Index6 = PrefixIndex<HashedSlot<Key6, rt_entry, EntryRef, EntryKey6>>;
// Whether an index's slots keep their keys, with the first entry's protocol as the tag.
template <typename Index>
constexpr bool keepsKey = requires(typename Index::Slot s) {
  s.key.setTag(0);
};

struct Table {
  Index4 v4;
  Index6 v6;
  Heads<rt_head> heads4;
  Heads<rt_head6> heads6;
  // The second preference and metric of the entries that have either (RTS_EXTRA).
  std::unordered_map<const rt_entry*, std::pair<int32_t, uint32_t>> extras;
  std::size_t liveEntries = 0;
  bool open = false;
  task* openTask = nullptr;
};
Table t;

// The first entry of the prefix dest/plen and its protocol, as the index holds them.
struct First {
  rt_entry* entry;  // null when the table holds no such prefix
  uint16_t proto;
};

template <typename Index>
First firstIn(Index& index, const typename Index::Key& key) {
  auto* slot = index.find(key);
  if (!slot) return First{nullptr, 0};
  if constexpr (keepsKey<Index>) {
    return First{slot->value(), slot->key.tag()};
  } else {
    return First{slot->value(), slot->value()->rt_gwp->gw_proto};
  }
}

First findFirst(const sockaddr_un* dest, int plen) {
  if (dest->sa_family == SA_FAMILY_INET) return firstIn(t.v4, key4(dest, plen));
  return firstIn(t.v6, key6(dest, plen));
}

template <typename Index>
void syncSlot(Index& index, typename Index::Key key, rt_entry* was, rt_entry* first) {
  if (!first) {
    index.erase(key);
    return;
  }
  if constexpr (keepsKey<Index>) key.setTag(first->rt_gwp->gw_proto);
  if (!was) {
    index.insert(key, first);
    return;
  }
  auto* slot = index.find(key);
  if constexpr (keepsKey<Index>) slot->key = key;
  slot->valueIs(first);
}

// Calls f(index, key) with the index of the prefix `h`'s family and the prefix's key.
template <typename F>
void withIndex(const rt_head* h, F&& f) {
  if (!h->rth_inet6) {
    f(t.v4, headKey4(h));
  } else {
    f(t.v6, headKey6(h));
  }
}

// Brings the index in step after the first entry of `h` changed from `was` (null for a new
// prefix) to rth_routes (null when the prefix is empty: it leaves the index).
void syncFirst(rt_head* h, rt_entry* was) {
  if (h->rth_routes == was) return;
  withIndex(h, [&](auto& index, auto key) { syncSlot(index, key, was, h->rth_routes); });
}

rt_head* makeHead(const sockaddr_un* dest, int plen) {
  if (dest->sa_family == SA_FAMILY_INET) {
    rt_head* h = t.heads4.take();
    *h = rt_head{};
    h->rth_plen = static_cast<uint8_t>(plen);
    h->rth_addr = key4(dest, plen).addr();
    return h;
  }
  rt_head6* h = t.heads6.take();
  *h = rt_head6{};
  Key6 k = key6(dest, plen);
  h->rth_inet6 = 1;
  h->rth_plen = static_cast<uint8_t>(plen);
  h->rth_addr = k.w[0];
  std::copy(k.w + 1, k.w + 4, h->rth_addr_rest);
  return h;
}

// Frees an empty prefix (already out of the index).
void dropHead(rt_head* h) {
  if (h->rth_inet6) {
    t.heads6.free.push_back(static_cast<rt_head6*>(h));
  } else {
    t.heads4.free.push_back(h);
  }
}

// The add order of a new entry of `h` (null for a new prefix): after every entry it holds. Only
// entries of one prefix are ever compared, so the order is kept per prefix, in 32 bits: when the
// largest number is taken, the prefix's entries are numbered again from 1 in the same order
// (at most RTH_MAX_ENTRIES of them, so there is room after).
uint32_t nextSeq(rt_head* h) {
  if (!h) return 1;
  uint32_t last = 0;
  for (rt_entry* rt = h->rth_routes; rt; rt = nextOf(rt)) last = std::max(last, rt->rt_seq);
  if (last < UINT32_MAX) return last + 1;
  std::vector<rt_entry*> all;
  for (rt_entry* rt = h->rth_routes; rt; rt = nextOf(rt)) all.push_back(rt);
  std::sort(all.begin(), all.end(),
            [](const rt_entry* a, const rt_entry* b) { return a->rt_seq < b->rt_seq; });
  uint32_t n = 0;
  for (rt_entry* rt : all) rt->rt_seq = ++n;
  return n + 1;
}

bool before(const rt_entry* a, const rt_entry* b) {
  bool an = a->rt_preference < 0;
  bool bn = b->rt_preference < 0;
  if (an != bn) return !an;
  if (!an && a->rt_preference != b->rt_preference) return a->rt_preference < b->rt_preference;
  return a->rt_seq < b->rt_seq;
}

void linkIntoHead(rt_entry* rt) {
  rt_head* h = rt->rt_head;
  rt_entry* prev = nullptr;
  rt_entry* next = h->rth_routes;
  while (next && before(next, rt)) next = nextOf(prev = next);
  rt->rt_next_ref = EntryRef::to(next);
  if (prev) {
    prev->rt_next_ref = EntryRef::to(rt);
  } else {
    h->rth_routes = rt;
  }
  ++h->rth_n_entries;
}

void unlinkFromHead(rt_entry* rt) {
  rt_head* h = rt->rt_head;
  if (h->rth_routes == rt) {
    h->rth_routes = nextOf(rt);
  } else {
    rt_entry* prev = h->rth_routes;
    while (nextOf(prev) != rt) prev = nextOf(prev);
    prev->rt_next_ref = rt->rt_next_ref;
  }
  rt->rt_next_ref = 0;
  --h->rth_n_entries;
}

// Moves RTS_ACTIVE to the active entry after the first entry of `h` was `was` (null for a new
// prefix; it may have left the list but not the arena): only a first entry is ever active.
void selectActive(rt_head* h, rt_entry* was) {
  if (was) was->rt_state &= ~RTS_ACTIVE;
  if (rt_entry* active = rt_head_active(h)) active->rt_state |= RTS_ACTIVE;
}

bool inBracket(const char* fn) {
  if (t.open) return true;
  corvd_misuse(fn, "route change outside an rt_open/rt_close bracket");
  return false;
}

rt_entry* newEntry() { return static_cast<rt_entry*>(entryArena().take()); }

}  // namespace

const corvd_state_ops corvd_state_rt = corvd_state_ops_of<Table, t>();
const corvd_state_ops corvd_state_rib = corvd_state_ops_of<rt_rib, rib>();

namespace corvd_rt {

rt_head* findHead(const sockaddr_un* dest, int plen) {
  rt_entry* first = findFirst(dest, plen).entry;
  return first ? first->rt_head : nullptr;
}

int prefixLen(const sockaddr_un* dest, const sockaddr_un* mask) {
  if (!dest || !mask || dest->sa_family != mask->sa_family) return -1;
  if (dest->sa_family != SA_FAMILY_INET && dest->sa_family != SA_FAMILY_INET6) return -1;
  return sock_mask_len(mask);
}

bool entryAlive(const rt_entry* rt, const char* fn) {
  if (rt_entry_alive(rt)) return true;
  if (!rt) {
    corvd_misuse(fn, "null entry");
  } else if (entryArena().state(rt) == RecordArena::State::foreign) {
    corvd_misuse(fn, "not an entry of the table");
  } else {
    corvd_misuse(fn, "entry already deleted");
  }
  return false;
}

void reorder(rt_entry* rt) {
  rt_entry* was = rt->rt_head->rth_routes;
  unlinkFromHead(rt);
  linkIntoHead(rt);
  selectActive(rt->rt_head, was);
  syncFirst(rt->rt_head, was);
}

void removeEntry(rt_entry* rt) {
  // A table is mostly emptied in the order it was filled (a protocol withdrawing its routes goes
  // through them in the order its input holds them, the order they were added in; a gateway's
  // queue is in that order too), which is the order of the entry records: the next record's
  // prefix is likely the next one looked up, so the line of its index slot is asked for once
  // this entry is gone, a lookup's miss ahead of that lookup.
  const auto* next = static_cast<const rt_entry*>(entryArena().following(rt));
  rt_head* h = rt->rt_head;
  rt_entry* was = h->rth_routes;
  unlinkFromHead(rt);
  selectActive(h, was);
  syncFirst(h, was);
  gwQueueRemove(rt);
  ptreeEntryRemoved(rt, h);
  clearAdj(rt);
  if (!h->rth_routes) dropHead(h);
  if (rt->rt_state & RTS_EXTRA) t.extras.erase(rt);
  rt->rt_head = nullptr;  // gone (rt_entry_alive)
  rt->rt_gwp = nullptr;
  --t.liveEntries;
  entryArena().give(rt);  // its page may be returned: nothing reads it after this
  // A next record on a returned page reads as zeros, with no head.
  if (next && next->rt_head) {
    withIndex(next->rt_head, [](auto& index, const auto& key) { index.prefetch(key); });
  }
}

}  // namespace corvd_rt

void rt_open(task* tp) {
  ++corvd_calls[CORVD_FN_rt_open];
  if (t.open) {
    corvd_misuse("rt_open", "bracket opened while already open");
    return;
  }
  if (!task_known(tp)) {
    corvd_misuse("rt_open", "unknown task");
    return;
  }
  t.open = true;
  t.openTask = tp;
}

void rt_close(task* tp, int, int, int) {
  ++corvd_calls[CORVD_FN_rt_close];
  if (!t.open) {
    corvd_misuse("rt_close", "bracket closed while not open");
    return;
  }
  if (tp != t.openTask) corvd_misuse("rt_close", "bracket closed by another task");
  t.open = false;
  t.openTask = nullptr;
}

rt_entry* rt_add(rt_parms* rtp, if_addr** ifaps) {
  ++corvd_calls[CORVD_FN_rt_add];
  if (!inBracket("rt_add")) return nullptr;
  if (!rtp) {
    corvd_misuse("rt_add", "null parameters");
    return nullptr;
  }
  if (!sock_check_usable(rtp->rtp_dest, "rt_add") ||
      !sock_check_usable(rtp->rtp_dest_mask, "rt_add")) {
    return nullptr;
  }
  int plen = prefixLen(rtp->rtp_dest, rtp->rtp_dest_mask);
  if (plen < 0) {
    corvd_misuse("rt_add", "destination and mask do not form a prefix");
    return nullptr;
  }
  if (!gwAlive(rtp->rtp_gwp)) {
    corvd_misuse("rt_add", "gateway entry missing or freed");
    return nullptr;
  }
  if (!gatewaysOk(rtp->rtp_n_gw, rtp->rtp_routers, ifaps, "rt_add")) return nullptr;
  rt_head* h = findHead(rtp->rtp_dest, plen);
  // Refused by result, not a misuse: a caller may well re-add what it already holds (the
  // module re-adds a blackhole each time its route is drained).
  if (duplicate(h, nullptr, rtp->rtp_gwp, rtp->rtp_n_gw, rtp->rtp_routers)) return nullptr;
  if (h && h->rth_n_entries == RTH_MAX_ENTRIES) return nullptr;
  if (corvd_take_rt_add_failure()) return nullptr;
  rt_entry* was = h ? h->rth_routes : nullptr;
  uint32_t seq = nextSeq(h);
  if (!h) h = makeHead(rtp->rtp_dest, plen);
  rt_entry* rt = newEntry();
  std::memset(rt, 0, sizeof *rt);
  rt->rt_head = h;
  rt->rt_gwp = rtp->rtp_gwp;
  rt->rt_state =
      rtp->rtp_state & ~(RTS_ACTIVE | RTS_SETASIDE | RTS_SETASIDE_ZERO | RTS_EXTRA | RTS_PTREE);
  rt->rt_seq = seq;
  rt->rt_preference = rtp->rtp_preference;
  if (rtp->rtp_preference2 != 0 || rtp->rtp_metric != 0) {
    t.extras[rt] = {rtp->rtp_preference2, rtp->rtp_metric};
    rt->rt_state |= RTS_EXTRA;
  }
  rt->rt_tag = rtp->rtp_tag;
  setAdj(rt, rtp->rtp_n_gw, rtp->rtp_routers, ifaps);
  setAsideIfDown(rt);
  linkIntoHead(rt);
  selectActive(h, was);
  syncFirst(h, was);
  gwQueueAppend(rt);
  ptreeEntryAdded(rt);
  ++t.liveEntries;
  return rt;
}

rt_entry* rt_change_s(rt_entry* rt, rt_change_parms* rtcp) {
  ++corvd_calls[CORVD_FN_rt_change_s];
  if (!inBracket("rt_change_s") || !entryAlive(rt, "rt_change_s")) return nullptr;
  if (!rtcp) {
    corvd_misuse("rt_change_s", "null parameters");
    return nullptr;
  }
  if (!gatewaysOk(rtcp->rtcp_n_gw, rtcp->rtcp_gateway, rtcp->rtcp_ifaps, "rt_change_s")) {
    return nullptr;
  }
  if (duplicate(rt->rt_head, rt, rt->rt_gwp, rtcp->rtcp_n_gw, rtcp->rtcp_gateway)) {
    return nullptr;  // refused by result, as in rt_add
  }
  if (corvd_take_rt_change_failure()) return nullptr;
  rt->rt_preference = rtcp->rtcp_preference;
  rt->rt_state &= ~(RTS_SETASIDE | RTS_SETASIDE_ZERO);  // the caller's preference stands
  setAdj(rt, rtcp->rtcp_n_gw, rtcp->rtcp_gateway, rtcp->rtcp_ifaps);
  setAsideIfDown(rt);
  reorder(rt);
  return rt;
}

void rt_delete(rt_entry* rt) {
  ++corvd_calls[CORVD_FN_rt_delete];
  if (!inBracket("rt_delete") || !entryAlive(rt, "rt_delete")) return;
  removeEntry(rt);
}

rt_head* rt_table_locate(const sockaddr_un* dest, const sockaddr_un* mask) {
  ++corvd_calls[CORVD_FN_rt_table_locate];
  if (!sock_check_usable(dest, "rt_table_locate") || !sock_check_usable(mask, "rt_table_locate")) {
    return nullptr;
  }
  int plen = prefixLen(dest, mask);
  return plen < 0 ? nullptr : findHead(dest, plen);
}

rt_entry* rt_locate(uint64_t, const sockaddr_un* dest, const sockaddr_un* mask,
                    const rt_bits* bits) {
  ++corvd_calls[CORVD_FN_rt_locate];
  if (!sock_check_usable(dest, "rt_locate") || !sock_check_usable(mask, "rt_locate")) {
    return nullptr;
  }
  int plen = prefixLen(dest, mask);
  if (plen < 0 || !bits) return nullptr;
  First first = findFirst(dest, plen);
  if (!first.entry) return nullptr;
  // The first entry's protocol comes with it: an IPv4 hit reads neither head nor entry.
  for (int i = 0; i < bits->rtb_n; ++i) {
    if (bits->rtb_proto[i] == first.proto) return first.entry;
  }
  for (rt_entry* rt = nextOf(first.entry); rt; rt = nextOf(rt)) {
    for (int i = 0; i < bits->rtb_n; ++i) {
      if (rt->rt_gwp->gw_proto == bits->rtb_proto[i]) return rt;
    }
  }
  return nullptr;
}

void rt_make_bits(rt_bits* bits, int n, ...) {
  std::memset(bits, 0, sizeof *bits);
  if (n < 0 || n > RT_BITS_MAX) {
    corvd_misuse("rt_make_bits", "protocol count " + std::to_string(n) + " out of range");
    return;
  }
  va_list ap;
  va_start(ap, n);
  for (int i = 0; i < n; ++i) bits->rtb_proto[i] = static_cast<uint16_t>(va_arg(ap, int));
  va_end(ap);
  bits->rtb_n = n;
}

int krt_addrcheck(const rt_parms* rtp) {
  if (!rtp || !sock_check_usable(rtp->rtp_dest, "krt_addrcheck")) return 0;
  int plen = prefixLen(rtp->rtp_dest, rtp->rtp_dest_mask);
  if (plen < 0) return 0;
  const sockaddr_un* d = rtp->rtp_dest;
  if (d->sa_family == SA_FAMILY_INET) {
    if (key4(d, plen).addr() != d->a_in.sin_addr) return 0;
    const auto* b = reinterpret_cast<const uint8_t*>(&d->a_in.sin_addr);
    return (b[0] >= 224 && b[0] <= 239) || b[0] == 127 ? 0 : 1;
  }
  Key6 k = key6(d, plen);
  uint8_t b[16];
  std::memcpy(b, k.w, 16);
  if (std::memcmp(b, d->a_in6.sin6_addr, 16) != 0) return 0;
  static const uint8_t loop[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  return b[0] == 0xFF || (plen == 128 && std::memcmp(b, loop, 16) == 0) ? 0 : 1;
}

rt_entry* rt_entry_next(const rt_entry* rt) { return nextOf(rt); }
rt_entry* rt_entry_gw_next(const rt_entry* rt) { return gwNextOf(rt); }

int32_t rt_entry_preference2(const rt_entry* rt) {
  return rt->rt_state & RTS_EXTRA ? t.extras.at(rt).first : 0;
}

uint32_t rt_entry_metric(const rt_entry* rt) {
  return rt->rt_state & RTS_EXTRA ? t.extras.at(rt).second : 0;
}

std::size_t rt_head_count() { return t.v4.size() + t.v6.size(); }
std::size_t rt_entry_count() { return t.liveEntries; }
std::size_t rt_record_bytes() { return RecordArena::bytesHeldAll(); }

bool rt_entry_alive(const rt_entry* rt) {
  return rt && entryArena().state(rt) == RecordArena::State::held && rt->rt_head;
}

std::size_t rt_record_pages() { return entryArena().pagesHeld(); }

sockaddr_un rt_head_dest(const rt_head* h) {
  sockaddr_un d{};
  d.sa_plen = SA_PLEN_NONE;
  if (!h->rth_inet6) {
    d.sa_len = 4;
    d.sa_family = SA_FAMILY_INET;
    d.a_in.sin_addr = h->rth_addr;
  } else {
    d.sa_len = 16;
    d.sa_family = SA_FAMILY_INET6;
    Key6 k = headKey6(h);
    std::memcpy(d.a_in6.sin6_addr, k.w, 16);
  }
  return d;
}

void rt_head_visit(void (*fn)(rt_head*, void*), void* arg) {
  auto visit = [&](rt_head& h) {
    if (h.rth_routes) fn(&h, arg);
  };
  t.heads4.forEach(visit);
  t.heads6.forEach(visit);
}

void rt_head_walk(void (*fn)(rt_head*, void*), void* arg) {
  std::vector<rt_head*> all;
  auto collect = [&](rt_head& h) {
    if (h.rth_routes) all.push_back(&h);
  };
  t.heads4.forEach(collect);
  t.heads6.forEach(collect);
  auto rank = [](const rt_head* h) {
    sockaddr_un d = rt_head_dest(h);
    int n = 0;
    const uint8_t* b = sockaddr_bytes(&d, &n);
    std::array<uint8_t, 18> k{};
    k[0] = d.sa_family;
    std::memcpy(k.data() + 1, b, static_cast<std::size_t>(n));
    k[17] = h->rth_plen;
    return k;
  };
  std::sort(all.begin(), all.end(), [&](rt_head* a, rt_head* b) { return rank(a) < rank(b); });
  for (rt_head* h : all) fn(h, arg);
}

void rt_table_reset() {
  gwReset();
  ptreeReset();
  t = Table();
}
