// What the library keeps for itself of endpoints and client records, and operations that one source
// offers to the others and not to the application.
#ifndef TARN_LIB_ENDPOINT_INTERNAL_H
#define TARN_LIB_ENDPOINT_INTERNAL_H

#include <tarn_utils_v4/comm.h>

#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <vector>

// Of an endpoint, made and destroyed with it. Close keeps it.
struct comm_v4_internals {
  std::vector<int> descriptor_room;       // for the descriptors of the next packet
  std::uint64_t retrieved_in_a_row = 0;   // since a retrieval found nothing
  std::uint64_t retrieved_last_time = 0;  // in the row before
  bool pair_has_peer = false;             // of the socket of a pair, as far as is known
  std::uint64_t accepted = 0;             // connections, in all the life of the endpoint

  static comm_v4_internals& of(const comm_socket_v4* c) { return *c->internals_; }
  // The number of the connection among all that the endpoint accepted; 0 in an empty record.
  static std::uint64_t& generation(comm_socket_v4_client& client) { return client.generation_; }
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
