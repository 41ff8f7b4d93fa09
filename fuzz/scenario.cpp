// Fuzz target: corvd-sim's scenario language (tools/corvd-sim/Scenario.h) end to end. The input
// is split at '\n' into at most kMaxLines lines (the language refuses lines over its own limit),
// and each line runs in a fresh Scenario that writes its `show`, `get`, `ls` and watch output into
// a stream that discards it. The worlds run on manual time, as corvd-sim's do without --kernel.
// Checked, beyond "no crash, no sanitizer report, no leak":
//  - a line raises nothing but CorvdSim::ScenarioError, whose message names the source and the
//    line first ("fuzz:LINE: reason"); the next line still runs after it;
//  - no VRF's daemon recorded a misuse of its interface (the module's calls, whatever the events
//    it mirrors, stay within the daemon's contract);
//  - once the Scenario is gone nothing of it is left where the next input would find it: the
//    process's own activity manager, theRoot slot and daemon are current again, nothing is armed
//    on that manager and its time did not move, no theRoot is set and the daemon saw no call.
// Tracing is turned off before every input (a `trace` line changes it for the rest of the input);
// the records a `trace` line turns on are formatted as the default sink would, then dropped.
#include "tools/corvd-sim/Scenario.h"

#include <cstdint>
#include <exception>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>

#include "fuzz/FuzzSupport.h"
#include "fuzz/ScenarioHarness.h"
#include "fwk/Root.h"
#include "fwk/daemon/corvd.h"
#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Trace.h"

namespace {

constexpr int kMaxLines = 64;
const char kSource[] = "fuzz";

const fuzz::LineEcho echo{"SCENARIO_ECHO"};  // the lines the scenario accepted

void runLine(CorvdSim::Scenario& s, const std::string& line, int lineNo) {
  const std::string where = std::string(kSource) + ":" + std::to_string(lineNo) + ": ";
  try {
    s.runLine(line, kSource, lineNo);
    echo(line);
  } catch (const CorvdSim::ScenarioError& e) {
    const std::string what = e.what();
    FUZZ_CHECK(what.starts_with(where), "line " + std::to_string(lineNo) + ": " + what);
  } catch (const std::exception& e) {
    fuzz::finding("line " + std::to_string(lineNo) + " raised another exception: " + e.what());
  } catch (...) {
    fuzz::finding("line " + std::to_string(lineNo) + " raised an exception of an unknown type");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  fuzz::FuzzInput input(text);
  Kel::ActivityManager& process = fuzz::quietProcess();

  fuzz::DiscardBuf discard;
  std::ostream out(&discard);
  {
    CorvdSim::Scenario s(out);
    for (int lineNo = 1; lineNo <= kMaxLines && !text.empty(); ++lineNo) {
      const std::size_t end = text.find('\n');
      runLine(s, std::string(text.substr(0, end)), lineNo);
      text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    const std::uint64_t misuse = s.misuseCount();
    FUZZ_CHECK(misuse == 0, std::to_string(misuse) + " daemon misuse(s)");
  }
  fuzz::checkUntouched(process);
  return 0;
}
