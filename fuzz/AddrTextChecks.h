// The checks of the address fuzz targets, once for both families: a text is read as an address,
// a prefix, an address with a mask and a route key, and each reading is compared with the
// system's inet_pton / inet_ntop and with a plain reading of "<address>/<length>".
//
// For every input text:
//  - the parser accepts exactly what inet_pton accepts (a text with a NUL byte is never an
//    address), reads the same bytes, writes inet_ntop's text, and reads its own text back to an
//    equal value with an equal hash; a refused text raises exactly
//    "<Type>::fromString: invalid text '<text>'";
//  - "<address>/<length>" is accepted when the part before the last '/' is an address and the
//    part after it a decimal length without a leading zero within the family's width; the
//    prefix's validity and the mask and subnet of an address with a mask are checked bit by bit;
//  - a route key is made exactly from the texts of valid prefixes, and refuses the text of an
//    invalid one with "Prefix::validAsPrefix != true not allowed".
// Anything else (a crash, a sanitizer report, an exception other than Kel::RangeException) is a
// finding.
#pragma once

#include <arpa/inet.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz/FuzzSupport.h"
#include "fwk/model/KanetIpAddr.h"
#include "fwk/model/RouteKey.h"

namespace fuzz {

using Bytes = std::array<std::uint8_t, 16>;  // an address in network order; IPv4 uses 4

template <class A>
struct Family;

template <>
struct Family<Kanet::IpAddr> {
  static constexpr int af = AF_INET;
  static constexpr int size = 4;
  // IPv4 has a single text form, so an accepted text is the value's own text.
  static constexpr bool singleTextForm = true;
  using RouteKey = Routing::RouteKey;
  static Bytes bytesOf(const Kanet::IpAddr& a) {
    Bytes b{};
    const std::uint32_t n = a.valueNetworkOrder();
    std::memcpy(b.data(), &n, 4);
    return b;
  }
};

template <>
struct Family<Kanet::Ip6Addr> {
  static constexpr int af = AF_INET6;
  static constexpr int size = 16;
  static constexpr bool singleTextForm = false;
  using RouteKey = Routing6::RouteKey;
  static Bytes bytesOf(const Kanet::Ip6Addr& a) { return a.bytes(); }
};

template <class A>
std::optional<Bytes> ptonBytes(std::string_view text) {
  if (text.find('\0') != std::string_view::npos) return std::nullopt;
  Bytes b{};
  if (inet_pton(Family<A>::af, std::string(text).c_str(), b.data()) != 1) return std::nullopt;
  return b;
}

template <class A>
std::string ntopText(const Bytes& b) {
  char buf[INET6_ADDRSTRLEN];
  return inet_ntop(Family<A>::af, b.data(), buf, sizeof buf);
}

inline std::string invalidText(const char* typeName, std::string_view text) {
  return asWhat(std::string(typeName) + "::fromString: invalid text '" + std::string(text) + "'");
}

// A decimal length from 0 to max without a leading zero.
inline std::optional<int> decimalLength(std::string_view s, int max) {
  if (s.empty() || (s.size() > 1 && s[0] == '0')) return std::nullopt;
  int v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return std::nullopt;
    v = v * 10 + (c - '0');
    if (v > max) return std::nullopt;
  }
  return v;
}

inline bool bitAt(const Bytes& b, int i) { return (b[i / 8] >> (7 - i % 8)) & 1; }

template <class A>
void checkAddress(std::string_view text) {
  using F = Family<A>;
  const std::optional<Bytes> want = ptonBytes<A>(text);
  const Outcome<A> got = outcomeOf([&] { return A::fromString(text); });
  FUZZ_CHECK(want.has_value() == got.ok(),
             std::string(A::typeName) + " and inet_pton disagree: " + got.error);
  if (!want) {
    FUZZ_CHECK(got.error == invalidText(A::typeName, text), got.error);
    return;
  }
  const A& a = *got.value;
  FUZZ_CHECK(F::bytesOf(a) == *want, "bytes differ from inet_pton's, text " + a.toString());
  for (int i = 0; i < F::size; ++i) FUZZ_CHECK(a.u8(i) == (*want)[i], "u8 " + std::to_string(i));
  FUZZ_CHECK(a.toString() == ntopText<A>(*want), a.toString() + " vs " + ntopText<A>(*want));
  if (F::singleTextForm) FUZZ_CHECK(a.toString() == text, a.toString());
  const A back = A::fromString(a.toString());
  FUZZ_CHECK(back == a && back.hash() == a.hash(), "text form reads back to another value");
}

