// What a CommLoop is made of: its members, its three descriptors, its times.
#ifndef TARN_LIB_LOOP_INTERNAL_H
#define TARN_LIB_LOOP_INTERNAL_H

#include <sys/epoll.h>
#include <sys/types.h>
#include <tarn_utils_v4/comm_cpp.h>
#include <tarn_utils_v4/comm_loop.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include "lib/loop_member.h"

struct comm_v4_loop {
 public:
  explicit comm_v4_loop(CommLoop& of_application);
  ~comm_v4_loop();

  // --- Members: lib/loop_members ---

  // Null when it has gone, errno ENOENT then.
  LoopMember* find(CommLoopId id) const noexcept {
    if (id.generation != 0 && id.slot < members.size() &&
        members[id.slot]->id.generation == id.generation)
      return members[id.slot].get();
    errno = ENOENT;
    return nullptr;
  }
  bool is_there(CommLoopId id) const noexcept { return find(id) != nullptr; }
  // For one more; false without memory, errno ENOMEM.
  bool make_room() noexcept;
  // Null without memory, errno ENOMEM, and in a loop without descriptors.
  LoopMember* create(LoopKind kind, CommLoopHandler& handler, LoopEndpoint* home) noexcept;
  // Closes what it has, and with a server its clients. A kept id does not find it any more.
  void destroy(LoopMember& m) noexcept;
  // False with the errno of epoll_ctl(2).
  bool watch(LoopMember& m, int fd, std::uint32_t events) noexcept;
  void unwatch(LoopMember& m) noexcept;
  // Calls on_due at that time, or earlier.
  void set_due(LoopMember& m, std::uint64_t when) noexcept;
  // Looks at the member after the turn.
  void settle_later(LoopMember& m) noexcept;

  // --- A server and the connections: lib/loop_serving ---

  CommLoopId add(comm_socket_v4* endpoint, CommLoopHandler& handler, const CommLoopLimits& limits);
  void accept_clients(LoopMember& server, std::uint32_t events);
  void on_connection_events(LoopMember& m, std::uint32_t events);
  void settle(LoopMember& m);
  void on_due(LoopMember& m);
  int send(LoopMember& m, comm_socket_v4_packet* p);
  // Ends the connection: on_gone follows when it is settled.
  void leave(LoopMember& m, CommLoopReason why, int error) noexcept;
  void finish(LoopMember& m);
  // Null with ENOENT when it has gone or is going, EINVAL for another member.
  LoopMember* find_open_connection(CommLoopId id) const noexcept;
  int set_paused(CommLoopId id, bool paused);
  void update_events(LoopMember& m);
  static std::uint32_t wanted_events(const LoopMember& m) noexcept;
  int stop_listening(LoopMember& server);

  // --- Running: lib/comm_loop ---

  int dispatch(unsigned long deadline_us);
  void wake() const noexcept;
  void dump(std::FILE* out) const;  // lib/comm_loop_dump
  int refuse() const noexcept;      // -1 with why the loop has no descriptors

  CommLoop& loop;
  CommDescriptor epoll;
  CommDescriptor wakeup;  // eventfd
  CommDescriptor timer;   // timerfd
  int failure = 0;        // why there are none
  pid_t process;
  std::atomic<bool> stopped = false;
  bool dispatching = false;
  std::uint64_t now = 0;
  static constexpr int most_ready = 64;
  struct epoll_event ready[most_ready];  // in this turn
  int ready_count = 0;
  int next_ready = 0;    // to be handled
  bool in_turn = false;  // which a handler may have left by what it threw

  std::vector<std::unique_ptr<LoopMember>> members;  // by slot
  std::vector<std::uint64_t> free_slots;
  std::uint64_t generations = 0;
  LoopTimes times;
  std::uint64_t timer_set_to = LoopMember::never;
  LoopMember* first_to_settle = nullptr;
  LoopMember* last_to_settle = nullptr;
  LoopMember* last_of_turn = nullptr;  // to settle
  CommLoopCounters counters_of_removed;

 private:
  // --- lib/loop_members ---
  LoopMember* find_by_key(std::uint64_t key) const noexcept;
  void vacate(LoopMember& m) noexcept;
  void close_client(LoopMember& m) noexcept;
  void close_endpoint(LoopMember& m) noexcept;
  void abandon(LoopMember& m) noexcept;
  void set_timer(std::uint64_t when) noexcept;
  void stop_settling(LoopMember& m) noexcept;

  // --- lib/loop_serving ---
  bool watch_endpoint(LoopMember& m, comm_socket_v4* endpoint) noexcept;
  void adopt_clients(LoopMember& server);
  void on_failed_accept(LoopMember& server, int error);
  LoopMember* add_client(LoopMember& server, comm_socket_v4_client& client);
  void announce(LoopMember& m);
  void update_if_there(CommLoopId id);
  void try_to_connect(LoopMember& m);
  void read(LoopMember& m);
  void on_nothing_read(LoopMember& m, int error);
  void hand_over(LoopMember& m, comm_socket_v4_packet* p);
  int transmit(LoopMember& m, comm_socket_v4_packet& p);
  int enqueue(LoopMember& m, comm_socket_v4_packet* p);
  void flush(LoopMember& m);
  void forget_oldest(LoopMember& m) noexcept;
  void drop_queue(LoopMember& m) noexcept;
  void end_sending(LoopMember& m);
  void put_off(LoopMember& m, bool& what);
  void retry_later(LoopMember& m, bool& what) noexcept;
  void update_due(LoopMember& m) noexcept;
  std::uint64_t patience_until(const LoopMember& m) const noexcept;

  // --- lib/comm_loop ---
  void fetch_ahead(std::uint64_t key) const noexcept;
  void handle(std::uint64_t key, std::uint32_t events);
  void run_times();
  void settle_members();
};

#endif
