// Randomized convergence of interface mirroring: bursts of device, status, address and VRF
// events between loop runs; once quiescent, the daemon's interface table equals the reference
// projection of the state database, no address was ever on two links at once, and the daemon saw
// no misuse (every change inside its bracket).
#include <random>

#include "tests/module/IntfWorld.h"

namespace IntfTest {
namespace {

class IntfConvergence : public IntfWorld, public ::testing::WithParamInterface<unsigned> {};

TEST_P(IntfConvergence, DaemonTableMatchesTheStateDatabase) {
  std::mt19937 rng(GetParam());
  auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
  OverlapObserver observer;

  constexpr int kIntfs = 8;
  constexpr int kV4 = 24;
  constexpr int kV6 = 16;
  const char* vrfs[] = {"default", "red"};
  std::uint32_t nextIfIndex = 10;
  // Who holds each address now: interface number, or -1.
  std::vector<int> v4Owner(kV4, -1), v6Owner(kV6, -1);
  std::vector<int> vrfOf(kIntfs, -1);  // IPv4 VRF of each interface, -1 none
  std::vector<std::set<int>> v4Of(kIntfs), v6Of(kIntfs);
  std::vector<int> maskOf(kV4, 24);
  auto intfId = [](int i) { return "Ethernet" + std::to_string(i); };
  auto dev = [](int i) { return "et" + std::to_string(i); };
  auto v4Text = [&](int a) {
    return "10." + std::to_string(a) + ".0.1/" + std::to_string(maskOf[static_cast<size_t>(a)]);
  };
  auto v6Text = [](int a) {
    return (a % 4 == 0 ? "fe80::" : "2001:db8:" + std::to_string(a) + "::") +
           std::to_string(a + 1) + "/64";
  };
  auto publishV4 = [&](int i) {
    if (vrfOf[static_cast<size_t>(i)] < 0) return;
    std::vector<std::string> all;
    for (int a : v4Of[static_cast<size_t>(i)]) all.push_back(v4Text(a));
    const std::string primary = all.empty() ? "" : all.front();
    if (!all.empty()) all.erase(all.begin());
    ip(vrfs[vrfOf[static_cast<size_t>(i)]], intfId(i), primary, all);
  };
  auto publishV6 = [&](int i) {
    std::vector<std::string> all;
    for (int a : v6Of[static_cast<size_t>(i)]) all.push_back(v6Text(a));
    ip6(intfId(i), all);
  };

  device("lo", 1, kUp | kRunning | 0x8);
  start();
  std::size_t comparedAddrs = 0;
  for (int burst = 0; burst < 200; ++burst) {
    const int events = 1 + pick(12);
    std::set<int> goneThisBurst;
    for (int e = 0; e < events; ++e) {
      const int i = pick(kIntfs);
      const auto si = static_cast<size_t>(i);
      switch (pick(13)) {
        case 0:  // device appears, or is made again under a new ifIndex
          device(dev(i), nextIfIndex++, pick(2) ? kUp | kRunning : kUp);
          break;
        case 1:
          if (pick(3) == 0) deviceDel(dev(i));
          break;
        case 2:
          if (kernel_->interfaceByName(dev(i))) deviceFlags(dev(i), pick(2) ? kUp : kUp | kRunning);
          break;
        case 3:
          if (kernel_->interfaceByName(dev(i))) {
            deviceMac(dev(i), "02:00:00:00:00:0" + std::to_string(pick(10)));
          }
          break;
        case 4: {  // status made, its MTU changed, or removed (an interface's status entity is
                   // never replaced by another within one burst: its reactor keeps watching it)
          const auto mtuNew = static_cast<std::uint16_t>(1400 + pick(3) * 100);
          if (!all_->intfStatus(Kanet::IntfId(intfId(i)))) {
            if (!goneThisBurst.count(i)) status(intfId(i), dev(i), mtuNew);
          } else if (pick(4) == 0) {
            statusDel(intfId(i));
            goneThisBurst.insert(i);
          } else {
            mtu(intfId(i), mtuNew);
          }
          break;
        }
        case 5:
          if (all_->intfStatus(Kanet::IntfId(intfId(i)))) oper(intfId(i), pick(2));
          break;
        case 6:  // the interface moves to another VRF, or leaves IPv4
          if (vrfOf[si] >= 0) ipDel(vrfs[vrfOf[si]], intfId(i));
          {
            const int r = pick(4);  // "red" one time in four, no IPv4 one in four, else "default"
            vrfOf[si] = r == 0 ? -1 : (r == 1 ? 1 : 0);
          }
          publishV4(i);
          break;
        case 7:
        case 8: {  // an IPv4 address moves here (from wherever it was), within this burst
          if (vrfOf[si] < 0) break;
          const int a = pick(kV4);
          const int from = v4Owner[static_cast<size_t>(a)];
          if (from >= 0) {
            v4Of[static_cast<size_t>(from)].erase(a);
            publishV4(from);
          }
          maskOf[static_cast<size_t>(a)] = 8 * (1 + pick(4));
          v4Owner[static_cast<size_t>(a)] = i;
          v4Of[si].insert(a);
          publishV4(i);
          break;
        }
        case 9:  // an IPv4 address goes
          if (!v4Of[si].empty()) {
            const int a = *v4Of[si].begin();
            v4Of[si].erase(a);
            v4Owner[static_cast<size_t>(a)] = -1;
            publishV4(i);
          }
          break;
        case 10: {  // an IPv6 address moves here
          const int a = pick(kV6);
          const int from = v6Owner[static_cast<size_t>(a)];
          if (from >= 0) {
            v6Of[static_cast<size_t>(from)].erase(a);
            publishV6(from);
          }
          v6Owner[static_cast<size_t>(a)] = i;
          v6Of[si].insert(a);
          publishV6(i);
          break;
        }
        case 11:  // the interface leaves IPv6
          for (int a : v6Of[si]) v6Owner[static_cast<size_t>(a)] = -1;
          v6Of[si].clear();
          ip6Del(intfId(i));
          break;
        case 12:  // a VRF's whole address entry goes (its interfaces keep their addresses)
          if (pick(3) == 0) {
            const int v = pick(2);
            vrfDel(vrfs[v]);
            for (int j = 0; j < kIntfs; ++j) publishV4(j);  // republished into a new entry
          }
          break;
      }
    }
    if (pick(3) == 0) {
      settle();
      ASSERT_EQ(daemonTable(), reference()) << "seed " << GetParam() << " burst " << burst;
      for (const auto& [link, addrs] : reference()) comparedAddrs += addrs.size();
    } else {
      Kel::activityManager()->runUntil(Kel::activityManager()->currentTime() + 0.05 * pick(3));
    }
  }
  settle();
  EXPECT_EQ(daemonTable(), reference());
  EXPECT_EQ(observer.overlaps(), 0);
  EXPECT_GT(comparedAddrs, 400u);  // the comparisons were of tables with something in them
  EXPECT_EQ(root_->intfBacklog()->backlogCount(), 0u);
  EXPECT_EQ(root_->intfBacklog()->needCleanCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Seeds, IntfConvergence, ::testing::Values(1u, 2u, 3u, 4u, 5u, 6u));

}  // namespace
}  // namespace IntfTest
