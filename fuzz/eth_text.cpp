// Fuzz target: Ethernet address text. Kanet::EthAddr::fromString must accept exactly six groups
// of one or two hex digits separated by ':' (read here by splitting the text at every ':'), give
// their bytes, write the two-digit lower-case form and read that back to an equal value with an
// equal hash; any other text raises exactly "EthAddr::fromString: invalid text '<text>'".
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz/FuzzSupport.h"
#include "fwk/model/KanetIpAddr.h"

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::optional<Kanet::EthAddr::Bytes> referenceBytes(std::string_view text) {
  Kanet::EthAddr::Bytes b{};
  for (int group = 0; group < 6; ++group) {
    const std::size_t colon = group < 5 ? text.find(':') : std::string_view::npos;
    if (group < 5 && colon == std::string_view::npos) return std::nullopt;
    const std::string_view digits = text.substr(0, colon);
    if (digits.empty() || digits.size() > 2) return std::nullopt;
    int v = 0;
    for (char c : digits) {
      if (hexValue(c) < 0) return std::nullopt;
      v = v * 16 + hexValue(c);
    }
    b[group] = static_cast<std::uint8_t>(v);
    text.remove_prefix(group < 5 ? colon + 1 : text.size());
  }
  return b;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  fuzz::FuzzInput input(text);
  const std::optional<Kanet::EthAddr::Bytes> want = referenceBytes(text);
  const auto got = fuzz::outcomeOf([&] { return Kanet::EthAddr::fromString(text); });
  FUZZ_CHECK(want.has_value() == got.ok(), "disagrees with the reference: " + got.error);
  if (!want) {
    FUZZ_CHECK(
        got.error == fuzz::asWhat("EthAddr::fromString: invalid text '" + std::string(text) + "'"),
        got.error);
    return 0;
  }
  const Kanet::EthAddr& a = *got.value;
  FUZZ_CHECK(a.bytes() == *want, a.toString());
  std::string form;
  for (std::uint8_t b : *want) {
    static constexpr char kHex[] = "0123456789abcdef";
    if (!form.empty()) form += ':';
    form += kHex[b >> 4];
    form += kHex[b & 0xf];
  }
  FUZZ_CHECK(a.toString() == form, a.toString());
  for (int i = 0; i < 3; ++i) {
    FUZZ_CHECK(a.word(i) == ((*want)[2 * i] << 8 | (*want)[2 * i + 1]),
               "word " + std::to_string(i));
  }
  const Kanet::EthAddr back = Kanet::EthAddr::fromString(a.toString());
  FUZZ_CHECK(back == a && back.hash() == a.hash(), "text form reads back to another value");
  return 0;
}
