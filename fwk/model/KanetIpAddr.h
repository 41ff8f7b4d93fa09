// Kanet address value types: IpAddr (IPv4), Ip6Addr (IPv6), IpPrefix / Ip6Prefix (a network:
// address and length), IpAddrWithMask / Ip6AddrWithMask (an interface address: address and
// prefix length, host bits allowed) and EthAddr (a 48-bit Ethernet address).
//
// All are plain values: copied, compared, ordered and hashed by contents; the default is all
// zero (0.0.0.0, ::, 0.0.0.0/0, 00:00:00:00:00:00). Hashes are mixed (a 64-bit finaliser, or for
// IPv4 prefixes two multiplies), so sequential addresses and prefixes spread over a hash table's
// buckets, by their low bits and by their high bits alike.
//
// Text forms: "10.1.2.3"; IPv6 in the compressed form of RFC 5952 (lowercase, the first longest
// run of two or more zero groups written "::", "::ffff:1.2.3.4" for IPv4-mapped and
// "::1.2.3.4" for IPv4-compatible addresses); "<address>/<length>" for prefixes and addresses
// with masks; "00:1a:2b:3c:4d:5e" for Ethernet addresses. operator<< writes the text form.
// fromString reads the text form (for IPv6 also every other standard form: leading zeros in a
// group, upper case, no compression, an embedded dotted quad). Malformed text raises
// Kel::RangeException "<Type>::fromString: invalid text '<text>'". IPv4 octets with a leading
// zero ("010") are refused as ambiguous.
//
// Byte order: IpAddr(uint32_t) and value() are in host order (10.0.0.1 is 0x0a000001);
// valueNetworkOrder() is the integer whose bytes in memory are the address in network order,
// which is what the daemon's socket-address builders take. u8(i) is byte i in network order.
//
// Prefixes: a prefix of any length 0..255 can be held; validAsPrefix() tells whether it is a
// proper network (length within the address width and no bit set beyond the length). An
// address-with-mask always has a length within the address width (a longer one raises
// Kel::RangeException "<Type>::maskLen > <bits> not allowed").
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

#include "fwk/framework/Exception.h"
#include "fwk/framework/TypeName.h"

namespace Kanet {

// The finaliser of splitmix64: every input bit affects every output bit.
constexpr std::uint64_t mix64(std::uint64_t x) {
  x ^= x >> 30;
  x *= 0xbf58476d1ce4e5b9ULL;
  x ^= x >> 27;
  x *= 0x94d049bb133111ebULL;
  x ^= x >> 31;
  return x;
}

[[noreturn]] void throwInvalidText(const char* typeName, std::string_view text);
[[noreturn]] void throwIndexOutOfRange(const char* function);

class IpAddr {
 public:
  static constexpr int bits = 32;
  static constexpr const char* typeName = "IpAddr";
  static constexpr const char* prefixTypeName = "IpPrefix";
  static constexpr const char* withMaskTypeName = "IpAddrWithMask";

  constexpr IpAddr() = default;
  constexpr explicit IpAddr(std::uint32_t hostOrder) : v_(hostOrder) {}
  static IpAddr fromNetworkOrder(std::uint32_t networkOrder);
  static IpAddr fromString(std::string_view text);
  // The mask of `length` leading one bits; length must be 0..32.
  static constexpr IpAddr maskOfLength(int length) {
    return IpAddr(length <= 0 ? 0u : ~std::uint32_t{0} << (bits - length));
  }

  constexpr std::uint32_t value() const { return v_; }
  std::uint32_t valueNetworkOrder() const;
  // Byte i (0..3) in network order: u8(0) of 10.1.2.3 is 10. Raises "IpAddr::u8: index out of
  // range" otherwise.
  std::uint8_t u8(int i) const;
  std::string toString() const;
  std::size_t hash() const { return mix64(v_); }

