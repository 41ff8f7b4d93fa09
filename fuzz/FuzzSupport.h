// What every fuzz target shares: how a finding is reported and how a call's reaction to bad input
// is judged.
//
// A finding (a broken property, an exception that is not the framework's) prints one line
//   FINDING: <what> on input "<input, C-escaped>"
// to stderr and aborts, so libFuzzer saves the input as a crash artifact and exits non-zero.
// Expected messages are compared through asWhat, since what() ends at a NUL byte of the input.
// outcomeOf(f) runs f once and holds either its result or, when it raises a Kel::Exception (the
// only acceptable reaction to bad text), the message; any other exception is a finding.
// kelErrorOf(f) is the same for calls whose result does not matter.
// Targets set the input with FuzzInput before checking anything, so each finding names it.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "fwk/framework/Exception.h"

namespace fuzz {

// The input under test, for the finding's message.
inline std::string& currentInput() {
  static std::string input;
  return input;
}

struct FuzzInput {
  explicit FuzzInput(std::string_view text) { currentInput().assign(text); }
};

inline std::string escaped(std::string_view s) {
  std::string out;
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c >= 0x20 && c < 0x7f) {
      out += static_cast<char>(c);
    } else {
      char hex[5];
      std::snprintf(hex, sizeof hex, "\\x%02x", c);
      out += hex;
    }
  }
  return out;
}

// The text an exception carrying `message` shows through what(): cut at the first NUL byte.
inline std::string asWhat(std::string_view message) {
  return std::string(message.substr(0, message.find('\0')));
}

[[noreturn]] inline void finding(const std::string& what) {
  std::fprintf(stderr, "FINDING: %s on input \"%s\"\n", escaped(what).c_str(),
               escaped(currentInput()).c_str());
  std::fflush(stderr);
  std::abort();
}

// Prints the scenario lines a target runs to stderr when the environment variable `var` is set,
// so that a replayed finding shows its story (corvd-sim replays the printed lines).
class LineEcho {
 public:
  explicit LineEcho(const char* var) : on_(std::getenv(var) != nullptr) {}
  void operator()(const std::string& line) const {
    if (on_) std::fprintf(stderr, "%s\n", line.c_str());
  }

 private:
  bool on_;
};

template <class T>
struct Outcome {
  std::optional<T> value;  // set when the call returned
  std::string error;       // the Kel::Exception's message otherwise
  bool ok() const { return value.has_value(); }
};

template <class F>
auto outcomeOf(F&& f) -> Outcome<decltype(f())> {
  try {
    return {f(), {}};
  } catch (const Kel::Exception& e) {
    return {std::nullopt, e.what()};
  } catch (const std::exception& e) {
    finding(std::string("exception outside the framework's: ") + e.what());
  } catch (...) {
    finding("exception of an unknown type");
  }
}

template <class F>
std::optional<std::string> kelErrorOf(F&& f) {
  const auto o = outcomeOf([&] {
    f();
    return true;
  });
  if (o.ok()) return std::nullopt;
  return o.error;
}

}  // namespace fuzz

// Reports a finding when `cond` is false; `what` (a std::string) says what was expected.
#define FUZZ_CHECK(cond, what)                                                       \
  do {                                                                               \
    if (!(cond)) ::fuzz::finding(std::string("check failed: " #cond ": ") + (what)); \
  } while (0)
