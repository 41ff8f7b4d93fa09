// Fuzz target: the daemon's socket-address and mask helpers fed hand-built records, malformed
// ones included (any family, any sa_len, any sll_alen up to 255).
//
// Input layout (missing bytes read as zero):
//   [0]        which temporary to build from record A: 0 sockbuild_in, 1 sockbuild_in6,
//              2 sockbuild_ll, 3 none (low two bits)
//   [1, 1+R)   record A, R = sizeof(sockaddr_un), copied byte for byte
//   [1+R, 1+2R) record B
//   [1+2R]     size of the buffer handed to sockaddr_format (0..255)
//   [2+2R]     family for sock_mask_by_len; [3+2R, 5+2R) its length, a signed 16-bit number
// Every record lives in a heap block of exactly its size, so a read or write past it is an
// AddressSanitizer report. Checked, beyond "no crash":
//  - the helpers read only the meaningful bytes: the family, sa_len, the address (4 or 16 bytes,
//    or sll_type, sll_alen and the first min(sll_alen, SA_LL_MAXLEN) bytes of sll_addr); a twin
//    record that differs elsewhere gives the same results;
//  - sockaddr_equal is symmetric, reflexive on well-formed records and false against null;
//  - sockaddr_format writes within its buffer, ends its text with a NUL, and cuts the full text
//    as its contract says (an IP address gives "" when it does not fit);
//  - sock_mask_len is the length of a contiguous IPv4/IPv6 mask, -1 otherwise; mask_contig and the
//    *_prefix_mask_locate_internal functions agree with it and return the shared mask;
//    sock_mask_by_len has a mask exactly for the lengths of the family (or 0 for a family without
//    masks);
//  - sockmask ANDs two records of one family and length, and counts one misuse otherwise;
//  - no misuse is counted for hand-built or live records, and every helper handed a recycled
//    temporary counts at least one.
#include "fwk/daemon/sockaddr.h"

#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "fwk/daemon/misuse.h"

