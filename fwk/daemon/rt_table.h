// The in-memory corvd's routing table: prefixes (rt_head) holding entries (rt_entry), one per
// protocol gateway (gw_entry, gw.h) and gateway set. The gateway records are in gw.h, their IPv6
// prefix trees in ptree.h.
//
// Selection: the entries of a prefix are kept on the head's list in selection order: entries
// with a non-negative preference first, lowest preference first, ties in add order, then the
// entries set aside (negative preference) in add order. The first entry, when its preference
// is not negative, is the active one (rt_head_active, RTS_ACTIVE in its rt_state).
// Set aside: an entry whose adjacency uses an interface address that is down gets its
// preference negated (0 becomes -1) and RTS_SETASIDE; when all its addresses are up again the
// daemon restores it (unless its owner already did, with rt_change_s).
// Uniqueness: a prefix holds at most one entry per gateway (gw_entry) and gateway set (the same
// gateway addresses in the same order), and at most RTH_MAX_ENTRIES entries. rt_add /
// rt_change_s that would break it are refused by their result (null, nothing changed) and are not
// a misuse: holding the entry already is a state of the table, not a breach of the calling
// contract.
// Misuse: only a breach of the calling contract is counted (a change outside the bracket, null
// parameters, a recycled temporary, a destination and mask that form no prefix, a gateway that
// is not live, a bad gateway list, an entry that is gone); the call then does nothing.
// Brackets: rt_add, rt_change_s and rt_delete only between rt_open and rt_close; lookups may be
// made anywhere. Outside the bracket the change is refused and counted as a misuse.
// Ownership: the daemon copies what it keeps of rt_parms / rt_change_parms (addresses may be
// temporaries). rt_entry, rt_head and gw_entry records are the daemon's; read only for callers.
// A deleted entry's address is never given to another entry (record_arena.h: not before several
// hundred million entries were added), so a later rt_change_s / rt_delete / ptree call on it is
// reported as a misuse and can never hit an unrelated live entry; its memory comes back once the
// other entries of its page are gone too. Do not read a deleted entry: its page may be returned.
#pragma once

#include <cstddef>
#include <cstdint>

#include "fwk/daemon/gw.h"
#include "fwk/daemon/if_table.h"
#include "fwk/daemon/ptree.h"
#include "fwk/daemon/sockaddr.h"
#include "fwk/daemon/task.h"

constexpr int RT_N_MULTIPATH = 128;             // most gateways per entry (size of rtp_routers)
constexpr uint32_t RTH_MAX_ENTRIES = 0x7FFFFF;  // most entries per prefix

// rt_state bits kept by the daemon (others are stored as given).
constexpr uint64_t RTS_ACTIVE = 0x1;                    // the prefix's selected entry
constexpr uint64_t RTS_GATEWAY = 0x10;                  // routed through a gateway (set by callers)
constexpr uint64_t RTS_SETASIDE = 0x100000000ull;       // preference negated by the daemon
constexpr uint64_t RTS_SETASIDE_ZERO = 0x200000000ull;  // ... and it was 0 before
constexpr uint64_t RTS_EXTRA = 0x400000000ull;          // a second preference or metric is kept
constexpr uint64_t RTS_PTREE = 0x800000000ull;          // held by its gateway's IPv6 prefix tree

// Flags or-ed by callers into every new route's state; the daemon never changes it.
struct rt_rib {
  uint64_t rib_state;  // route state bits for new routes (0 here)
};
extern rt_rib rib;

// Gateway set of an entry: adj_n_gw parallel entries. A set of one gateway needs no block of its
// own: adj_routers points at the shared address's slot holding that address, adj_ifaps at the
// interface address's own slot (ifa_self) or at a null one. Read through both; never write.
typedef struct _rt_adjacency {
  int adj_n_gw;               // number of gateways (0 for a blackhole)
  uint32_t adj_pos1;          // daemon bookkeeping (the one gateway's place on its address's list)
  sockaddr_un** adj_routers;  // gateway addresses (daemon copies, shared by equal addresses)
  if_addr** adj_ifaps;        // interface address per gateway (may be null)
} rt_adjacency;

struct _rt_head;

