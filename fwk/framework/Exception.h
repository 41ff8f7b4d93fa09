// The framework's exceptions. Every error that bad input can cause is one of these, carrying the
// exact text the caller will show; nothing else is thrown by the framework or the module's
// handlers. A function that throws leaves the object it was called on as it was before the call.
#pragma once

#include <stdexcept>
#include <string>

namespace Kel {

// Base of every framework error; what() is the message text exactly as given.
class Exception : public std::runtime_error {
 public:
  explicit Exception(const std::string& what) : std::runtime_error(what) {}
};

// A value out of its allowed range, a malformed text, a null parameter that must not be null.
class RangeException : public Exception {
 public:
  explicit RangeException(const std::string& what) : Exception(what) {}
};

// A keyed child instantiated again under a name that is in use with different parameters.
class NameInUseException : public Exception {
 public:
  explicit NameInUseException(const std::string& what) : Exception(what) {}
};

}  // namespace Kel
