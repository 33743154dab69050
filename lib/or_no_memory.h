// What may run out of memory, for callers that throw nothing.
#ifndef TARN_LIB_OR_NO_MEMORY_H
#define TARN_LIB_OR_NO_MEMORY_H

#include <cerrno>
#include <new>

// What the call returns; without memory `failed`, errno ENOMEM.
template <class Result, class Call>
Result or_no_memory(Result failed, Call&& call) {
  try {
    return call();
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return failed;
  }
}

#endif
