// Everything the library prints about endpoints: the four classes of log lines, the state dump and
// the last words of a failed assertion.
#include <tarn_utils_v4/comm.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "lib/endpoint_internal.h"
#include "lib/errno_guard.h"
#include "lib/fatal_assert.h"
#include "lib/formatted_text.h"
#include "lib/standard_error.h"

namespace {

constexpr unsigned log_errors = 1;
constexpr unsigned log_warnings_and_bugs = 2;
constexpr unsigned log_debug = 8;

void log_to_standard_error(const comm_socket_v4* c, const char* level, const char* format,
                           va_list args) {
  char prefix[64];
  std::snprintf(prefix, sizeof(prefix), "comm_socket_v4 %s [%p]: ", level,
                static_cast<const void*>(c));
  FormattedText line(prefix, format, args);
  line.add_newline();
  write_to_standard_error(line.c_str(), line.length());
}

void log_to_sink(comm_v4_internals& own, const char* level, const char* format, va_list args) {
  FormattedText text("", format, args);
  text.remove_newlines();
  const struct Inside {
    explicit Inside(bool& flag) : flag_(flag) { flag_ = true; }
    ~Inside() { flag_ = false; }
    bool& flag_;
  } inside(own.in_log_sink);
  own.log_sink(own.log_user, level, text.c_str());
}

// An empty client record has no endpoint to log on; what is said about it goes nowhere.
void log_line(const comm_socket_v4* c, unsigned mask_bit, const char* level, const char* format,
              va_list args) {
  if (c == nullptr || (c->log_mask & mask_bit) == 0) return;
  ErrnoGuard keep_errno;
  comm_v4_internals& own = comm_v4_internals::of(c);
  if (own.log_sink != nullptr && !own.in_log_sink)
    log_to_sink(own, level, format, args);
  else
    log_to_standard_error(c, level, format, args);
}

const char* yes_no(bool value) { return value ? "yes" : "no"; }

double seconds(std::uint64_t usec) { return static_cast<double>(usec) / 1000000.0; }

}  // namespace

void comm_socket_v4_normal_logging(comm_socket_v4* c) {
  c->log_mask = log_errors | log_warnings_and_bugs;
}
void comm_socket_v4_debug_logging(comm_socket_v4* c) { c->log_mask = 15; }
void comm_socket_v4_shut_up(comm_socket_v4* c) { c->log_mask = 0; }

void comm_socket_v4_set_log_sink(comm_socket_v4* c,
                                 void (*sink)(void* user, const char* level, const char* text),
                                 void* user) {
  comm_v4_internals& own = comm_v4_internals::of(c);
  own.log_sink = sink;
  own.log_user = user;
}

void comm_socket_v4_error(comm_socket_v4* c, const char* format, ...) {
  va_list args;
  va_start(args, format);
  log_line(c, log_errors, "ERROR", format, args);
  va_end(args);
}

void comm_socket_v4_warning(comm_socket_v4* c, const char* format, ...) {
  va_list args;
  va_start(args, format);
  log_line(c, log_warnings_and_bugs, "WARNING", format, args);
  va_end(args);
}

void comm_socket_v4_bug(comm_socket_v4* c, const char* format, ...) {
  va_list args;
  va_start(args, format);
  log_line(c, log_warnings_and_bugs, "BUG", format, args);
  va_end(args);
}

void comm_socket_v4_debug(comm_socket_v4* c, const char* format, ...) {
  va_list args;
  va_start(args, format);
  comm_socket_v4_vdebug(c, format, args);
  va_end(args);
}

void comm_socket_v4_vdebug(comm_socket_v4* c, const char* format, va_list args) {
  log_line(c, log_debug, "DEBUG", format, args);
}

void comm_socket_v4_dump_state(const comm_socket_v4* c, std::FILE* out) {
  if (out == nullptr) out = stderr;
  if (c == nullptr) {
    std::fputs("comm_socket_v4[nullptr] = No state\n", out);
    return;
  }
  std::fprintf(out, "comm_socket_v4[%p]:\n", static_cast<const void*>(c));
  std::fprintf(out, "  socketpair:       %s\n", yes_no(c->flags.socketpair));
  std::fprintf(out, "  socket_fd:        %d\n", c->socket_fd);
  std::fprintf(out, "  socket_path:      %s\n", c->socket_path.c_str());
  std::fprintf(out, "  server:           %s\n", yes_no(c->flags.server));
  std::fprintf(out, "  connect timeout:  %.3f / %.3f routine\n", seconds(c->connect_timeout),
               seconds(c->connect_timeout_routine));
  std::fprintf(out,
               "  client list:      %p alloc=%lu/max=%lu/next=%lu/idlescan=%lu/getpktscan=%lu\n",
               static_cast<const void*>(c->client.data()), c->client.size(), c->client_max,
               c->client_next, c->client_idlescan, c->client_getpktscan);
  for (std::size_t i = 0; i < c->client.size(); ++i) {
    const comm_socket_v4_client& client = c->client[i];
    if (!client.client_is_open()) continue;
    std::fprintf(out, "    client[%lu]: fd=%d cred(pid=%d/uid=%d/gid=%d) at=%llu server=%p\n", i,
                 client.client_fd, client.cred.pid, static_cast<int>(client.cred.uid),
                 static_cast<int>(client.cred.gid),
                 static_cast<unsigned long long>(client.accept_time_us),
                 static_cast<const void*>(client.server));
  }
}

void fatal_assertion_failed(const char* source, const char* function,
                            const char* condition) noexcept {
  char line[512];
  std::snprintf(line, sizeof(line), "%s: %s: assertion failed: %s\n", source, function, condition);
  write_to_standard_error(line);
  std::abort();
}
