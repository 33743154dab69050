// The command-line tool: finds the subcommand, and turns what it throws into a message and an exit
// status.
#include <fcntl.h>
#include <tarn_utils_v4/comm.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <string>

#include "tool/arguments.h"
#include "tool/files.h"
#include "tool/subcommand.h"

namespace {

const Subcommand* const subcommands[] = {&call_subcommand, &serve_subcommand, &ping_subcommand,
                                         &proxy_subcommand, &decode_subcommand};

void print_help(std::FILE* out) {
  std::fputs(
      "usage: tarn-comm COMMAND [OPTION...] [ARGUMENT...]\n"
      "Talks to servers that listen on a socket path, or stands in for one.\n\n",
      out);
  for (const Subcommand* s : subcommands) std::fprintf(out, "  %-8s %s\n", s->name, s->summary);
  std::fputs(
      "\n"
      "  -h, --help     this text; after a command, all about that command\n"
      "  -V, --version  the version\n\n"
      "A PATH names a socket file, with a leading @ an abstract socket, or as in fd:3 a socket\n"
      "that this program was started with.\n"
      "Exit status: 0 done, 1 failed or answered with an error, 2 wrong usage.\n",
      out);
}

// A socket or a packet's descriptor must not become 0, 1 or 2, where others read and write. What
// takes the place of a closed one cannot be used either: a lost output is still a failure.
void open_standard_descriptors() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    if (::fcntl(fd, F_GETFD) < 0) ::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
}

int report(const std::string& title, const char* text, int status) {
  if (*text != '\0') std::fprintf(stderr, "%s: %s\n", title.c_str(), text);
  if (status == exit_usage)
    std::fprintf(stderr, "Try '%s --help' for more information.\n", title.c_str());
  return status;
}

int run(const Subcommand& subcommand, int argc, char** argv) {
  std::string title = std::string("tarn-comm ") + subcommand.name;
  argv[0] = title.data();  // getopt begins its messages with it.
  try {
    const int status = subcommand.run(argc, argv);
    flush_standard_output();
    return status;
  } catch (const UsageError& error) {
    return report(title, error.what(), exit_usage);
  } catch (const std::bad_alloc&) {
    return report(title, "out of memory", exit_failed);
  } catch (const std::exception& error) {
    std::fflush(stdout);
    return report(title, error.what(), exit_failed);
  }
}

}  // namespace

int main(int argc, char** argv) {
  open_standard_descriptors();
  std::signal(SIGPIPE,
              SIG_IGN);  // Who reads no further gets a message and a status, like a full disk.
  const std::string word = argc > 1 ? argv[1] : "";
  for (const Subcommand* s : subcommands)
    if (word == s->name) return run(*s, argc - 1, argv + 1);
  if (argc < 2) {
    print_help(stderr);
    return exit_usage;
  }
  if (word == "-h" || word == "--help")
    print_help(stdout);
  else if (word == "-V" || word == "--version")
    std::puts("tarn-comm " TARN_COMM_VERSION);
  else
    return report("tarn-comm", ("unknown command " + in_quotes(word)).c_str(), exit_usage);
  if (std::fflush(stdout) == 0) return exit_ok;
  return report("tarn-comm", "cannot write standard output", exit_failed);
}
