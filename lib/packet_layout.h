// Layout of a packet's bytes, for the sources that look into them: the header, the 24-bit offset of
// an argument, and the proof that the wire types are laid out as they travel.
#ifndef TARN_LIB_PACKET_LAYOUT_H
#define TARN_LIB_PACKET_LAYOUT_H

#include <tarn_utils_v4/comm_packet.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace packet_layout {

static_assert(std::endian::native == std::endian::little, "packets are little-endian");
static_assert(std::numeric_limits<double>::is_iec559 && sizeof(double) == 8, "binary64 doubles");

static_assert(sizeof(comm_socket_v4_packet_header) == COMM_V4_HEADER_LENGTH);
static_assert(offsetof(comm_socket_v4_packet_header, header_length) == 4);
static_assert(offsetof(comm_socket_v4_packet_header, stream_id) == 8);
static_assert(offsetof(comm_socket_v4_packet_header, message_id) == 16);
static_assert(offsetof(comm_socket_v4_packet_header, error_code) == 24);
static_assert(offsetof(comm_socket_v4_packet_header, flags) == 32);
static_assert(offsetof(comm_socket_v4_packet_header, error_string_offset) == 36);
static_assert(offsetof(comm_socket_v4_packet_header, command_offset) == 40);
static_assert(offsetof(comm_socket_v4_packet_header, argv_count) == 44);
static_assert(offsetof(comm_socket_v4_packet_header, argv_offset) == 45);
static_assert(offsetof(comm_socket_v4_packet_header, nv_pair_table_count) == 49);
static_assert(offsetof(comm_socket_v4_packet_header, nv_pair_table_offset) == 51);
static_assert(offsetof(comm_socket_v4_packet_header, data_offset) == 55);
static_assert(offsetof(comm_socket_v4_packet_header, data_length) == 59);
static_assert(sizeof(comm_socket_v4_packet_argv) == 4);
static_assert(offsetof(comm_socket_v4_packet_argv, type_code) == 3);
static_assert(sizeof(comm_socket_v4_packet_nv_pair) == 16);
static_assert(offsetof(comm_socket_v4_packet_nv_pair, value_offset) == 4);
static_assert(offsetof(comm_socket_v4_packet_nv_pair, value_length) == 8);
static_assert(offsetof(comm_socket_v4_packet_nv_pair, type_code) == 12);
// Unaligned, so that a header or an entry can be read in place at any address.
static_assert(alignof(comm_socket_v4_packet_header) == 1);
static_assert(alignof(comm_socket_v4_packet_argv) == 1);
static_assert(alignof(comm_socket_v4_packet_nv_pair) == 1);

inline comm_socket_v4_packet_header* header(unsigned char* packet) {
  return reinterpret_cast<comm_socket_v4_packet_header*>(packet);
}
inline const comm_socket_v4_packet_header* header(const unsigned char* packet) {
  return reinterpret_cast<const comm_socket_v4_packet_header*>(packet);
}

inline void set_value_offset(comm_socket_v4_packet_argv& entry, comm_v4_offset_t offset) {
  entry.value_offset[0] = static_cast<std::uint8_t>(offset);
  entry.value_offset[1] = static_cast<std::uint8_t>(offset >> 8);
  entry.value_offset[2] = static_cast<std::uint8_t>(offset >> 16);
}

}  // namespace packet_layout

#endif
