// corvd-sim's kernel mode against real network namespaces: links, addresses and routes made with
// `ip` reach the daemons' tables, their changes follow, and the forwarding-table sink keeps a
// second namespace's routes of its protocol equal to the daemon's choices. The tests make their
// own namespaces (unique names), remove them on every exit, and are skipped with the reason
// when namespaces cannot be made — unless IRI_NETNS_REQUIRED=1 (set by .ci/run after checking
// that this machine can make them), which turns the skip into a failure.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>

#include "tests/support/ErrorText.h"
#include "tools/corvd-sim/KernelMode.h"

namespace {

using CorvdSim::KernelOptions;
using CorvdSim::KernelRunner;

constexpr double kBound = 5.0;  // seconds a change may take to show

bool sh(const std::string& cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0; }

std::string capture(const std::string& cmd) {
  std::string out;
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return out;
  char buf[4096];
  for (std::size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
  pclose(p);
  return out;
}

// A network namespace that exists for the life of the object.
class Netns {
 public:
  explicit Netns(const std::string& role) {
    static int serial = 0;
    name_ = "irik-" + std::to_string(getpid()) + "-" + std::to_string(++serial) + "-" + role;
    made_ = sh("ip netns add " + name_);
  }
  ~Netns() {
    if (made_) sh("ip netns del " + name_);
  }
  bool made() const { return made_; }
  const std::string& name() const { return name_; }
  // Runs `ip -n NAME ARGS`; the test fails when it does.
  void ip(const std::string& args) const {
    EXPECT_TRUE(sh("ip -n " + name_ + " " + args)) << "ip -n " << name_ << " " << args;
  }

 private:
  std::string name_;
  bool made_ = false;
};

class KernelSourceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    src_ = std::make_unique<Netns>("src");
    if (src_->made()) return;
    const char* required = std::getenv("IRI_NETNS_REQUIRED");
    if (required && std::string(required) == "1") FAIL() << "cannot make a network namespace";
    GTEST_SKIP() << "cannot make network namespaces here (ip netns add failed: needs root, "
                    "CAP_SYS_ADMIN and iproute2)";
  }

  // Two veth pairs (a0/a1, b0/b1) up, with addresses on a0 and a1.
  static void devices(const Netns& ns, const std::string& host) {
    ns.ip("link set lo up");
    ns.ip("link add a0 type veth peer name a1");
    ns.ip("link add b0 type veth peer name b1");
    for (const char* d : {"a0", "a1", "b0", "b1"}) ns.ip(std::string("link set ") + d + " up");
    ns.ip("addr add 10.1.0." + host + "/24 dev a0");
    ns.ip("addr add 10.3.0." + host + "/24 dev a1");
  }

  std::string show(KernelRunner& r) {
    out_.str("");
    r.show();
    return out_.str();
  }
  // Turns the loop until `pred` holds for the `show` output, at most kBound seconds; the output is
  // the message of a failure.
  ::testing::AssertionResult waitFor(KernelRunner& r,
                                     const std::function<bool(const std::string&)>& pred) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(kBound);
    while (std::chrono::steady_clock::now() < end) {
      r.turn(0.05);
      if (pred(show(r))) return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << show(r);
  }
  static bool has(const std::string& text, const std::string& what) {
    return text.find(what) != std::string::npos;
  }
  // The lines of link `dev` in `show interfaces` (its "INDEX: NAME: <FLAGS> ..." line and the
  // indented ones under it).
  static std::string linkBlock(const std::string& text, const std::string& dev) {
    std::istringstream in(text);
    std::string block, line;
    bool inside = false;
    while (std::getline(in, line)) {
      if (!line.empty() && line[0] != ' ') {
        const auto colon = line.find(": ");
        inside =
            colon != std::string::npos && line.compare(colon + 2, dev.size() + 1, dev + ":") == 0;
      }
      if (inside) block += line + "\n";
    }
    return block;
  }
  // The active entry of `prefix` in `show routes`, or "".
  static std::string active(const std::string& text, const std::string& prefix) {
    const auto at = text.find("\n" + prefix + "\n");
    if (at == std::string::npos) return "";
    std::istringstream in(text.substr(at + prefix.size() + 2));
    for (std::string line; std::getline(in, line) && line.rfind("  ", 0) == 0;) {
      if (line.rfind("  *", 0) == 0) return line;
    }
    return "";
  }

