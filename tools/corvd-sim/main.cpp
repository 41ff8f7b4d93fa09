// corvd-sim: runs the module against the in-memory daemon, driven by a scenario.
//
//   corvd-sim [--trace LEVELS]... [SCENARIO-FILE]
//
// Without a file it runs its bundled scenario. Time is manual: it advances only by the
// scenario's `run` steps. LEVELS selects trace levels, e.g. "InterfaceRouteInfo/0" (the default),
// "InterfaceRouteInfo/0,8-9" or "*/0-9"; "none" turns tracing off. Trace lines go to stderr, the
// `show` output to stdout. Exit status: 0 on success, 1 on a scenario error (reported as
// "FILE:LINE: reason") or a scenario file that cannot be read, 2 on bad arguments.
#include <iostream>
#include <string>

#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Exception.h"
#include "fwk/framework/Trace.h"
#include "tools/corvd-sim/Scenario.h"

int main(int argc, char** argv) {
  std::string file;
  std::string trace = "InterfaceRouteInfo/0";
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--trace" && i + 1 < argc) {
      trace = argv[++i];
    } else if (arg == "-h" || arg == "--help") {
      std::cout << "usage: corvd-sim [--trace LEVELS] [SCENARIO-FILE]\n";
      return 0;
    } else if (!arg.empty() && arg[0] == '-') {
      std::cerr << "corvd-sim: unknown option " << arg << "\n";
      return 2;
    } else if (file.empty()) {
      file = arg;
    } else {
      std::cerr << "corvd-sim: one scenario file at most\n";
      return 2;
    }
  }
  try {
    Kel::traceConfigIs(trace == "none" ? std::string() : trace);
  } catch (const Kel::Exception& e) {
    std::cerr << "corvd-sim: --trace: " << e.what() << "\n";
    return 2;
  }
  Kel::activityManager()->manualTimeIs(0.0);

  try {
    CorvdSim::Scenario scenario(std::cout);
    if (file.empty()) {
      scenario.runText(CorvdSim::kDefaultScenario, "(bundled scenario)");
    } else {
      scenario.runFile(file);
    }
  } catch (const CorvdSim::ScenarioError& e) {
    std::cerr << e.what() << "\n";
    return 1;
  }
  return 0;
}
