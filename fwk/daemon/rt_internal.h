// What the routing table's own files share; not for callers of the daemon. rt_table.cpp owns the
// prefixes, the entries and their selection order; rt_adj.cpp an entry's gateway set and the
// interface addresses it uses; rt_addr.cpp the gateway addresses, one copy per distinct address;
// gw.cpp the gateway records and their route queues; ptree.cpp the gateways' IPv6 prefix trees.
//
// Each file keeps its own state; they meet only through these functions. Entries and gateways
// live in record arenas (record_arena.h) that never give a gone record's address to another, so
// a stale pointer is told apart by the arena (page returned) or, on a page still held, by the
// record itself: a gone entry's null prefix (rt_head), a gone gateway's magic tag.
// removeEntry is the one way an entry leaves the table (rt_delete, gw_free, an interface address
// that is gone, corvd_reset).
#pragma once

#include <cstddef>
#include <cstdint>

#include "fwk/daemon/prefix_key.h"
#include "fwk/daemon/record_arena.h"
#include "fwk/daemon/rt_table.h"

namespace corvd_rt {

// An IPv6 prefix's head: the common part, then the destination's other three words.
struct rt_head6 : rt_head {
  uint32_t rth_addr_rest[3];
};
static_assert(sizeof(rt_head6) == 32);

// A prefix's index key (tag zero), from its head.
inline Key4 headKey4(const rt_head* h) { return Key4{h->rth_addr, uint32_t{h->rth_plen} << 16}; }
inline Key6 headKey6(const rt_head* h) {
  const auto* h6 = static_cast<const rt_head6*>(h);
  return Key6{{h->rth_addr, h6->rth_addr_rest[0], h6->rth_addr_rest[1], h6->rth_addr_rest[2]},
              h->rth_plen,
              0};
}

constexpr uint32_t GW_LIVE = 0x47574C56;
constexpr uint32_t GW_DEAD = 0xDEAD6A7E;

// rt_table.cpp
// Entry records: a deleted entry's address is never handed out again (record_arena.h), so a stale
// pointer is caught however many entries came and went since. Shared by all instances.
inline RecordArena& entryArena() {
  static RecordArena* arena = new RecordArena(sizeof(rt_entry), std::size_t{16} << 30);
  return *arena;
}
// An index slot's entry as its 32-bit reference in the arena (PrefixIndex's Ref).
struct EntryRef {
  using Stored = uint32_t;
  static Stored to(rt_entry* rt) { return entryArena().refOf(rt); }
  static rt_entry* from(Stored ref) { return static_cast<rt_entry*>(entryArena().at(ref)); }
};
// The prefix key of a live entry, for the IPv6 index's slots, which keep only its hash.
struct EntryKey6 {
  Key6 operator()(const rt_entry* rt) const { return headKey6(rt->rt_head); }
};
// The links of an entry, inside the daemon (rt_entry_next, rt_entry_gw_next for callers).
inline rt_entry* nextOf(const rt_entry* rt) { return EntryRef::from(rt->rt_next_ref); }
inline rt_entry* gwNextOf(const rt_entry* rt) { return EntryRef::from(rt->rt_gw_next_ref); }
// Prefix length of dest/mask, or -1 when they do not form an IPv4/IPv6 prefix.
int prefixLen(const sockaddr_un* dest, const sockaddr_un* mask);
// True for a live entry; otherwise counts a misuse naming `fn` ("null entry" / "entry already
// deleted").
bool entryAlive(const rt_entry* rt, const char* fn);
// The head of the prefix dest/plen (plen from prefixLen), or null when the table has none.
rt_head* findHead(const sockaddr_un* dest, int plen);
// Moves `rt` to its place in selection order after its preference changed, and reselects.
void reorder(rt_entry* rt);
// Unlinks `rt` from its prefix (dropping an empty prefix), its gateway's queue and tree and the
// addresses it uses, and retires it.
void removeEntry(rt_entry* rt);

// rt_adj.cpp
// Replaces the entry's gateway set with shared copies of `routers` (served by `ifaps`, which may
// be null) and enters it on those addresses' route lists. Both may point into the old set.
void setAdj(rt_entry* rt, int n, sockaddr_un* const* routers, if_addr* const* ifaps);
// Leaves the addresses' route lists and frees the gateway set (0 gateways after).
void clearAdj(rt_entry* rt);
// True when the prefix `h` (may be null) holds an entry other than `self` of gateway `gwp` with
// the same gateway addresses in the same order.
bool duplicate(rt_head* h, const rt_entry* self, gw_entry* gwp, int n, sockaddr_un* const* r);
// Checks a gateway list; false (with a misuse naming `fn`) when it cannot be used.
bool gatewaysOk(int n, sockaddr_un* const* routers, if_addr* const* ifaps, const char* fn);
// Sets the entry aside when one of its addresses is down; true when its preference changed.
bool setAsideIfDown(rt_entry* rt);

// gw.cpp
bool gwAlive(const gw_entry* gwp);
// Appends to / removes from the route queue of the entry's gateway.
void gwQueueAppend(rt_entry* rt);
void gwQueueRemove(rt_entry* rt);
// Removes every live gateway's entries, releases the gateways' addresses and forgets all
// gateway records. For rt_table_reset only.
void gwReset();

// rt_addr.cpp
// The shared copy of a gateway address (sa_plen set to SA_PLEN_NONE), with one more user.
sockaddr_un* addrShare(const sockaddr_un& addr);
// A one-element array holding a copy addrShare returned, valid while the copy is.
sockaddr_un** addrSlot(sockaddr_un* addr);
// One user fewer of a copy addrShare returned; the last one frees it.
void addrUnshare(sockaddr_un* addr);

// ptree.cpp
// Enters a new IPv6 entry in its gateway's tree when the gateway has none for the prefix.
void ptreeEntryAdded(rt_entry* rt);
// An IPv6 entry already unlinked from its prefix `h` leaves its gateway's tree; the gateway's
// next entry of the prefix in selection order takes its place.
void ptreeEntryRemoved(rt_entry* rt, rt_head* h);
// Drops a retired gateway's tree / every tree.
void ptreeFree(gw_entry* gwp);
void ptreeReset();

}  // namespace corvd_rt
