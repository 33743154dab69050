// What all tests share: a fixture that watches descriptors and time, captured standard error,
// forked peers, and short ways to packets and connections.
#ifndef COMM_TESTS_SUPPORT_H
#define COMM_TESTS_SUPPORT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <new>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "faults.h"
#include "tests/packets.h"

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

CommEndpoint make_endpoint();
CommPacket make_packet();
// Begun as a request: arguments and pairs may be added.
CommPacket begin_request(const char* command = "ping");
// "ping" with the argument "a" and the pair k=v, complete: 94 bytes, the example of the documents.
CommPacket ping_packet();
// Every part a packet can have, every type of argument and pair; lists that end with a line of the
// dump, within one, and empty; more data than it shows.
CommPacket rich_packet();

// A moment `ms` from now, as the waits take it.
unsigned long in_ms(unsigned long ms);
// What a call answers, and the errno that it leaves; that was errno_before, which nothing sets.
using Outcome = std::pair<long, int>;
constexpr int errno_before = 4711;
template <class Call>
Outcome outcome(Call&& call) {
  errno = errno_before;
  const long answer = call();
  return {answer, errno};
}
// The same of a call in which faults act.
template <class Faults, class Call>
Outcome outcome(Faults& faults, Call&& call) {
  return outcome([&] { return faults.during(call); });
}
// Sends descriptor 2 to memory while it lives; shows the text when the test has failed by then.
class StderrCapture {
 public:
  StderrCapture();
  ~StderrCapture();
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  std::string text() const;
  // Line by line; log lines as "LEVEL: text". A text that itself ends in a newline shows it.
  Lines lines() const;
  void clear();

 private:
  int saved_, memory_;
};

// The same, and what was printed meanwhile.
using Told = std::tuple<long, int, Lines>;
template <class... Call>
Told told(Call&&... call) {
  const StderrCapture captured;
  const auto [answer, error] = outcome(call...);
  return {answer, error, captured.lines()};
}
// A socket bound to `path` as a program without this library makes one; it listens, unless it is of
// type SOCK_DGRAM.
int bound_socket(const std::string& path, int type = SOCK_SEQPACKET);
// Of a connection whose other end has been closed: until this end knows. Of a socket file whose
// socket has been closed: until nobody is behind it. Both can take a moment, since who looks at
// /proc/PID/fd just then holds the socket.
void await_end(int fd);
void await_death(const std::string& path);
// "number -> target" of every open descriptor. And of those that were closed or opened since, with
// "- " or "+ " before it.
Lines open_descriptors();
Lines changed_descriptors(const Lines& before);
// What an endpoint is and has, in words; "" for one that is closed.
std::string state_of(const CommEndpoint& c);

// The next packet of a server or a client; null while there is none.
CommPacket retrieve(comm_socket_v4* c);
// Connects one more client to an open server and accepts it.
std::pair<CommEndpoint, unsigned long> join(comm_socket_v4* server);

// A test fails when its descriptors differ before and after, its own members destroyed. One that
// hangs ends the run, its name the last that was printed, after more time than a busy machine
// takes.
class CommTest : public testing::Test {
 protected:
  CommTest();
  ~CommTest() override;

  // A path in a directory of this test, which is removed afterwards.
  std::string path(const std::string& name = "socket");
  std::string path_of_length(std::size_t length, char fill = 'x');
  // An abstract name that nothing else uses, with its "@".
  static std::string abstract_name();

 private:
  const Lines descriptors_;
  std::string directory_;
};

// A child process that runs `body`; failed expectations in it are failures here. It is ended after
// `seconds`, and with its parent. Make it before the descriptors that it shall not inherit.
class Peer {
 public:
  explicit Peer(const std::function<void()>& body, unsigned seconds = 200);
  ~Peer();  // expects that it ended with 0, unless wait() was called
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  pid_t pid() const { return pid_; }
  int wait();  // its exit status, 1 when an expectation failed, 128 + the signal that killed it

 private:
  pid_t pid_;
  bool waited_ = false;
};

#endif
