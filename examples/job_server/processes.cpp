#include "processes.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>

namespace {

// In the child, which is a copy of the server: nothing here allocates, closes or touches the loop.
[[noreturn]] void become(char* const* words, const std::vector<int>& keep, Fate fate,
                         pid_t starter) {
  if (fate == Fate::is_killed) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != starter) ::_exit(127);  // It had ended before it could matter.
  }
  // Everything of ours is close-on-exec already; what we have inherited may not be.
  ::close_range(STDERR_FILENO + 1, ~0u, CLOSE_RANGE_CLOEXEC);
  for (const int fd : keep) ::fcntl(fd, F_SETFD, 0);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  ::execvp(words[0], words);
  std::perror(words[0]);
  ::_exit(127);
}

}  // namespace

pid_t start_program(const std::vector<std::string>& words, const std::vector<int>& keep,
                    Fate fate) {
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (const std::string& word : words) pointers.push_back(const_cast<char*>(word.c_str()));
  pointers.push_back(nullptr);
  const pid_t starter = ::getpid();
  const pid_t pid = ::fork();
  if (pid == 0) become(pointers.data(), keep, fate, starter);
  return pid;
}