  std::unique_ptr<Netns> src_;
  std::ostringstream out_;
};

TEST_F(KernelSourceTest, LinksAddressesAndRoutesFollowTheKernel) {
  const Netns& ns = *src_;
  devices(ns, "1");
  ns.ip("addr add 10.1.0.9/24 dev a0");  // a secondary
  ns.ip("addr add 10.5.0.1/24 dev a0");
  ns.ip("addr add 2001:db8:1::1/64 dev a0 nodad");
  ns.ip("route add 2001:db8:9::/48 via 2001:db8:1::5 proto static");
  ns.ip("route add 10.9.0.0/16 via 10.1.0.5 proto boot");
  // One prefix twice in one protocol: the lowest metric wins.
  ns.ip("route add 10.8.0.0/16 via 10.1.0.6 proto static metric 10");
  ns.ip("route add 10.8.0.0/16 via 10.3.0.6 proto static metric 5");
  // Not mirrored: the default route, a next hop no interface address resolves.
  ns.ip("route add default via 10.1.0.254");
  ns.ip("route add 10.6.0.0/16 via 192.168.99.1 dev b0 onlink");  // b0 has no IPv4 address
  KernelRunner r(KernelOptions{ns.name(), "", -1, false, false}, out_);
  ASSERT_TRUE(waitFor(r, [](const std::string& t) {
    return has(linkBlock(t, "a0"), "inet 10.1.0.9/24") && has(t, "\n10.9.0.0/16\n") &&
           has(linkBlock(t, "a0"), "inet6 2001:db8:1::1/64") &&
           has(active(t, "2001:db8:9::/48"), "proto 4 ") && has(active(t, "10.8.0.0/16"), "dev a1");
  }));
  std::string t = show(r);
  EXPECT_TRUE(has(linkBlock(t, "a0"), "inet 10.1.0.1/24")) << t;
  EXPECT_TRUE(has(active(t, "10.9.0.0/16"), "proto 3 ")) << t;  // boot keeps its number
  EXPECT_FALSE(has(t, "0.0.0.0/0")) << t;
  EXPECT_FALSE(has(t, "10.6.0.0/16")) << t;
  EXPECT_EQ(r.counters().refused, 0u);

  // The lower metric goes: the other takes over.
  ns.ip("route del 10.8.0.0/16 via 10.3.0.6 proto static metric 5");
  EXPECT_TRUE(waitFor(r, [](auto& s) { return has(active(s, "10.8.0.0/16"), "dev a0"); }));
  // Address moved between two devices.
  ns.ip("addr del 10.5.0.1/24 dev a0");
  ns.ip("addr add 10.5.0.1/24 dev b0");
  EXPECT_TRUE(waitFor(r, [](auto& s) {
    return has(linkBlock(s, "b0"), "10.5.0.1/24") && !has(linkBlock(s, "a0"), "10.5.0.1/24");
  }));
  // The primary goes and the kernel promotes the secondary.
  sh("ip netns exec " + ns.name() + " sysctl -w net.ipv4.conf.a0.promote_secondaries=1");
  ns.ip("addr del 10.1.0.1/24 dev a0");
  EXPECT_TRUE(waitFor(r, [](auto& s) {
    return has(linkBlock(s, "a0"), "10.1.0.9/24") && !has(linkBlock(s, "a0"), "10.1.0.1/24");
  }));
  // Link down and up again. The kernel drops the IPv4 routes over the link without a word: a
  // route dump must withdraw them from their route input too, not only from the daemon.
  ns.ip("route add 10.7.0.0/16 via 10.5.0.7 proto static");
  EXPECT_TRUE(waitFor(r, [](auto& s) { return has(active(s, "10.7.0.0/16"), "dev b0"); }));
  const auto staticSm =
      r.scenario().root("default")->routingConfigSm()->routeInputDirSm()->routeInputSm(
          "rtproto-static");
  const auto key = Routing::RouteKey::fromString("10.7.0.0/16");
  ASSERT_TRUE(staticSm && staticSm->route(key));
  ns.ip("link set b0 down");
  EXPECT_TRUE(waitFor(r, [&](auto& s) {
    const auto b = linkBlock(s, "b0");
    return !b.empty() && !has(b.substr(0, b.find('\n')), "state UP") && !staticSm->route(key) &&
           !has(s, "\n10.7.0.0/16\n");
  }));
  ns.ip("link set b0 up");
  EXPECT_TRUE(waitFor(r, [](auto& s) { return has(linkBlock(s, "b0"), "state UP"); }));
  // Routes replaced and deleted: FibHoldsTheDaemonsChoicesAndNothingAfterwards.
  // A device deleted and made again comes back under its new ifIndex.
  const std::string before = linkBlock(show(r), "a1");
  ns.ip("link del a0");  // takes its peer a1
  EXPECT_TRUE(waitFor(r, [](auto& s) { return linkBlock(s, "a1").empty(); }));
  ns.ip("link add a0 type veth peer name a1");
  ns.ip("link set a1 up");
  ns.ip("addr add 10.3.0.1/24 dev a1");
  EXPECT_TRUE(waitFor(r, [&](auto& s) {
    const auto now = linkBlock(s, "a1");
    return has(now, "10.3.0.1/24") && now.substr(0, 9) != before.substr(0, 9);
  }));
  EXPECT_EQ(r.counters().refused, 0u);
}

