// Pages backed ahead: populate() backs exactly the whole pages inside its range (from 64 KB up),
// and a collection's node block made under a reservation has the pages of its reserved nodes
// backed before any of those nodes is written.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <cerrno>
#include <cstdint>
#include <vector>

#include "fwk/framework/BigBlock.h"
#include "fwk/framework/HashMap.h"

namespace {

const std::size_t kPage = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));

// Whether each page of [from, from + pages * kPage) is backed; `from` is page-aligned.
std::vector<bool> backed(const void* from, std::size_t pages) {
  std::vector<unsigned char> v(pages);
  EXPECT_EQ(mincore(const_cast<void*>(from), pages * kPage, v.data()), 0);
  std::vector<bool> out(pages);
  for (std::size_t i = 0; i < pages; ++i) out[i] = (v[i] & 1) != 0;
  return out;
}

// A fresh mapping of `pages` small pages, none backed yet; null when the system cannot populate.
char* freshPages(std::size_t pages) {
  void* p =
      mmap(nullptr, pages * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) return nullptr;
#ifdef MADV_NOHUGEPAGE
  madvise(p, pages * kPage, MADV_NOHUGEPAGE);
#endif
#ifdef MADV_POPULATE_WRITE
  // A kernel without the request refuses it: populate() then rightly does nothing.
  if (madvise(p, kPage, MADV_POPULATE_WRITE) == 0 && madvise(p, kPage, MADV_DONTNEED) == 0) {
    return static_cast<char*>(p);
  }
#endif
  munmap(p, pages * kPage);
  return nullptr;
}

TEST(Populate, BacksTheWholePagesInsideItsRangeFromSixtyFourKilobytes) {
  constexpr std::size_t kPages = 64;
  char* base = freshPages(kPages);
  if (!base) GTEST_SKIP() << "this system cannot back pages on request";
  const std::size_t small = (std::size_t{64} << 10) - 1;
  Kel::populate(base + 100, small);  // below the threshold: nothing
  EXPECT_EQ(backed(base, kPages), std::vector<bool>(kPages, false));

  // From byte 100 of page 1 to byte 99 of page 1 + n: pages 2 .. n are whole inside it.
  const std::size_t n = (std::size_t{64} << 10) / kPage + 3;
  Kel::populate(base + kPage + 100, n * kPage);
  std::vector<bool> want(kPages, false);
  for (std::size_t i = 2; i <= n; ++i) want[i] = true;
  EXPECT_EQ(backed(base, kPages), want);
  munmap(base, kPages * kPage);
}

#if defined(__GLIBC__)
// The first node of the block that a collection makes once it holds 2^b - 1 members, and that
// collection (which the caller keeps, so the block stays).
using Map = Kel::HashMap<std::uint64_t, std::uint64_t>;
const std::uint64_t* firstOfBlock(Map& m, unsigned b) {
  const std::uint64_t first = (std::uint64_t{1} << b) - 1;
  for (std::uint64_t k = 0; k <= first; ++k) m.insert(k, k);
  return m.find(first);
}

TEST(Populate, ANodeBlockMadeUnderAReservationIsBackedForTheReservedNodes) {
  // The C library's allocator then maps blocks of 128 KB and more on their own, fresh and
  // unbacked; a sanitizer's allocator ignores this and maps large blocks so anyway.
  mallopt(M_MMAP_THRESHOLD, 128 << 10);
  constexpr unsigned kBlock = 17;  // 131,072 nodes, a few megabytes
  const std::size_t ahead = 256;   // pages after the block's first node, none of them written

  // Without a reservation the block's pages beyond its first node are not backed: this shows
  // the allocator handed out fresh memory, which the second collection's check relies on.
  Map plain;
  std::uintptr_t at = reinterpret_cast<std::uintptr_t>(firstOfBlock(plain, kBlock)) / kPage * kPage;
  const char* from = reinterpret_cast<const char*>(at + kPage);
  if (backed(from, ahead) != std::vector<bool>(ahead, false)) {
    GTEST_SKIP() << "the allocator handed out memory already backed";
  }

  Map reserved;
  reserved.reserve(300000);
  at = reinterpret_cast<std::uintptr_t>(firstOfBlock(reserved, kBlock)) / kPage * kPage;
  from = reinterpret_cast<const char*>(at + kPage);
  EXPECT_EQ(backed(from, ahead), std::vector<bool>(ahead, true));
  EXPECT_EQ(reserved.size(), (std::size_t{1} << kBlock));
  EXPECT_EQ(*reserved.find(12345), 12345u);
}
#endif

}  // namespace
