// Fuzz target: the text of InterfaceRouteInfo::IpAddrSet.
// For every input:
//  - fromString either makes a value or raises one of the documented Kel::RangeException texts
//    (premature end, no such attribute, an expected token, a member key's own invalid text, junk
//    at a column); nothing else is acceptable;
//  - the parse from a text position agrees with it: it fails with the same message and leaves the
//    position where it was, or it stops right after the value's ")" and fromString then accepts
//    exactly when only blanks follow (otherwise raising the junk error at the first non-blank
//    character's column);
//  - an accepted value is rewritten in the full syntax (both collections in Kel::collectionText)
//    and read back to an equal value; its copy is equal; its text form reads back to an empty set.
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/FuzzSupport.h"
#include "fwk/IpAddrSet.h"

namespace {

using InterfaceRouteInfo::IpAddrSet;

bool startsWith(const std::string& s, std::string_view prefix) {
  return s.compare(0, prefix.size(), prefix) == 0;
}

bool documentedError(const std::string& e) {
  return e == "premature end of value type IpAddrSet" ||
         startsWith(e, "IpAddrSet has no such attribute: ") || startsWith(e, "expected '") ||
         startsWith(e, "IpAddrWithMask::fromString: invalid text '") ||
         startsWith(e, "Ip6AddrWithMask::fromString: invalid text '") ||
         startsWith(e, "junk at column ");
}

std::string fullText(const IpAddrSet& v) {
  return std::string("Value('InterfaceRouteInfo::IpAddrSet', ** {'ipAddrWithMask': ") +
         Kel::collectionText(v.ipAddrWithMaskCollection()) +
         ", 'ip6AddrWithMask': " + Kel::collectionText(v.ip6AddrWithMaskCollection()) + "})";
}

bool blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  fuzz::FuzzInput input(text);
  const auto whole = fuzz::outcomeOf([&] { return IpAddrSet::fromString(text); });
  FUZZ_CHECK(whole.ok() || documentedError(whole.error), whole.error);

  const char* const begin = text.data();
  const char* const end = begin + text.size();
  const char* pos = begin;
  const auto atPos = fuzz::outcomeOf([&] { return IpAddrSet(pos, end); });
  if (!atPos.ok()) {
    FUZZ_CHECK(!whole.ok() && whole.error == atPos.error, "other error at a position");
    FUZZ_CHECK(pos == begin, "a failed parse moved the position");
    return 0;
  }
  FUZZ_CHECK(pos > begin && pos <= end && pos[-1] == ')', "position after the value");
  const char* rest = pos;
  while (rest != end && blank(*rest)) ++rest;
  if (rest != end) {
    FUZZ_CHECK(!whole.ok(), "junk accepted");
    const std::string column = "junk at column " + std::to_string(rest - begin) + " ";
    FUZZ_CHECK(startsWith(whole.error, column), whole.error);
    return 0;
  }
  FUZZ_CHECK(whole.ok(), "refused after a whole value: " + whole.error);
  const IpAddrSet& v = *whole.value;
  FUZZ_CHECK(*atPos.value == v, "the two parses differ");
  const IpAddrSet copy(v);
  FUZZ_CHECK(copy == v, "copy differs");
  const std::string full = fullText(v);
  const auto back = fuzz::outcomeOf([&] { return IpAddrSet::fromString(full); });
  FUZZ_CHECK(back.ok() && *back.value == v, "full text does not read back: " + back.error);
  FUZZ_CHECK(IpAddrSet::fromString(v.toString()) == IpAddrSet(), "text form is not an empty set");
  return 0;
}
