// Entry and gateway records come back once they are gone, yet a stale pointer to one is caught
// however long ago it went, and never reaches an unrelated live record; an interface address
// never leaves its route-reference list behind.
#include <unistd.h>

#include <string>
#include <vector>

#include "DaemonTestUtil.h"
#include "fwk/daemon/record_arena.h"

namespace {

class RecordReclaim : public DaemonTest {};

rt_entry* addRoute(gw_entry* gw, const std::string& dest, int len, int pref = 20) {
  rt_parms rtp = routeParms(
      gw, dest.find(':') == std::string::npos ? in4(dest.c_str()) : in6(dest.c_str()), len, pref);
  return rt_add(&rtp, nullptr);
}

std::string v4(int i) {
  return "10." + std::to_string(i / 65536 % 256) + "." + std::to_string(i / 256 % 256) + "." +
         std::to_string(i % 256);
}

TEST_F(RecordReclaim, StaleEntryPointerAfterManyDeletionsIsCaughtAndDeletesNothing) {
  gw_entry* gw = gw_init(nullptr, 8, fwk_task, 0, 0, nullptr, 0x800);
  rt_open(fwk_task);
  rt_entry* stale = addRoute(gw, "192.0.2.0", 24);
  ASSERT_NE(stale, nullptr);
  rt_delete(stale);
  rt_change_parms rtcp{5, 0, nullptr, nullptr};
  // Caught at once, and again below.
  rt_delete(stale);
  EXPECT_EQ(rt_change_s(stale, &rtcp), nullptr);
  EXPECT_EQ(corvd_misuse_count(), 2u) << misuseText();
  // Far more deletions than any quarantine would hold, interleaved with new entries that stay:
  // storage reused after any number of deletions would put one of them at `stale`.
  std::vector<rt_entry*> live;
  for (int i = 0; i < 20000; ++i) {
    live.push_back(addRoute(gw, v4(i), 32));
    rt_delete(addRoute(gw, v4(100000 + i), 32));
  }
  ASSERT_EQ(corvd_misuse_count(), 2u) << misuseText();
  EXPECT_FALSE(rt_entry_alive(stale));
  rt_delete(stale);
  EXPECT_EQ(rt_change_s(stale, &rtcp), nullptr);
  EXPECT_EQ(corvd_misuse_count(), 4u) << misuseText();
  EXPECT_EQ(corvd_misuse_log()[0], "rt_delete: entry already deleted");
  for (rt_entry* rt : live) ASSERT_TRUE(rt_entry_alive(rt));
  EXPECT_EQ(rt_entry_count(), live.size());
  // Once they are gone too, their memory is back: only the page being filled is kept.
  for (rt_entry* rt : live) rt_delete(rt);
  rt_close(fwk_task, 0, 1, 0);
  EXPECT_EQ(rt_entry_count(), 0u);
  EXPECT_LE(rt_record_pages(), 1u);
  rt_open(fwk_task);
  rt_delete(live.front());  // long gone, its page returned: still caught
  rt_close(fwk_task, 0, 1, 0);
  EXPECT_EQ(corvd_misuse_count(), 5u) << misuseText();
}

TEST_F(RecordReclaim, FreedGatewaysAreReclaimedAndAStaleGatewayIsStillCaught) {
  gw_entry* first = nullptr;
  for (int cycle = 0; cycle < 10000; ++cycle) {
    gw_entry* gw = gw_init(nullptr, 8, fwk_task, 0, 0, in4("10.9.9.9"), 0x800);
    if (!first) first = gw;
    rt_open(fwk_task);
    ASSERT_NE(addRoute(gw, v4(cycle), 32), nullptr);
    ASSERT_NE(addRoute(gw, "2001:db8::", 64), nullptr);  // gives the gateway a prefix tree
    rt_close(fwk_task, 0, 1, 0);
    gw_free(gw);
  }
  EXPECT_EQ(corvd_misuse_count(), 0u) << misuseText();
  EXPECT_EQ(gw_count(), 0u);
  EXPECT_EQ(rt_entry_count(), 0u);
  EXPECT_LE(gw_record_pages(), 1u);  // the page being filled at most
  EXPECT_LE(rt_record_pages(), 1u);
  EXPECT_EQ(sock_live_copies(), 0u);

  // The first gateway's page was returned long ago: freeing it or adding through it is caught.
  gw_entry* now = gw_init(nullptr, 9, fwk_task, 0, 0, nullptr, 0x800);
  EXPECT_NE(now, first);
  gw_free(first);
  rt_open(fwk_task);
  EXPECT_EQ(addRoute(first, "198.51.100.0", 24), nullptr);
  EXPECT_NE(addRoute(now, "198.51.100.0", 24), nullptr);
  rt_close(fwk_task, 0, 1, 0);
  EXPECT_EQ(corvd_misuse_count(), 2u) << misuseText();
  EXPECT_EQ(corvd_misuse_log()[0], "gw_free: gateway freed twice");
  // A gateway freed just now, whose page is still held, is caught the same way.
  gw_free(now);
  gw_free(now);
  rt_open(fwk_task);
  EXPECT_EQ(addRoute(now, "198.51.100.0", 24), nullptr);
  rt_close(fwk_task, 0, 1, 0);
  EXPECT_EQ(corvd_misuse_count(), 4u) << misuseText();
}

TEST_F(RecordReclaim, AddressFreedWithRoutesLeftTakesItsRouteListAlong) {
  addLink(1, "et1", true);
  if_addr* a = addAddr(1, in4("10.0.1.1"), 24);
  ASSERT_NE(a, nullptr);
  gw_entry* gw = gw_init(nullptr, 8, fwk_task, 0, 0, nullptr, 0x800);
  rt_parms rtp = routeParms(gw, in4("203.0.113.0"), 24, 0, {in4("10.0.1.2"), in4("10.0.1.3")});
  if_addr* ifaps[2] = {a, a};
  // A one-gateway entry too: its address array is a slot of the address itself.
  rt_parms one = routeParms(gw, in4("203.0.114.0"), 24, 0, {in4("10.0.1.2")});
  rt_open(fwk_task);
  rt_entry* rt = rt_add(&rtp, ifaps);
  rt_entry* rt1 = rt_add(&one, ifaps);
  rt_close(fwk_task, 0, 1, 0);
  ASSERT_NE(rt, nullptr) << misuseText();
  ASSERT_NE(rt1, nullptr) << misuseText();
  EXPECT_EQ(rt1->rt_adj.adj_ifaps[0], a);
  EXPECT_EQ(rt_ref_list_count(), 1u);
  // What happens to the interface table destroyed at exit, or reset with routes still there.
  if_table_reset();
  EXPECT_EQ(rt_ref_list_count(), 0u);
  EXPECT_EQ(rt->rt_adj.adj_ifaps[0], nullptr);
  EXPECT_EQ(rt->rt_adj.adj_ifaps[1], nullptr);
  EXPECT_EQ(rt1->rt_adj.adj_ifaps[0], nullptr);
  EXPECT_TRUE(rt_entry_alive(rt));
  corvd_reset();
  EXPECT_EQ(rt_entry_count(), 0u);
  EXPECT_EQ(corvd_misuse_count(), 0u) << misuseText();
}

// Emptied pages are forgotten at once (a pointer into one is gone for certain) but go back to the
// system a batch at a time; a page taken again once the reservation is spent is returned first,
// so that no later batch wipes the records it holds then.
TEST(RecordArenaBatches, EmptiedPagesGoBackInBatchesAndAPageTakenAgainIsNeverWiped) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  constexpr std::size_t kPages = 64;  // the smallest reservation the arena makes
  constexpr std::size_t kBatch = RecordArena::kReturnBatch;
  RecordArena arena(page / 2, kPages * page);
  const std::size_t base = RecordArena::bytesHeldAll();
  auto held = [&] { return (RecordArena::bytesHeldAll() - base) / page; };
  std::vector<unsigned char*> recs;
  for (std::size_t i = 0; i < 2 * kPages; ++i) {
    recs.push_back(static_cast<unsigned char*>(arena.take()));
    recs.back()[0] = 0xab;
  }
  ASSERT_EQ(held(), kPages);
  auto empty = [&](std::size_t p) {
    arena.give(recs[2 * p]);
    arena.give(recs[2 * p + 1]);
  };
  for (std::size_t p = 0; p < kBatch - 1; ++p) empty(p);
  EXPECT_EQ(arena.pagesHeld(), kPages - (kBatch - 1));
  EXPECT_EQ(arena.state(recs[0]), RecordArena::State::returned);
  EXPECT_EQ(held(), kPages);  // not back yet
  EXPECT_EQ(recs[0][0], 0xab);

