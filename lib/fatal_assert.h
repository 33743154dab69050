// Assertions for what only a fault of this library can break. They stay on in every build.
#ifndef TARN_LIB_FATAL_ASSERT_H
#define TARN_LIB_FATAL_ASSERT_H

// Prints the source, the function and the condition to standard error, and aborts.
[[noreturn]] void fatal_assertion_failed(const char* source, const char* function,
                                         const char* condition) noexcept;

// Every file that uses it has a constant `source`: its path without the ending, as users of the
// library know it.
#define FATAL_ASSERT(condition) \
  ((condition) ? static_cast<void>(0) : fatal_assertion_failed(source, __func__, #condition))

#endif