  constexpr IpAddr operator&(const IpAddr& o) const { return IpAddr(v_ & o.v_); }
  friend bool operator==(const IpAddr&, const IpAddr&) = default;
  friend auto operator<=>(const IpAddr&, const IpAddr&) = default;
  friend std::ostream& operator<<(std::ostream& os, const IpAddr& a) { return os << a.toString(); }

 private:
  std::uint32_t v_ = 0;
};

class Ip6Addr {
 public:
  static constexpr int bits = 128;
  static constexpr const char* typeName = "Ip6Addr";
  static constexpr const char* prefixTypeName = "Ip6Prefix";
  static constexpr const char* withMaskTypeName = "Ip6AddrWithMask";
  using Bytes = std::array<std::uint8_t, 16>;

  constexpr Ip6Addr() = default;
  constexpr explicit Ip6Addr(const Bytes& bytes) : b_(bytes) {}
  // From 16 bytes in network order.
  static Ip6Addr fromBytes(const std::uint8_t* bytes16);
  static Ip6Addr fromString(std::string_view text);
  static Ip6Addr maskOfLength(int length);

  // Byte i (0..15) in network order. Raise "Ip6Addr::u8: index out of range" and
  // "Ip6Addr::u8Is: index out of range" for any other index.
  std::uint8_t u8(int i) const;
  void u8Is(int i, std::uint8_t v);
  const Bytes& bytes() const { return b_; }
  // In fe80::/10.
  bool isLinkLocal() const { return b_[0] == 0xfe && (b_[1] & 0xc0) == 0x80; }
  std::string toString() const;
  // Hashing, masking and comparing work on the two halves as the machine holds them (halves()):
  // a hash needs no byte order, two loads are a tenth of the instructions of sixteen shifts, and
  // the defaulted comparison would call the C library's memcmp. Inline: an IPv6 route's key is
  // hashed and compared several times a change. The hash folds the halves into one word (an odd
  // multiply keeps it one-to-one in each half), moves its high half down, and spreads it by the
  // high and low halves of one 128-bit product: 8 instructions, a third of two rounds of mix64.
  std::size_t hash() const {
    const Halves h = halves();
    std::uint64_t x = h[0] * 0x9E3779B97F4A7C15ull ^ h[1];
    x ^= x >> 32;
    const unsigned __int128 p = static_cast<unsigned __int128>(x) * 0xbf58476d1ce4e5b9ULL;
    return static_cast<std::uint64_t>(p) ^ static_cast<std::uint64_t>(p >> 64);
  }
  Ip6Addr operator&(const Ip6Addr& o) const {
    Halves a = halves();
    const Halves m = o.halves();
    a[0] &= m[0];
    a[1] &= m[1];
    Ip6Addr r;
    std::memcpy(r.b_.data(), a.data(), sizeof a);
    return r;
  }
  friend bool operator==(const Ip6Addr& a, const Ip6Addr& b) {
    const Halves x = a.halves();
    const Halves y = b.halves();
    return ((x[0] ^ y[0]) | (x[1] ^ y[1])) == 0;
  }
  friend auto operator<=>(const Ip6Addr&, const Ip6Addr&) = default;
  friend std::ostream& operator<<(std::ostream& os, const Ip6Addr& a) { return os << a.toString(); }

 private:
  using Halves = std::array<std::uint64_t, 2>;
  Halves halves() const {
    Halves h;
    std::memcpy(h.data(), b_.data(), sizeof h);
    return h;
  }

  Bytes b_{};
};

// ::1
inline constexpr Ip6Addr ip6AddrLoopback{
    Ip6Addr::Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}};

// Splits "<address>/<length>" (length: decimal, 0..maxLength, no leading zero) for the
// fromString of the types below; raises the invalid-text error of typeName otherwise.
std::pair<std::string_view, int> splitLengthText(std::string_view text, int maxLength,
                                                 const char* typeName);

