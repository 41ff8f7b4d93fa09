// Checked conversions of scenario words. Each throws ArgError with a reason naming the word;
// nothing accepts more than its whole word (no sign where none is meant, no trailing text).
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace CorvdSim {

class ArgError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A decimal number in [min, max] ("ifIndex", 1, 4294967295).
std::uint64_t number(const std::string& word, const char* what, std::uint64_t min,
                     std::uint64_t max);
// The longest `run` step: a year of manual time.
constexpr double kMaxDuration = 365.0 * 24 * 3600;
// A finite, non-negative decimal duration in seconds, at most kMaxDuration ("1", "0.5"; not
// "-0", "1e3", "inf", hex).
double duration(const std::string& word);
// Kernel device flags: names joined by ',' (up broadcast loopback pointopoint running
// multicast), "none", or a decimal number.
std::uint32_t kernelFlags(const std::string& word);
// A kernel device name: 1..15 bytes, no '/', no blank.
const std::string& deviceName(const std::string& word);
// An interface id: 1..100 bytes.
const std::string& intfIdText(const std::string& word);

}  // namespace CorvdSim
