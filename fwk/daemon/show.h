// Text and JSON views of the in-memory corvd's tables, for tests, the host program and people.
//
// The forms are stable: links in ifIndex order with their addresses in add order; prefixes
// IPv4 first, by address then length, with entries in selection order. Equal tables print
// equal text. Nothing here changes the tables or the counters.
#pragma once

#include <string>

// One line per link ("link <index> <name> mtu <mtu> metric <m> state <flags> ll <addr>"), then
// one indented line per address ("  inet <local>/<len> peer <remote> state <flags>").
std::string corvd_show_interfaces();
// One line per prefix ("<dest>/<len>"), then per entry
// ("  <*| > proto <p> pref <pref> tag <tag> via <gw> dev <link name>[, ...]"); '*' marks the
// active entry; "blackhole" when the entry has no gateway.
std::string corvd_show_routes();
// {"links":[...],"routes":[...],"misuse":[...],"calls":{...}}
std::string corvd_json();
// Space-separated names of the IFS_* bits set in `state` ("up p2p ..."), "-" when none.
std::string corvd_state_names(unsigned state);
