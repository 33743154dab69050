// The end of descriptors that a peer has sent and nobody wants.
#ifndef TARN_LIB_RECEIVED_DESCRIPTORS_H
#define TARN_LIB_RECEIVED_DESCRIPTORS_H

// Closes one. That of a TCP socket does not wait for the time that its SO_LINGER says.
void close_received(int fd) noexcept;

// Ends both directions of a connection and takes the records that wait on it out of the socket,
// since the kernel would close their descriptors with it, and might linger.
void discard_unread(int fd) noexcept;

#endif
