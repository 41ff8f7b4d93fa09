#include "fwk/daemon/record_arena.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__)
#define CORVD_LSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(leak_sanitizer)
#define CORVD_LSAN 1
#endif
#endif
#ifdef CORVD_LSAN
#include <sanitizer/lsan_interface.h>
#endif

namespace {

// LeakSanitizer root regions are registered this many bytes at a time.
[[maybe_unused]] constexpr std::size_t kRegisterChunk = std::size_t{1} << 20;

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "corvd: record arena: %s\n", what);
  std::abort();
}

}  // namespace

RecordArena::RecordArena(std::size_t recordSize, std::size_t reserveBytes)
    : recordSize_(recordSize), reserveBytes_(reserveBytes) {}

void RecordArena::reserve() {
  pageSize_ = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  if (recordSize_ == 0 || recordSize_ > pageSize_) fail("record larger than a page");
  perPage_ = pageSize_ / recordSize_;
  unitShift_ = static_cast<unsigned>(std::countr_zero(recordSize_ | pageSize_));
  // Every record's reference fits 32 bits, 0 left for null.
  reserveBytes_ = std::min(reserveBytes_, std::size_t{0xFFFFFFFE} << unitShift_);
  // Address space only: pages are backed when first written and handed back with madvise. The
  // whole reservation stays readable and writable, so that returning pages in any order never
  // splits the mapping.
  for (std::size_t bytes = reserveBytes_; bytes >= 64 * pageSize_; bytes /= 2) {
    void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (p == MAP_FAILED) continue;
    base_ = static_cast<unsigned char*>(p);
    pageCount_ = bytes / pageSize_;
    // Not marked for huge pages: where a virtual machine hands its free memory back to its
    // host, a fresh huge page is most often one the host must back again, which cost a full
    // table's records about 4.5 ms a huge page (about 0.3 s at a million routes),
    // against about 1.6 microseconds a 4 KB page however long the memory had been free.
    return;
  }
  fail("no address space");
}

void RecordArena::openPage() {
  if (!base_) reserve();
  std::size_t next = started_ ? current_ + 1 : 0;
  // A page taken again must be returned first, or a later return would wipe its new records.
  if (next < highWater_ || next == pageCount_) returnEmptied();
  for (std::size_t tries = 0; tries < pageCount_; ++tries, ++next) {
    if (next == pageCount_) next = 0;  // the reservation is spent: reuse returned pages
    if (pages_.count(next)) continue;
    current_ = next;
    started_ = true;
    pages_.emplace(next, Page{});
    bytesHeldAll_ += pageSize_;
    if (next >= highWater_) {
      backAhead(next);
      highWater_ = next + 1;
    }
#ifdef CORVD_LSAN
    const std::size_t end = (next + 1) * pageSize_;
    while (registered_ < end) {
      const std::size_t n = std::min(kRegisterChunk, pageCount_ * pageSize_ - registered_);
      __lsan_register_root_region(base_ + registered_, n);
      registered_ += n;
    }
#endif
    return;
  }
  fail("every page holds a live record");
}

void RecordArena::backAhead([[maybe_unused]] std::size_t page) {
#if defined(__linux__) && defined(MADV_POPULATE_WRITE)
  if (page < backedTo_) return;
  const std::size_t n =
      std::min({std::max<std::size_t>(highWater_, 1), kBackAhead, pageCount_ - page});
  madvise(base_ + page * pageSize_, n * pageSize_, MADV_POPULATE_WRITE);
  backedTo_ = page + n;
#endif
}

void* RecordArena::take() {
  auto it = started_ ? pages_.find(current_) : pages_.end();
  if (it == pages_.end() || it->second.handedOut == perPage_) {
    openPage();
    it = pages_.find(current_);
  }
  Page& page = it->second;
  unsigned char* rec = base_ + current_ * pageSize_ + page.handedOut * recordSize_;
  ++page.handedOut;
  ++page.live;
  ++live_;
  std::memset(rec, 0, recordSize_);
  return rec;
}

std::size_t RecordArena::pageOf(const void* p) const {
  return static_cast<std::size_t>(static_cast<const unsigned char*>(p) - base_) / pageSize_;
}

void RecordArena::give(void* rec) {
  const std::size_t index = pageOf(rec);
  auto it = pages_.find(index);
  if (it == pages_.end() || it->second.live == 0) fail("record given back twice");
  Page& page = it->second;
  --page.live;
  --live_;
  if (page.live != 0 || page.handedOut != perPage_) return;
  pages_.erase(it);
  emptied_.push_back(index);
  if (emptied_.size() >= kReturnBatch && emptied_.size() >= pages_.size() / kReturnShare) {
    returnEmptied();
  }
}

void RecordArena::returnEmptied() {
  std::sort(emptied_.begin(), emptied_.end());
  for (std::size_t i = 0; i < emptied_.size();) {
    std::size_t j = i + 1;
    while (j < emptied_.size() && emptied_[j] == emptied_[j - 1] + 1) ++j;
    // The pages read as zeros from now on.
    madvise(base_ + emptied_[i] * pageSize_, (j - i) * pageSize_, MADV_DONTNEED);
    i = j;
  }
  bytesHeldAll_ -= emptied_.size() * pageSize_;
  emptied_.clear();
}

const void* RecordArena::following(const void* rec) const {
  const auto offset = static_cast<std::size_t>(static_cast<const unsigned char*>(rec) - base_);
  std::size_t page = pageOf(rec);
  std::size_t slot = offset % pageSize_ / recordSize_ + 1;
  if (slot == perPage_) {
    ++page;
    slot = 0;
  }
  if (page >= highWater_) return nullptr;
  return base_ + page * pageSize_ + slot * recordSize_;
}

RecordArena::State RecordArena::state(const void* p) const {
  const auto* b = static_cast<const unsigned char*>(p);
  if (!base_ || b < base_ || b >= base_ + pageCount_ * pageSize_) return State::foreign;
  const std::size_t within = static_cast<std::size_t>(b - base_) % pageSize_;
  if (within % recordSize_ != 0 || within / recordSize_ >= perPage_) return State::foreign;
  const std::size_t index = pageOf(p);
  auto it = pages_.find(index);
  if (it == pages_.end()) return index < highWater_ ? State::returned : State::foreign;
  return within / recordSize_ < it->second.handedOut ? State::held : State::foreign;
}