// Routes as "DST DEV,DEV" or "DST blackhole", from the JSON that `ip -j route` prints and that
// corvd-sim's show follows: the IPv4 ones, of the daemon's only those selected in vrf default.
std::set<std::string> routeSet(const nlohmann::json& routes) {
  std::set<std::string> out;
  for (const auto& r : routes) {
    std::string dst = r.at("dst");
    if (!r.value("selected", true) || r.value("vrf", "default") != "default" ||
        dst.find(':') != std::string::npos) {
      continue;
    }
    if (dst == "default") dst = "0.0.0.0/0";
    if (dst.find('/') == std::string::npos) dst += "/32";
    std::string devs;
    for (const auto& hop : r.contains("nexthops") ? r["nexthops"] : nlohmann::json::array({r})) {
      if (hop.contains("dev")) devs += (devs.empty() ? " " : ",") + hop["dev"].get<std::string>();
    }
    out.insert(dst + (r.value("type", "") == "blackhole" ? " blackhole" : devs));
  }
  return out;
}

// The namespace's routes of the forwarding-table sink's protocol (some versions of ip print
// nothing when there are none).
std::set<std::string> kernelRoutes(const std::string& ns) {
  const std::string text =
      capture("ip -n " + ns + " -j route show proto " + std::to_string(CorvdSim::kFibProtocol));
  return text.find('[') == std::string::npos ? std::set<std::string>{}
                                             : routeSet(nlohmann::json::parse(text));
}

// The daemon's routes from `show` in JSON (interfaces on the first line, routes on the second).
std::set<std::string> daemonRoutes(const std::string& show) {
  std::istringstream in(show);
  std::string line;
  std::getline(in, line);
  std::getline(in, line);
  return routeSet(nlohmann::json::parse(line));
}

TEST_F(KernelSourceTest, FibHoldsTheDaemonsChoicesAndNothingAfterwards) {
  const Netns& ns = *src_;
  Netns fib("fib");
  ASSERT_TRUE(fib.made());
  devices(ns, "1");
  devices(fib, "2");
  ns.ip("route add 10.9.0.0/16 via 10.1.0.5 proto static");
  ns.ip("route add 10.7.0.0/16 proto static nexthop via 10.1.0.5 nexthop via 10.3.0.5");
  ns.ip("route add blackhole 10.4.0.0/16 proto static");
  // Left by an earlier run: removed on start.
  fib.ip("route add 10.99.0.0/16 dev b0 proto " + std::to_string(CorvdSim::kFibProtocol));
  // The daemon holds an entry for `dst`, selected or not.
  auto holds = [](const std::string& s, const std::string& dst) {
    return has(s, "\"dst\":\"" + dst + "\"");
  };
  auto same = [&](const std::string& s) {
    return kernelRoutes(fib.name()) == daemonRoutes(s) && holds(s, "10.9.0.0/16");
  };
  {
    KernelRunner r(KernelOptions{ns.name(), fib.name(), -1, true, false}, out_);
    EXPECT_TRUE(waitFor(r, same)) << capture("ip -n " + fib.name() + " route");
    EXPECT_TRUE(kernelRoutes(fib.name()).count("10.7.0.0/16 a0,a1")) << show(r);
    EXPECT_TRUE(kernelRoutes(fib.name()).count("10.4.0.0/16 blackhole"));
    EXPECT_EQ(r.fib()->counters().stale, 1u);

    ns.ip("route replace 10.9.0.0/16 via 10.3.0.5 proto static");
    EXPECT_TRUE(
        waitFor(r, [&](auto& s) { return same(s) && daemonRoutes(s).count("10.9.0.0/16 a1"); }));
    ns.ip("route del 10.7.0.0/16");
    EXPECT_TRUE(waitFor(r, [&](auto& s) { return same(s) && !holds(s, "10.7.0.0/16"); }));
    ns.ip("addr add 10.6.0.1/24 dev b0");
    EXPECT_TRUE(waitFor(r, [&](auto& s) { return same(s) && holds(s, "10.6.0.0/24"); }));
    // The kernel drops the connected route of a device going down without a message.
    ns.ip("link set b0 down");
    EXPECT_TRUE(waitFor(r, [&](auto& s) { return same(s) && !holds(s, "10.6.0.0/24"); }));
    EXPECT_EQ(r.fib()->counters().failed, 0u);
  }
  EXPECT_TRUE(kernelRoutes(fib.name()).empty());
}

