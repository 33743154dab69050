// What the library keeps for itself of endpoints and client records, and operations that one source
// offers to the others and not to the application.
#ifndef TARN_LIB_ENDPOINT_INTERNAL_H
#define TARN_LIB_ENDPOINT_INTERNAL_H

#include <sys/types.h>
#include <tarn_utils_v4/comm_cpp.h>

#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <vector>

#include "lib/watched_clients.h"

// Of an endpoint, made and destroyed with it.
struct comm_v4_internals {
  // What the application has set. Close keeps it.
  void (*log_sink)(void* user, const char* level, const char* text) = nullptr;
  void* log_user = nullptr;
  mode_t socket_mode = 0666;
  gid_t socket_group = no_group;
  int listen_backlog = 0;
  unsigned max_descriptors = COMM_V4_MAX_SEND_FDS;
  bool descriptors_cloexec = false;
  bool keeps_reserve = false;
  CommDescriptor reserve;  // none while it could not be had back

  // Of what is open now.
  bool pair_has_peer = false;  // as far as is known
  bool stopped_listening = false;
  bool descriptors_were_refused = false;  // by the socket, now or for a while
  bool descriptors_cannot_come = false;   // refused before anybody could send one
  CommDescriptor connect_timer;

  // The epoll of the CommLoop that the endpoint is in. A socket leaves it before its close, no
  // failure of an accept closes the server, and a connect waits for nothing.
  int loop_epoll = -1;
  bool in_loop() const { return loop_epoll >= 0; }

  // Kept from one call to the next.
  bool in_log_sink = false;
  bool warned_of_shortage = false;
  std::vector<int> descriptor_room;       // for the descriptors of the next packet
  std::uint64_t retrieved_in_a_row = 0;   // since a retrieval found nothing
  std::uint64_t retrieved_last_time = 0;  // in the row before
  bool retrieved_early = true;            // the last one, from one of the first that were visited
  WatchedClients watched_clients;         // of a server with many
  std::uint64_t accepted = 0;             // connections, in all the life of the endpoint
  std::uint64_t packets_dropped = 0;      // that were received, likewise

  static constexpr gid_t no_group = static_cast<gid_t>(-1);

  static comm_v4_internals& of(const comm_socket_v4* c) { return *c->internals_; }
  // The number of the connection among all that the endpoint accepted; 0 in an empty record.
  static std::uint64_t& generation(comm_socket_v4_client& client) { return client.generation_; }
  static std::uint64_t generation(const comm_socket_v4_client& client) {
    return client.generation_;
  }
};

// Every bit, those without a name too.
template <class Word>
void clear_word(Word& word) {
  static_assert(sizeof(word) == 4);
  std::memset(&word, 0, sizeof(word));
}

// lib/comm_logging

void comm_socket_v4_vdebug(comm_socket_v4* c, const char* format, va_list args)
    COMM_V4_PRINTF(2, 0);

// lib/comm_connection

void stop_connect_timer(const comm_socket_v4* c);

// lib/comm_socket

// Of a server that made it, unless it has an abstract name.
void remove_server_file(comm_socket_v4* c);

// lib/comm_settings

// To the socket that was just opened or adopted, to one that nobody can reach yet, and to one that
// a client of it has.
void apply_max_descriptors(const comm_socket_v4* c);
void apply_max_descriptors_to_new(const comm_socket_v4* c);
void apply_max_descriptors(const comm_socket_v4* c, int client_fd);
// Has the reserve back, if there is a descriptor for it; false, with errno, if not.
bool renew_reserve(comm_v4_internals& own);

// A close alone would not end the watching while somebody else has a copy of the descriptor.
void stop_watching(const comm_v4_internals& own, int fd);
// Before the close of a connection. The peer hears of the end, whoever else has a copy.
void leave_loop(const comm_v4_internals& own, int connection);

// lib/peer_identity

bool has_peer(int fd);

// lib/comm_io_idle

// comm_socket_v4_idle for a caller that goes on to wait, so that most likely nothing has come.
int comm_socket_v4_idle_before_wait(comm_socket_v4* s);

// lib/comm_server_clients

// An empty slot, searched in rotation; null when there is none.
comm_socket_v4_client* comm_socket_v4_client_find_empty_slot(comm_socket_v4* c);
// Queues a slot for release. -1 when the endpoint is no open server, the index is out of bounds or
// memory runs out (ENOMEM).
int comm_socket_v4_client_disconnect_list_add(comm_socket_v4* c, unsigned long index);

#endif
