// Gateway records of the in-memory corvd: one gw_entry per protocol (and peer) that owns routes,
// with the queue of its routing-table entries in add order and its IPv6 prefix tree.
//
// Lifetime: gw_init / gw_alloc hand out records that the daemon owns; gw_free deletes the
// gateway's remaining entries (also outside an rt_open/rt_close bracket), unlinks it from the
// gw_list it was pushed on and retires it. As no entry refers to it any more, its record is
// reclaimed at once, but its address is never given to another gateway (record_arena.h: not
// before millions of gateways were made), so freeing it again, or adding a route through it, is
// still caught as a misuse. Do not read a freed gateway: its memory may be returned.
// corvd_reset frees them all.
// Read only for callers: the route queue and the tree are kept by the routing table, and gw_proto
// must not change while the gateway owns entries (the table's index keeps a copy of it); a
// gateway from gw_alloc is filled in before its first route.
#pragma once

#include <cstddef>
#include <cstdint>

#include "fwk/daemon/if_table.h"
#include "fwk/daemon/sockaddr.h"
#include "fwk/daemon/task.h"

struct _rt_entry;
struct ptree;  // per-gateway prefix tree of IPv6 routes (ptree.h)

typedef struct _gw_entry {
  struct _gw_entry* gw_next;      // next gateway of the same gw_list, or null
  uint16_t gw_proto;              // protocol number
  task* gw_task;                  // owning task
  uint32_t gw_peer_as;            // peer AS
  uint32_t gw_local_as;           // local AS
  sockaddr_un* gw_addr;           // copy of the gateway's address, or null
  flag_t gw_flags;                // flags given to gw_init
  struct _rt_entry* gw_rt_first;  // route queue: the gateway's entries in add order
  struct _rt_entry* gw_rt_last;   // last entry of the route queue
  std::size_t gw_n_routes;        // entries on the route queue
  ptree* gw_ptree;                // the gateway's IPv6 entries by prefix (lazily created)
  uint32_t gw_magic;              // daemon liveness tag
} gw_entry;
typedef gw_entry* gw_list;

// gw_init allocates, fills and pushes the new gateway onto *list (when list is not null); `addr`
// (a temporary is fine) is copied. Null when `addr` is a recycled temporary.
gw_entry* gw_init(gw_list* list, uint16_t proto, task* tp, uint32_t peer_as, uint32_t local_as,
                  sockaddr_un* addr, flag_t flags);
// A blank gateway (protocol 0) on no list.
gw_entry* gw_alloc();
// Deletes the gateway's remaining entries, unlinks it and retires it; freeing it twice (or a
// null gateway) is a misuse.
void gw_free(gw_entry* gwp);
// Live gateways of the current instance, and pages of memory held for gateway records (of every
// instance): for leak tests.
std::size_t gw_count();
std::size_t gw_record_pages();
