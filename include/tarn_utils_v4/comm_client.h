// A blocking client for programs that see the classes by name only, such as those in C: the
// CommClient of comm_cpp.h, which C++ programs use as it is, as functions with C linkage.
//
//   CommClient* server = comm_socket_v4_blocking_create(NULL);
//   if (comm_socket_v4_blocking_connect(server, "hello.socket", 5000000, 0) != 0) ...
//   comm_socket_v4_packet* answer = comm_socket_v4_blocking_call(server, request, 5000000);
//   ...
//   comm_socket_v4_packet_release(answer);
//   comm_socket_v4_blocking_destroy(server);
//
// The conventions are those on the first page of comm.h. Each call blocks for `timeout_us`
// microseconds at most, connect up to 10 ms longer: 0 looks once, UINT64_MAX waits for ever.
// Signals neither shorten nor prolong it. Nothing here throws.
//
// While a call waits for one thing it keeps the packets that it reads besides, in order, and next
// hands them out. With as many kept as keep_at_most says the calls that may have to keep another
// one fail with ENOBUFS, until next has taken some.
//
// When the server has ended the connection the call that reads it fails with ENOTCONN, and closes:
// from then on every call fails so. What was kept is there until the next connect or close. A
// receive that fails does the same with its own errno: ECONNRESET when the server has closed with
// packets of ours unread. A send to a server that has gone fails with EPIPE or ECONNRESET and does
// not close: what the server sent before, if it is still there, and the end can be read.
#ifndef TARN_UTILS_V4_COMM_CLIENT_H
#define TARN_UTILS_V4_COMM_CLIENT_H

#include <tarn_utils_v4/comm.h>

COMM_V4_CLASS(CommClient);

#ifdef __cplusplus
extern "C" {
#endif

// Takes an endpoint over, closed or with its connection made, such as an end of a pair. Null stands
// for a new one. destroy closes, as close does; it takes null.
// Returns a client; null without memory, errno ENOMEM: the endpoint is still the caller's.
COMM_V4_EXPORT CommClient* comm_socket_v4_blocking_create(comm_socket_v4* endpoint);
COMM_V4_EXPORT void comm_socket_v4_blocking_destroy(CommClient* client);

// Connects to the server at `path`, as comm_socket_v4_connect_to does, but success is a connection.
// Closes and forgets what was there before, and sets both connect timeouts of the endpoint. With
// await_missing above 0 it tries until a server is there, in place of failing with ENOENT (no file)
// or ECONNREFUSED (one that nobody listens on).
// Returns 0 when connected; -1, closed; errno ETIMEDOUT, EINVAL for a null or empty path, ENOMEM,
// or that of comm_socket_v4_connect_to.
COMM_V4_EXPORT int comm_socket_v4_blocking_connect(CommClient* client, const char* path,
                                                   uint64_t timeout_us, int await_missing);
// Returns 1 while there is a connection whose end has not been read, else 0.
COMM_V4_EXPORT int comm_socket_v4_blocking_is_connected(const CommClient* client);
// Closes, and forgets what was kept. With packets of the server unread, those of ours that it has
// not read yet are lost: end with a call, not with a send, where that matters.
COMM_V4_EXPORT void comm_socket_v4_blocking_close(CommClient* client);
// Returns the endpoint, for settings and the log: it stays the client's, and so do the packets that
// come.
COMM_V4_EXPORT comm_socket_v4* comm_socket_v4_blocking_get_endpoint(const CommClient* client);

// Sends the packet; the caller keeps its reference. While the socket takes no more what the server
// sends is read and kept, so that two who send to each other do not wait for ever.
// Returns 0 when it is on its way; -1, nothing sent; errno ETIMEDOUT, ENOBUFS, ENOMEM, ENOTCONN,
// that of the receive, or of comm_socket_v4_packet_send_to_server; EINVAL for null and a packet
// that was never written, EMSGSIZE for one above COMM_V4_MAX_RECEIVED_PACKET, which the server
// would drop.
COMM_V4_EXPORT int comm_socket_v4_blocking_send(CommClient* client, comm_socket_v4_packet* packet,
                                                uint64_t timeout_us);
// These three return a packet, which the caller releases; null; errno ETIMEDOUT, ENOBUFS (not of
// next), ENOMEM, ENOTCONN, or that of the receive.
//
// Sends a request and waits for its answer: the first response with its message id. That id is
// next_id, whatever it was before. Further parts of a multipart answer come from answer_to with the
// id, or from next. An answer that comes when its call has timed out is dropped; so a request whose
// call has failed may have been carried out. Errno also that of the send.
COMM_V4_EXPORT comm_socket_v4_packet* comm_socket_v4_blocking_call(CommClient* client,
                                                                   comm_socket_v4_packet* request,
                                                                   uint64_t timeout_us);
// The first response with this message id, of what was kept or what comes: for packets that were
// sent with an id of next_id, several at a time perhaps, and for further parts.
COMM_V4_EXPORT comm_socket_v4_packet* comm_socket_v4_blocking_answer_to(CommClient* client,
                                                                        uint64_t id,
                                                                        uint64_t timeout_us);
// The oldest packet that was kept, else the next that comes.
COMM_V4_EXPORT comm_socket_v4_packet* comm_socket_v4_blocking_next(CommClient* client,
                                                                   uint64_t timeout_us);
// Drops the response with this message id that was kept, and what of it still comes, up to the last
// of a series. A call that fails does so by itself; this is for answer_to.
COMM_V4_EXPORT void comm_socket_v4_blocking_give_up(CommClient* client, uint64_t id);
// Returns a message id that no call and no next_id had before; never 0.
COMM_V4_EXPORT uint64_t comm_socket_v4_blocking_next_id(CommClient* client);
// How many packets may be kept, COMM_V4_MAX_QUEUED_PACKETS at first. With 0 a send waits for room
// and reads nothing: for a client that answers what it reads, and shall be sent no more than its
// answers are taken. call and answer_to fail then.
COMM_V4_EXPORT void comm_socket_v4_blocking_keep_at_most(CommClient* client, size_t packets);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif
