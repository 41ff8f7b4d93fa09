// An rtnetlink socket opened inside a named network namespace, on libmnl.
//
// The socket is made after entering /run/netns/NAME with setns(2), and the thread goes back to
// its own namespace before the constructor returns: a socket stays in the namespace it was made
// in, so everything sent or received through it concerns that namespace only. Errors are thrown
// as NetlinkError with a message for people: a missing namespace, a missing capability (named),
// or the failing call with its errno text. The socket is non-blocking; receive() says whether
// messages were handled, nothing was waiting, or the kernel dropped messages (an overrun: the
// caller must resynchronise by dumping again). Single-threaded.
#pragma once

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace CorvdSim {

class NetlinkError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Opens /run/netns/NAME; throws NetlinkError naming it when it is missing or unreadable.
int openNetns(const std::string& netns);

// Runs `fn` inside `netns` and returns to the caller's namespace; throws NetlinkError when the
// namespace cannot be entered (CAP_SYS_ADMIN is needed).
void inNetns(const std::string& netns, const std::function<void()>& fn);

// An attribute table filled by mnl_attr_parse and its relatives (pass Attrs<MAX>::collect and
// the table): tb[type] is the last attribute of that type, null when absent or above MAX.
template <int N>
struct Attrs {
  const nlattr* tb[N + 1] = {};
  static int collect(const nlattr* a, void* data) {
    if (mnl_attr_type_valid(a, N) > 0) static_cast<Attrs*>(data)->tb[mnl_attr_get_type(a)] = a;
    return MNL_CB_OK;
  }
  const nlattr* operator[](int type) const { return tb[type]; }
};

// The attribute's value when it is present and well formed, `dflt` (or "") otherwise.
inline std::uint32_t attrU32(const nlattr* a, std::uint32_t dflt) {
  return a && mnl_attr_validate(a, MNL_TYPE_U32) == 0 ? mnl_attr_get_u32(a) : dflt;
}
inline std::uint8_t attrU8(const nlattr* a, std::uint8_t dflt) {
  return a && mnl_attr_validate(a, MNL_TYPE_U8) == 0 ? mnl_attr_get_u8(a) : dflt;
}
inline std::string attrStr(const nlattr* a) {
  return a && mnl_attr_validate(a, MNL_TYPE_NUL_STRING) == 0 ? mnl_attr_get_str(a) : "";
}

class NetlinkSocket {
 public:
  using Handler = std::function<void(const nlmsghdr*)>;
  enum class Recv { kData, kEmpty, kOverrun };

  // A NETLINK_ROUTE socket in `netns` joined to the RTNLGRP_* `groups`, with a receive buffer of
  // `rcvbuf` bytes when the process may force it (CAP_NET_ADMIN), the system's limit otherwise.
  NetlinkSocket(const std::string& netns, const std::vector<unsigned>& groups, int rcvbuf);
  ~NetlinkSocket();
  NetlinkSocket(const NetlinkSocket&) = delete;
  NetlinkSocket& operator=(const NetlinkSocket&) = delete;

  int fd() const;
  const std::string& netns() const { return netns_; }
  std::uint32_t seqNew() { return ++seq_; }

  // Sends the message (its sequence number and port already set). Throws NetlinkError.
  void send(const nlmsghdr* nlh) { send(nlh, nlh->nlmsg_len); }
  // Sends `len` bytes of consecutive messages in one datagram.
  void send(const void* buf, std::size_t len);
  // Sends a dump request of `type` (RTM_GETLINK, ...) for `family` and hands every answer, and
  // every notification arriving meanwhile, to `fn`, until the dump is done. Returns false when
  // the kernel dropped messages meanwhile (the dump must be started again).
  bool dump(std::uint16_t type, std::uint8_t family, const Handler& fn);
  // Handles what is waiting (one read of at most one buffer). `fn` also sees the kernel's error
  // answers (NLMSG_ERROR) to requests sent without waiting.
  Recv receive(const Handler& fn);

 private:
  std::string netns_;
  mnl_socket* nl_ = nullptr;
  std::uint32_t seq_ = 0;
  std::vector<char> buf_;
};

}  // namespace CorvdSim