namespace {

constexpr std::size_t R = sizeof(sockaddr_un);

// A record in a heap block of exactly its size.
struct Record {
  sockaddr_un* p = static_cast<sockaddr_un*>(std::malloc(R));
  explicit Record(const std::uint8_t* bytes) { std::memcpy(p, bytes, R); }
  Record(const Record&) = delete;
  ~Record() { std::free(p); }
};

bool wellFormed(const sockaddr_un* a) {
  return a->sa_family != SA_FAMILY_LINK || a->a_ll.sll_alen <= SA_LL_MAXLEN;
}

// Marks the bytes the helpers may read.
void markMeaningful(const sockaddr_un* a, bool* mark) {
  const auto at = [&](const void* field, std::size_t n) {
    const std::size_t off = static_cast<std::size_t>(static_cast<const std::uint8_t*>(field) -
                                                     reinterpret_cast<const std::uint8_t*>(a));
    for (std::size_t i = 0; i < n; ++i) mark[off + i] = true;
  };
  at(&a->sa_family, 1);
  at(&a->sa_len, 1);
  switch (a->sa_family) {
    case SA_FAMILY_INET:
      at(&a->a_in.sin_addr, 4);
      break;
    case SA_FAMILY_INET6:
      at(a->a_in6.sin6_addr, 16);
      break;
    case SA_FAMILY_LINK:
      at(&a->a_ll.sll_type, 1);
      at(&a->a_ll.sll_alen, 1);
      at(a->a_ll.sll_addr, a->a_ll.sll_alen < SA_LL_MAXLEN ? a->a_ll.sll_alen : SA_LL_MAXLEN);
      break;
    default:
      break;
  }
}

// `a` with every byte the helpers may not read inverted.
void scrambleTwin(const sockaddr_un* a, sockaddr_un* twin) {
  bool mark[R] = {};
  markMeaningful(a, mark);
  const auto* from = reinterpret_cast<const std::uint8_t*>(a);
  auto* to = reinterpret_cast<std::uint8_t*>(twin);
  for (std::size_t i = 0; i < R; ++i)
    to[i] = mark[i] ? from[i] : static_cast<std::uint8_t>(~from[i]);
}

// sockaddr_format into a buffer of `size` bytes that ends its heap block, so that a write past it
// is a report, also for 0 (a block of no bytes would still have one writable byte).
std::string formatted(const sockaddr_un* a, std::size_t size) {
  char* const block = static_cast<char*>(std::malloc(size + 1));
  char* const buf = block + 1;
  sockaddr_format(a, buf, size);
  std::string out;
  if (size > 0) {
    const std::size_t n = strnlen(buf, size);
    FUZZ_CHECK(n < size, "sockaddr_format left no NUL in a buffer of " + std::to_string(size));
    out.assign(buf, n);
  }
  std::free(block);
  return out;
}

// Length of a contiguous mask of n bytes, -1 otherwise.
int referenceMaskLen(const std::uint8_t* b, int n) {
  const auto bit = [&](int i) { return (b[i / 8] >> (7 - i % 8)) & 1; };
  int len = 0;
  while (len < 8 * n && bit(len)) ++len;
  for (int i = len; i < 8 * n; ++i) {
    if (bit(i)) return -1;
  }
  return len;
}

int expectedMaskLen(const sockaddr_un* a) {
  if (a->sa_family == SA_FAMILY_INET) {
    return referenceMaskLen(reinterpret_cast<const std::uint8_t*>(&a->a_in.sin_addr), 4);
  }
  if (a->sa_family == SA_FAMILY_INET6) return referenceMaskLen(a->a_in6.sin6_addr, 16);
  return -1;
}

void checkMasks(const sockaddr_un* a) {
  const int len = sock_mask_len(a);
  FUZZ_CHECK(len == expectedMaskLen(a), "sock_mask_len " + std::to_string(len));
  FUZZ_CHECK(mask_contig(a) == (len >= 0 ? 1 : 0), "mask_contig");
  const sockaddr_un* m4 = inet_prefix_mask_locate_internal(a);
  const sockaddr_un* m6 = inet6_prefix_mask_locate_internal(a);
  const bool in4 = a->sa_family == SA_FAMILY_INET && len >= 0;
  const bool in6 = a->sa_family == SA_FAMILY_INET6 && len >= 0;
  FUZZ_CHECK((m4 != nullptr) == in4 && (m6 != nullptr) == in6, "mask located for a non-mask");
  const sockaddr_un* m = in4 ? m4 : m6;
  if (!m) return;
  FUZZ_CHECK(sock_is_shared_mask(m) && m->sa_family == a->sa_family && sock_mask_len(m) == len &&
                 sockaddr_equal(m, a),
             "located mask is not the shared mask of the length");
}

void checkMaskByLen(std::uint8_t family, int len) {
  const sockaddr_un* m = sock_mask_by_len(family, len);
  const int max = family == SA_FAMILY_INET ? 32 : family == SA_FAMILY_INET6 ? 128 : 0;
  FUZZ_CHECK((m != nullptr) == (len >= 0 && len <= max),
             "sock_mask_by_len(" + std::to_string(family) + ", " + std::to_string(len) + ")");
  if (!m || max == 0) return;
  FUZZ_CHECK(m->sa_family == family && sock_mask_len(m) == len, "mask of another length");
}

void checkFormat(const sockaddr_un* a, const sockaddr_un* twin, std::size_t size) {
  const std::string full = formatted(a, 256);
  FUZZ_CHECK(formatted(twin, 256) == full, "sockaddr_format read bytes outside the address");
  const std::string cut = formatted(a, size);
  if (size == 0) return;
  const bool ip = a->sa_family == SA_FAMILY_INET || a->sa_family == SA_FAMILY_INET6;
  const std::string want = ip ? (full.size() < size ? full : "") : full.substr(0, size - 1);
  FUZZ_CHECK(cut == want, "cut to " + std::to_string(size) + ": " + cut + " of " + full);
}

void checkSockmask(const sockaddr_un* a, const sockaddr_un* b) {
  Record x(reinterpret_cast<const std::uint8_t*>(a));
  const std::uint64_t before = corvd_misuse_count();
  sockmask(x.p, b);
  int n = 0;
  int m = 0;
  const std::uint8_t* xa = sockaddr_bytes(a, &n);
  const std::uint8_t* xb = sockaddr_bytes(b, &m);
  const bool fits = xa && xb && a->sa_family == b->sa_family && n == m;
  FUZZ_CHECK(corvd_misuse_count() == before + (fits ? 0 : 1), "sockmask misuse count");
  if (!fits) {
    FUZZ_CHECK(std::memcmp(x.p, a, R) == 0, "a refused sockmask changed its record");
    return;
  }
  int k = 0;
  const std::uint8_t* xx = sockaddr_bytes(x.p, &k);
  for (int i = 0; i < n && i < SA_LL_MAXLEN; ++i) {
    FUZZ_CHECK(xx[i] == (xa[i] & xb[i]), "sockmask byte " + std::to_string(i));
  }
}

// Builds the temporary the flags ask for from A's bytes; null for none.
sockaddr_un* buildTemporary(int which, const sockaddr_un* a) {
  std::uint8_t bytes[64] = {};
  std::memcpy(bytes, a, R);
  switch (which) {
    case 0:
      return sockbuild_in(a->a_in.sin_port, a->a_in.sin_addr);
    case 1:
      return sockbuild_in6(a->a_in6.sin6_port, a->a_in6.sin6_addr);
    case 2:
      return sockbuild_ll(a->a_ll.sll_type, bytes, a->a_ll.sll_alen % 32);
    default:
      return nullptr;
  }
}

// Calls every helper on t (against b); the names of those that counted a misuse (counted) or
// none (silent).
void misusesOfHelpers(const sockaddr_un* t, const sockaddr_un* b, std::string* counted,
                      std::string* silent) {
  const auto call = [&](const char* name, auto&& f) {
    const std::uint64_t before = corvd_misuse_count();
    f();
    *(corvd_misuse_count() > before ? counted : silent) += std::string(" ") + name;
  };
  call("sockaddr_equal(t,b)", [&] { sockaddr_equal(t, b); });
  call("sockaddr_equal(b,t)", [&] { sockaddr_equal(b, t); });
  call("sockaddr_format", [&] { formatted(t, 64); });
  call("sock_mask_len", [&] { sock_mask_len(t); });
  call("mask_contig", [&] { mask_contig(t); });
  call("inet_prefix_mask_locate_internal", [&] { inet_prefix_mask_locate_internal(t); });
  call("inet6_prefix_mask_locate_internal", [&] { inet6_prefix_mask_locate_internal(t); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::uint8_t in[2 * R + 5] = {};
  std::memcpy(in, data, size < sizeof in ? size : sizeof in);
  fuzz::FuzzInput input(std::string_view(reinterpret_cast<const char*>(in), sizeof in));
  corvd_reset();

  const Record a(in + 1);
  const Record b(in + 1 + R);
  Record twin(in + 1);
  scrambleTwin(a.p, twin.p);
  const std::size_t formatSize = in[1 + 2 * R];
  std::int16_t byLen = 0;
  std::memcpy(&byLen, in + 3 + 2 * R, 2);

  FUZZ_CHECK(sockaddr_equal(a.p, b.p) == sockaddr_equal(b.p, a.p), "sockaddr_equal not symmetric");
  FUZZ_CHECK(sockaddr_equal(a.p, b.p) == sockaddr_equal(twin.p, b.p),
             "sockaddr_equal read bytes outside the address");
  FUZZ_CHECK(!sockaddr_equal(a.p, nullptr) && !sockaddr_equal(nullptr, a.p) &&
                 sockaddr_equal(nullptr, nullptr),
             "null");
  if (wellFormed(a.p)) {
    FUZZ_CHECK(sockaddr_equal(a.p, a.p) && sockaddr_equal(a.p, twin.p), "not reflexive");
  }
  checkFormat(a.p, twin.p, formatSize);
  FUZZ_CHECK(formatted(nullptr, 8) == "-", "null text");
  checkMasks(a.p);
  FUZZ_CHECK(sock_mask_len(twin.p) == sock_mask_len(a.p), "sock_mask_len read other bytes");
  checkMaskByLen(in[2 + 2 * R], byLen);
  FUZZ_CHECK(corvd_misuse_count() == 0, "misuse counted for a hand-built record");
  checkSockmask(a.p, b.p);

  sockaddr_un* t = buildTemporary(in[0] & 3, a.p);
  if (!t) return 0;
  std::string counted;
  std::string silent;
  misusesOfHelpers(t, b.p, &counted, &silent);
  FUZZ_CHECK(counted.empty(), "misuse counted for a live temporary by" + counted);
  for (int i = 0; i < SOCK_POOL_LIVE; ++i) sockbuild_in(0, 0);
  counted.clear();
  silent.clear();
  misusesOfHelpers(t, b.p, &counted, &silent);
  FUZZ_CHECK(silent.empty(), "no misuse counted for a recycled temporary by" + silent);
  return 0;
}