// What "<address>/<length>" holds, read without the parsers under test.
struct LengthText {
  bool accepted = false;
  Bytes address{};
  int length = 0;
};

template <class A>
LengthText referenceLengthText(std::string_view text) {
  const std::size_t slash = text.rfind('/');
  if (slash == std::string_view::npos) return {};
  const std::optional<Bytes> addr = ptonBytes<A>(text.substr(0, slash));
  const std::optional<int> len = decimalLength(text.substr(slash + 1), A::bits);
  return {addr && len, addr.value_or(Bytes{}), len.value_or(0)};
}

// Checks T::fromString for "<address>/<length>" against `want`; the value when accepted.
template <class T>
std::optional<T> checkLengthText(std::string_view text, const LengthText& want,
                                 const char* typeName) {
  using A = typename T::Addr;
  const Outcome<T> got = outcomeOf([&] { return T::fromString(text); });
  FUZZ_CHECK(want.accepted == got.ok(),
             std::string(typeName) + " disagrees with the reference: " + got.error);
  if (!want.accepted) {
    FUZZ_CHECK(got.error == invalidText(typeName, text), got.error);
    return std::nullopt;
  }
  const T& v = *got.value;
  FUZZ_CHECK(Family<A>::bytesOf(v.address()) == want.address, "address of " + v.toString());
  FUZZ_CHECK(v.toString() == ntopText<A>(want.address) + "/" + std::to_string(want.length),
             v.toString());
  const T back = T::fromString(v.toString());
  FUZZ_CHECK(back == v && back.hash() == v.hash(), "text form reads back to another value");
  return v;
}

template <class A>
void checkPrefixes(std::string_view text) {
  using Prefix = Kanet::PrefixT<A>;
  using WithMask = Kanet::AddrWithMaskT<A>;
  using RouteKey = typename Family<A>::RouteKey;

  const LengthText want = referenceLengthText<A>(text);
  const std::optional<Prefix> p = checkLengthText<Prefix>(text, want, A::prefixTypeName);
  const std::optional<WithMask> m = checkLengthText<WithMask>(text, want, A::withMaskTypeName);
  // A route key reads its text with the prefix's parser; only the validity check is its own.
  if (!want.accepted) return;

  bool valid = true;
  for (int i = want.length; i < A::bits; ++i) valid = valid && !bitAt(want.address, i);
  FUZZ_CHECK(p->length() == want.length, std::to_string(p->length()));
  FUZZ_CHECK(p->validAsPrefix() == valid, "validAsPrefix of " + p->toString());
  const Outcome<RouteKey> key = outcomeOf([&] { return RouteKey::fromString(text); });
  FUZZ_CHECK(valid == key.ok(), "route key: " + key.error);
  if (!valid) {
    FUZZ_CHECK(key.error == "Prefix::validAsPrefix != true not allowed", key.error);
  } else {
    FUZZ_CHECK(key.value->prefix() == *p, "route key's prefix");
  }

  FUZZ_CHECK(m->maskLen() == want.length, std::to_string(m->maskLen()));
  const Bytes mask = Family<A>::bytesOf(m->mask());
  const Bytes subnet = Family<A>::bytesOf(m->subnet().address());
  for (int i = 0; i < A::bits; ++i) {
    FUZZ_CHECK(bitAt(mask, i) == (i < want.length), "mask bit " + std::to_string(i));
    FUZZ_CHECK(bitAt(subnet, i) == (i < want.length && bitAt(want.address, i)),
               "subnet bit " + std::to_string(i));
  }
  FUZZ_CHECK(m->subnet().validAsPrefix() && m->subnet().length() == want.length, "subnet");
}

template <class A>
void checkAddressTexts(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  FuzzInput input(text);
  checkAddress<A>(text);
  checkPrefixes<A>(text);
}

}  // namespace fuzz
