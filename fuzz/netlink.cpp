// Fuzz target: corvd-sim's kernel source (tools/corvd-sim/KernelSource.h) on rtnetlink messages,
// end to end: message bytes -> KernelSource -> scenario lines -> Scenario -> module -> daemon.
// The source publishes into a Scenario as the kernel mode does (KernelRunner in KernelMode.cpp:
// each line run under the source's name, a VRF whose device went has its world stopped), on
// manual time as in the scenario target, without sockets or a forwarding table.
//
// Input layout:
//   [0]   bits 0-3: the kinds (KernelSource::Kind) of the dumps in the stream. 0: no dump, every
//         message is a notification (NLMSG_DONE too, which the source ignores). Otherwise the
//         stream starts inside a dump and each NLMSG_DONE ends the dump or starts the next one
//         (the kernel ends each dump with one), so dumps and notifications alternate.
//         bit 4: the worlds run 50 ms of manual time after each message (their backlogs drain
//         between messages); otherwise only at the end.
//   [1..] netlink messages cut at nlmsg_len, each starting at the previous one's NLMSG_ALIGNed
//         end; the stream stops at a length below the header or past the input. The body and its
//         attributes are handed over as they are, malformed or not, each message in a heap block
//         of exactly nlmsg_len bytes, so that any read past it is an AddressSanitizer report.
// At the end comes an empty full dump (the namespace emptied) and one second of manual time.
// Checked, beyond "no crash, no sanitizer report, no leak":
//  - no exception leaves message, dumpBegin or dumpEnd;
//  - the scenario engine accepts every line the source publishes;
//  - each message raises the source's counters by at most one each and at least one of them in
//    all; a message of protocol 0 counts there alone, one of another type as ignored alone; the
//    lines counted are the lines published;
//  - the source ends only VRFs whose world it started;
//  - after the empty dump only the world "default" is left, without devices, interface status or
//    routes in its route inputs (the module's unresolved backlog may still hold keys of withdrawn
//    routes: only an address change moves them back to be drained, RouteBacklog.h);
//  - no VRF's daemon recorded a misuse;
//  - once the Scenario is gone the process's activity manager, theRoot slot and daemon are current
//    again and untouched, as in the scenario target.
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
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
#include "tools/corvd-sim/KernelSource.h"
#include "tools/corvd-sim/Scenario.h"
#include "tools/corvd-sim/World.h"

namespace {

using CorvdSim::KernelSource;

constexpr int kMaxMessages = 64;
constexpr unsigned kRunBetween = 0x10;
const char kSource[] = "kernel fuzz";  // as the kernel mode names its lines: "kernel NETNS"

// The kernel mode's publisher without its sockets and forwarding table. A refused line is a
// finding here, where the kernel mode counts and reports it.
class ScenarioPublisher : public CorvdSim::Publisher {
 public:
  explicit ScenarioPublisher(CorvdSim::Scenario& s) : s_(s) {}

  void line(const std::string& text) override {
    ++lines;
    echo_(text);
    try {
      s_.runLine(text, kSource, ++lineNo_);
    } catch (const CorvdSim::ScenarioError& e) {
      fuzz::finding(std::string("the scenario refused the source's line \"") + text +
                    "\": " + e.what());
    }
  }
  void vrfGone(const std::string& vrf) override {
    FUZZ_CHECK(s_.stopWorld(vrf), "the source ended VRF " + vrf + ", whose world it never started");
  }
  // Runs the worlds as `run` lines do.
  void run(const char* seconds) {
    const std::string line = std::string("run ") + seconds;
    echo_(line);
    s_.runLine(line, "fuzz", ++lineNo_);
  }

  std::uint64_t lines = 0;

