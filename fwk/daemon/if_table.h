// The in-memory corvd's interface table: links by kernel ifIndex, their interface addresses,
// the lookup of the address serving a destination, and the address-change reports.
//
// Changes (if_conf_addlink/dellink/addaddr/deladdr) are made only inside one
// if_conf_open/if_conf_close bracket; outside it, or with a nested or unbalanced bracket, the
// call is refused and counted as a misuse. The tables change at once; the address-change
// reports that a change causes are queued and delivered to every task's hook by if_conf_close,
// after the bracket is closed.
//
// Daemon choices, kept consistent everywhere:
//  - An address is identified on its link by its local address. Adding it again refreshes it;
//    a new netmask or peer is a subnet change (IFC_NETMASK).
//  - An address is up (IFS_UP in its ifi_state) exactly when its link is up; the UP bit of a
//    request is ignored. IFS_POINTOPOINT/IFS_LOOPBACK/IFS_BROADCAST of the link are or-ed into
//    its addresses' state as well as those given in the request.
//  - An address with a zero-length netmask has no subnet: it serves only its own address (the
//    loopback's ::1, entered with length 0, does not capture every IPv6 destination).
//  - if_withdst serves only up addresses. Point-to-point addresses match their peer (as a host
//    route) and their own subnet; among several matches the longest prefix wins, then the
//    address added first. A refresh never changes an address's place in that order (its
//    ifa_seq is kept, also when it is re-indexed under a new netmask or peer); only removing
//    it and adding it again makes it the newest.
//  - if_withdstaddr prefers an up address whose local or peer address equals the given address,
//    then behaves as if_withdst.
//  - The ifi_netmask kept is always the shared mask (see sockaddr.h); ifi_addr_remote is the
//    request's remote, or a copy of the local one when the request names none (also on a
//    point-to-point link whose peer the caller does not know: the address is its own peer). A
//    remote of the other family is refused as a misuse.
//  - A removed address (deladdr, dellink) stays readable until its report has been delivered by
//    if_conf_close; routes still using it afterwards are deleted (a route never outlives the
//    interface address it uses). Routes through an address that goes down are set aside
//    (negative preference) before the report; after an up report the daemon restores those the
//    tasks left set aside.
// A caller must not keep if_link / if_addr pointers across a bracket that deletes them, must not
// modify the records (read only), and must hand over only sockdup copies in requests.
#pragma once

#include <cstddef>
#include <cstdint>

#include "fwk/daemon/sockaddr.h"
#include "fwk/daemon/task.h"

typedef uint32_t flag_t;
typedef uint32_t metric_t;
typedef uint32_t mtu_t;

// State bits of ifl_state and ifi_state.
constexpr flag_t IFS_UP = 0x1;              // link / address is up
constexpr flag_t IFS_BROADCAST = 0x2;       // broadcast capable
constexpr flag_t IFS_POINTOPOINT = 0x4;     // point-to-point: ifi_addr_remote is the peer
constexpr flag_t IFS_LOOPBACK = 0x8;        // loopback device
constexpr flag_t IFS_MULTICAST = 0x10;      // multicast capable
constexpr flag_t IFS_LINKLOCAL = 0x20;      // IPv6 link-local address (set in a request)
constexpr flag_t IFS_RUNNING = 0x40;        // kernel reports the device running
constexpr flag_t IFS_NOAGE = 0x800000;      // kept across kernel rescans (stored only)
constexpr flag_t IFS_EXTERNAL = 0x8000000;  // entered by a task, not the kernel (stored only)

// Kernel device flags understood by krt_if_flags.
constexpr uint32_t KERNEL_IFF_UP = 0x1;
constexpr uint32_t KERNEL_IFF_BROADCAST = 0x2;
constexpr uint32_t KERNEL_IFF_LOOPBACK = 0x8;
constexpr uint32_t KERNEL_IFF_POINTOPOINT = 0x10;
constexpr uint32_t KERNEL_IFF_RUNNING = 0x40;
constexpr uint32_t KERNEL_IFF_MULTICAST = 0x1000;

// ifa_change codes, combined as bits. What a task sees:
//   IFC_ADD (0x2)                    new address; interesting only when it is up
//   IFC_UPDOWN (0x100)               state flipped; IFS_UP of ifi_state tells which way
//   IFC_DELETE|IFC_UPDOWN (0x104)    an up address was removed: it went down for good
//   IFC_DELETE (0x4)                 an address that was already down was removed
//   IFC_NETMASK (0x200)              netmask or peer changed on an existing address
//   IFC_NOCHANGE (0)                 never reported
constexpr int IFC_NOCHANGE = 0x0;
constexpr int IFC_ADD = 0x2;
constexpr int IFC_DELETE = 0x4;
constexpr int IFC_UPDOWN = 0x100;
constexpr int IFC_NETMASK = 0x200;

struct _if_addr;
struct _if_link;
struct rt_ref_list;  // routes using an address; owned by the routing table

