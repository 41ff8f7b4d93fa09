// A gateway's prefix tree of IPv6 routes: for each IPv6 prefix where the gateway owns entries, one
// of them (exact prefix match, no longest-match search).
//
// The daemon keeps every gateway's tree in step: rt_add enters a new IPv6 entry when its gateway
// has none for the prefix yet; when the entry held is deleted, the gateway's next entry of the
// prefix in selection order takes its place. rt_change_s leaves the tree alone. ptree_insert and
// ptree_remove are for a caller's own bookkeeping on top of that (an entry moving between gateway
// queues); the tree belongs to the gateway (gw_ptree, created with its first IPv6 entry, gone with
// gw_free), so a caller must not keep the pointer across gw_free. The gateway's own entry held for
// a prefix carries RTS_PTREE in its rt_state.
#pragma once

struct ptree;
struct sockaddr_un;
typedef struct _rt_entry rt_entry;

// The entry held for dest/mask; null when none, when `tree` is null or when dest/mask is not an
// IPv6 prefix.
rt_entry* ptree_find(ptree* tree, const sockaddr_un* dest, const sockaddr_un* mask);
// 1 when `rt` (a live IPv6 entry) was entered; 0 when the tree already holds an entry for its
// prefix, or for a null tree, a deleted entry (a misuse) or an IPv4 entry.
int ptree_insert(ptree* tree, rt_entry* rt);
// 1 when `rt` was the entry held for its prefix and is removed; 0 otherwise (a deleted entry is
// also a misuse).
int ptree_remove(ptree* tree, rt_entry* rt);
