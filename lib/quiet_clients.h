// Which clients of a server have nothing to read: asked with one poll(2) for many of them, so that
// a pass does not pay a failing read for each, or in a large table with one epoll_wait(2) for all.
#ifndef TARN_LIB_QUIET_CLIENTS_H
#define TARN_LIB_QUIET_CLIENTS_H

#include <tarn_utils_v4/comm.h>

#include <cstddef>
#include <cstdint>

// Whether a read from the descriptor would find nothing. False where that is not known.
bool is_quiet(int fd) noexcept;

// What a pass most likely finds. It decides how the pass looks, not what it finds.
enum class Expected { quiet, packets };

// Serves one pass over the table.
class QuietClients {
 public:
  // The first clients are read without asking, since with few of them that is cheaper, unless they
  // are expected to be quiet.
  static constexpr std::size_t read_without_asking = 2;

  QuietClients(const comm_socket_v4* server, Expected expected) noexcept
      : server_(server),
        reads_before_asking_(expected == Expected::quiet ? 0 : read_without_asking) {}

  // Whether a read from the client in `slot`, which is open, would find nothing. Where that is not
  // known the answer is no. `ahead` is how many slots the pass may still visit, this one included.
  bool is_quiet(std::size_t slot, std::size_t ahead) noexcept;

 private:
  static constexpr std::size_t window_size = 64;

  bool in_window(std::size_t slot) const noexcept;
  std::size_t position(std::size_t slot) const noexcept;
  void ask(std::size_t slot, std::size_t ahead) noexcept;
  void ask_by_poll(std::size_t slot) noexcept;

  const comm_socket_v4* server_;
  std::size_t reads_before_asking_;
  std::size_t reads_ = 0;  // without asking
  std::size_t first_ = 0;  // slot of the window
  std::size_t count_ = 0;
  bool by_epoll_ = false;
  bool quiet_[window_size];  // by position, unless it goes by epoll
};

#endif
