// A member of a CommLoop: a server, a connection, a watched descriptor or a timer. And what the
// clients of one endpoint have in common.
#ifndef TARN_LIB_LOOP_MEMBER_H
#define TARN_LIB_LOOP_MEMBER_H

#include <sys/types.h>
#include <tarn_utils_v4/comm_cpp.h>
#include <tarn_utils_v4/comm_loop.h>

#include <cstdint>
#include <list>
#include <map>
#include <set>
#include <utility>

#include "lib/or_no_memory.h"

enum class LoopKind {
  none,
  server,
  client,      // of a server in the loop
  connection,  // a client endpoint, or an end of a pair
  descriptor,
  timer
};

// How many clients each user has.
class LoopUsers {
 public:
  // For one more user, so that add never fails; false without memory, errno ENOMEM.
  bool make_room() noexcept {
    return or_no_memory(false, [this] {
      if (spare_.empty()) spare_.emplace(0, 0);
      return true;
    });
  }
  void add(uid_t user) noexcept {
    if (const auto found = counts_.find(user); found != counts_.end()) {
      ++found->second;
      return;
    }
    auto node = spare_.extract(spare_.begin());
    node.key() = user;
    node.mapped() = 1;
    counts_.insert(std::move(node));
  }
  void remove(uid_t user) noexcept {
    const auto found = counts_.find(user);
    if (--found->second == 0) counts_.erase(found);
  }
  std::uint32_t count(uid_t user) const noexcept {
    const auto found = counts_.find(user);
    return found != counts_.end() ? found->second : 0;
  }

 private:
  std::map<uid_t, std::uint32_t> counts_;
  std::map<uid_t, std::uint32_t> spare_;
};

// An endpoint, and what the loop knows of it.
struct LoopEndpoint {
  CommEndpoint endpoint;
  CommLoopLimits limits;
  CommLoopCounters counters;
  LoopUsers users;
};

struct LoopMember;
// Who is first when times are due.
using LoopTimes = std::set<std::pair<std::uint64_t, LoopMember*>>;

struct LoopMember {
  static constexpr std::uint64_t never = UINT64_MAX;
  static std::uint64_t later(std::uint64_t since, std::uint64_t by_us) {
    return by_us < never - since ? since + by_us : never;
  }

  // --- What every packet needs lies together ---
  CommLoopId id = {0, 0};
  CommLoopHandler* handler = nullptr;
  LoopEndpoint* home = nullptr;  // of a client its server's; a server and a connection own it
  LoopKind kind = LoopKind::none;
  int watched_fd = -1;       // the descriptor in epoll, -1 when it is not in there,
  std::uint32_t events = 0;  // and what it is watched for
  bool paused = false;
  // Of a client and a connection.
  bool announced = false;     // on_connect was called and said yes
  bool holds_packet = false;  // that was read before it came into the loop
  bool connecting = false;
  bool read_put_off = false;
  bool send_put_off = false;
  bool full = false;
  bool deaf = false;         // the peer will never read what is sent
  bool sends_end = false;    // the peer sends nothing behind what waits
  bool end_is_next = false;  // and nothing waits any more
  bool finishing = false;
  bool sending_ended = false;
  bool going = false;
  bool has_sent_a_packet = false;
  bool sends_bursts = false;                // the last look behind the first packet of a turn
                                            // found another one
  unsigned char lone_packets = 0;           // that were read without a look behind them
  unsigned long record = COMM_V4_NO_INDEX;  // the slot of a client
  std::uint64_t since = 0;  // the accept, the last packet, the end of a pause, or finish()
  std::list<CommPacket> queue;
  std::uint64_t queued_bytes = 0;

  // --- The rest of a client and a connection ---
  uid_t user = 0;
  CommLoopReason why = comm_loop_peer_ended;
  int error = 0;

  // --- Of every member ---
  std::uint64_t tag = 0;
  LoopTimes::iterator due;  // always in there, so that no time ever needs memory
  std::uint64_t put_off_until = never;
  LoopMember* next_to_settle = nullptr;
  bool waits_to_settle = false;
  bool watch_put_off = false;

  // --- Of a server ---
  bool accepts_put_off = false;
  bool accepts_nobody = false;  // any more
  bool warned_of_shortage = false;

  // --- Of a descriptor ---
  int descriptor = -1;
  std::uint32_t wanted_events = 0;

  // 0 when it is not watched.
  std::uint32_t watched_for() const { return watched_fd >= 0 ? events : 0; }
  bool is_connection() const { return kind == LoopKind::client || kind == LoopKind::connection; }
  bool accepts() const { return !paused && !accepts_put_off && !accepts_nobody; }
  // Whether to look behind a packet for another one, or the end: where the first look of a turn
  // found something the last time, and now and then. A look that finds nothing costs a system call.
  bool looks_for_more() noexcept {
    constexpr unsigned char now_and_then = 17;  // in no step with bursts of a usual length
    if (!sends_bursts && !sends_end && ++lone_packets < now_and_then) return false;
    lone_packets = 0;
    return true;
  }
  bool reads() const {
    // The end ends the connection. A peer that ends its sending first may still read what is
    // queued.
    if (end_is_next && !queue.empty()) return false;
    return announced && !going && !read_put_off && (finishing || (!paused && !full));
  }
};

#endif
