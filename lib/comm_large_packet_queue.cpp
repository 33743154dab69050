// The queue of packets to one client that reads slowly. Order is its one promise: while anything is
// queued, nothing passes it.
#include <tarn_utils_v4/comm.h>

#include <cerrno>
#include <new>

#include "lib/or_no_memory.h"

namespace {

comm_socket_v4_packet* take_oldest(CommLargePacketQueue& q) {
  comm_socket_v4_packet* const oldest = q.queued_packets.front();
  q.queued_packets.pop_front();
  if (q.queued_count > 0) --q.queued_count;
  return oldest;
}

}  // namespace

CommLargePacketQueue::CommLargePacketQueue() : queued_count(0) {}

CommLargePacketQueue::~CommLargePacketQueue() { dump_queued_packets(); }

int CommLargePacketQueue::send_packet(comm_socket_v4_client* c, comm_socket_v4_packet* p) {
  flush_queued_packet(c);
  if (queued_count >= LARGE_PACKET_QUEUE_MAX) return 0;

  if (queued_packets.empty()) {
    const int sent = comm_socket_v4_packet_send_to_client(c, p);
    if (sent != 0) return sent < 0 ? sent : 1;
  }

  // The list may fail to grow: no reference is taken before it has.
  queued_packets.push_back(p);
  comm_socket_v4_packet_addref(p);
  ++queued_count;
  return 1;
}

void CommLargePacketQueue::flush_queued_packet(comm_socket_v4_client* c) {
  while (!queued_packets.empty()) {
    if (comm_socket_v4_packet_send_to_client(c, queued_packets.front()) <= 0) return;
    comm_socket_v4_packet_release(take_oldest(*this));
  }
}

void CommLargePacketQueue::dump_queued_packets() {
  for (comm_socket_v4_packet* const p : queued_packets) comm_socket_v4_packet_release(p);
  queued_packets.clear();
  queued_count = 0;
}

// --- The same as functions ----------------------------------------------------------------------

CommLargePacketQueue* comm_socket_v4_queue_create() {
  auto* const q = new (std::nothrow) CommLargePacketQueue;
  if (q == nullptr) errno = ENOMEM;
  return q;
}
void comm_socket_v4_queue_destroy(CommLargePacketQueue* q) { delete q; }

int comm_socket_v4_queue_send_packet(CommLargePacketQueue* q, comm_socket_v4_client* c,
                                     comm_socket_v4_packet* p) {
  return or_no_memory(-1, [&] { return q->send_packet(c, p); });
}
void comm_socket_v4_queue_flush_queued_packet(CommLargePacketQueue* q, comm_socket_v4_client* c) {
  q->flush_queued_packet(c);
}
void comm_socket_v4_queue_dump_queued_packets(CommLargePacketQueue* q) { q->dump_queued_packets(); }
comm_socket_v4_packet* comm_socket_v4_queue_take_oldest(CommLargePacketQueue* q) {
  return q->queued_packets.empty() ? nullptr : take_oldest(*q);
}
std::uint64_t comm_socket_v4_queue_get_queued_count(const CommLargePacketQueue* q) {
  return q->queued_count;
}