// A network: address and length. Holds lengths 0..255 (others raise
// "<Type>::length out of range"); validAsPrefix() tells whether it is a proper network.
template <class A>
class PrefixT {
 public:
  using Addr = A;

  PrefixT() = default;
  PrefixT(const Addr& address, int length) : address_(address), length_(checkedLength(length)) {}
  // "<address>/<length>" with a length within the address width; host bits may be set.
  static PrefixT fromString(std::string_view text) {
    auto [addr, len] = splitLengthText(text, Addr::bits, Addr::prefixTypeName);
    try {
      return PrefixT(Addr::fromString(addr), len);
    } catch (const Kel::RangeException&) {
      throwInvalidText(Addr::prefixTypeName, text);
    }
  }

  const Addr& address() const { return address_; }
  int length() const { return length_; }
  bool validAsPrefix() const {
    return length_ <= Addr::bits && (address_ & Addr::maskOfLength(length_)) == address_;
  }
  std::string toString() const { return address_.toString() + "/" + std::to_string(length_); }
  // Every bit spread, the top 32 (all Kel::HashMap uses) above all: a route's key is hashed
  // several times a change, so this is cheaper than the address's finaliser and a second one.
  // An IPv4 prefix is 40 bits: a multiply, a fold of the high half into the low one, a second
  // multiply and a shift-xor (one multiply alone leaves sequential /24s in clusters a probe run
  // crawls through). A wider address's hash is mixed already; the length only has to move it (by
  // an odd multiplier).
  std::size_t hash() const {
    if constexpr (Addr::bits == 32) {
      std::uint64_t h = ((std::uint64_t{address_.value()} << 8) | length_) * 0x9E3779B97F4A7C15ull;
      h ^= h >> 32;
      h *= 0xbf58476d1ce4e5b9ULL;
      return h ^ (h >> 29);
    } else {
      return address_.hash() ^ (std::uint64_t{length_} * 0x9E3779B97F4A7C15ull);
    }
  }

  friend bool operator==(const PrefixT&, const PrefixT&) = default;
  friend auto operator<=>(const PrefixT&, const PrefixT&) = default;
  friend std::ostream& operator<<(std::ostream& os, const PrefixT& p) { return os << p.toString(); }

 private:
  static std::uint8_t checkedLength(int length) {
    if (length < 0 || length > 255) {
      throw Kel::RangeException(std::string(Addr::prefixTypeName) + "::length out of range");
    }
    return static_cast<std::uint8_t>(length);
  }

  Addr address_;
  std::uint8_t length_ = 0;
};

using IpPrefix = PrefixT<IpAddr>;
using Ip6Prefix = PrefixT<Ip6Addr>;

// An interface address: the address and the length of its subnet's mask.
template <class A>
class AddrWithMaskT {
 public:
  using Addr = A;

  AddrWithMaskT() = default;
  // Mask length 0.
  explicit AddrWithMaskT(const Addr& address) : address_(address) {}
  AddrWithMaskT(const Addr& address, int maskLen)
      : address_(address), maskLen_(checkedMaskLen(maskLen)) {}
  static AddrWithMaskT fromString(std::string_view text) {
    auto [addr, len] = splitLengthText(text, Addr::bits, Addr::withMaskTypeName);
    try {
      return AddrWithMaskT(Addr::fromString(addr), len);
    } catch (const Kel::RangeException&) {
      throwInvalidText(Addr::withMaskTypeName, text);
    }
  }

  const Addr& address() const { return address_; }
  int maskLen() const { return maskLen_; }
  Addr mask() const { return Addr::maskOfLength(maskLen_); }
  // The network the address is on (host bits cleared); always validAsPrefix.
  PrefixT<Addr> subnet() const { return PrefixT<Addr>(address_ & mask(), maskLen_); }
  std::string toString() const { return address_.toString() + "/" + std::to_string(maskLen_); }
  std::size_t hash() const { return mix64(address_.hash() ^ maskLen_); }

