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
#include <fstream>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <vector>

namespace {

enum class Answer { nobody, somebody };

// Asks with a datagram socket, whose connect leaves no trace at a listener: the kernel refuses it
// with EPROTOTYPE when a socket of another type is bound to the file, and with ECONNREFUSED when
// none is (unix(7)). Whatever else goes wrong says nothing about the server, so it counts as alive.
Answer ask(const char* path) {
  struct sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (std::strlen(path) > sizeof(address.sun_path)) return Answer::nobody;
  std::memcpy(address.sun_path, path, std::strlen(path));

  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return Answer::somebody;
  const int result =
      ::connect(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof(address));
  const int error = result == 0 ? 0 : errno;
  ::close(fd);
  return error == ECONNREFUSED || error == ENOENT || error == ENOTDIR ? Answer::nobody
                                                                      : Answer::somebody;
}

struct BoundSocket {
  std::string inode;  // of the socket, not of its file
  std::string path;   // as the server spelled it, from its working directory
};

// /proc/net/unix (proc(5)): Num RefCount Protocol Flags Type St Inode Path.
std::vector<BoundSocket> bound_sockets() {
  std::vector<BoundSocket> sockets;
  std::ifstream table("/proc/net/unix");
  std::string line;
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string skipped;
    BoundSocket socket;
    for (int i = 0; i < 6; ++i) fields >> skipped;
    fields >> socket.inode;
    fields.ignore(1);
    std::getline(fields, socket.path);
    if (!socket.path.empty() && socket.path[0] != '@') sockets.push_back(socket);
  }
  return sockets;
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

// "12345" of a descriptor that is "socket:[12345]", otherwise "".
std::string socket_inode(const std::string& descriptor) {
  char target[64];
  const ssize_t length = ::readlink(descriptor.c_str(), target, sizeof(target));
  const std::string text(target, length > 0 ? static_cast<std::size_t>(length) : 0);
  if (text.rfind("socket:[", 0) != 0 || text.back() != ']') return "";
  return text.substr(8, text.size() - 9);
}

// Whether the process holds a socket that is bound to `file`.
bool serves(const std::string& process, const std::vector<BoundSocket>& sockets,
            const struct stat& file) {
  for (const std::string& descriptor : entries_of(process + "/fd")) {
    const std::string inode = socket_inode(process + "/fd/" + descriptor);
    if (inode.empty()) continue;
    for (const BoundSocket& socket : sockets) {
      if (socket.inode != inode) continue;
      const bool relative = socket.path[0] != '/';
      if (same_file(relative ? process + "/cwd/" + socket.path : socket.path, file)) return true;
    }
  }
  return false;
}

// The first process that serves the file; 0 when none is seen to.
int find_server(const char* path) {
  struct stat file;
  if (::lstat(path, &file) != 0) return 0;
  const std::vector<BoundSocket> sockets = bound_sockets();
  for (const std::string& name : entries_of("/proc")) {
    const int pid = std::atoi(name.c_str());
    if (pid > 0 && serves("/proc/" + name, sockets, file)) return pid;
  }
  return 0;
}

}  // namespace

int get_socket_server_pid(const char* path, unsigned int) {
  if (ask(path) == Answer::nobody) return -1;
  try {
    return find_server(path);
  } catch (const std::bad_alloc&) {
    return 0;
  }
}
