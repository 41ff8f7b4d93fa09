// The daemon's internal side of instances (instance.h): each file that keeps tables declares
// its share as one state object and publishes a corvd_state_ops for it. The live state of the
// current instance is the file's global object; an instance that is not current keeps its state
// parked in an object of its own, and switching swaps the two.
#pragma once

#include <utility>

struct corvd_state_ops {
  void* (*make)();         // a parked state of a fresh daemon
  void (*swap)(void*);     // exchanges the live state with a parked one
  void (*destroy)(void*);  // frees a parked state
};

// The ops of a state object `live` of type T (a class with a default constructor and swap).
template <class T, T& live>
constexpr corvd_state_ops corvd_state_ops_of() {
  return {[]() -> void* { return new T(); },
          [](void* parked) {
            using std::swap;
            swap(live, *static_cast<T*>(parked));
          },
          [](void* parked) { delete static_cast<T*>(parked); }};
}

// The daemon files' shares, in the order in which they are switched.
extern const corvd_state_ops corvd_state_gw;
extern const corvd_state_ops corvd_state_ptree;
extern const corvd_state_ops corvd_state_rt;
extern const corvd_state_ops corvd_state_rib;
extern const corvd_state_ops corvd_state_if;
extern const corvd_state_ops corvd_state_task;
extern const corvd_state_ops corvd_state_sock;
extern const corvd_state_ops corvd_state_misuse;
