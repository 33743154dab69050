// A client record that is found again by its index after a receive callback has accepted a
// connection and so may have moved the table.
#ifndef TARN_LIB_CLIENT_SLOT_H
#define TARN_LIB_CLIENT_SLOT_H

#include <tarn_utils_v4/comm.h>

class ClientSlot {
 public:
  explicit ClientSlot(comm_socket_v4_client* c)
      : server_(c->server), index_(comm_socket_v4_client_ptr2index(c)), record_(c) {}

  unsigned long index() const { return index_; }
  // Null when the callback has closed the server. A record outside a table does not move.
  comm_socket_v4_client* record() const {
    if (index_ == COMM_V4_NO_INDEX) return record_;
    return index_ < server_->client.size() ? &server_->client[index_] : nullptr;
  }

 private:
  comm_socket_v4* server_;
  unsigned long index_;
  comm_socket_v4_client* record_;
};

#endif
