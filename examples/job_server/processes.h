// How the server starts other programs.
#ifndef EXAMPLES_JOB_SERVER_PROCESSES_H
#define EXAMPLES_JOB_SERVER_PROCESSES_H

#include <sys/types.h>

#include <string>
#include <vector>

// What becomes of the process when ours ends, however that comes.
enum class Fate { is_killed, goes_on };

// Starts a program. Of our descriptors it has the standard ones and those in `keep`, and no others;
// none of its signals is blocked.
// Returns its process id; -1 with the errno of fork(2). A program that cannot be executed ends with
// status 127.
pid_t start_program(const std::vector<std::string>& words, const std::vector<int>& keep, Fate fate);

#endif
