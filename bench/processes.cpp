#include "bench/processes.h"

#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "bench/check.h"

void pin_to(int core) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(core, &set);
  check(::sched_setaffinity(0, sizeof(set), &set), "sched_setaffinity");
}

Child::Child(int core, const std::function<void()>& body) : pid_(check(::fork(), "fork")) {
  if (pid_ != 0) return;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  pin_to(core);
  body();
  ::_exit(0);
}

Child::~Child() {
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

double Child::processor_seconds() const {
  // The kernel counts when the process stops to run, which it is about to do.
  ::usleep(1000);
  clockid_t clock;
  if (::clock_getcpuclockid(pid_, &clock) != 0) fail("a process of the conversation ended");
  timespec time;
  check(::clock_gettime(clock, &time), "clock_gettime");
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

Pipe::Pipe() {
  int ends[2];
  check(::pipe(ends), "pipe");
  read_end = CommDescriptor(ends[0]);
  write_end = CommDescriptor(ends[1]);
}

// This process gives up its writing end of done_, so that finish() returns when the other ends.
Worker::Worker(int core, const std::function<Runner()>& prepare)
    : child_(core, [&] { work(prepare()); }) {
  done_.write_end = CommDescriptor();
}

void Worker::start(std::size_t count) {
  check(::write(told_.write_end.get(), &count, sizeof(count)), "write");
}

void Worker::finish() {
  char byte;
  if (::read(done_.read_end.get(), &byte, 1) != 1) fail("a process of the conversation ended");
}

void Worker::work(const Runner& run) {
  for (std::size_t count; ::read(told_.read_end.get(), &count, sizeof(count)) == sizeof(count);) {
    run(count);
    check(::write(done_.write_end.get(), "", 1), "write");
  }
}
