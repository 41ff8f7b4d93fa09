// Tracing: named facilities with levels 0-31, pluggable sinks and a coverage stream.
// - Kel::traceHandle(facility) returns the process-wide handle of a facility, made on first use
//   and kept until the process ends (never destroyed, so objects destroyed at exit may trace). A
//   handle has a master switch (enabledIs, on by default) and one switch per level (levelIs, all
//   off by default); a level is enabled when both are on.
// - A trace statement at level L is performed when active(L): L is enabled, or the coverage
//   stream is set. active() reads one cached mask; callers must check it before formatting
//   anything, so that a disabled statement costs one branch and builds no string.
// - emit() hands a performed statement to the framework as a TraceRecord. With the coverage
//   stream set, every record writes one line to it:
//     <file>:<line>: <function>: <facility>/<level> on|off: <message>
//   and only records of enabled levels go on to the sink.
// - The sink is the default one unless traceSinkIs(sink) installed another (null restores it).
//   The default sink writes one line per record to stderr, formatted by traceLine():
//     <facility>/<level> <object>: <message>     (<facility>/<level> <message> without object)
// - traceConfigIs(text) replaces the whole configuration: every level of every facility is turned
//   off, master switches on, then the entries are applied from left to right. Text:
//     entry (';' entry)*      entry: facility ['/' item (',' item)*]      item: N | N-M
//   A facility without a level list gets every level; the facility "*" sets every facility, also
//   those made later. Blanks around entries are ignored. Malformed text raises
//   Kel::RangeException "bad trace configuration \"<entry>\": <reason>" and changes nothing;
//   the empty text turns everything off.
// Single-threaded; sinks and streams are owned by the caller and must outlive their use.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace Kel {

inline constexpr int kTraceLevelCount = 32;

struct TraceRecord {
  std::string facility;
  std::string object;  // name of the object the statement runs on; may be empty
  std::string message;
  int level = 0;
  bool levelEnabled = false;  // false only for records performed for the coverage stream
  std::string file;
  int line = 0;
  std::string function;
};

class TraceSink {
 public:
  virtual ~TraceSink() = default;
  virtual void record(const TraceRecord& r) = 0;
};

class TraceHandle {
 public:
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  const std::string& facility() const { return facility_; }

  bool enabled() const { return enabled_; }
  void enabledIs(bool on);
  // An out-of-range level is never enabled; setting one raises Kel::RangeException.
  bool levelEnabled(int level) const {
    return enabled_ && level >= 0 && level < kTraceLevelCount && ((levels_ >> level) & 1) != 0;
  }
  void levelIs(int level, bool on);
  std::uint32_t levels() const { return levels_; }

  // True when a statement at `level` must be formatted and emitted.
  bool active(int level) const {
    return level >= 0 && level < kTraceLevelCount && ((activeMask_ >> level) & 1) != 0;
  }
  // Writes the mask of active levels to *mirror, now and whenever it changes (null: nowhere): a
  // caller that checks levels millions of times reads its own copy, one load with no handle to
  // find first.
  void mirrorIs(std::uint32_t* mirror);

  // Hands one performed statement to the coverage stream and, when its level is enabled, to the
  // sink.
  void emit(int level, std::string_view object, std::string_view message, const char* file,
            int line, const char* function) const;

 private:
  friend class TraceRegistry;
  explicit TraceHandle(std::string facility, std::uint32_t levels);
  void refresh();

  std::string facility_;
  std::uint32_t levels_;
  bool enabled_ = true;
  std::uint32_t activeMask_ = 0;
  std::uint32_t* mirror_ = nullptr;
};

// The process-wide handle of `facility`.
TraceHandle* traceHandle(std::string_view facility);

void traceSinkIs(TraceSink* sink);
TraceSink* traceSink();
void coverageStreamIs(std::ostream* os);
std::ostream* coverageStream();
void traceConfigIs(std::string_view text);

// The default sink's line for a record (without the newline).
std::string traceLine(const TraceRecord& r);

// An in-memory sink for tests; install it with traceSinkIs(&recorder).
class TraceRecorder : public TraceSink {
 public:
  void record(const TraceRecord& r) override { records_.push_back(r); }
  const std::vector<TraceRecord>& records() const { return records_; }
  std::vector<std::string> messages() const;
  void clear() { records_.clear(); }

 private:
  std::vector<TraceRecord> records_;
};

}  // namespace Kel
