#pragma once

#include <cassert>

// The platform's assertion stop, which its header declares only where assertions are on.
extern "C" __attribute__((noreturn)) void __assert_fail(const char* expression, const char* file,
                                                        unsigned int line,
                                                        const char* function) noexcept;

/// Ends the process through the platform's `__assert_fail` when `condition` does not hold, with the
/// condition's text. It stands in every build: a broken invariant is never run past.
#define FENRIK_ASSERT(condition) FENRIK_ASSERT_TEXT(condition, #condition)

/// The same with the text that the platform is to print.
#define FENRIK_ASSERT_TEXT(condition, text)          \
  (__builtin_expect(static_cast<bool>(condition), 1) \
       ? static_cast<void>(0)                        \
       : __assert_fail(text, __FILE__, __LINE__, __extension__ __PRETTY_FUNCTION__))
