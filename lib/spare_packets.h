// What released packets leave to the next ones of their thread, so that a conversation does not ask
// the allocator for the same again and again: packets with the storage of their entries, and
// buffers. It is bounded and ends with the thread.
#ifndef TARN_LIB_SPARE_PACKETS_H
#define TARN_LIB_SPARE_PACKETS_H

#include <tarn_utils_v4/comm_packet.h>

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define COMM_V4_IS_SANITIZED
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || \
    __has_feature(memory_sanitizer)
#define COMM_V4_IS_SANITIZED
#endif
#endif

namespace spare_packets {

// A sanitizer could not tell a packet from the one before it: there every one is new.
#ifdef COMM_V4_IS_SANITIZED
constexpr bool are_kept = false;
#else
constexpr bool are_kept = true;
#endif

// A packet as it is created; null when there is none.
comm_socket_v4_packet* take() noexcept;
// Whether a packet that lost its last reference stays here; its descriptors are closed then.
bool keep(comm_socket_v4_packet* p) noexcept;
// Whether a packet is here, on any thread. Somebody released it once too often.
bool has(const comm_socket_v4_packet* p) noexcept;

// As malloc and free. What is allocated may be larger than `size` bytes.
unsigned char* allocate_buffer(std::size_t size) noexcept;
void free_buffer(unsigned char* buffer, std::size_t size) noexcept;

}  // namespace spare_packets

#endif
