// Storage for the daemon records that callers keep pointers to and may hand back after the record
// is gone (rt_entry, gw_entry): a stale pointer must be told from a live record by the pointer
// alone, and the memory of gone records must come back.
//
// Each record gets an address that was never handed out before: records are taken in address
// order from one large reservation of address space, so a record's address is its serial number.
// A gone record's slot is never reused; its page is returned to the system once every record on
// it is gone, and the arena forgets it. `state` then answers, without reading the record, whether
// a pointer is a record on a page still held (the caller reads the record's own tag to tell live
// from gone), a record whose page was returned (gone for certain), or no record of the arena.
// Emptied pages go back to the system in batches, a run of adjacent pages in one call: each
// return makes the kernel flush translations on every processor the process ran on, which cost a
// withdrawal of a full table a third of its time when done page by page. A batch goes once the
// emptied pages number kReturnBatch and an eighth (kReturnShare) of the pages still held, so a
// large table's withdrawal makes tens of calls, not thousands, and the memory held back stays
// a small share of what is in use.
//
// Limits: addresses are reused only after the whole reservation has been handed out once (several
// hundred million records); from then on pages are reused oldest first, and a pointer kept across
// that long can alias a new record. A page stays held while any record on it lives. The arena is
// the process's (all daemon instances share it, so no instance can see another's stale record as
// its own live one) and is never unmapped: records still live at exit stay readable, and under
// LeakSanitizer the used part is registered as a root region, so what they point to is not a leak.
//
// Pages never opened before are backed ahead of their first write, in one request for as many as
// the arena has opened so far and at most kBackAhead: a page fault traps into the system, and on
// a virtual machine the trap costs more than the page. Where the system cannot, they are backed
// as they are first written; either way nothing changes for the program but time (and at most
// kBackAhead - 1 pages resident before their turn, which bytesHeldAll does not count).
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

class RecordArena {
 public:
  enum class State { held, returned, foreign };

  // Records of `recordSize` bytes (at most a page) in a reservation of up to `reserveBytes`.
  RecordArena(std::size_t recordSize, std::size_t reserveBytes);
  RecordArena(const RecordArena&) = delete;
  RecordArena& operator=(const RecordArena&) = delete;

  // A zeroed record at an address never handed out before (see Limits).
  void* take();
  // The record is gone; `rec` must come from take() and not be given back twice.
  void give(void* rec);
  State state(const void* p) const;
  // The record slot after `rec` in the order records are taken, when its page has been opened
  // (its memory reads as a record, live or gone, or as zeros); else null. For hints: a caller
  // that goes through records in the order they were taken can look one ahead.
  const void* following(const void* rec) const;

  // Emptied pages are held back until at least kReturnBatch, and at least 1/kReturnShare of the
  // pages still held, wait to go back to the system.
  static constexpr std::size_t kReturnBatch = 16;
  static constexpr std::size_t kReturnShare = 8;

  // A record taken and not given back as 32 bits, and back (0 stands for null): its offset in
  // units of the largest power of two that divides both the record and the page size. An index
  // holding a million records so takes four bytes for each instead of eight.
  uint32_t refOf(const void* rec) const {
    if (!rec) return 0;
    return static_cast<uint32_t>(
               static_cast<std::size_t>(static_cast<const unsigned char*>(rec) - base_) >>
               unitShift_) +
           1;
  }
  void* at(uint32_t ref) const {
    return ref ? base_ + (static_cast<std::size_t>(ref - 1) << unitShift_) : nullptr;
  }

  std::size_t liveRecords() const { return live_; }
  std::size_t pagesHeld() const { return pages_.size(); }
  // Bytes of the pages all arenas of the process hold (memory outside the heap), emptied pages
  // not yet returned included.
  static std::size_t bytesHeldAll() { return bytesHeldAll_; }

 private:
  struct Page {
    uint32_t handedOut = 0;  // records taken from the page so far
    uint32_t live = 0;       // of those, not given back
  };
  void reserve();
  void openPage();
  void backAhead(std::size_t page);
  std::size_t pageOf(const void* p) const;
  void returnEmptied();

  static constexpr std::size_t kBackAhead = 16;  // pages backed in one request, at most
  static inline std::size_t bytesHeldAll_ = 0;
  std::size_t recordSize_;
  std::size_t reserveBytes_;
  std::size_t pageSize_ = 0;
  std::size_t perPage_ = 0;
  std::size_t pageCount_ = 0;
  unsigned char* base_ = nullptr;
  unsigned unitShift_ = 0;                       // of refOf
  std::size_t current_ = 0;                      // page records are taken from
  std::size_t highWater_ = 0;                    // pages below it have been opened at least once
  std::size_t backedTo_ = 0;                     // pages below it have been backed ahead
  bool started_ = false;                         // a page has been opened
  [[maybe_unused]] std::size_t registered_ = 0;  // bytes registered with LeakSanitizer
  std::size_t live_ = 0;
  std::unordered_map<std::size_t, Page> pages_;  // held pages by index
  std::vector<std::size_t> emptied_;             // forgotten pages not yet returned
};
