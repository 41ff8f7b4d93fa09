// What a host does to the daemon's interface table on the kernel's behalf: enter a link, give it
// addresses, take them away. Each call is one complete if_conf_open/if_conf_close bracket built
// the way a well-behaved caller builds it (requests hold sockdup copies), so the address-change
// reports of the change are delivered before the call returns.
// Addresses are given as daemon socket addresses (temporaries from sockbuild_* are fine: they
// are copied before the next build). Prefix lengths index the family's shared masks.
#pragma once

#include "fwk/daemon/if_table.h"
#include "fwk/daemon/sockaddr.h"

// Creates or refreshes the link `index` named `name`, up or down (IFS_UP), with extra IFS_* bits.
if_link* corvd_host_link(unsigned long index, const char* name, bool up, flag_t extra = 0);
// Adds or refreshes `local`/`len` on link `index`, with `peer` as the remote address of a
// point-to-point address (its IFS_POINTOPOINT bit is set then). Null when refused.
if_addr* corvd_host_addr(unsigned long index, const sockaddr_un* local, int len,
                         const sockaddr_un* peer = nullptr);
// Removes the address of link `index` whose local address is `local`.
void corvd_host_addr_del(unsigned long index, const sockaddr_un* local);
// Removes link `index` with its addresses.
void corvd_host_link_del(unsigned long index);
