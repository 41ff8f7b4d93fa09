#include "tools/corvd-sim/ScenarioArgs.h"

#include <charconv>
#include <cmath>
#include <sstream>

namespace CorvdSim {

namespace {
constexpr std::size_t kMaxQuoted = 40;  // error texts quote at most this much of a word

std::string quoted(const std::string& word) {
  if (word.size() <= kMaxQuoted) return "'" + word + "'";
  return "'" + word.substr(0, kMaxQuoted) + "...'";
}
}  // namespace

std::uint64_t number(const std::string& word, const char* what, std::uint64_t min,
                     std::uint64_t max) {
  std::uint64_t v = 0;
  const char* end = word.data() + word.size();
  auto [p, ec] = std::from_chars(word.data(), end, v, 10);
  if (word.empty() || ec == std::errc::invalid_argument || p != end) {
    throw ArgError(std::string("bad ") + what + " " + quoted(word));
  }
  if (ec == std::errc::result_out_of_range || v < min || v > max) {
    throw ArgError(std::string(what) + " " + quoted(word) + " out of range " + std::to_string(min) +
                   ".." + std::to_string(max));
  }
  return v;
}

double duration(const std::string& word) {
  // Digits with at most one '.', nothing else: no sign, exponent, hex, inf or nan.
  bool digit = false;
  int dots = 0;
  for (char c : word) {
    if (c >= '0' && c <= '9') {
      digit = true;
    } else if (c == '.') {
      ++dots;
    } else {
      digit = false;
      dots = 2;
      break;
    }
  }
  double v = 0;
  const char* end = word.data() + word.size();
  auto [p, ec] = std::from_chars(word.data(), end, v, std::chars_format::fixed);
  if (!digit || dots > 1 || ec != std::errc() || p != end || !std::isfinite(v) || v < 0) {
    throw ArgError("bad duration " + quoted(word) + " (seconds, finite, decimal, not negative)");
  }
  // Longer steps would make the manual clock so large that later short steps no longer move it.
  if (v > kMaxDuration) {
    throw ArgError("duration " + quoted(word) + " longer than a year (" +
                   std::to_string(static_cast<long>(kMaxDuration)) + " s)");
  }
  return v;
}

std::uint32_t kernelFlags(const std::string& word) {
  if (word == "none") return 0;
  if (!word.empty() && word[0] >= '0' && word[0] <= '9') {
    return static_cast<std::uint32_t>(number(word, "flags", 0, 0xffffffffu));
  }
  static const std::pair<const char*, std::uint32_t> names[] = {
      {"up", 0x1},           {"broadcast", 0x2}, {"loopback", 0x8},
      {"pointopoint", 0x10}, {"running", 0x40},  {"multicast", 0x1000}};
  std::uint32_t flags = 0;
  std::istringstream in(word);
  for (std::string name; std::getline(in, name, ',');) {
    bool known = false;
    for (const auto& [n, bit] : names) {
      if (name == n) {
        flags |= bit;
        known = true;
      }
    }
    if (!known) throw ArgError("unknown flag " + quoted(name) + " in " + quoted(word));
  }
  if (word.empty() || word.back() == ',') throw ArgError("bad flags " + quoted(word));
  return flags;
}

const std::string& deviceName(const std::string& word) {
  if (word.empty() || word.size() > 15 || word.find('/') != std::string::npos) {
    throw ArgError("bad device name " + quoted(word) + " (1 to 15 bytes, no '/')");
  }
  return word;
}

const std::string& intfIdText(const std::string& word) {
  if (word.empty() || word.size() > 100) {
    throw ArgError("bad interface id " + quoted(word) + " (1 to 100 bytes)");
  }
  return word;
}

}  // namespace CorvdSim
