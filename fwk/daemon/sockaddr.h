// Socket addresses of the in-memory corvd: the address union, the temporaries that
// sockbuild_* hands out, lasting copies (sockdup) and the shared prefix masks.
//
// Ownership:
//  - sockbuild_in / sockbuild_in6 / sockbuild_ll return a temporary from a rotating pool of
//    SOCK_POOL_LIVE live slots. The (SOCK_POOL_LIVE+1)-th later build recycles it: the slot is
//    poisoned, and any daemon function handed a recycled temporary counts a misuse and refuses
//    the call. A temporary must never be stored; sockdup makes the only copy that lasts.
//    (Detection is by slot: a pointer kept for a whole turn of the pool's SOCK_POOL_RING slots
//    looks live again and is not caught.) The predicates sock_is_temporary and
//    sock_is_shared_mask only classify a pointer and count nothing.
//  - A link-layer record is read up to SA_LL_MAXLEN bytes of sll_addr whatever its sll_alen
//    says (a hand-built record may claim more); sockaddr_equal also compares sll_alen.
//  - sockdup returns a lasting copy. It floats until it is handed over in an interface request
//    (if_conf_addaddr / if_conf_deladdr take it over) or released with sockfree; corvd_reset
//    releases whatever still floats.
//  - Masks (sockaddr_sock_info[family]->si_mask_list[len], inet_prefix_mask_locate_internal,
//    inet6_prefix_mask_locate_internal) are shared static objects: never free or modify them.
// Families: SA_FAMILY_INET (2), SA_FAMILY_INET6 (10), SA_FAMILY_LINK (17). All addresses are
// kept in network byte order.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr uint8_t SA_FAMILY_UNSPEC = 0;
constexpr uint8_t SA_FAMILY_INET = 2;
constexpr uint8_t SA_FAMILY_INET6 = 10;
constexpr uint8_t SA_FAMILY_LINK = 17;
constexpr uint8_t SA_FAMILY_POISON = 0xEE;  // written into a recycled temporary
constexpr int SA_FAMILY_LIMIT = 32;         // size of sockaddr_sock_info
constexpr uint8_t SA_LL_MAXLEN = 20;        // longest link-layer address kept
constexpr uint8_t SA_PLEN_NONE = 0xFF;      // sa_plen of an address that is not a shared mask

constexpr int SOCK_POOL_LIVE = 8;    // temporaries usable at one time
constexpr int SOCK_POOL_RING = 256;  // physical slots; a recycled slot stays poisoned this long

struct sockaddr_un {
  uint8_t sa_len;     // bytes of the family's member that are meaningful
  uint8_t sa_family;  // SA_FAMILY_*
  uint8_t sa_plen;    // prefix length for shared masks, SA_PLEN_NONE otherwise
  uint8_t sa_spare;   // zero
  union {
    struct {
      uint16_t sin_port;  // network order, always 0 here
      uint16_t sin_pad;   // zero
      uint32_t sin_addr;  // IPv4 address, network order
    } a_in;
    struct {
      uint16_t sin6_port;     // network order, always 0 here
      uint16_t sin6_pad;      // zero
      uint8_t sin6_addr[16];  // IPv6 address bytes
    } a_in6;
    struct {
      uint8_t sll_type;                // link type code given to sockbuild_ll
      uint8_t sll_alen;                // number of bytes in sll_addr
      uint8_t sll_addr[SA_LL_MAXLEN];  // link-layer address
    } a_ll;
  };
};

// Per-family socket information: the shared masks by prefix length.
struct sock_info {
  uint8_t si_family;           // SA_FAMILY_* the masks belong to
  int si_max_len;              // longest prefix length; si_mask_list has si_max_len + 1 entries
  sockaddr_un** si_mask_list;  // si_mask_list[len] is the shared mask of that prefix length
};

// Indexed by family: non-null for SA_FAMILY_INET (0..32) and SA_FAMILY_INET6 (0..128).
extern sock_info* sockaddr_sock_info[SA_FAMILY_LIMIT];
// Fallback for a family without masks: only the zero-length mask (family SA_FAMILY_UNSPEC).
extern sock_info zero_info;

// Temporaries (see above). `port` is in host order and is kept in network order.
sockaddr_un* sockbuild_in(uint16_t port, uint32_t addr_network_order);
sockaddr_un* sockbuild_in6(uint16_t port, const uint8_t* bytes16);
sockaddr_un* sockbuild_ll(uint8_t type, const uint8_t* bytes, int len);

// Lasting copy of `addr` (a temporary, a mask or another copy); null stays null.
sockaddr_un* sockdup(const sockaddr_un* addr);
// Releases a floating sockdup copy. Anything else (a temporary, a mask, a copy already
// handed over or released) is a misuse and is left alone.
void sockfree(sockaddr_un* addr);
// Masks `addr` in place with `mask` (same family); a mismatch is a misuse.
void sockmask(sockaddr_un* addr, const sockaddr_un* mask);

// Nonzero when `mask` is contiguous (ones then zeros); a null mask is not.
int mask_contig(const sockaddr_un* mask);
// The shared mask equal to `mask`, or null when it is not a contiguous mask of that family.
sockaddr_un* inet_prefix_mask_locate_internal(const sockaddr_un* mask);
sockaddr_un* inet6_prefix_mask_locate_internal(const sockaddr_un* mask);
// Prefix length of a contiguous mask (shared or not), -1 otherwise.
int sock_mask_len(const sockaddr_un* mask);
// Shared mask of `family` for `len`: sockaddr_sock_info, falling back to zero_info; null when
// `len` is out of range.
sockaddr_un* sock_mask_by_len(uint8_t family, int len);

// Equality of family and address bytes (port and sa_plen ignored); null equals only null; a
// recycled temporary equals nothing (a misuse).
bool sockaddr_equal(const sockaddr_un* a, const sockaddr_un* b);
// Address bytes and their count (4, 16 or the link-layer length); null for other families.
const uint8_t* sockaddr_bytes(const sockaddr_un* addr, int* len);
// Text form: "10.1.2.3", "fe80::1"; a link-layer address as "ll:" and its type code in decimal,
// then "/" before the first byte and ":" between bytes in two-digit hex ("ll:2/00:11:22:33:44:55",
// "ll:0" when it has no bytes); "family<n>" for another family; "-" for null; "" for a recycled
// temporary (a misuse). Text longer than `size` is cut, except an IP address, which then gives
// "". A buffer of size 0 is left untouched.
void sockaddr_format(const sockaddr_un* addr, char* buf, std::size_t size);

// Daemon-internal checks used by the table functions.
enum class SockUse { ok, recycled, notLasting };
bool sock_is_temporary(const sockaddr_un* addr);  // points into the pool ring
bool sock_is_shared_mask(const sockaddr_un* addr);
// Counts a misuse naming `fn` and returns false when `addr` is a recycled temporary.
bool sock_check_usable(const sockaddr_un* addr, const char* fn);
// Takes over a floating sockdup copy (or accepts a shared mask): true when it may be stored.
// A temporary, a copy already taken or freed, or a foreign pointer counts a misuse.
bool sock_take_over(sockaddr_un* addr, const char* fn);
// Releases a copy taken over earlier; shared masks and null are ignored.
void sock_release(sockaddr_un* addr);
// Empties the pool and releases every copy (floating or taken over). For corvd_reset only.
void sock_reset();
// Number of lasting copies alive (floating plus taken over).
std::size_t sock_live_copies();
