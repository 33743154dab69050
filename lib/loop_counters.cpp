#include "lib/loop_counters.h"

#include <array>
#include <bit>
#include <cinttypes>

namespace loop_counters {

namespace {

using Numbers = std::array<std::uint64_t, sizeof(CommLoopCounters) / sizeof(std::uint64_t)>;

}  // namespace

void add(CommLoopCounters& sum, const CommLoopCounters& counters) noexcept {
  auto numbers = std::bit_cast<Numbers>(sum);
  const auto more = std::bit_cast<Numbers>(counters);
  for (std::size_t i = 0; i < numbers.size(); ++i) numbers[i] += more[i];
  sum = std::bit_cast<CommLoopCounters>(numbers);
}

void print(const CommLoopCounters& c, std::FILE* out) {
  std::fprintf(out,
               "  accepted %" PRIu64 ", turned away: %" PRIu64 " full, %" PRIu64 " user, %" PRIu64
               " handler, %" PRIu64 " failed; accepts put off %" PRIu64 "\n",
               c.accepted, c.turned_away_full, c.turned_away_user, c.turned_away_handler,
               c.turned_away_failed, c.accepts_put_off);
  std::fprintf(out,
               "  gone: %" PRIu64 " ended, %" PRIu64 " failed, %" PRIu64 " unsendable, %" PRIu64
               " without a first packet, %" PRIu64 " idle, %" PRIu64 " not finished, %" PRIu64
               " disconnected, %" PRIu64 " finished\n",
               c.gone[comm_loop_peer_ended], c.gone[comm_loop_failed], c.gone[comm_loop_unsendable],
               c.gone[comm_loop_no_first], c.gone[comm_loop_idle], c.gone[comm_loop_not_finished],
               c.gone[comm_loop_disconnected], c.gone[comm_loop_finished]);
  std::fprintf(out,
               "  received %" PRIu64 " packets, %" PRIu64 " bytes, dropped %" PRIu64
               "; sent %" PRIu64 " packets, %" PRIu64 " bytes, unsent %" PRIu64 ", refused %" PRIu64
               "\n",
               c.packets_received, c.bytes_received, c.packets_dropped, c.packets_sent,
               c.bytes_sent, c.packets_unsent, c.sends_refused);
  std::fprintf(out,
               "  now: %" PRIu64 " connections, %" PRIu64 " packets queued, %" PRIu64 " bytes\n",
               c.connections, c.queued_packets, c.queued_bytes);
}

}  // namespace loop_counters
