// The frame of every exported function: no C++ exception crosses the interface, and the
// result is stored as the last status.
#pragma once

#include <new>

#include "frame/frame.h"

namespace korvel {

// An exception other than std::bad_alloc is an internal error of `unit`, reported with the
// line of the exported function's frame.
template <class Body>
int16_t api_call(const char* unit, Body&& body, int line = __builtin_LINE()) noexcept {
  try {
    return finish(body());
  } catch (const std::bad_alloc&) {
    return finish(raise(MDF_ERR_NO_MEMORY, ""));
  } catch (...) {
    return finish(internal_error(unit, line));
  }
}

// api_call that first returns a stored sticky error.
template <class Body>
int16_t checked_call(const char* unit, Body&& body, int line = __builtin_LINE()) noexcept {
  if (const int16_t sticky = sticky_error(); sticky != 0) return finish(sticky);
  return api_call(unit, static_cast<Body&&>(body), line);
}

}  // namespace korvel
