// Stands in for libtarn_utils_v4_process.
#ifndef TARN_SUITE_PROCESS_H
#define TARN_SUITE_PROCESS_H

// The id of the process that listens on the socket file at `path`: negative when nobody does, 0
// when somebody does but this process may not see who, and also when it cannot be found out whether
// somebody does: the file may not be written, no socket can be made to ask with. With 0 errno is 0,
// or says why there is no such socket. Never connects to a live server.
extern "C" int get_socket_server_pid(const char* path, unsigned int reserved);

#endif
