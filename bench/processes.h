// Processes that take part in a conversation, each pinned to a core.
#ifndef COMM_BENCH_PROCESSES_H
#define COMM_BENCH_PROCESSES_H

#include <sys/types.h>
#include <tarn_utils_v4/comm_cpp.h>

#include <cstddef>
#include <functional>

// Pins this process.
void pin_to(int core);

// Does `count` operations of whatever is measured.
using Runner = std::function<void(std::size_t count)>;

// How many seconds have passed, on some clock.
using Clock = std::function<double()>;

// A process that runs until this one is done with it.
class Child {
 public:
  Child(int core, const std::function<void()>& body);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  // That it has run, in user space and in the kernel, once it waits for something to do.
  double processor_seconds() const;

 private:
  pid_t pid_;
};

struct Pipe {
  Pipe();
  CommDescriptor read_end, write_end;
};

// A process that does a number of operations when it is told to.
class Worker {
 public:
  // `prepare` runs in the process and returns what does the operations.
  Worker(int core, const std::function<Runner()>& prepare);
  void start(std::size_t count);
  void finish();
  double processor_seconds() const { return child_.processor_seconds(); }

 private:
  void work(const Runner& run);

  Pipe told_, done_;
  Child child_;
};

#endif
