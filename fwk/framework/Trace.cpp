#include "fwk/framework/Trace.h"

#include <cstdio>
#include <map>
#include <memory>
#include <utility>

#include "fwk/framework/Exception.h"

namespace Kel {

namespace {

class StderrSink : public TraceSink {
 public:
  void record(const TraceRecord& r) override {
    const std::string line = traceLine(r) + '\n';
    std::fputs(line.c_str(), stderr);
  }
};

constexpr std::uint32_t kAllLevels = ~std::uint32_t{0};

}  // namespace

// The handles, the sink, the coverage stream and the levels given to facilities made later.
class TraceRegistry {
 public:
  // Never destroyed: objects destroyed at exit may still trace.
  static TraceRegistry& instance() {
    static TraceRegistry* const registry = new TraceRegistry();
    return *registry;
  }

  TraceHandle* handle(std::string_view facility) {
    auto it = handles_.find(facility);
    if (it != handles_.end()) return it->second.get();
    std::unique_ptr<TraceHandle> h(new TraceHandle(std::string(facility), laterLevels_));
    TraceHandle* p = h.get();
    handles_.emplace(std::string(facility), std::move(h));
    return p;
  }

  void coverageIs(std::ostream* os) {
    coverage_ = os;
    for (auto& [name, h] : handles_) h->refresh();
  }

  // Entries of a parsed configuration: a facility and its levels.
  void configIs(const std::vector<std::pair<std::string, std::uint32_t>>& entries) {
    laterLevels_ = 0;
    for (auto& [name, h] : handles_) {
      h->levels_ = 0;
      h->enabled_ = true;
      h->refresh();
    }
    for (const auto& [facility, levels] : entries) {
      if (facility == "*") {
        laterLevels_ = levels;
        for (auto& [name, h] : handles_) {
          h->levels_ = levels;
          h->refresh();
        }
        continue;
      }
      TraceHandle* h = handle(facility);
      h->levels_ = levels;
      h->refresh();
    }
  }

  TraceSink* sink() { return sink_ ? sink_ : &stderrSink_; }
  void sinkIs(TraceSink* s) { sink_ = s; }
  std::ostream* coverage() const { return coverage_; }

 private:
  std::map<std::string, std::unique_ptr<TraceHandle>, std::less<>> handles_;
  std::uint32_t laterLevels_ = 0;
  StderrSink stderrSink_;
  TraceSink* sink_ = nullptr;
  std::ostream* coverage_ = nullptr;
};

TraceHandle::TraceHandle(std::string facility, std::uint32_t levels)
    : facility_(std::move(facility)), levels_(levels) {
  refresh();
}

void TraceHandle::refresh() {
  activeMask_ = (enabled_ ? levels_ : 0) | (TraceRegistry::instance().coverage() ? kAllLevels : 0);
  if (mirror_) *mirror_ = activeMask_;
}

void TraceHandle::mirrorIs(std::uint32_t* mirror) {
  mirror_ = mirror;
  if (mirror_) *mirror_ = activeMask_;
}

void TraceHandle::enabledIs(bool on) {
  enabled_ = on;
  refresh();
}

void TraceHandle::levelIs(int level, bool on) {
  if (level < 0 || level >= kTraceLevelCount) {
    throw RangeException("trace level " + std::to_string(level) + " out of range 0-" +
                         std::to_string(kTraceLevelCount - 1));
  }
  const std::uint32_t bit = std::uint32_t{1} << level;
  levels_ = on ? (levels_ | bit) : (levels_ & ~bit);
  refresh();
}

void TraceHandle::emit(int level, std::string_view object, std::string_view message,
                       const char* file, int line, const char* function) const {
  TraceRegistry& reg = TraceRegistry::instance();
  const TraceRecord r{facility_, std::string(object),     std::string(message),
                      level,     levelEnabled(level),     file ? file : "",
                      line,      function ? function : ""};
  if (std::ostream* os = reg.coverage()) {
    *os << r.file << ':' << r.line << ": " << r.function << ": " << r.facility << '/' << r.level
        << (r.levelEnabled ? " on: " : " off: ") << r.message << '\n';
  }
  if (r.levelEnabled) reg.sink()->record(r);
}

TraceHandle* traceHandle(std::string_view facility) {
  return TraceRegistry::instance().handle(facility);
}

void traceSinkIs(TraceSink* sink) { TraceRegistry::instance().sinkIs(sink); }
TraceSink* traceSink() { return TraceRegistry::instance().sink(); }
void coverageStreamIs(std::ostream* os) { TraceRegistry::instance().coverageIs(os); }
std::ostream* coverageStream() { return TraceRegistry::instance().coverage(); }

std::string traceLine(const TraceRecord& r) {
  std::string s = r.facility + '/' + std::to_string(r.level) + ' ';
  if (!r.object.empty()) s += r.object + ": ";
  return s + r.message;
}

std::vector<std::string> TraceRecorder::messages() const {
  std::vector<std::string> out;
  out.reserve(records_.size());
  for (const TraceRecord& r : records_) out.push_back(r.message);
  return out;
}

// ---- configuration text ----

namespace {

std::string_view trimmed(std::string_view s) {
  const auto blank = [](char c) { return c == ' ' || c == '\t'; };
  while (!s.empty() && blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && blank(s.back())) s.remove_suffix(1);
  return s;
}

[[noreturn]] void badConfig(std::string_view entry, const std::string& reason) {
  throw RangeException("bad trace configuration \"" + std::string(entry) + "\": " + reason);
}

int parseLevel(std::string_view entry, std::string_view text) {
  if (text.empty()) badConfig(entry, "missing level");
  int v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') badConfig(entry, "level \"" + std::string(text) + "\" is not a number");
    v = v * 10 + (c - '0');
    if (v >= kTraceLevelCount) {
      badConfig(entry, "level " + std::string(text) + " out of range 0-" +
                           std::to_string(kTraceLevelCount - 1));
    }
  }
  return v;
}

std::uint32_t parseLevels(std::string_view entry, std::string_view list) {
  if (list.empty()) badConfig(entry, "empty level list");
  std::uint32_t mask = 0;
  while (true) {
    const std::size_t comma = list.find(',');
    const std::string_view item = list.substr(0, comma);
    const std::size_t dash = item.find('-');
    const int lo = parseLevel(entry, item.substr(0, dash));
    const int hi = dash == std::string_view::npos ? lo : parseLevel(entry, item.substr(dash + 1));
    if (hi < lo) badConfig(entry, "range " + std::string(item) + " is reversed");
    for (int l = lo; l <= hi; ++l) mask |= std::uint32_t{1} << l;
    if (comma == std::string_view::npos) return mask;
    list.remove_prefix(comma + 1);
  }
}

}  // namespace

void traceConfigIs(std::string_view text) {
  std::vector<std::pair<std::string, std::uint32_t>> entries;
  if (!trimmed(text).empty()) {
    while (true) {
      const std::size_t semi = text.find(';');
      const std::string_view entry = trimmed(text.substr(0, semi));
      if (entry.empty()) badConfig(entry, "empty entry");
      const std::size_t slash = entry.find('/');
      const std::string_view facility = trimmed(entry.substr(0, slash));
      if (facility.empty()) badConfig(entry, "empty facility name");
      const std::uint32_t levels = slash == std::string_view::npos
                                       ? kAllLevels
                                       : parseLevels(entry, entry.substr(slash + 1));
      entries.emplace_back(std::string(facility), levels);
      if (semi == std::string_view::npos) break;
      text.remove_prefix(semi + 1);
    }
  }
  TraceRegistry::instance().configIs(entries);
}

}  // namespace Kel
