#include "tools/corvd-sim/Netlink.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace CorvdSim {

namespace {

constexpr std::size_t kBufferSize = 1 << 16;  // larger than any one rtnetlink message

std::string errnoText(int err) { return std::strerror(err); }

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

int openNetns(const std::string& netns) {
  if (netns.empty() || netns.find('/') != std::string::npos || netns == "." || netns == "..") {
    throw NetlinkError("bad network namespace name '" + netns + "'");
  }
  const std::string path = "/run/netns/" + netns;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd >= 0) return fd;
  const int err = errno;
  if (err == ENOENT) throw NetlinkError("no such network namespace '" + netns + "' (" + path + ")");
  throw NetlinkError("cannot open " + path + ": " + errnoText(err));
}

void inNetns(const std::string& netns, const std::function<void()>& fn) {
  Fd target(openNetns(netns));
  Fd home(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
  if (home.get() < 0) throw NetlinkError("cannot open /proc/self/ns/net: " + errnoText(errno));
  if (setns(target.get(), CLONE_NEWNET) != 0) {
    const int err = errno;
    if (err == EPERM) {
      throw NetlinkError("not permitted to enter network namespace '" + netns +
                         "' (needs CAP_SYS_ADMIN)");
    }
    throw NetlinkError("cannot enter network namespace '" + netns + "': " + errnoText(err));
  }
  std::string failure;
  try {
    fn();
  } catch (const NetlinkError& e) {
    failure = e.what();
  }
  if (setns(home.get(), CLONE_NEWNET) != 0) {
    throw NetlinkError("cannot return from network namespace '" + netns + "': " + errnoText(errno));
  }
  if (!failure.empty()) throw NetlinkError(failure);
}

NetlinkSocket::NetlinkSocket(const std::string& netns, const std::vector<unsigned>& groups,
                             int rcvbuf)
    : netns_(netns), buf_(kBufferSize) {
  inNetns(netns, [&] {
    nl_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (!nl_) throw NetlinkError("cannot open a netlink socket: " + errnoText(errno));
  });
  if (mnl_socket_bind(nl_, 0, MNL_SOCKET_AUTOPID) < 0) {
    const int err = errno;
    mnl_socket_close(nl_);
    throw NetlinkError("cannot bind the netlink socket: " + errnoText(err));
  }
  const int fd = mnl_socket_get_fd(nl_);
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &rcvbuf, sizeof rcvbuf) != 0) {
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
  }
  for (unsigned group : groups) {
    if (mnl_socket_setsockopt(nl_, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) < 0) {
      const int err = errno;
      mnl_socket_close(nl_);
      throw NetlinkError("cannot join netlink group " + std::to_string(group) + ": " +
                         errnoText(err));
    }
  }
}

NetlinkSocket::~NetlinkSocket() {
  if (nl_) mnl_socket_close(nl_);
}

int NetlinkSocket::fd() const { return mnl_socket_get_fd(nl_); }

void NetlinkSocket::send(const void* buf, std::size_t len) {
  for (;;) {
    if (mnl_socket_sendto(nl_, buf, len) >= 0) return;
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == ENOBUFS) {
      // The socket's send queue is full: wait until it drains.
      pollfd p{fd(), POLLOUT, 0};
      poll(&p, 1, 100);
      continue;
    }
    throw NetlinkError("netlink send in '" + netns_ + "': " + errnoText(errno));
  }
}

namespace {

struct CbState {
  const NetlinkSocket::Handler* fn;
};

int eachCb(const nlmsghdr* nlh, void* data) {
  (*static_cast<CbState*>(data)->fn)(nlh);
  return MNL_CB_OK;
}

// Hands every message of the buffer to `fn`, NLMSG_ERROR and NLMSG_DONE included (libmnl would
// turn the first into a failed run and stop at the second). Sequence numbers and ports are not
// checked: notifications (sequence 0) and answers arrive mixed.
void eachMessage(const char* buf, ssize_t n, const NetlinkSocket::Handler& fn) {
  CbState state{&fn};
  mnl_cb_t ctl[NLMSG_MIN_TYPE] = {};
  ctl[NLMSG_ERROR] = eachCb;
  ctl[NLMSG_DONE] = eachCb;
  mnl_cb_run2(buf, n, 0, 0, eachCb, &state, ctl, NLMSG_MIN_TYPE);
}

}  // namespace

NetlinkSocket::Recv NetlinkSocket::receive(const Handler& fn) {
  const ssize_t n = mnl_socket_recvfrom(nl_, buf_.data(), buf_.size());
  if (n < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return Recv::kEmpty;
    if (errno == ENOBUFS) return Recv::kOverrun;
    throw NetlinkError("netlink receive in '" + netns_ + "': " + errnoText(errno));
  }
  eachMessage(buf_.data(), n, fn);
  return Recv::kData;
}

bool NetlinkSocket::dump(std::uint16_t type, std::uint8_t family, const Handler& fn) {
  char req[MNL_NLMSG_HDRLEN + MNL_ALIGN(sizeof(rtgenmsg)) + 64] = {};
  nlmsghdr* nlh = mnl_nlmsg_put_header(req);
  nlh->nlmsg_type = type;
  nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  nlh->nlmsg_seq = seqNew();
  const std::uint32_t seq = nlh->nlmsg_seq;
  // RTM_GETLINK wants an ifinfomsg, the others accept an rtgenmsg-sized prefix of theirs.
  if (type == RTM_GETLINK) {
    auto* ifi = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
    ifi->ifi_family = family;
  } else if (type == RTM_GETROUTE) {
    auto* rtm = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg)));
    rtm->rtm_family = family;
  } else {
    auto* g = static_cast<rtgenmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtgenmsg)));
    g->rtgen_family = family;
  }
  send(nlh);
  bool done = false;
  bool complete = true;
  const Handler each = [&](const nlmsghdr* m) {
    if (m->nlmsg_seq == seq && m->nlmsg_type == NLMSG_DONE) {
      done = true;
      return;
    }
    if (m->nlmsg_seq == seq && m->nlmsg_type == NLMSG_ERROR) {
      const auto* e = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(m));
      throw NetlinkError("netlink dump in '" + netns_ + "' refused: " + errnoText(-e->error));
    }
    if (m->nlmsg_seq == seq && (m->nlmsg_flags & NLM_F_DUMP_INTR)) complete = false;
    fn(m);
  };
  while (!done) {
    pollfd p{fd(), POLLIN, 0};
    if (poll(&p, 1, 5000) == 0) throw NetlinkError("netlink dump in '" + netns_ + "' timed out");
    const ssize_t n = mnl_socket_recvfrom(nl_, buf_.data(), buf_.size());
    if (n < 0) {
      if (errno == EAGAIN || errno == EINTR) continue;
      if (errno == ENOBUFS) return false;
      throw NetlinkError("netlink dump in '" + netns_ + "': " + errnoText(errno));
    }
    eachMessage(buf_.data(), n, each);
  }
  return complete;
}

}  // namespace CorvdSim
