#include "restart.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "processes.h"

Successor::~Successor() {
  if (process_ > 0) end();
}

void Successor::start(std::vector<std::string> words, int listener) {
  if (process_ > 0) return;
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) == 0) {
    readiness_ = CommDescriptor(ends[0]);
    const CommDescriptor theirs(ends[1]);
    words.insert(words.begin() + 1,
                 {"--handed-over", std::to_string(listener), std::to_string(theirs.get())});
    watch_ = loop_.watch(readiness_.get(), POLLIN, *this);
    if (watch_.generation != 0)
      process_ = start_program(words, {listener, theirs.get()}, Fate::goes_on);
    if (process_ > 0) return;
  }
  std::printf("cannot start a new version: %s\n", std::strerror(errno));
  loop_.remove(watch_);
}

// Something to read, or the end: a process that has ended was not ready.
void Successor::on_ready(CommLoop& /*loop*/, CommLoopId watched, std::uint32_t /*events*/) {
  char byte;
  const bool is_there = ::read(readiness_.get(), &byte, 1) == 1;
  loop_.remove(watched);
  if (is_there) {
    std::printf("process %d goes on\n", process_);
    process_ = -1;
    is_ready_();
  } else {
    std::printf("the new version has not started, this one goes on\n");
    end();
  }
}

void Successor::end() {
  ::kill(process_, SIGKILL);
  ::waitpid(process_, nullptr, 0);
  process_ = -1;
}

void report_ready(CommDescriptor to) {
  if (::write(to.get(), "1", 1) != 1) std::perror("the old version does not listen");
}
