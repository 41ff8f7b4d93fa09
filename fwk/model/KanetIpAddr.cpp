// Text forms, byte access and byte-order conversion of the Kanet address types.
#include "fwk/model/KanetIpAddr.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace Kanet {

namespace {

int hexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

void appendHex(std::string& out, unsigned v) {
  static constexpr char kDigits[] = "0123456789abcdef";
  char buf[8];
  int n = 0;
  do {
    buf[n++] = kDigits[v & 0xf];
    v >>= 4;
  } while (v != 0);
  while (n > 0) out += buf[--n];
}

void appendDottedQuad(std::string& out, const std::uint8_t* b) {
  for (int i = 0; i < 4; ++i) {
    if (i != 0) out += '.';
    out += std::to_string(b[i]);
  }
}

// Reads exactly a dotted quad filling the whole of `text` into out[0..3]: four decimal octets of
// at most 255 without leading zeros.
bool parseDottedQuad(std::string_view text, std::uint8_t* out) {
  int octets = 0;
  std::size_t i = 0;
  while (octets < 4) {
    if (octets != 0) {
      if (i >= text.size() || text[i] != '.') return false;
      ++i;
    }
    const std::size_t start = i;
    unsigned v = 0;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9') {
      v = v * 10 + static_cast<unsigned>(text[i] - '0');
      if (v > 255) return false;
      ++i;
    }
    if (i == start) return false;
    if (text[start] == '0' && i - start > 1) return false;
    out[octets++] = static_cast<std::uint8_t>(v);
  }
  return i == text.size();
}

// Reads the IPv6 text forms of RFC 4291 section 2.2 into out[0..15].
bool parseIp6(std::string_view text, std::uint8_t* out) {
  std::uint8_t words[16] = {};
  int filled = 0;  // bytes written to words
  int gapAt = -1;  // byte offset of "::", when seen
  std::size_t i = 0;
  if (text.empty()) return false;
  if (text[0] == ':') {
    if (text.size() < 2 || text[1] != ':') return false;
    gapAt = 0;
    i = 2;
    if (i == text.size()) {
      std::fill(out, out + 16, 0);
      return true;
    }
  }
  // Each turn reads one group, then a separator (':' or "::") or the end.
  while (true) {
    const std::size_t start = i;
    unsigned v = 0;
    while (i < text.size() && hexDigitValue(text[i]) >= 0 && i - start < 5) {
      v = v * 16 + static_cast<unsigned>(hexDigitValue(text[i]));
      ++i;
    }
    if (i == start || i - start > 4) return false;
    if (i < text.size() && text[i] == '.') {
      // A dotted quad ends the text and fills the last 32 bits.
      if (filled + 4 > 16 || !parseDottedQuad(text.substr(start), words + filled)) return false;
      filled += 4;
      break;
    }
    if (filled + 2 > 16) return false;
    words[filled++] = static_cast<std::uint8_t>(v >> 8);
    words[filled++] = static_cast<std::uint8_t>(v);
    if (i == text.size()) break;
    if (text[i] != ':') return false;
    ++i;
    if (i < text.size() && text[i] == ':') {
      if (gapAt >= 0) return false;
      gapAt = filled;
      ++i;
      if (i == text.size()) break;
    } else if (i == text.size()) {
      return false;  // a single trailing ':'
    }
  }
  if (gapAt < 0) {
    if (filled != 16) return false;
    std::copy(words, words + 16, out);
    return true;
  }
  if (filled == 16) return false;  // "::" must stand for at least one group
  const int tail = filled - gapAt;
  std::fill(out, out + 16, 0);
  std::copy(words, words + gapAt, out);
  std::copy(words + gapAt, words + filled, out + 16 - tail);
  return true;
}

bool parseUnsignedDecimal(std::string_view text, int max, int& out) {
  if (text.empty() || text.size() > 3) return false;
  if (text[0] == '0' && text.size() > 1) return false;
  int v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  if (v > max) return false;
  out = v;
  return true;
}

}  // namespace

void throwInvalidText(const char* typeName, std::string_view text) {
  throw Kel::RangeException(std::string(typeName) + "::fromString: invalid text '" +
                            std::string(text) + "'");
}

void throwIndexOutOfRange(const char* function) {
  throw Kel::RangeException(std::string(function) + ": index out of range");
}

std::pair<std::string_view, int> splitLengthText(std::string_view text, int maxLength,
                                                 const char* typeName) {
  const std::size_t slash = text.rfind('/');
  int length = 0;
  if (slash == std::string_view::npos ||
      !parseUnsignedDecimal(text.substr(slash + 1), maxLength, length)) {
    throwInvalidText(typeName, text);
  }
  return {text.substr(0, slash), length};
}

// ---- IpAddr ----

IpAddr IpAddr::fromNetworkOrder(std::uint32_t networkOrder) {
  if constexpr (std::endian::native == std::endian::little) {
    networkOrder = (networkOrder >> 24) | ((networkOrder >> 8) & 0xff00) |
                   ((networkOrder << 8) & 0xff0000) | (networkOrder << 24);
  }
  return IpAddr(networkOrder);
}

std::uint32_t IpAddr::valueNetworkOrder() const {
  // The conversion is its own inverse.
  return fromNetworkOrder(v_).value();
}

IpAddr IpAddr::fromString(std::string_view text) {
  std::uint8_t b[4];
  if (!parseDottedQuad(text, b)) throwInvalidText(typeName, text);
  return IpAddr(std::uint32_t{b[0]} << 24 | std::uint32_t{b[1]} << 16 | std::uint32_t{b[2]} << 8 |
                b[3]);
}

std::uint8_t IpAddr::u8(int i) const {
  if (i < 0 || i > 3) throwIndexOutOfRange("IpAddr::u8");
  return static_cast<std::uint8_t>(v_ >> (8 * (3 - i)));
}

std::string IpAddr::toString() const {
  const std::uint8_t b[4] = {u8(0), u8(1), u8(2), u8(3)};
  std::string out;
  out.reserve(15);
  appendDottedQuad(out, b);
  return out;
}

// ---- Ip6Addr ----

Ip6Addr Ip6Addr::fromBytes(const std::uint8_t* bytes16) {
  Ip6Addr a;
  std::copy(bytes16, bytes16 + 16, a.b_.begin());
  return a;
}

Ip6Addr Ip6Addr::fromString(std::string_view text) {
  Ip6Addr a;
  if (!parseIp6(text, a.b_.data())) throwInvalidText(typeName, text);
  return a;
}

Ip6Addr Ip6Addr::maskOfLength(int length) {
  // Made once: a route's key checks its prefix against the mask of its length at every change.
  static const auto masks = [] {
    std::array<Ip6Addr, 129> all{};
    for (int len = 1; len <= 128; ++len) {
      for (int i = 0, left = len; i < 16 && left > 0; ++i, left -= 8) {
        all[static_cast<std::size_t>(len)].b_[i] =
            left >= 8 ? 0xff : static_cast<std::uint8_t>(0xff << (8 - left));
      }
    }
    return all;
  }();
  return masks[static_cast<std::size_t>(std::clamp(length, 0, 128))];
}

std::uint8_t Ip6Addr::u8(int i) const {
  if (i < 0 || i > 15) throwIndexOutOfRange("Ip6Addr::u8");
  return b_[i];
}

void Ip6Addr::u8Is(int i, std::uint8_t v) {
  if (i < 0 || i > 15) throwIndexOutOfRange("Ip6Addr::u8Is");
  b_[i] = v;
}

std::string Ip6Addr::toString() const {
  unsigned words[8];
  for (int i = 0; i < 8; ++i) words[i] = unsigned{b_[2 * i]} << 8 | b_[2 * i + 1];
  // The first longest run of zero groups; a run of one group is not compressed.
  int bestBase = -1;
  int bestLen = 0;
  for (int i = 0, runBase = -1; i < 8; ++i) {
    if (words[i] != 0) {
      runBase = -1;
      continue;
    }
    if (runBase < 0) runBase = i;
    if (i - runBase + 1 > bestLen) {
      bestBase = runBase;
      bestLen = i - runBase + 1;
    }
  }
  if (bestLen < 2) bestBase = -1;

  std::string out;
  out.reserve(39);
  for (int i = 0; i < 8; ++i) {
    if (bestBase >= 0 && i >= bestBase && i < bestBase + bestLen) {
      if (i == bestBase) out += ':';
      continue;
    }
    if (i != 0) out += ':';
    // IPv4-compatible (::a.b.c.d) and IPv4-mapped (::ffff:a.b.c.d) addresses end in a dotted quad.
    if (i == 6 && bestBase == 0 && (bestLen == 6 || (bestLen == 5 && words[5] == 0xffff))) {
      appendDottedQuad(out, b_.data() + 12);
      return out;
    }
    appendHex(out, words[i]);
  }
  if (bestBase >= 0 && bestBase + bestLen == 8) out += ':';
  return out;
}

// ---- EthAddr ----

EthAddr::EthAddr(std::uint16_t word0, std::uint16_t word1, std::uint16_t word2)
    : b_{static_cast<std::uint8_t>(word0 >> 8), static_cast<std::uint8_t>(word0),
         static_cast<std::uint8_t>(word1 >> 8), static_cast<std::uint8_t>(word1),
         static_cast<std::uint8_t>(word2 >> 8), static_cast<std::uint8_t>(word2)} {}

EthAddr EthAddr::fromString(std::string_view text) {
  EthAddr a;
  std::size_t i = 0;
  for (int group = 0; group < 6; ++group) {
    if (group != 0) {
      if (i >= text.size() || text[i] != ':') throwInvalidText("EthAddr", text);
      ++i;
    }
    unsigned v = 0;
    int digits = 0;
    while (i < text.size() && digits < 3 && hexDigitValue(text[i]) >= 0) {
      v = v * 16 + static_cast<unsigned>(hexDigitValue(text[i++]));
      ++digits;
    }
    if (digits == 0 || digits > 2) throwInvalidText("EthAddr", text);
    a.b_[group] = static_cast<std::uint8_t>(v);
  }
  if (i != text.size()) throwInvalidText("EthAddr", text);
  return a;
}

std::uint8_t EthAddr::u8(int i) const {
  if (i < 0 || i > 5) throwIndexOutOfRange("EthAddr::u8");
  return b_[i];
}

std::uint16_t EthAddr::word(int i) const {
  if (i < 0 || i > 2) throwIndexOutOfRange("EthAddr::word");
  return static_cast<std::uint16_t>(b_[2 * i] << 8 | b_[2 * i + 1]);
}

std::string EthAddr::toString() const {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(17);
  for (int i = 0; i < 6; ++i) {
    if (i != 0) out += ':';
    out += kDigits[b_[i] >> 4];
    out += kDigits[b_[i] & 0xf];
  }
  return out;
}

std::size_t EthAddr::hash() const {
  std::uint64_t v = 0;
  for (std::uint8_t b : b_) v = v << 8 | b;
  return mix64(v);
}

}  // namespace Kanet
