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
// first and the last say that they are (multipart), or one alone. A client sends one file at a
// time.
//
// Between server and worker every file is a descriptor, and the message id is the server's. The
// last argument of a request says how long the output may become.
#ifndef EXAMPLES_JOB_SERVER_PROTOCOL_H
#define EXAMPLES_JOB_SERVER_PROTOCOL_H

#include <cstddef>
#include <string_view>

struct Command {
  std::string_view name;
  std::size_t files;
};
constexpr Command commands[] = {
    {"checksum", 1}, {"upper", 2}, {"echo", 2}, {"sleep", 0}, {"crash", 0}};

// Null for an unknown one.
inline const Command* find_command(std::string_view name) {
  for (const Command& command : commands)
    if (command.name == name) return &command;
  return nullptr;
}

#endif
