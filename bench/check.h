// What fails ends the process: figures that were measured beside a failure say nothing.
#ifndef COMM_BENCH_CHECK_H
#define COMM_BENCH_CHECK_H

#include <cstdio>
#include <cstdlib>

[[noreturn]] inline void fail(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  std::exit(1);
}

// With the text of errno.
[[noreturn]] inline void fail_call(const char* call) {
  std::perror(call);
  std::exit(1);
}

template <class Number>
Number check(Number result, const char* call) {
  if (result < 0) fail_call(call);
  return result;
}

#endif
