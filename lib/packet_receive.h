// Reading one packet from a connection into its slot: one algorithm for a server's clients and for
// the socket of a client endpoint.
#ifndef TARN_LIB_PACKET_RECEIVE_H
#define TARN_LIB_PACKET_RECEIVE_H

#include <tarn_utils_v4/comm.h>

// What differs between the two sides.
class ReceiveSide {
 public:
  comm_socket_v4* const endpoint;  // logs, and names the packet's origin to the validation
  const int fd;
  const char* const source;  // of the read function, for its assertions
  const char* const function;

  // Where the packet waits. Null when the connection's record is gone; looked up each time, since a
  // callback that accepts a connection may move the record.
  virtual comm_socket_v4_packet** slot() = 0;
  // What the receive callback returns; 0 without one.
  virtual int offer(comm_socket_v4_packet* p) = 0;
  // The receive failed, the connection ended: what the read then returns, with errno.
  virtual int on_error(int error) = 0;
  virtual int on_end_of_stream(int bytes_announced) = 0;
  virtual void warn_of_truncation() = 0;

 protected:
  ReceiveSide(comm_socket_v4* endpoint_of_connection, int connection, const char* read_source,
              const char* read_function)
      : endpoint(endpoint_of_connection),
        fd(connection),
        source(read_source),
        function(read_function) {}
  ReceiveSide(const ReceiveSide&) = delete;
  ReceiveSide& operator=(const ReceiveSide&) = delete;
  ~ReceiveSide() = default;
};

// 0 unless the connection failed or memory ran out; then -1 with errno.
int receive_packet(ReceiveSide& side);

#endif