  // The reservation is spent: page 0 is taken again, after the waiting pages went back.
  unsigned char* again = static_cast<unsigned char*>(arena.take());
  ASSERT_EQ(again, recs[0]);
  EXPECT_EQ(again[0], 0);  // taken zeroed
  again[0] = 0xcd;
  EXPECT_EQ(held(), kPages - (kBatch - 1) + 1);
  EXPECT_EQ(recs[2][0], 0);  // page 1 went back

  // A full batch goes back in one go, and the page taken again keeps its record.
  for (std::size_t p = 20; p < 20 + kBatch - 1; ++p) empty(p);
  EXPECT_EQ(held(), kPages - (kBatch - 1) + 1);
  empty(20 + kBatch - 1);
  EXPECT_EQ(held(), kPages - 2 * kBatch + 2);
  EXPECT_EQ(recs[40][0], 0);
  EXPECT_EQ(again[0], 0xcd);
  EXPECT_EQ(arena.state(again), RecordArena::State::held);
}

// In a large arena the batch is an eighth of the pages still held: of 1024 full pages, the first
// 112 emptied wait (112 < 912 / 8), the 113th sends all 113 back (113 >= 911 / 8).
TEST(RecordArenaBatches, ALargeArenaHoldsBackAnEighthOfItsPages) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  constexpr std::size_t kPages = 1024;
  RecordArena arena(page, kPages * page);
  const std::size_t base = RecordArena::bytesHeldAll();
  auto held = [&] { return (RecordArena::bytesHeldAll() - base) / page; };
  std::vector<void*> recs;
  for (std::size_t i = 0; i < kPages; ++i) recs.push_back(arena.take());
  ASSERT_EQ(held(), kPages);
  for (std::size_t p = 0; p < 112; ++p) arena.give(recs[p]);
  EXPECT_EQ(held(), kPages);
  arena.give(recs[112]);
  EXPECT_EQ(held(), kPages - 113);
  // What is left goes back in ever smaller batches, and all of it in the end.
  for (std::size_t p = 113; p < kPages; ++p) arena.give(recs[p]);
  EXPECT_LT(held(), RecordArena::kReturnBatch);
}

// following() names the record taken after a given one, across the end of a page, and nothing
// past the last page opened (whose memory the arena has not touched).
TEST(RecordArenaOrder, FollowingNamesTheNextRecordTakenUpToTheLastOpenedPage) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  constexpr std::size_t kRecord = 72;  // a page's end is not a record's
  const std::size_t perPage = page / kRecord;
  RecordArena arena(kRecord, 64 * page);
  std::vector<const void*> recs;
  for (std::size_t i = 0; i < perPage + 3; ++i) recs.push_back(arena.take());
  for (std::size_t i = 0; i + 1 < recs.size(); ++i) {
    EXPECT_EQ(arena.following(recs[i]), recs[i + 1]) << "record " << i;
  }
  // Within the last page opened, the slot after the last record taken is the next one taken.
  const void* next = arena.following(recs.back());
  recs.push_back(arena.take());
  EXPECT_EQ(next, recs.back());
  while (recs.size() < 2 * perPage) recs.push_back(arena.take());
  EXPECT_EQ(arena.following(recs.back()), nullptr);  // the third page is not opened yet
  const void* third = arena.take();
  EXPECT_EQ(arena.following(recs.back()), third);
}

}  // namespace