// 72 bytes. A gone entry keeps its record (record_arena.h) with rt_head null, which is what tells
// it from a live one on a page still held. The second preference and the metric, which the
// daemon only stores, are kept beside the entry when not zero (rt_entry_preference2,
// rt_entry_metric): a full table's entries all have zero there. The list links are 32-bit
// references to other entries; rt_entry_next and rt_entry_gw_next follow them.
typedef struct _rt_entry {
  struct _rt_head* rt_head;  // the prefix; null once the entry is gone
  gw_entry* rt_gwp;          // owning gateway (protocol)
  uint64_t rt_state;         // RTS_* bits plus the caller's rtp_state
  int32_t rt_preference;     // preference; negative = set aside
  uint32_t rt_tag;           // route tag
  uint32_t rt_next_ref;      // daemon bookkeeping (the next entry of the prefix: rt_entry_next)
  uint32_t rt_gw_next_ref;   // daemon bookkeeping (the next on the route queue: rt_entry_gw_next)
  uint32_t rt_gw_prev;       // daemon bookkeeping (the previous entry on the route queue)
  uint32_t rt_seq;           // add order among the entries of its prefix
  rt_adjacency rt_adj;       // gateways
} rt_entry;
static_assert(sizeof(rt_entry) == 72);

// The next entry of the prefix in selection order, or null.
rt_entry* rt_entry_next(const rt_entry* rt);
// The next entry on the gateway's route queue (gw_rt_first, add order), or null.
rt_entry* rt_entry_gw_next(const rt_entry* rt);

// What rt_add stored of rtp_preference2 and rtp_metric.
int32_t rt_entry_preference2(const rt_entry* rt);
uint32_t rt_entry_metric(const rt_entry* rt);

// All entries of a prefix: for (rt_entry* rt = rth->rth_routes; rt; rt = rt_entry_next(rt)).
// The destination is kept as its masked address words, not as a socket address: rt_head_dest
// builds one, rt_head_mask gives the shared mask of its length. 16 bytes an IPv4 prefix, 32 an
// IPv6 one (its further address words follow, in a larger record).
typedef struct _rt_head {
  rt_entry* rth_routes;         // first entry in selection order
  uint32_t rth_n_entries : 23;  // entries on the list, at most RTH_MAX_ENTRIES
  uint32_t rth_inet6 : 1;       // an IPv6 prefix (else IPv4)
  uint8_t rth_plen;             // prefix length (in the count's last byte)
  uint32_t rth_addr;            // the destination's first address word, as its bytes read
} rt_head;
static_assert(sizeof(rt_head) == 16);

// The destination (host bits cleared) as a socket address of the prefix's family.
sockaddr_un rt_head_dest(const rt_head* h);
// The prefix's mask: the shared mask of its family and length.
inline sockaddr_un* rt_head_mask(const rt_head* h) {
  return sock_mask_by_len(h->rth_inet6 ? SA_FAMILY_INET6 : SA_FAMILY_INET, h->rth_plen);
}

// The active entry of a prefix (the first in selection order unless it is set aside), or null.
inline rt_entry* rt_head_active(const rt_head* h) {
  rt_entry* first = h->rth_routes;
  return first && first->rt_preference >= 0 ? first : nullptr;
}

typedef struct _rt_parms {
  sockaddr_un* rtp_dest;                     // destination (temporaries fine)
  sockaddr_un* rtp_dest_mask;                // mask (contiguous)
  int rtp_n_gw;                              // gateways in rtp_routers, 0..RT_N_MULTIPATH
  gw_entry* rtp_gwp;                         // owning gateway
  uint64_t rtp_state;                        // state bits kept on the entry
  int32_t rtp_preference;                    // preference
  int32_t rtp_preference2;                   // second preference
  uint32_t rtp_metric;                       // metric
  uint32_t rtp_tag;                          // tag
  sockaddr_un* rtp_routers[RT_N_MULTIPATH];  // gateway addresses
} rt_parms;

typedef struct _rt_change_parms {
  int32_t rtcp_preference;     // new preference
  int rtcp_n_gw;               // new number of gateways
  sockaddr_un** rtcp_gateway;  // rtcp_n_gw gateway addresses
  if_addr** rtcp_ifaps;        // parallel interface addresses
} rt_change_parms;

