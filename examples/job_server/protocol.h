// What clients, server and workers of the job server say to each other.
//
// A request is a job: its command says which, its message id is the client's to choose and comes
// back in the answer. Answers come when they are ready, in any order. One that failed has an errno
// as its error code, and words for it as its error string.
//
//   command         files          arguments of the answer
//   checksum        input          what cksum(1) prints: checksum and length
//   upper, echo     input, output  length
//   sleep           none           none; argument 0 of the request says how many milliseconds
//   crash           none           never answered by a worker
//
// The files are descriptors attached to the request, in this order. A client may leave out the
// output: the answer brings it then; and the input as well: the request brings it then. Both travel
// as data in as many parts as it takes: packets with the same command and message id, of which the
// first and the last say that they are (multipart), or one alone. The last of an answer has its
// arguments and its error; one that stands alone may come in its place, and at any time, when the
// job has failed. A client sends one file at a time, and reads while it sends: a job whose output
// nobody takes, takes no input. One of which no packet comes or goes for a minute has failed.
//
// The same packets go between client and worker, which the server has looked at.
#ifndef EXAMPLES_JOB_SERVER_PROTOCOL_H
#define EXAMPLES_JOB_SERVER_PROTOCOL_H

#include <cstddef>
#include <string_view>

struct Command {
  std::string_view name;
  std::size_t files;
  std::size_t words;  // that a user says behind it
};
constexpr Command commands[] = {
    {"checksum", 1, 1}, {"upper", 2, 2}, {"echo", 2, 2}, {"sleep", 0, 1}, {"crash", 0, 0}};

// Null for an unknown one.
inline const Command* find_command(std::string_view name) {
  for (const Command& command : commands)
    if (command.name == name) return &command;
  return nullptr;
}

#endif