// Address description; also the request record of if_conf_addaddr / if_conf_deladdr.
typedef struct _if_info {
  void* ifi_u;                      // daemon list member; zero in a request
  void* ifi_plink;                  // daemon list member; zero in a request
  void* ifi_ulink;                  // daemon list member; zero in a request
  void* ifi_llink;                  // daemon list member; zero in a request
  void* ifi_blink;                  // daemon list member; zero in a request
  flag_t ifi_state;                 // IFS_* bits
  flag_t ifi_rtflags;               // route flags for routes of this address (stored only)
  metric_t ifi_metric;              // metric
  mtu_t ifi_mtu;                    // MTU; the link's when zero
  unsigned ifi_alias_idx;           // alias number on the link (stored only)
  struct _if_link* ifi_link;        // owning link; in a request, the link to change
  sockaddr_un* ifi_addr_local;      // local address (sockdup copy in a request)
  sockaddr_un* ifi_addr_remote;     // peer when point-to-point, else remote/subnet address
  sockaddr_un* ifi_addr_broadcast;  // broadcast address or null
  sockaddr_un* ifi_netmask;         // subnet mask; kept as the shared mask
} if_info;

// One address of a link.
typedef struct _if_addr {
  if_info ifa_info;           // the address; ifi_* pointers owned by the daemon
  int ifa_change;             // IFC_* code of the report being delivered
  struct _if_addr* ifa_next;  // next address of the same link (add order), or null
  struct _if_addr* ifa_prev;  // previous one, or null
  uint32_t ifa_magic;         // daemon liveness tag
  uint32_t ifa_pending;       // reports queued for this address
  uint64_t ifa_seq;           // add order, ties in if_withdst
  rt_ref_list* ifa_routes;    // routes whose adjacency uses this address
  struct _if_addr* ifa_self;  // this address: the adj_ifaps of a one-gateway route through it
} if_addr;

// A link's address list, in add order: for (if_addr* a = set.ias_first; a; a = a->ifa_next).
typedef struct _if_addr_set {
  if_addr* ias_first;     // first address or null
  if_addr* ias_last;      // last address or null
  std::size_t ias_count;  // number of addresses
} if_addr_set;

typedef struct _if_link {
  unsigned long ifl_index;   // kernel ifIndex (key of the table)
  char ifl_name[17];         // device name, NUL terminated, truncated to 16 bytes
  flag_t ifl_state;          // IFS_* bits
  metric_t ifl_metric;       // metric
  mtu_t ifl_mtu;             // MTU
  sockaddr_un* ifl_lladdr;   // copy of the link-layer address, or null
  if_addr_set ifl_addr_set;  // the link's addresses
  uint32_t ifl_magic;        // daemon liveness tag
} if_link;

// Brackets. `flags` is accepted as given (0 to open, 1 to close in the module).
void if_conf_open(task* tp, int flags);
void if_conf_close(task* tp, int flags);

// Creates the link `ifindex`, or refreshes `existing` (or the link already holding `ifindex`).
// The name is copied (at most `namelen` bytes, at most 16); `lladdr` (a temporary is fine) is
// copied. A change of IFS_UP reports IFC_UPDOWN for every address. Returns the link, or null
// when refused.
if_link* if_conf_addlink(task* tp, if_link* existing, unsigned long ifindex, flag_t state,
                         metric_t metric, mtu_t mtu, const char* name, int namelen,
                         sockaddr_un* lladdr);
// Removes the link and its addresses (each reports IFC_DELETE, with IFC_UPDOWN when up).
// A name the link held before an if_conf_addlink refresh renamed it names a device that had
// the index before: nothing is removed, once per such name (the loopback can take over a
// device's link before that device's deletion is applied). Any other name that does not match
// the link's is a misuse, and nothing is removed.
void if_conf_dellink(task* tp, unsigned long ifindex, const char* name);
// Adds or refreshes the address of `ifi->ifi_link` named by `ifi->ifi_addr_local`. Takes over
// the request's sockdup copies (also when refused, so nothing leaks). Returns the address or
// null.
if_addr* if_conf_addaddr(task* tp, if_info* ifi);
// Removes the address of `ifi->ifi_link` whose local address equals the request's (netmask and
// other fields are not compared). Takes over and frees the request's copies.
void if_conf_deladdr(task* tp, if_info* ifi);

// The link with that index, or null.
if_link* ifl_locate_index(unsigned long ifindex);
// The daemon's IFS_* bits for kernel device flags.
flag_t krt_if_flags(uint32_t kernel_flags);

// Longest-match lookups, see above; null when no up address serves `addr`.
if_addr* if_withdst(const sockaddr_un* addr);
if_addr* if_withdstaddr(const sockaddr_un* addr);

// True while `ifap` is an address of the table and not being removed (its removal report
// may still be under way).
bool if_addr_alive(const if_addr* ifap);
// Number of links and of addresses.
std::size_t if_link_count();
std::size_t if_addr_count();
// Visits every link in ifIndex order.
void if_link_walk(void (*fn)(if_link*, void*), void* arg);
// Frees every link and address without reports. For corvd_reset only, which deletes the routes
// first; entries still using an address forget it (rt_ifa_forget), and no address's
// route-reference list outlives it.
void if_table_reset();
