// Fuzz target: names with a byte limit and interface ids. The input is read as an Ip::VrfName
// (at most 100 bytes) and a Kanet::NamespaceName (at most 150), from std::string, std::string_view
// and const char* (which ends at the first NUL byte). A name is made exactly when the text is
// within the limit, holds the text's bytes unchanged and compares and hashes equal to the same name
// made another way; a longer text raises exactly "<Type>::bytes > <limit> not allowed". As an
// interface id the input is a loopback exactly when it is "Loopback" followed by one or more
// decimal digits.
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "fwk/model/KanetIntfId.h"
#include "fwk/model/KanetNames.h"

namespace {

// Checks the names made from `text` in every way that reads all of it.
template <class Name>
void checkName(const std::string& text, const char* typeName, std::size_t limit) {
  const std::string tooLong =
      std::string(typeName) + "::bytes > " + std::to_string(limit) + " not allowed";
  const auto fromString = fuzz::outcomeOf([&] { return Name(text); });
  const auto fromView = fuzz::outcomeOf([&] { return Name(std::string_view(text)); });
  const bool hasNul = text.find('\0') != std::string::npos;
  std::vector<const fuzz::Outcome<Name>*> made = {&fromString, &fromView};
  std::optional<fuzz::Outcome<Name>> fromChars;
  if (!hasNul)
    made.push_back(&fromChars.emplace(fuzz::outcomeOf([&] { return Name(text.c_str()); })));
  for (const auto* got : made) {
    FUZZ_CHECK(got->ok() == (text.size() <= limit), std::string(typeName) + ": " + got->error);
    if (!got->ok()) {
      FUZZ_CHECK(got->error == tooLong, got->error);
      continue;
    }
    FUZZ_CHECK(got->value->str() == text && got->value->bytes() == text.size(), typeName);
    FUZZ_CHECK(*got->value == *fromString.value, "names made from the same text differ");
    FUZZ_CHECK(std::hash<Name>()(*got->value) == std::hash<Name>()(*fromString.value),
               "equal names hash differently");
  }
}

template <class Name>
void checkNames(const std::string& text, const char* typeName, std::size_t limit) {
  checkName<Name>(text, typeName, limit);
  // As a const char* the text ends at its first NUL byte.
  if (text.find('\0') != std::string::npos) checkName<Name>(text.c_str(), typeName, limit);
}

bool referenceIsLoopback(std::string_view s) {
  constexpr std::string_view kPrefix = "Loopback";
  if (s.size() <= kPrefix.size() || std::memcmp(s.data(), kPrefix.data(), kPrefix.size()) != 0) {
    return false;
  }
  return s.find_first_not_of("0123456789", kPrefix.size()) == std::string_view::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  fuzz::FuzzInput input(text);
  checkNames<Ip::VrfName>(text, "VrfName", 100);
  checkNames<Kanet::NamespaceName>(text, "NamespaceName", 150);
  const Kanet::IntfId id(text);
  FUZZ_CHECK(id.toString() == text, "interface id changed its text");
  FUZZ_CHECK(Kanet::LoopbackIntfId::isLoopbackIntfId(id) == referenceIsLoopback(text),
             "loopback test");
  return 0;
}
