// A client record that is found again by its index after a callback, which may have accepted a
// connection and so moved the table, or released the client.
#ifndef TARN_LIB_CLIENT_SLOT_H
#define TARN_LIB_CLIENT_SLOT_H

#include <tarn_utils_v4/comm.h>

#include <cstdint>

#include "lib/endpoint_internal.h"

class ClientSlot {
 public:
  explicit ClientSlot(comm_socket_v4_client* c)
      : server_(c->server),
        index_(comm_socket_v4_client_ptr2index(c)),
        record_(c),
        generation_(comm_v4_internals::generation(*c)) {}

  unsigned long index() const { return index_; }
  // Null when the client is not there any more, even if another one has its slot; whatever a
  // callback wrote into the record. A record outside a table does not move.
  comm_socket_v4_client* record() const {
    if (index_ == COMM_V4_NO_INDEX) return record_;
    if (index_ >= server_->client.size()) return nullptr;
    comm_socket_v4_client* const c = &server_->client[index_];
    return comm_v4_internals::generation(*c) == generation_ ? c : nullptr;
  }

 private:
  comm_socket_v4* server_;
  unsigned long index_;
  comm_socket_v4_client* record_;
  std::uint64_t generation_;
};

#endif
