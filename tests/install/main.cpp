#include <tarn_utils_v4/comm.h>

#include <cstring>

// Sends a packet through a socket pair. Uses what a program may need of the library: functions,
// members, and the virtual table of the queue.
int main() {
  comm_socket_v4 left;
  comm_socket_v4 right;
  CommLargePacketQueue queue;
  comm_socket_v4_packet* sent = comm_socket_v4_packet_create();
  bool works = comm_socket_v4_connect_new_socketpair(&left) == 0 &&
               comm_socket_v4_connect_use_socketpair(
                   &right, comm_socket_v4_socketpair_get_remote_end(&left)) == 0 &&
               sent->write_begin("hello", nullptr, 0) == 0 && sent->write_end() == 0 &&
               comm_socket_v4_packet_send_to_server(&left, sent) > 0;
  comm_socket_v4_packet* received = comm_socket_v4_client_get_packet_from_server(&right);
  works = works && received && std::strcmp(received->command(), "hello") == 0;
  comm_socket_v4_packet_release(received);
  comm_socket_v4_packet_release(sent);
  return works ? 0 : 1;
}
