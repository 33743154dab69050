// Where the log lines of an endpoint go in place of standard error.
//
//   log_sinks journal         with priorities, as a journal reads them from standard error
//   log_sinks file FILE       into a file, with the time of day
//   log_sinks limited         to standard error, a line that repeats once a second at most
//
// Some bad packets over a socket pair give the endpoint something to say. Take the function that
// you need: a sink must not throw, and nothing here allocates.
#include <sys/socket.h>
#include <tarn_utils_v4/comm.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

using Sink = void (*)(void* user, const char* level, const char* text);

// "<N>" before a line is its priority (sd-daemon(3)): 3 error, 4 warning, 7 debug.
void to_journal(void*, const char* level, const char* text) {
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

void to_standard_error(void*, const char* level, const char* text) {
  std::fprintf(stderr, "%s: %s\n", level, text);
}

// In front of another sink: what a peer can provoke as often as it likes fills no disk.
struct Limiter {
  Sink sink;
  void* user;
  char last[256];  // as much of a line as is compared
  std::time_t since;
  unsigned long repeats;
};

void limited(void* limiter, const char* level, const char* text) {
  Limiter& l = *static_cast<Limiter*>(limiter);
  const std::time_t now = std::time(nullptr);
  const bool repeats = std::strncmp(l.last, text, sizeof(l.last) - 1) == 0;
  if (repeats && now == l.since) {
    ++l.repeats;
    return;
  }
  if (l.repeats > 0) {
    char note[64];
    std::snprintf(note, sizeof(note), "the last line came %lu more times", l.repeats);
    l.sink(l.user, "WARNING", note);
  }
  l.repeats = 0;
  l.since = now;
  std::snprintf(l.last, sizeof(l.last), "%s", text);
  l.sink(l.user, level, text);
}

int usage() {
  std::fputs("usage: log_sinks journal | file FILE | limited\n", stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  comm_socket_v4* const endpoint = comm_socket_v4_create();
  if (endpoint == nullptr || comm_socket_v4_connect_new_socketpair(endpoint) != 0) return 1;

  const char* const which = argc > 1 ? argv[1] : "";
  Limiter limiter = {to_standard_error, nullptr, "", 0, 0};
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
  for (int i = 0; i < 5; ++i) {
    if (::send(peer, "bad", 3, MSG_NOSIGNAL) != 3) return 1;
    comm_socket_v4_idle(endpoint);
  }
  ::close(peer);
  comm_socket_v4_error(endpoint, "goodbye");
  comm_socket_v4_destroy(endpoint);  // before what its sink uses
  if (file != nullptr) std::fclose(file);
}
