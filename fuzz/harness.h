// What the fuzz targets share: how an input is read, and everything that can be read from a packet
// or printed of it.
#ifndef COMM_FUZZ_HARNESS_H
#define COMM_FUZZ_HARNESS_H

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "tests/packets.h"

// A broken promise ends the run, and libFuzzer keeps the input.
#define REQUIRE(promise) \
  ((promise) ? void() : (dprintf(2, "broken at line %d: %s\n", __LINE__, #promise), std::abort()))

// Reads the input from front to back. Behind its end everything is 0 or empty.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size)
      : left_(reinterpret_cast<const char*>(data), size) {}

  bool empty() const { return left_.empty(); }
  std::string bytes(std::size_t most) {
    const std::string taken(left_.substr(0, most));
    left_.remove_prefix(taken.size());
    return taken;
  }
  std::size_t below(std::size_t end) {
    return empty() ? 0 : static_cast<unsigned char>(bytes(1)[0]) % end;
  }
  bool yes() { return below(2) != 0; }
  // A step goes by its letter, so that seeds can be read; any other byte is some step, too.
  std::size_t one_of(std::string_view letters) {
    const std::size_t found = letters.find(left_.substr(0, 1)), byte = below(0x100);
    return found < letters.size() ? found : byte % letters.size();
  }
  // A length, then so many bytes. The highest lengths stand for those around the limits.
  std::string text() {
    constexpr std::size_t limits[] = {255, 256, 257, 4095, 4096, 65535, 65536};
    constexpr std::size_t first = 0x100 - std::size(limits);
    const std::size_t length = below(0x100);
    return length < first ? bytes(length) : std::string(limits[length - first], 'x');
  }

 private:
  std::string_view left_;
};

// Makes that of an object's steps whose letter comes next.
template <class Object, class... Steps>
auto make_step(Input& in, Object& object, std::string_view letters, Steps... steps) {
  const std::array all = {steps...};
  return (object.*all[in.one_of(letters)])();
}

inline std::string text_of(const unsigned char* bytes, std::size_t length) {
  return length != 0 ? std::string(reinterpret_cast<const char*>(bytes), length) : std::string();
}

template <class... Number>
std::string bits(Number... numbers) {
  return (std::string(reinterpret_cast<const char*>(&numbers), sizeof(numbers)) + ...);
}

// Follows every offset of a packet that was accepted. The NUL behind the packet may end a text, but
// is part of no value; AddressSanitizer cannot tell, so lengths are checked.
inline std::string read_everything(const comm_socket_v4_packet& p) {
  const auto inside = [&p](const unsigned char* value, std::size_t length) {
    const auto offset = static_cast<std::size_t>(value - p.buffer);
    REQUIRE(offset <= p.buffer_length && length <= p.buffer_length - offset);
    return text_of(value, length);
  };
  std::string all = std::string(p.command()) + '\0' + p.error_string() + '\0';
  for (std::size_t i = 0; i < p.argc(); ++i) {
    const comm_socket_v4_packet_argv* const a = p.argv(i);
    const unsigned char* const offset = a->value_offset;
    inside(p.buffer + (offset[0] | offset[1] << 8 | offset[2] << 16), a->type() == 0 ? 1 : 8);
    all += bits(a->type(), p.argv_uint64(a), p.argv_int64(a), p.argv_double(a)) + p.argv_text(a);
    all += '\0';
  }
  for (std::size_t i = 0; i < p.nv_entries(); ++i) {
    const comm_socket_v4_packet_nv_pair* const e = p.nv_entry(i);
    const unsigned char* const value = comm_socket_v4_packet_get_nv_pair_value_binary(&p, e);
    const void* const raw = comm_socket_v4_packet_get_nv_pair_value_raw(&p, e);
    REQUIRE(value == raw);
    const auto of_type = [&](std::uint32_t type) { return e->type() == type ? raw : nullptr; };
    REQUIRE(comm_socket_v4_packet_get_nv_pair_value_uint64(&p, e) == of_type(2));
    REQUIRE(comm_socket_v4_packet_get_nv_pair_value_double(&p, e) == of_type(3));
    REQUIRE(comm_socket_v4_packet_get_nv_pair_value_int64(&p, e) == of_type(5));
    all += bits(e->type()) + p.nv_pair_name(e) + '=' + inside(value, e->length()) + '=' +
           p.nv_pair_value_text(e) + '\0';
  }
  return all + (p.data_length() != 0 ? inside(p.data(), p.data_length()) : "");
}

// Prints a packet, whatever its making.
inline void dump_everything(const comm_socket_v4_packet& p) {
  p.dump(nullptr);
  p.dump_user_friendly(nullptr);
}

// Whether a packet passes the gate for received ones.
inline bool accepts(const CommPacket& p) {
  static comm_socket_v4 endpoint;
  comm_socket_v4_debug_logging(&endpoint);
  return comm_socket_v4_client_on_recv_packet(&endpoint, p.get()) == 0;
}

// What the library prints is formatted, and goes nowhere.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  stderr = std::fopen("/dev/null", "w");
  return 0;
}

// Freed memory returns soon: here, new pages cost more than all else.
extern "C" const char* __asan_default_options() { return "quarantine_size_mb=8"; }

#endif