  friend bool operator==(const AddrWithMaskT&, const AddrWithMaskT&) = default;
  friend auto operator<=>(const AddrWithMaskT&, const AddrWithMaskT&) = default;
  friend std::ostream& operator<<(std::ostream& os, const AddrWithMaskT& a) {
    return os << a.toString();
  }

 private:
  static std::uint8_t checkedMaskLen(int maskLen) {
    if (maskLen < 0 || maskLen > Addr::bits) {
      throw Kel::RangeException(std::string(Addr::withMaskTypeName) + "::maskLen > " +
                                std::to_string(Addr::bits) + " not allowed");
    }
    return static_cast<std::uint8_t>(maskLen);
  }

  Addr address_;
  std::uint8_t maskLen_ = 0;
};

using IpAddrWithMask = AddrWithMaskT<IpAddr>;
using Ip6AddrWithMask = AddrWithMaskT<Ip6Addr>;

// A 48-bit Ethernet address. Also seen as three 16-bit words in network order: word(i) has byte
// 2i as its high byte and byte 2i+1 as its low byte.
class EthAddr {
 public:
  using Bytes = std::array<std::uint8_t, 6>;

  constexpr EthAddr() = default;
  constexpr explicit EthAddr(const Bytes& bytes) : b_(bytes) {}
  EthAddr(std::uint16_t word0, std::uint16_t word1, std::uint16_t word2);
  // Six groups of one or two hex digits separated by ':'.
  static EthAddr fromString(std::string_view text);

  // Index out of range raises "EthAddr::u8: index out of range" / "EthAddr::word: ...".
  std::uint8_t u8(int i) const;
  std::uint16_t word(int i) const;
  const Bytes& bytes() const { return b_; }
  std::string toString() const;
  std::size_t hash() const;

  friend bool operator==(const EthAddr&, const EthAddr&) = default;
  friend auto operator<=>(const EthAddr&, const EthAddr&) = default;
  friend std::ostream& operator<<(std::ostream& os, const EthAddr& a) { return os << a.toString(); }

 private:
  Bytes b_{};
};

}  // namespace Kanet

template <>
struct std::hash<Kanet::IpAddr> {
  using spreadInTopBits = void;  // see Kel::SpreadHash
  size_t operator()(const Kanet::IpAddr& a) const noexcept { return a.hash(); }
};
template <>
struct std::hash<Kanet::Ip6Addr> {
  using spreadInTopBits = void;  // see Kel::SpreadHash
  size_t operator()(const Kanet::Ip6Addr& a) const noexcept { return a.hash(); }
};
template <class A>
struct std::hash<Kanet::PrefixT<A>> {
  using spreadInTopBits = void;  // see Kel::SpreadHash
  size_t operator()(const Kanet::PrefixT<A>& p) const noexcept { return p.hash(); }
};
template <class A>
struct std::hash<Kanet::AddrWithMaskT<A>> {
  using spreadInTopBits = void;  // see Kel::SpreadHash
  size_t operator()(const Kanet::AddrWithMaskT<A>& a) const noexcept { return a.hash(); }
};
template <>
struct std::hash<Kanet::EthAddr> {
  using spreadInTopBits = void;  // see Kel::SpreadHash
  size_t operator()(const Kanet::EthAddr& a) const noexcept { return a.hash(); }
};

KEL_TYPE_NAME(Kanet::IpAddr, "Kanet::IpAddr")
KEL_TYPE_NAME(Kanet::Ip6Addr, "Kanet::Ip6Addr")
KEL_TYPE_NAME(Kanet::IpAddrWithMask, "Kanet::IpAddrWithMask")
KEL_TYPE_NAME(Kanet::Ip6AddrWithMask, "Kanet::Ip6AddrWithMask")
KEL_TYPE_NAME(Kanet::EthAddr, "Kanet::EthAddr")
