// What the examples do with processes and signals.
#ifndef EXAMPLES_PROCESSES_H
#define EXAMPLES_PROCESSES_H

#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <tarn_utils_v4/comm_loop.h>

#include <initializer_list>
#include <list>

#include "common.h"

// What a server begins with. Nobody need read what it prints.
inline void begin_service() {
  open_standard_descriptors();
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  ::signal(SIGPIPE, SIG_IGN);
}

// These signals do nothing from now on but make a descriptor readable.
inline CommDescriptor take_signals(std::initializer_list<int> signals) {
  sigset_t set;
  ::sigemptyset(&set);
  for (const int signal : signals) ::sigaddset(&set, signal);
  CommDescriptor fd{::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK)};
  if (!fd.is_open() || ::sigprocmask(SIG_BLOCK, &set, nullptr) != 0) fail("signals");
  return fd;
}

// Returns the next one that has come to this descriptor; 0 when there is none.
inline int next_signal(const CommDescriptor& signals) {
  struct signalfd_siginfo info;
  const bool is_there = ::read(signals.get(), &info, sizeof(info)) == sizeof(info);
  return is_there ? static_cast<int>(info.ssi_signo) : 0;
}

// What becomes of a process when the one that has started it ends, however that comes.
enum class Fate { is_killed, goes_on };

// What a child does, which is a copy of its parent: nothing here allocates, closes or touches a
// loop.
[[noreturn]] inline void become(char* const* words, const std::vector<int>& keep, Fate fate,
                                pid_t parent) {
  if (fate == Fate::is_killed) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(127);  // It had ended before that could matter.
  }
  // What we have opened is close-on-exec already; what we have inherited or were sent may not be.
  ::close_range(STDERR_FILENO + 1, ~0u, CLOSE_RANGE_CLOEXEC);
  for (const int fd : keep) ::fcntl(fd, F_SETFD, 0);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  ::execvp(words[0], words);
  std::perror(words[0]);
  ::_exit(127);
}

// Starts a program. Of our descriptors it has the standard ones and those in `keep`, and none of
// its signals is blocked. Returns its process id; -1 with errno. One that cannot be executed ends
// with status 127.
inline pid_t start_program(const std::vector<std::string>& words, const std::vector<int>& keep,
                           Fate fate) {
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (const std::string& word : words) pointers.push_back(const_cast<char*>(word.c_str()));
  pointers.push_back(nullptr);
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid == 0) become(pointers.data(), keep, fate, parent);
  return pid;
}

// Children that shall not go on. The id of one stays its own until it has been awaited here, so
// that the signal meets nobody else, and nobody waits for one that cannot end yet.
class EndedProcesses {
 public:
  void end(pid_t process) {
    ::kill(process, SIGKILL);
    awaited_.push_back(process);
    await();
  }
  // Also after every SIGCHLD.
  void await() {
    awaited_.remove_if([](pid_t process) {
      int status = 0;
      if (::waitpid(process, &status, WNOHANG) != process) return false;
      std::printf("process %d has ended, signal %d, status %d\n", process, WTERMSIG(status),
                  WEXITSTATUS(status));
      return true;
    });
  }

 private:
  std::list<pid_t> awaited_;
};

// Starts the program with the number of one end of a new pair as its argument; it is killed when we
// end. The other end comes into the loop, under this id. Our copy of that of the program is closed,
// so that its death ends the connection. Returns its process id; -1 with errno.
inline pid_t start_worker(CommLoop& loop, CommLoopHandler& handler, const std::string& program,
                          CommLoopId& id) {
  CommEndpoint ours(comm_socket_v4_create());
  if (ours == nullptr) throw std::bad_alloc();
  if (comm_socket_v4_connect_new_socketpair(ours.get()) != 0) return -1;
  const CommDescriptor theirs(comm_socket_v4_socketpair_get_remote_end(ours.get()));
  id = loop.add(ours.get(), handler);
  if (id.generation == 0) return -1;
  static_cast<void>(ours.release());
  return start_program({program, std::to_string(theirs.get())}, {theirs.get()}, Fate::is_killed);
}

// On the side of the worker, whose one argument that is.
inline CommClient connection_to_parent(int argc, char** argv) {
  CommClient parent;
  if (argc != 2) fail("usage", "give the number of an end of a socket pair");
  if (parent.endpoint() == nullptr ||
      comm_socket_v4_connect_use_socketpair(parent.endpoint(), std::atoi(argv[1])) != 0)
    fail(argv[1], "not an end of a socket pair");
  return parent;
}

#endif
