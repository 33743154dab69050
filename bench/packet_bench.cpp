// What a packet costs inside one process: building, checking and reading it, beside the plainest
// code that handles the same values.
#include <benchmark/benchmark.h>
#include <tarn_utils_v4/comm.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench/packets.h"

namespace {

constexpr std::size_t data_size = 1024;
unsigned char data[data_size];
const std::uint64_t list[4] = {1, 2, 3, 4};

// A command, 4 arguments, 4 name/value pairs and 1 KiB of data.
CommPacket build_rich() {
  CommPacket p(comm_socket_v4_packet_create());
  p->make_request();
  p->write_begin("transform", nullptr, 0);
  p->write_argv("input/file.txt");
  p->write_argv_uint64(42);
  p->write_argv_int64(-42);
  p->write_argv_double(0.5);
  p->write_nv_pair("owner", "somebody");
  p->write_nv_pair_uint64("numbers", list, 4);
  p->write_nv_pair_json("options", "{\"deep\":true}", 13);
  p->write_nv_pair_binary("key", reinterpret_cast<const unsigned char*>(list), 16);
  p->write_data_binary(data, data_size);
  p->write_end();
  return p;
}

std::uint64_t sum_words(const unsigned char* bytes, std::size_t length) {
  std::uint64_t sum = 0;
  for (; length >= 8; bytes += 8, length -= 8) {
    std::uint64_t word;
    std::memcpy(&word, bytes, 8);
    sum += word;
  }
  return sum;
}

std::uint64_t read_rich(const comm_socket_v4_packet* p) {
  std::uint64_t sum = std::strlen(p->command()) + std::strlen(p->argv_text(0)) + p->argv_uint64(1) +
                      static_cast<std::uint64_t>(p->argv_int64(2)) +
                      static_cast<std::uint64_t>(p->argv_double(3));
  for (std::size_t i = 0; i < p->nv_entries(); ++i) {
    const comm_socket_v4_packet_nv_pair* const pair = p->nv_entry(i);
    sum += std::strlen(p->nv_pair_name(pair));
    sum += sum_words(p->nv_pair_value_raw(pair), pair->length());
  }
  return sum + sum_words(p->data(), p->data_length());
}

// The same values where a program keeps them that needs no packet.
struct BareValues {
  const char* command = "transform";
  const char* text = "input/file.txt";
  std::uint64_t number = 42;
  std::int64_t signed_number = -42;
  double real = 0.5;
  struct {
    const char* name;
    const void* value;
    std::size_t length;
  } pairs[4] = {{"owner", "somebody", 8},
                {"numbers", list, 32},
                {"options", "{\"deep\":true}", 13},
                {"key", list, 16}};
  const unsigned char* bytes = data;
};

std::uint64_t read_bare(const BareValues& v) {
  std::uint64_t sum = std::strlen(v.command) + std::strlen(v.text) + v.number +
                      static_cast<std::uint64_t>(v.signed_number) +
                      static_cast<std::uint64_t>(v.real);
  for (const auto& pair : v.pairs) {
    sum += std::strlen(pair.name);
    sum += sum_words(static_cast<const unsigned char*>(pair.value), pair.length);
  }
  return sum + sum_words(v.bytes, data_size);
}

template <class Build>
void build_and_release(benchmark::State& state, Build build) {
  for (auto _ : state) benchmark::DoNotOptimize(build());
}

void copy_bytes(benchmark::State& state, const CommPacket& packet) {
  for (auto _ : state) {
    void* const copy = std::malloc(packet->buffer_length);
    std::memcpy(copy, packet->buffer, packet->buffer_length);
    benchmark::DoNotOptimize(copy);
    benchmark::ClobberMemory();
    std::free(copy);
  }
}

template <class Read>
void validate_and_read(benchmark::State& state, const CommPacket& packet, Read read) {
  const CommEndpoint endpoint(comm_socket_v4_create());
  auto* const header = reinterpret_cast<comm_socket_v4_packet_header*>(packet->buffer);
  for (auto _ : state) {
    benchmark::ClobberMemory();
    if (comm_socket_v4_validate_packet_contents(endpoint.get(), packet.get(), header) != 0)
      std::abort();
    benchmark::DoNotOptimize(read(packet.get()));
  }
}

void read_values(benchmark::State& state) {
  BareValues values;
  for (auto _ : state) {
    benchmark::DoNotOptimize(&values);
    benchmark::ClobberMemory();
    benchmark::DoNotOptimize(read_bare(values));
  }
}

}  // namespace

int main(int argc, char** argv) {
  for (std::size_t i = 0; i < data_size; ++i) data[i] = static_cast<unsigned char>(i);
  static const CommPacket small = build_packet(small_packet_size);
  static const CommPacket rich = build_rich();
  using benchmark::RegisterBenchmark;
  RegisterBenchmark("small/copy", [](benchmark::State& s) { copy_bytes(s, small); });
  RegisterBenchmark("small/build", [](benchmark::State& s) {
    build_and_release(s, [] { return build_packet(small_packet_size); });
  });
  RegisterBenchmark("small/validate_and_read",
                    [](benchmark::State& s) { validate_and_read(s, small, read_packet); });
  RegisterBenchmark("rich/copy", [](benchmark::State& s) { copy_bytes(s, rich); });
  RegisterBenchmark("rich/build", [](benchmark::State& s) { build_and_release(s, build_rich); });
  RegisterBenchmark("rich/bare_read", read_values);
  RegisterBenchmark("rich/validate_and_read",
                    [](benchmark::State& s) { validate_and_read(s, rich, read_rich); });
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
