// Fuzz target: the trace configuration text of Kel::traceConfigIs.
// The text is read here as well, by splitting it at ';', '/', ',' and '-' (see reference()), and:
//  - traceConfigIs accepts exactly the texts read here as valid; it raises nothing but
//    Kel::RangeException "bad trace configuration \"...", and a refused text changes nothing (a
//    probe facility keeps its levels and its master switch off);
//  - after an accepted text every facility it names has the levels of the last entry naming it or
//    "*", all master switches are on, and a facility it does not name (the probe) has the levels
//    of the last "*" entry, or none.
// Facilities are never destroyed and every configuration walks all of them, so a valid text naming
// a facility longer than one byte (other than the module's) is not run (the input is refused with
// -1): that bounds the registry the target fills, and with it the time of each run.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "fwk/framework/Trace.h"

namespace {

using Entries = std::vector<std::pair<std::string, std::uint32_t>>;

std::string_view trim(std::string_view s) {
  const std::size_t first = s.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(" \t") - first + 1);
}

std::vector<std::string_view> split(std::string_view s, char sep) {
  std::vector<std::string_view> parts;
  for (std::size_t at = s.find(sep); at != std::string_view::npos; at = s.find(sep)) {
    parts.push_back(s.substr(0, at));
    s.remove_prefix(at + 1);
  }
  parts.push_back(s);
  return parts;
}

// Digits only (leading zeros allowed), below 32.
std::optional<int> level(std::string_view s) {
  if (s.empty() || s.find_first_not_of("0123456789") != std::string_view::npos) return {};
  const std::size_t significant = s.find_first_not_of('0');
  if (significant == std::string_view::npos) return 0;
  s.remove_prefix(significant);
  if (s.size() > 2) return {};
  const int v = std::stoi(std::string(s));
  if (v >= Kel::kTraceLevelCount) return {};
  return v;
}

std::optional<Entries> reference(std::string_view text) {
  Entries entries;
  if (trim(text).empty()) return entries;
  for (std::string_view entry : split(text, ';')) {
    entry = trim(entry);
    const std::size_t slash = entry.find('/');
    const std::string_view facility = trim(entry.substr(0, slash));
    if (facility.empty()) return {};
    std::uint32_t levels = ~std::uint32_t{0};
    if (slash != std::string_view::npos) {
      levels = 0;
      for (std::string_view item : split(entry.substr(slash + 1), ',')) {
        const std::size_t dash = item.find('-');
        const std::optional<int> lo = level(item.substr(0, dash));
        const std::optional<int> hi =
            dash == std::string_view::npos ? lo : level(item.substr(dash + 1));
        if (!lo || !hi || *hi < *lo) return {};
        for (int l = *lo; l <= *hi; ++l) levels |= std::uint32_t{1} << l;
      }
    }
    entries.emplace_back(std::string(facility), levels);
  }
  return entries;
}

constexpr std::uint32_t kProbeLevels = 0x80000001;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  fuzz::FuzzInput input(text);
  const std::optional<Entries> want = reference(text);
  if (want) {
    for (const auto& [facility, levels] : *want) {
      if (facility.size() > 1 && facility != "InterfaceRouteInfo") return -1;
    }
  }
  static Kel::TraceHandle* const probe = Kel::traceHandle("FuzzProbe");
  Kel::traceConfigIs("");
  probe->levelIs(0, true);
  probe->levelIs(31, true);
  probe->enabledIs(false);

  const std::optional<std::string> err = fuzz::kelErrorOf([&] { Kel::traceConfigIs(text); });
  FUZZ_CHECK(want.has_value() == !err.has_value(),
             "disagrees with the reference: " + err.value_or("accepted"));
  if (!want) {
    FUZZ_CHECK(err->starts_with("bad trace configuration \""), *err);
    FUZZ_CHECK(probe->levels() == kProbeLevels && !probe->enabled(), "a refused text changed");
    return 0;
  }
  std::uint32_t star = 0;
  for (const auto& [facility, levels] : *want) {
    if (facility == "*") star = levels;
  }
  FUZZ_CHECK(probe->levels() == star && probe->enabled(), "levels of a facility not named");
  for (std::size_t i = 0; i < want->size(); ++i) {
    const std::string& facility = (*want)[i].first;
    if (facility == "*") continue;
    std::uint32_t expected = 0;
    for (const auto& [f, levels] : *want) {
      if (f == facility || f == "*") expected = levels;
    }
    const Kel::TraceHandle* h = Kel::traceHandle(facility);
    FUZZ_CHECK(h->levels() == expected && h->enabled(), "levels of " + facility);
  }
  return 0;
}
