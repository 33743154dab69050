// The packets that the benchmarks build and read, and the endpoints that carry them.
#ifndef COMM_BENCH_PACKETS_H
#define COMM_BENCH_PACKETS_H

#include <tarn_utils_v4/comm_cpp.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "bench/check.h"

constexpr std::size_t small_packet_size = 94;

// A command, one argument and one pair: 94 bytes. Larger sizes are filled up with binary data,
// which write_data(packet, length) writes.
template <class WriteData>
CommPacket build_packet(std::size_t size, WriteData write_data) {
  CommPacket p(comm_socket_v4_packet_create());
  p->make_request();
  p->write_begin("ping", nullptr, size > small_packet_size ? size + 16384 : 0);
  p->write_argv("a");
  p->write_nv_pair("k", "v");
  if (size > small_packet_size) write_data(*p, size - small_packet_size);
  p->write_end();
  return p;
}

inline CommPacket build_packet(std::size_t size) {
  static const std::string filler(262144, 'x');
  return build_packet(size, [](comm_socket_v4_packet& p, std::size_t left) {
    while (left > 0) {
      const std::size_t part = left < filler.size() ? left : filler.size();
      p.write_data_binary(reinterpret_cast<const unsigned char*>(filler.data()), part);
      left -= part;
    }
  });
}

// What a server looks at; the sum keeps the compiler from leaving it out.
inline std::uint64_t read_packet(const comm_socket_v4_packet* p) {
  std::uint64_t sum = p->stream_id + static_cast<unsigned char>(p->command()[0]) +
                      static_cast<unsigned char>(p->argv_text(0)[0]);
  if (const comm_socket_v4_packet_nv_pair* pair = p->nv_entry(0))
    sum += static_cast<unsigned char>(p->nv_pair_value_text(pair)[0]);
  if (const unsigned char* data = p->data()) sum += data[p->data_length() - 1];
  return sum;
}

inline void look_at(const comm_socket_v4_packet& packet) {
  volatile std::uint64_t seen = read_packet(&packet);
  static_cast<void>(seen);
}

inline std::string bytes_of(const comm_socket_v4_packet& packet) {
  return {reinterpret_cast<const char*>(packet.buffer), packet.buffer_length};
}

// Opens an endpoint on a connected socket.
inline CommEndpoint endpoint_on(CommDescriptor socket) {
  CommEndpoint endpoint(comm_socket_v4_create());
  check(comm_socket_v4_connect_use_socketpair(endpoint.get(), socket.get()),
        "connect_use_socketpair");
  static_cast<void>(socket.release());
  return endpoint;
}

#endif
