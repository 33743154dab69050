// Operations on endpoints that one source offers to the others and not to the application.
#ifndef TARN_LIB_ENDPOINT_INTERNAL_H
#define TARN_LIB_ENDPOINT_INTERNAL_H

#include <tarn_utils_v4/comm.h>

#include <cstdarg>

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
