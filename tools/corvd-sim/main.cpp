// corvd-sim: runs the module against the in-memory daemon, driven by a scenario or by a live
// Linux network namespace.
//
//   corvd-sim [--trace LEVELS]... [SCENARIO-FILE]
//   corvd-sim --kernel NETNS [--fib NETNS [--fib-keep]] [--for SECONDS] [--json] [--trace ...]
//
// Without a file it runs its bundled scenario. Time is manual: it advances only by the
// scenario's `run` steps. With --kernel the namespace's links, addresses and routes are the
// input (KernelMode.h), on the real clock, until SECONDS have passed or SIGINT/SIGTERM; then, and
// on SIGUSR1, the daemons' interfaces and routes of every VRF are printed. --fib installs the
// daemons' chosen routes into another namespace; --fib-keep leaves them there on exit. LEVELS
// selects trace levels, e.g. "InterfaceRouteInfo/0" (the default), "InterfaceRouteInfo/0,8-9" or
// "*/0-9"; "none" turns tracing off. Trace lines go to stderr, the `show` output to stdout. Exit
// status: 0 on success, 1 on a scenario error (reported as "FILE:LINE: reason"), a scenario file
// that cannot be read or a namespace that cannot be used, 2 on bad arguments.
#include <iostream>
#include <string>

#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Exception.h"
#include "fwk/framework/Trace.h"
#include "tools/corvd-sim/KernelMode.h"
#include "tools/corvd-sim/Scenario.h"
#include "tools/corvd-sim/ScenarioArgs.h"

namespace {

const char kUsage[] =
    "usage: corvd-sim [--trace LEVELS] [--strict] [SCENARIO-FILE | -]\n"
    "       corvd-sim --kernel NETNS [--fib NETNS [--fib-keep]] [--for SECONDS] [--json]\n"
    "                 [--trace LEVELS]\n"
    "       corvd-sim --help | --version\n"
    "Runs the InterfaceRouteInfo module against an in-memory daemon per VRF. Without a file it\n"
    "runs its bundled scenario; '-' reads the scenario from standard input. The scenario\n"
    "language is described in tools/corvd-sim/Scenario.h; `show` output goes to stdout.\n"
    "  --trace LEVELS  trace levels on stderr, e.g. InterfaceRouteInfo/0 (the default),\n"
    "                  InterfaceRouteInfo/0,8-9 or */0-9; 'none' for silence. Levels: 0 state\n"
    "                  changes, 8 entry/exit and details, 9 notices\n"
    "  --strict        exit 3 when, at the end, a route is left unresolved or a daemon recorded\n"
    "                  a misuse\n"
    "  --kernel NETNS  mirror the links, addresses and routes of network namespace NETNS\n"
    "                  (/run/netns/NETNS) until SECONDS have passed or until interrupted, then\n"
    "                  print every VRF's interfaces and routes (also on SIGUSR1)\n"
    "  --fib NETNS     install each prefix's active route into NETNS's kernel (protocol 73)\n"
    "  --fib-keep      leave the installed routes in NETNS on exit (default: remove them)\n"
    "  --json          print the tables as JSON\n"
    "Exit status: 0 success; 1 a scenario error (FILE:LINE: reason), an unreadable scenario or\n"
    "an unusable namespace; 2 bad arguments; 3 --strict found unresolved routes or misuse.\n";

}  // namespace

int main(int argc, char** argv) {
  std::string file;
  std::string trace = "InterfaceRouteInfo/0";
  CorvdSim::KernelOptions kernel;
  bool kernelOnly = false;  // an option that only the kernel mode takes was given
  bool strict = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--trace" && i + 1 < argc) {
      trace = argv[++i];
    } else if (arg == "--kernel" && i + 1 < argc) {
      kernel.netns = argv[++i];
    } else if (arg == "--fib" && i + 1 < argc) {
      kernel.fibNetns = argv[++i];
      kernelOnly = true;
    } else if (arg == "--for" && i + 1 < argc) {
      try {
        kernel.forSeconds = CorvdSim::duration(argv[++i]);
      } catch (const CorvdSim::ArgError& e) {
        std::cerr << "corvd-sim: --for: " << e.what() << "\n";
        return 2;
      }
      kernelOnly = true;
    } else if (arg == "--json" || arg == "--fib-keep") {
      (arg == "--json" ? kernel.json : kernel.fibKeep) = true;
      kernelOnly = true;
    } else if (arg == "-h" || arg == "--help") {
      std::cout << kUsage;
      return 0;
    } else if (arg == "--version") {
      std::cout << "corvd-sim " << IRI_VERSION << "\n";
      return 0;
    } else if (arg == "--strict") {
      strict = true;
    } else if (arg.size() > 1 && arg[0] == '-') {
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
  if (kernelOnly && kernel.netns.empty()) {
    std::cerr << "corvd-sim: --fib, --fib-keep, --for and --json need --kernel NETNS\n" << kUsage;
    return 2;
  }
  if (!kernel.netns.empty()) {
    if (!file.empty()) {
      std::cerr << "corvd-sim: --kernel takes no scenario file\n";
      return 2;
    }
    return CorvdSim::runKernelMode(kernel, std::cout);
  }
  Kel::activityManager()->manualTimeIs(0.0);

  try {
    CorvdSim::Scenario scenario(std::cout);
    if (file.empty()) {
      scenario.runText(CorvdSim::kDefaultScenario, "(bundled scenario)");
    } else {
      scenario.runFile(file);
    }
    if (strict) {
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
