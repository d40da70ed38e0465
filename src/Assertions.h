#ifndef QUORVEX_ASSERTIONS_H
#define QUORVEX_ASSERTIONS_H

// The library's assertions are part of its behaviour: a broken invariant or
// an out-of-range argument stops the process with a message that names the
// condition, the file, the line and the function. They stay on in every build
// type; the build removes NDEBUG from the library's flags, and this guard
// stops a build that lets it through anyway. Every source file of the
// library includes this header first.
#ifdef NDEBUG
#error "NDEBUG must not reach the Quorvex library sources: its assertions are part of its behaviour"
#endif

#include <cassert>

#endif
