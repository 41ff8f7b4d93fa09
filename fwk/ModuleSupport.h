// The module's trace handle and its tracing and assertion macros.
//
// There is one trace handle for the whole module, facility "InterfaceRouteInfo", made on first use
// and kept until the process ends (_defaultTraceHandle()). Every trace statement of the module
// goes through it with the source file name "InterfaceRouteInfo.tin", the line, the function's
// full signature and the name of the object it runs on.
//
// Macros (use them inside the module's member functions; `this` names the object):
//   IRI_TRACE(level, a << b << c)  lazy: the stream expression is evaluated only when the level
//                                  is enabled or the coverage stream is set; numbers are written
//                                  with 12 significant digits.
//   IRI_TRACE_STATIC(level, ...)   the same from a static or free function (no object name).
//   IRI_TRACE_BEGIN() / IRI_TRACE_END()  level 8: the function's signature immediately followed
//                                  by "BEGIN" / "END".
//   IRI_ASSERT(expr)               on failure prints
//                                  "InterfaceRouteInfo.tin:<line>: <function>: Assertion `expr'
//                                  failed." to stderr and aborts. IRI_ASSERT_TEXT(expr, text)
//                                  prints `text` in place of the expression.
// The function named by all of them is __PRETTY_FUNCTION__, unless the enclosing function
// declared its own with IRI_SIGNATURE(parts...). Templates need that: the IPv4/IPv6 twins are
// one template, whose __PRETTY_FUNCTION__ would print the template and its arguments, while the
// traces must read like those of the plain class they stand for
// ("void InterfaceRouteInfo::RouteBacklogSm::handleBacklog()"). The lookup works by plain name
// hiding: IRI_SIGNATURE declares a local `iriFunctionSignature_`, which hides the global one
// (a null pointer) that every other function sees.
// A caller must not put side effects in a trace expression (it is usually not evaluated) nor in an
// assertion's message text.
#pragma once

#include <sstream>
#include <string>
#include <type_traits>

#include "fwk/framework/Trace.h"

namespace InterfaceRouteInfo {

// The module's one trace handle (facility "InterfaceRouteInfo").
Kel::TraceHandle* _defaultTraceHandle();

constexpr const char* kTraceFileName = "InterfaceRouteInfo.tin";

// The handle's active levels, kept by the handle once _defaultTraceHandle() has made it; until
// then all ones, which sends every check to the handle (and so makes it).
inline std::uint32_t traceMask_ = ~std::uint32_t{0};
bool traceActiveSlow(int level);
// True when a statement at `level` must be formatted and handed to the framework. Inline: a
// million-route drain or withdrawal asks it several times a key, with every level off, which
// costs one load of the mask and one bit test.
[[gnu::always_inline]] inline bool traceActive(int level) {
  if (level < 0 || level >= Kel::kTraceLevelCount || ((traceMask_ >> level) & 1) == 0) {
    return false;
  }
  return traceActiveSlow(level);
}
// Hands one formatted message to the framework's tracing.
void traceEmit(int level, const std::string& object, const std::string& message, int line,
               const char* function);
// Prints the assertion message and aborts.
[[noreturn]] void assertFailed(const char* expression, int line, const char* function);

// Name of the object a trace statement runs on: an entity's name, or its owner's for the nested
// notifiee adapters that have one; empty otherwise.
template <class T>
std::string traceObjectName(const T* self) {
  if constexpr (requires { self->name(); }) {
    std::ostringstream os;
    os << self->name();
    return os.str();
  } else if constexpr (requires { self->owner()->name(); }) {
    std::ostringstream os;
    os << self->owner()->name();
    return os.str();
  } else {
    return std::string();
  }
}

inline const char* functionSignature(std::nullptr_t, const char* pretty) { return pretty; }
// A function's own signature (IRI_SIGNATURE): made on the first trace that names it.
template <class Own>
requires std::is_invocable_r_v<const std::string&, const Own&>
const char* functionSignature(const Own& own, const char*) { return own().c_str(); }

template <class... Parts>
std::string signatureOf(const Parts&... parts) {
  std::string s;
  ((s += parts), ...);
  return s;
}

}  // namespace InterfaceRouteInfo

// Seen by every function that did not declare its own signature (see above).
inline constexpr std::nullptr_t iriFunctionSignature_ = nullptr;

// Inside a trace statement, the enclosing function's name (iriPrettyFunction_ is that function's
// __PRETTY_FUNCTION__, taken before the statement's out-of-line body, whose own would name it).
#define IRI_FUNCTION_NAME_() IRI_NAME_OF_(iriPrettyFunction_)
// The enclosing function's own signature, or else `pretty` (its __PRETTY_FUNCTION__).
#define IRI_NAME_OF_(pretty) ::InterfaceRouteInfo::functionSignature(iriFunctionSignature_, pretty)

// The signature is a function-local static made by the first call of the empty object declared
// here, which only a trace or an assertion that fires makes: a call with tracing off does not
// test the static's guard.
#define IRI_SIGNATURE(...)                                                       \
  const auto iriFunctionSignature_ = []() -> const std::string& {                \
    static const std::string s = ::InterfaceRouteInfo::signatureOf(__VA_ARGS__); \
    return s;                                                                    \
  }

// The formatting is an out-of-line, cold lambda: the function that traces keeps a small frame
// and, with the level off, pays the mask test and a branch.
#define IRI_TRACE_OBJ_(object, level, expr)                                             \
  do {                                                                                  \
    if (::InterfaceRouteInfo::traceActive(level)) {                                     \
      const char* const iriPrettyFunction_ = __PRETTY_FUNCTION__;                       \
      [&]() __attribute__((noinline, cold)) {                                           \
        std::ostringstream iriTraceStream_;                                             \
        iriTraceStream_.precision(12);                                                  \
        iriTraceStream_ << expr;                                                        \
        ::InterfaceRouteInfo::traceEmit(level, object, iriTraceStream_.str(), __LINE__, \
                                        IRI_FUNCTION_NAME_());                          \
      }                                                                                 \
      ();                                                                               \
    }                                                                                   \
  } while (0)

#define IRI_TRACE(level, expr) \
  IRI_TRACE_OBJ_(::InterfaceRouteInfo::traceObjectName(this), level, expr)
#define IRI_TRACE_STATIC(level, expr) IRI_TRACE_OBJ_(std::string(), level, expr)

#define IRI_TRACE_BEGIN() IRI_TRACE(8, IRI_FUNCTION_NAME_() << "BEGIN")
#define IRI_TRACE_END() IRI_TRACE(8, IRI_FUNCTION_NAME_() << "END")

#define IRI_ASSERT_TEXT(expr, text)                                                          \
  do {                                                                                       \
    if (!(expr))                                                                             \
      ::InterfaceRouteInfo::assertFailed(text, __LINE__, IRI_NAME_OF_(__PRETTY_FUNCTION__)); \
  } while (0)
#define IRI_ASSERT(expr) IRI_ASSERT_TEXT(expr, #expr)
