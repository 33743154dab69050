#include "tool/files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "tool/arguments.h"

bool is_abstract(const std::string& path) { return path.size() > 1 && path[0] == '@'; }

bool same_socket(const std::string& path, const std::string& other) {
  if (is_abstract(path) || is_abstract(other)) return path == other;
  struct stat file;
  struct stat other_file;
  return ::stat(path.c_str(), &file) == 0 && ::stat(other.c_str(), &other_file) == 0 &&
         file.st_dev == other_file.st_dev && file.st_ino == other_file.st_ino;
}

CommDescriptor open_file(const std::string& path, int flags) {
  CommDescriptor file(::open(path.c_str(), flags | O_CLOEXEC, 0666));
  if (!file.is_open()) throw system_failure("cannot open " + in_quotes(path));
  return file;
}

std::string read_file(const std::string& path, std::size_t max) {
  const bool standard_input = path == "-";
  const std::string what = standard_input ? "standard input" : in_quotes(path);
  const CommDescriptor file = standard_input ? CommDescriptor() : open_file(path, O_RDONLY);
  std::string bytes;
  char chunk[65536];
  for (;;) {
    const ssize_t got = ::read(standard_input ? STDIN_FILENO : file.get(), chunk, sizeof(chunk));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw system_failure("cannot read " + what);
    if (got == 0) return bytes;
    bytes.append(chunk, static_cast<std::size_t>(got));
    if (bytes.size() > max)
      throw Failure(what + " is longer than " + std::to_string(max) + " bytes");
  }
}

void make_empty_folder(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directory(path, error);
  if (error) throw Failure("cannot create folder " + in_quotes(path) + ": " + error.message());
  const bool empty = std::filesystem::is_empty(path, error);
  if (error) throw Failure("cannot read folder " + in_quotes(path) + ": " + error.message());
  if (!empty) throw Failure("folder " + in_quotes(path) + " is not empty");
}

CommDescriptor create_file(const std::string& folder, const std::string& name) {
  const std::string path = folder + "/" + name;
  CommDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  if (!file.is_open()) throw system_failure("cannot create " + in_quotes(path));
  return file;
}

void write_all(int fd, std::string_view bytes, const std::string& what) {
  while (!bytes.empty()) {
    const ssize_t put = ::write(fd, bytes.data(), bytes.size());
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) throw system_failure("cannot write " + what);
    bytes.remove_prefix(static_cast<std::size_t>(put));
  }
}

// A write that failed before the last flush is only known to the stream.
void flush_standard_output() {
  const std::string what = "cannot write standard output";
  if (std::fflush(stdout) != 0) throw system_failure(what);
  if (std::ferror(stdout) != 0) throw Failure(what);
}
