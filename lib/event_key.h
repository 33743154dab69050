// What an epoll event says of whom it is about.
#ifndef TARN_LIB_EVENT_KEY_H
#define TARN_LIB_EVENT_KEY_H

#include <cstdint>

// Which slot and, so that an event of who has gone meets no other, the end of the generation.
inline std::uint64_t event_key(std::uint64_t slot, std::uint64_t generation) noexcept {
  return slot << 32 | (generation & UINT32_MAX);
}
inline std::uint64_t slot_of_event(std::uint64_t key) noexcept { return key >> 32; }

#endif