TEST_F(KernelSourceTest, OverrunIsCountedAndResynchronisedWithoutLosingRoutes) {
  const Netns& ns = *src_;
  devices(ns, "1");
  KernelOptions opts{ns.name(), "", -1, false, false};
  opts.sourceBuffer = 4096;  // the kernel's floor: a burst overruns it
  KernelRunner r(opts, out_);
  const int n = 3000;
  const std::string batch = ::testing::TempDir() + "irik-burst-" + std::to_string(getpid());
  {
    std::ofstream f(batch);
    for (int i = 0; i < n; ++i) {
      f << "route add 10.200." << i / 256 << "." << i % 256 << "/32 via 10.1.0.5 proto static\n";
    }
  }
  ns.ip("-batch " + batch);  // nothing is read meanwhile
  std::remove(batch.c_str());
  auto count = [&](const std::string& s) {
    std::size_t c = 0;
    for (auto at = s.find("\n10.200."); at != std::string::npos; at = s.find("\n10.200.", at + 1)) {
      ++c;
    }
    return c;
  };
  EXPECT_TRUE(waitFor(r, [&](auto& s) { return count(s) == n; })) << count(show(r));
  EXPECT_GE(r.counters().overruns, 1u);
  EXPECT_GE(r.counters().resyncs, 1u);
}

TEST_F(KernelSourceTest, BadNamespacesAreRefusedWithTheReason) {
  const auto refusal = [&](const std::string& netns, const std::string& fib) {
    return errorOf<CorvdSim::NetlinkError>([&] {
      KernelRunner(KernelOptions{netns, fib, -1, false, false}, out_);
    });
  };
  EXPECT_PRED2(has, refusal("irik-no-such-ns", ""), "no such network namespace 'irik-no-such-ns'");
  EXPECT_PRED2(has, refusal(src_->name(), src_->name()), "names the source namespace");
}

TEST_F(KernelSourceTest, VrfDevicesStartAndStopTheirWorlds) {
  const Netns& ns = *src_;
  if (!sh("ip -n " + ns.name() + " link add blue type vrf table 10")) {
    GTEST_SKIP() << "this kernel cannot make VRF devices (ip link add type vrf failed)";
  }
  devices(ns, "1");
  ns.ip("link set blue up");
  ns.ip("link set b0 master blue");
  ns.ip("addr add 10.2.0.1/24 dev b0");
  ns.ip("addr add 2001:db8:2::1/64 dev b0 nodad");  // IPv6 is served in "default" only
  ns.ip("route add 10.8.0.0/16 via 10.2.0.5 vrf blue proto static");
  KernelRunner r(KernelOptions{ns.name(), "", -1, false, false}, out_);
  EXPECT_TRUE(waitFor(r, [](auto& s) {
    const auto blue = s.find("== routes vrf blue");
    return blue != std::string::npos && has(s.substr(blue), "10.8.0.0/16");
  }));
  EXPECT_FALSE(has(show(r), "2001:db8:2::1")) << show(r);
  EXPECT_EQ(r.counters().refused, 0u);
  ns.ip("link del blue");
  EXPECT_TRUE(waitFor(r, [](auto& s) { return !has(s, "vrf blue"); }));
}

}  // namespace
