// Where the log lines of an endpoint go in place of standard error.
//
//   log_sinks journal         with priorities, as a journal reads them from standard error
//   log_sinks file FILE       into a file, with the time of day
//   log_sinks limited         to standard error, ten lines a second at most, and all errors
//
// Some bad packets over a socket pair give the endpoint something to say. Take the function that
// you need: a sink must not throw, and nothing here allocates. Ignore SIGPIPE with it, which a
// sink's own writes may raise.
#include <sys/socket.h>
#include <tarn_utils_v4/comm.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

using Sink = void (*)(void* user, const char* level, const char* text);

// "<N>" before a line is its priority (sd-daemon(3)): 3 error, 4 warning, 7 debug.
void to_journal(void* /*user*/, const char* level, const char* text) {
  const int priority = std::strcmp(level, "ERROR") == 0   ? 3
                       : std::strcmp(level, "DEBUG") == 0 ? 7
                                                          : 4;
  std::fprintf(stderr, "<%d>%s: %s\n", priority, level, text);
}

void to_file(void* file, const char* level, const char* text) {
  const std::time_t now = std::time(nullptr);
  struct tm local;
  char clock[32] = "";
  if (::localtime_r(&now, &local) != nullptr)
    std::strftime(clock, sizeof(clock), "%Y-%m-%d %H:%M:%S", &local);
  std::fprintf(static_cast<std::FILE*>(file), "%s %s: %s\n", clock, level, text);
}

void to_standard_error(void* /*user*/, const char* level, const char* text) {
  std::fprintf(stderr, "%s: %s\n", level, text);
}

// In front of another sink: what peers can provoke as often as they like fills no disk. Errors
// always pass, as no packet causes one.
struct Limiter {
  Sink sink;
  void* user;
  std::time_t second;
  unsigned long lines;  // in that second
};

void limited(void* limiter, const char* level, const char* text) {
  constexpr unsigned long most = 10;
  Limiter& l = *static_cast<Limiter*>(limiter);
  const std::time_t now = std::time(nullptr);
  if (now != l.second) {
    if (l.lines > most) {
      char note[64];
      std::snprintf(note, sizeof(note), "%lu lines were left out", l.lines - most);
      l.sink(l.user, "WARNING", note);
    }
    l.second = now;
    l.lines = 0;
  }
  if (std::strcmp(level, "ERROR") == 0 || ++l.lines <= most) l.sink(l.user, level, text);
}

int usage() {
  std::fputs("usage: log_sinks journal | file FILE | limited\n", stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  comm_socket_v4* const endpoint = comm_socket_v4_create();
  if (endpoint == nullptr || comm_socket_v4_connect_new_socketpair(endpoint) != 0) return 1;

  const char* const which = argc > 1 ? argv[1] : "";
  Limiter limiter = {to_standard_error, nullptr, 0, 0};
  std::FILE* file = nullptr;
  if (std::strcmp(which, "journal") == 0) {
    comm_socket_v4_set_log_sink(endpoint, to_journal, nullptr);
  } else if (std::strcmp(which, "file") == 0 && argc == 3) {
    file = std::fopen(argv[2], "ae");
    if (file == nullptr) return 1;
    std::setvbuf(file, nullptr, _IOLBF, 0);
    comm_socket_v4_set_log_sink(endpoint, to_file, file);
  } else if (std::strcmp(which, "limited") == 0) {
    comm_socket_v4_set_log_sink(endpoint, limited, &limiter);
  } else {
    comm_socket_v4_destroy(endpoint);
    return usage();
  }

  const int peer = comm_socket_v4_socketpair_get_remote_end(endpoint);
  for (int i = 0; i < 20; ++i) {
    if (::send(peer, "bad", 3, MSG_NOSIGNAL) != 3) return 1;
    comm_socket_v4_idle(endpoint);
  }
  ::close(peer);
  comm_socket_v4_error(endpoint, "goodbye");
  comm_socket_v4_destroy(endpoint);  // before what its sink uses
  if (file != nullptr) std::fclose(file);
}