 private:
  CorvdSim::Scenario& s_;
  int lineNo_ = 0;
  const fuzz::LineEcho echo_{"NETLINK_ECHO"};  // the lines published, and the runs between
};

// Runs f; an exception leaving it is a finding.
template <class F>
void guarded(const char* what, F&& f) {
  try {
    f();
  } catch (const std::exception& e) {
    fuzz::finding(std::string(what) + " raised: " + e.what());
  } catch (...) {
    fuzz::finding(std::string(what) + " raised an exception of an unknown type");
  }
}

bool handledType(std::uint16_t type) {
  return type == RTM_NEWLINK || type == RTM_DELLINK || type == RTM_NEWADDR || type == RTM_DELADDR ||
         type == RTM_NEWROUTE || type == RTM_DELROUTE;
}

// Hands one message (in a block of exactly its length) to the source and checks what it counted.
void feed(KernelSource& src, const std::uint8_t* bytes, std::uint32_t len) {
  auto* block = static_cast<nlmsghdr*>(std::malloc(len));
  std::memcpy(block, bytes, len);
  const KernelSource::Counters before = src.counters();
  guarded("message", [&] { src.message(block); });
  const std::uint16_t type = block->nlmsg_type;
  std::free(block);

  const KernelSource::Counters& after = src.counters();
  const std::uint64_t m = after.messages - before.messages;
  const std::uint64_t i = after.ignored - before.ignored;
  const std::uint64_t u = after.unspecProto - before.unspecProto;
  const std::string deltas = "type " + std::to_string(type) + " counted messages +" +
                             std::to_string(m) + " ignored +" + std::to_string(i) +
                             " unspecProto +" + std::to_string(u);
  FUZZ_CHECK(m <= 1 && i <= 1 && u <= 1 && m + i + u >= 1, deltas);
  FUZZ_CHECK(u == 0 || m + i == 0, deltas);
  FUZZ_CHECK(handledType(type) || (i == 1 && m + u == 0), deltas);
}

void checkEmptied(CorvdSim::Scenario& s) {
  std::string worlds;
  s.forEachWorld([&](CorvdSim::World& w) {
    worlds += " " + w.vrf();
    const std::string where = "after an empty dump, VRF " + w.vrf() + " holds ";
    FUZZ_CHECK(w.kernel->interfaceByNameCount() == 0, where + "devices");
    FUZZ_CHECK(w.all->intfStatusCount() == 0, where + "interface status");
    for (const auto& [name, in] : w.inputs) {
      FUZZ_CHECK(in->routeCount() == 0, where + "routes in input " + name);
    }
    for (const auto& [name, in] : w.inputs6) {
      FUZZ_CHECK(in->routeCount() == 0, where + "routes in input " + name);
    }
  });
  CorvdSim::World::leave();
  FUZZ_CHECK(worlds == " default", "after an empty dump the worlds are" + worlds);
}

void checkMisuses(CorvdSim::Scenario& s) {
  std::string others;
  s.forEachWorld([&](CorvdSim::World& w) {
    for (const std::string& m : corvd_misuse_log()) {
      others += " [" + w.vrf() + "] " + m;
    }
  });
  CorvdSim::World::leave();
  FUZZ_CHECK(others.empty(), "daemon misuse(s):" + others);
}

void runStream(ScenarioPublisher& pub, KernelSource& src, const std::uint8_t* data,
               std::size_t size) {
  const unsigned kinds = data[0] & KernelSource::kAll;
  const bool runBetween = data[0] & kRunBetween;
  bool inDump = kinds != 0;
  if (inDump) guarded("dumpBegin", [&] { src.dumpBegin(kinds); });
  std::size_t at = 1;
  for (int n = 0; n < kMaxMessages && size - at >= sizeof(nlmsghdr); ++n) {
    nlmsghdr hdr;
    std::memcpy(&hdr, data + at, sizeof hdr);
    if (hdr.nlmsg_len < sizeof hdr || hdr.nlmsg_len > size - at) break;
    if (kinds && hdr.nlmsg_type == NLMSG_DONE) {
      if (inDump) {
        guarded("dumpEnd", [&] { src.dumpEnd(kinds); });
      } else {
        guarded("dumpBegin", [&] { src.dumpBegin(kinds); });
      }
      inDump = !inDump;
    } else {
      feed(src, data + at, hdr.nlmsg_len);
    }
    if (runBetween) guarded("run", [&] { pub.run("0.05"); });
    at += NLMSG_ALIGN(hdr.nlmsg_len);
    if (at >= size) break;
  }
  if (inDump) guarded("dumpEnd", [&] { src.dumpEnd(kinds); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  fuzz::FuzzInput input(std::string_view(reinterpret_cast<const char*>(data), size));
  Kel::ActivityManager& process = fuzz::quietProcess();

  fuzz::DiscardBuf discard;
  std::ostream out(&discard);
  {
    CorvdSim::Scenario s(out);
    ScenarioPublisher pub(s);
    KernelSource src(pub);
    runStream(pub, src, data, size);
    guarded("the empty dump", [&] {
      src.dumpBegin(KernelSource::kAll);
      src.dumpEnd(KernelSource::kAll);
    });
    guarded("run", [&] { pub.run("1"); });
    FUZZ_CHECK(src.counters().lines == pub.lines, std::to_string(src.counters().lines) +
                                                      " lines counted, " +
                                                      std::to_string(pub.lines) + " published");
    checkEmptied(s);
    checkMisuses(s);
  }
  fuzz::checkUntouched(process);
  return 0;
}
