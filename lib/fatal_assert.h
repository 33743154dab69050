// Assertions for what only a fault of this library can break. They stay on in every build.
#ifndef TARN_LIB_FATAL_ASSERT_H
#define TARN_LIB_FATAL_ASSERT_H

// Prints the source, the function and the condition to standard error, and aborts.
[[noreturn]] void fatal_assertion_failed(const char* source, const char* function,
                                         const char* condition) noexcept;

// `source` is the path of the source file without its ending, as users of the library know it.
inline void fatal_assert(bool holds, const char* condition, const char* source,
                         const char* function) noexcept {
  if (!holds) fatal_assertion_failed(source, function, condition);
}

#endif
