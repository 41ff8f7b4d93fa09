// The text of the exception of type E that f raises, or "" when it raises none.
#pragma once

#include <string>

#include "fwk/framework/Exception.h"

template <class E = Kel::RangeException, class F>
std::string errorOf(F&& f) {
  try {
    f();
  } catch (const E& e) {
    return e.what();
  }
  return "";
}
