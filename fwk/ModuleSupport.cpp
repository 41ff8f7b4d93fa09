// The module's trace handle, trace hand-off and assertion failure.
#include "fwk/ModuleSupport.h"

#include <cstdio>
#include <cstdlib>

namespace InterfaceRouteInfo {

Kel::TraceHandle* _defaultTraceHandle() {
  static Kel::TraceHandle* const handle = [] {
    Kel::TraceHandle* h = Kel::traceHandle("InterfaceRouteInfo");
    h->mirrorIs(&traceMask_);
    return h;
  }();
  return handle;
}

bool traceActiveSlow(int level) { return _defaultTraceHandle()->active(level); }

void traceEmit(int level, const std::string& object, const std::string& message, int line,
               const char* function) {
  _defaultTraceHandle()->emit(level, object, message, kTraceFileName, line, function);
}

void assertFailed(const char* expression, int line, const char* function) {
  std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", kTraceFileName, line, function,
               expression);
  std::fflush(stderr);
  std::abort();
}

}  // namespace InterfaceRouteInfo
