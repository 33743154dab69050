#include "suite/process.h"

#include <dirent.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace {

enum class Answer { nobody, somebody, unknown };

// Asks with a datagram socket, whose connect leaves no trace at a listener: the kernel refuses it
// with EPROTOTYPE when a socket of another type is bound to the file, and with ECONNREFUSED when
// none is (unix(7)). Whatever else goes wrong says nothing about the server, so it counts as alive.
// Unknown, with errno, when there is nothing to ask with.
Answer ask(const char* path) {
  struct sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (std::strlen(path) > sizeof(address.sun_path)) return Answer::nobody;
  std::memcpy(address.sun_path, path, std::strlen(path));

  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return Answer::unknown;
  const int result =
      ::connect(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof(address));
  const int error = result == 0 ? 0 : errno;
  ::close(fd);
  return error == ECONNREFUSED || error == ENOENT || error == ENOTDIR ? Answer::nobody
                                                                      : Answer::somebody;
}

struct BoundSocket {
  unsigned long inode;  // of the socket, not of its file
  std::string path;     // as the server spelled it, from its working directory
};

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
struct Free {
  void operator()(char* memory) const { std::free(memory); }
};

// From /proc/net/unix, lines of "Num RefCount Protocol Flags Type St Inode Path" (proc(5)). The
// connections that a server accepted carry its path too; they are left out. A datagram socket is
// always in their state.
std::vector<BoundSocket> bound_sockets() {
  constexpr unsigned connected = 3;
  std::vector<BoundSocket> sockets;
  const std::unique_ptr<std::FILE, CloseFile> table(std::fopen("/proc/net/unix", "re"));
  if (table == nullptr) return sockets;
  std::unique_ptr<char, Free> line;
  for (std::size_t size = 0;;) {
    char* text = line.release();
    const ssize_t length = ::getline(&text, &size, table.get());
    line.reset(text);
    if (length < 0) return sockets;
    unsigned type;
    unsigned state;
    unsigned long inode;
    int end = 0;
    if (std::sscanf(text, "%*s %*s %*s %*s %x %x %lu%n", &type, &state, &inode, &end) != 3)
      continue;
    if (state == connected && type != SOCK_DGRAM) continue;
    if (text[end] != ' ' || text[length - 1] != '\n') continue;
    sockets.push_back({inode, std::string(text + end + 1, text + length - 1)});
  }
}

bool same_file(const std::string& path, const struct stat& file) {
  struct stat other;
  return ::lstat(path.c_str(), &other) == 0 && other.st_dev == file.st_dev &&
         other.st_ino == file.st_ino;
}

// Directory listing; empty when the directory cannot be read.
std::vector<std::string> entries_of(const std::string& directory) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(directory.c_str()), ::closedir);
  if (dir == nullptr) return names;
  while (const struct dirent* entry = ::readdir(dir.get())) names.emplace_back(entry->d_name);
  return names;
}

// The inode of a descriptor whose link reads "socket:[12345]", otherwise 0.
unsigned long socket_inode(const std::string& descriptor) {
  char target[64] = {};
  unsigned long inode;
  if (::readlink(descriptor.c_str(), target, sizeof(target) - 1) < 0) return 0;
  return std::sscanf(target, "socket:[%lu]", &inode) == 1 ? inode : 0;
}

// The newest socket of the process that is bound to `file`, by its inode; 0 without one.
unsigned long newest_server_socket(const std::string& process,
                                   const std::vector<BoundSocket>& sockets,
                                   const struct stat& file) {
  unsigned long newest = 0;
  const std::string directory = process + "/fd/";
  for (const std::string& descriptor : entries_of(directory)) {
    const unsigned long inode = socket_inode(directory + descriptor);
    if (inode <= newest) continue;
    for (const BoundSocket& socket : sockets) {
      if (socket.inode != inode) continue;
      const bool relative = socket.path[0] != '/';
      if (same_file(process + (relative ? "/cwd/" : "/root") + socket.path, file)) newest = inode;
    }
  }
  return newest;
}

// The process that serves the file; 0 when none is seen to. Of several sockets that were bound to
// the same path the newest has the file: the older ones lost it to a take-over.
int find_server(const char* path) {
  struct stat file;
  if (::lstat(path, &file) != 0) return 0;
  const std::vector<BoundSocket> sockets = bound_sockets();
  int server = 0;
  unsigned long newest = 0;
  for (const std::string& name : entries_of("/proc")) {
    const int pid = std::atoi(name.c_str());
    if (pid <= 0) continue;
    const unsigned long inode = newest_server_socket("/proc/" + name, sockets, file);
    if (inode <= newest) continue;
    newest = inode;
    server = pid;
  }
  return server;
}

}  // namespace

int get_socket_server_pid(const char* path, unsigned int /*reserved*/) {
  const Answer answer = ask(path);
  if (answer == Answer::nobody) return -1;
  if (answer == Answer::unknown) return 0;
  int server = 0;
  try {
    server = find_server(path);
  } catch (const std::bad_alloc&) {
  }
  errno = 0;
  return server;
}
