// corvd-sim: runs the module against the in-memory daemon, driven by a scenario or by a live
// Linux network namespace. `corvd-sim --help` documents the options; docs/corvd-sim.md is the
// manual, with the scenario language (tools/corvd-sim/Scenario.h) and worked examples.
#include <unistd.h>

#include <cxxopts.hpp>
#include <iostream>
#include <string>

#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Exception.h"
#include "fwk/framework/Trace.h"
#include "tools/corvd-sim/KernelMode.h"
#include "tools/corvd-sim/Scenario.h"
#include "tools/corvd-sim/ScenarioArgs.h"

namespace {

const char kEpilog[] =
    "Without a file corvd-sim runs its bundled scenario; '-' reads the scenario from standard\n"
    "input, and a relative path is taken from the current directory. Time is manual: it moves\n"
    "only by the scenario's `run` lines. `show` output goes to stdout, trace lines and the\n"
    "progress line to stderr, flushed after every scenario line so that they interleave in order.\n"
    "The scenario language and worked examples: docs/corvd-sim.md.\n"
    "\n"
    "Trace levels (--trace FACILITY/LEVELS, e.g. InterfaceRouteInfo/0, InterfaceRouteInfo/0,8-9,\n"
    "*/0-9, or none, the default): 0 state changes, 8 entry/exit and details, 9 notices.\n"
    "\n"
    "With --kernel the namespace's links, addresses and routes are the input, on the real clock,\n"
    "until SECONDS have passed or SIGINT/SIGTERM; then, and on SIGUSR1, every VRF's interfaces,\n"
    "routes and counters are printed. Opening a namespace needs CAP_SYS_ADMIN; --fib installs\n"
    "each prefix's active route into another namespace (protocol 73).\n"
    "\n"
    "Exit status: 0 success; 1 a scenario error (reported as FILE:LINE: reason), an unreadable\n"
    "scenario or an unusable namespace; 2 bad arguments; 3 --strict found routes left unresolved\n"
    "or a daemon misuse.\n";

int usageError(const std::string& why) {
  std::cerr << "corvd-sim: " << why << "\n(corvd-sim --help lists the options)\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  cxxopts::Options options("corvd-sim",
                           "Runs the InterfaceRouteInfo module against an in-memory daemon per "
                           "VRF, fed by a scenario or a live network namespace.");
  options.custom_help("[OPTION...]");
  options.positional_help("[SCENARIO-FILE | -]");
  // clang-format off
  options.add_options()
      ("trace", "trace levels on stderr (see below); 'none' for silence",
       cxxopts::value<std::string>()->default_value("none"), "LEVELS")
      ("trace-stamp", "start every trace line with the manual time and the VRF: [t=1.5 vrf=red]")
      ("progress", "a line on stderr every second of wall time while `run` works: keys queued, "
                   "drained, pending (the default when stderr is a terminal)")
      ("no-progress", "no progress line")
      ("json", "print every `show` as JSON")
      ("strict", "exit 3 when, at the end, a route is left unresolved or a daemon recorded a "
                 "misuse")
      ("kernel", "mirror the links, addresses and routes of network namespace NETNS "
                 "(/run/netns/NETNS)", cxxopts::value<std::string>(), "NETNS")
      ("fib", "with --kernel: install each prefix's active route into NETNS's kernel",
       cxxopts::value<std::string>(), "NETNS")
      ("fib-keep", "with --fib: leave the installed routes in place on exit")
      ("for", "with --kernel: run that long, then print the tables (default: until interrupted)",
       cxxopts::value<std::string>(), "SECONDS")
      ("h,help", "print this help")
      ("version", "print the version")
      ("file", "scenario file", cxxopts::value<std::vector<std::string>>());
  // clang-format on
  options.parse_positional({"file"});

  cxxopts::ParseResult args;
  try {
    args = options.parse(argc, argv);
  } catch (const cxxopts::exceptions::exception& e) {
    return usageError(e.what());
  }
  if (args.count("help")) {
    std::cout << options.help() << '\n' << kEpilog;
    return 0;
  }
  if (args.count("version")) {
    std::cout << "corvd-sim " << IRI_VERSION << "\n";
    return 0;
  }
  std::string file;
  if (args.count("file")) {
    const auto& files = args["file"].as<std::vector<std::string>>();
    if (files.size() > 1) return usageError("one scenario file at most");
    file = files.front();
  }
  const std::string trace = args["trace"].as<std::string>();
  try {
    Kel::traceConfigIs(trace == "none" ? std::string() : trace);
  } catch (const Kel::Exception& e) {
    return usageError(std::string("--trace: ") + e.what());
  }
  const bool json = args.count("json") != 0;
  const bool stamp = args.count("trace-stamp") != 0;

  if (args.count("kernel")) {
    if (!file.empty()) return usageError("--kernel takes no scenario file");
    if (args.count("strict")) return usageError("--strict is for scenarios");
    CorvdSim::KernelOptions kernel;
    kernel.netns = args["kernel"].as<std::string>();
    if (args.count("fib")) kernel.fibNetns = args["fib"].as<std::string>();
    if (args.count("for")) {
      try {
        kernel.forSeconds = CorvdSim::duration(args["for"].as<std::string>());
      } catch (const CorvdSim::ArgError& e) {
        return usageError(std::string("--for: ") + e.what());
      }
    }
    kernel.json = json;
    kernel.fibKeep = args.count("fib-keep") != 0;
    kernel.traceStamp = stamp;
    if (kernel.fibKeep && kernel.fibNetns.empty()) return usageError("--fib-keep needs --fib");
    return CorvdSim::runKernelMode(kernel, std::cout);
  }
  if (args.count("fib") || args.count("fib-keep") || args.count("for")) {
    return usageError("--fib, --fib-keep and --for need --kernel NETNS");
  }

  Kel::activityManager()->manualTimeIs(0.0);
  try {
    CorvdSim::Scenario scenario(std::cout);
    scenario.traceStampIs(stamp);
    scenario.jsonIs(json);
    scenario.progressIs(!args.count("no-progress") && (args.count("progress") || isatty(2)));
    if (file.empty()) {
      scenario.runText(CorvdSim::kDefaultScenario, "(bundled scenario)");
    } else {
      scenario.runFile(file);
    }
    if (args.count("strict")) {
      const std::size_t unresolved = scenario.unresolvedCount();
      const std::uint64_t misuse = scenario.misuseCount();
      if (unresolved != 0 || misuse != 0) {
        std::cerr << "corvd-sim: --strict: " << unresolved << " route(s) left unresolved, "
                  << misuse << " daemon misuse(s)\n";
        return 3;
      }
    }
  } catch (const CorvdSim::ScenarioError& e) {
    std::cerr << e.what() << "\n";
    return 1;
  }
  return 0;
}
