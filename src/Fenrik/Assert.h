#pragma once

#include <cassert>

// Declared here because <assert.h> declares it only if assertions are enabled.
extern "C" __attribute__((noreturn)) void __assert_fail(const char* expression, const char* file,
                                                        unsigned int line,
                                                        const char* function) noexcept;

/// Aborts through the platform's `__assert_fail` if `condition` is false. Active in every build:
/// execution never continues past a broken invariant.
#define FENRIK_ASSERT(condition) FENRIK_ASSERT_TEXT(condition, #condition)

/// As above, with the text to print.
#define FENRIK_ASSERT_TEXT(condition, text)          \
  (__builtin_expect(static_cast<bool>(condition), 1) \
       ? static_cast<void>(0)                        \
       : __assert_fail(text, __FILE__, __LINE__, __extension__ __PRETTY_FUNCTION__))