// Route bits: the protocols rt_locate accepts.
constexpr int RT_BITS_MAX = 8;
typedef struct _rt_bits {
  int rtb_n;                        // protocols listed
  uint16_t rtb_proto[RT_BITS_MAX];  // protocol numbers
} rt_bits;

void rt_open(task* tp);
// `flags`, `count` and `more` are accepted as given; the bracket of `tp` ends.
void rt_close(task* tp, int flags, int count, int more);

// New entry for rtp_dest/rtp_dest_mask owned by rtp_gwp with rtp_n_gw gateways
// (rtp_routers[j] served by ifaps[j]); null when refused or failing. The host bits of the
// destination are cleared. When the prefix already holds an entry of rtp_gwp with the same
// gateway addresses in the same order (a blackhole added again, say), the result is null, the
// existing entry is left as it is, and no misuse is counted.
rt_entry* rt_add(rt_parms* rtp, if_addr** ifaps);
// Changes preference and gateways in place: the same pointer, or null when refused or failing
// (then nothing changed); a gateway set that another entry of the same gateway under the prefix
// has already is refused this way, without a misuse. The new preference replaces a set-aside one
// (RTS_SETASIDE is cleared); it is set aside again at once if one of the new addresses is down.
rt_entry* rt_change_s(rt_entry* rt, rt_change_parms* rtcp);
// Removes the entry (and its prefix when it was the last one).
void rt_delete(rt_entry* rt);

// The first entry in selection order of that prefix whose gateway's protocol is in `bits`;
// `state` selects nothing here. Null when none. When that is the prefix's first entry the answer
// comes from the prefix index alone, without reading the head or the entry.
rt_entry* rt_locate(uint64_t state, const sockaddr_un* dest, const sockaddr_un* mask,
                    const rt_bits* bits);
// The prefix dest/mask; null when the table holds none or dest/mask do not form a prefix.
rt_head* rt_table_locate(const sockaddr_un* dest, const sockaddr_un* mask);
// Fills `bits` with `n` protocol numbers given as further int arguments.
void rt_make_bits(rt_bits* bits, int n, ...);

// 1 when the destination is acceptable to the kernel side: IPv4 or IPv6, contiguous mask, no
// host bits beyond the mask, not multicast, not loopback (127/8, ::1).
int krt_addrcheck(const rt_parms* rtp);

// Counts and walks for inspection.
std::size_t rt_head_count();
std::size_t rt_entry_count();
// Bytes of the pages holding entry and gateway records (kept outside the heap, see gw.h).
std::size_t rt_record_bytes();
// Visits every prefix: IPv4 before IPv6, by address then prefix length.
void rt_head_walk(void (*fn)(rt_head*, void*), void* arg);
// Visits every prefix in storage order, without sorting: O(prefixes), for callers that need no
// order. `fn` must not add or delete prefixes.
void rt_head_visit(void (*fn)(rt_head*, void*), void* arg);
// True while `rt` is an entry of the table (any pointer may be asked, a stale one included).
bool rt_entry_alive(const rt_entry* rt);
// Pages of memory held for entry records (of every instance): for leak tests.
std::size_t rt_record_pages();
// Route-reference lists alive in the process (one per interface address that entries use).
std::size_t rt_ref_list_count();
// Distinct gateway addresses held by entries (of every instance); entries through the same
// address share one copy.
std::size_t rt_gateway_addr_count();

// Interface-table hooks (called by the interface table only).
void rt_ifa_down(if_addr* ifap);     // set aside the entries using ifap
void rt_ifa_restore(if_addr* ifap);  // restore entries whose addresses are all up again
void rt_ifa_gone(if_addr* ifap);     // delete the entries still using ifap
// The record of ifap is about to be freed without rt_ifa_gone (if_table_reset with entries
// left, a table destroyed at exit): the entries using it forget it (their adj_ifaps become
// null) and its route-reference list is freed.
void rt_ifa_forget(if_addr* ifap);
// Frees everything without checks. For corvd_reset only.
void rt_table_reset();
