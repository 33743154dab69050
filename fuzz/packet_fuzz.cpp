// Any bytes as a received packet: what is accepted can be read, and all can be printed.
#include "fuzz/harness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes = text_of(data, size);
  for (const std::string& tail : {std::string(1, '\0'), std::string("x"), std::string()}) {
    const CommPacket p = exact_packet(bytes, tail);
    const bool accepted = accepts(p);
    REQUIRE(!accepted || tail == std::string(1, '\0'));
    if (accepted) read_everything(*p);
    dump_everything(*p);
    REQUIRE(bytes_of(p.get()) == bytes);
  }
  return 0;
}
