#include "lib/spare_packets.h"

#include <pthread.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <new>
#include <utility>
#include <vector>

#include "lib/errno_guard.h"

namespace {

// What a thread has at most: a request and its response, and those behind them.
constexpr std::size_t most_packets = 4;
constexpr std::size_t most_entries = 64;  // that the storage of a packet has room for
constexpr std::size_t most_buffers = 2;
constexpr std::size_t largest_buffer = 81920;
constexpr std::size_t smallest_buffer = 1025;  // the allocator has smaller ones at hand

constexpr int write_state_spare = INT_MIN;

struct Buffer {
  unsigned char* bytes;
  std::size_t size;
};

// Trivial, so that packets may be released until the very end of a thread.
struct Spares {
  comm_socket_v4_packet* packets[most_packets];
  std::size_t packet_count;
  Buffer buffers[most_buffers];  // the last to come is the first
  bool is_watched;               // the end of the thread will be seen,
  bool has_ended;                // and was
};

std::atomic<bool> wanted = spare_packets::are_kept;

// Reached without a call, which a thread_local of a shared library otherwise takes.
[[gnu::tls_model("initial-exec")]] constinit thread_local Spares spares = {};

void give_back(Spares& s) noexcept {
  ErrnoGuard keep_errno;
  while (s.packet_count > 0) delete s.packets[--s.packet_count];
  for (Buffer& buffer : s.buffers) std::free(std::exchange(buffer, {}).bytes);
}

// Gives the spares of a thread back when it ends, and those of the thread that ends the program or
// unloads the library with the library. (To register a thread_local's destructor takes memory, and
// ends the program when there is none.)
class EndOfThreads {
 public:
  EndOfThreads() noexcept { works_ = ::pthread_key_create(&key_, end_thread) == 0; }
  ~EndOfThreads() {
    if (!works_.exchange(false)) return;
    ::pthread_key_delete(key_);
    end_thread(&spares);
  }
  EndOfThreads(const EndOfThreads&) = delete;
  EndOfThreads& operator=(const EndOfThreads&) = delete;

  bool watch(Spares& s) noexcept { return works_ && ::pthread_setspecific(key_, &s) == 0; }

 private:
  static void end_thread(void* spares_of_thread) noexcept {
    Spares& s = *static_cast<Spares*>(spares_of_thread);
    s.has_ended = true;
    give_back(s);
  }

  std::atomic<bool> works_ = false;
  pthread_key_t key_ = {};
};

EndOfThreads end_of_threads;

bool are_wanted() noexcept { return wanted.load(std::memory_order_relaxed); }

bool may_keep(Spares& s) noexcept {
  if (!are_wanted() || s.has_ended) return false;
  if (!s.is_watched) s.is_watched = end_of_threads.watch(s);
  return s.is_watched;
}

bool is_kept_size(std::size_t size) { return size >= smallest_buffer && size <= largest_buffer; }

template <class Entry>
std::vector<Entry> storage_of(std::vector<Entry>& entries) noexcept {
  std::vector<Entry> storage;
  if (entries.capacity() <= most_entries) storage.swap(entries);
  storage.clear();
  return storage;
}

}  // namespace

comm_socket_v4_packet* spare_packets::take() noexcept {
  Spares& s = spares;
  if (s.packet_count == 0 || !are_wanted()) return nullptr;
  comm_socket_v4_packet* const p = s.packets[--s.packet_count];
  p->refcount.store(1, std::memory_order_relaxed);
  p->write_state = comm_socket_v4_packet::write_state_none;
  return p;
}

bool spare_packets::keep(comm_socket_v4_packet* p) noexcept {
  Spares& s = spares;
  if (s.packet_count == most_packets || !may_keep(s)) return false;
  std::vector<comm_socket_v4_packet_argv> argv = storage_of(p->wr_argv);
  std::vector<comm_socket_v4_packet_nv_pair> pairs = storage_of(p->wr_nv_pair);
  p->~comm_socket_v4_packet();
  ::new (p) comm_socket_v4_packet;
  p->wr_argv.swap(argv);
  p->wr_nv_pair.swap(pairs);
  p->refcount.store(0, std::memory_order_relaxed);
  p->write_state = write_state_spare;
  s.packets[s.packet_count++] = p;
  return true;
}

bool spare_packets::has(const comm_socket_v4_packet* p) noexcept {
  return p->write_state == write_state_spare;
}

unsigned char* spare_packets::allocate_buffer(std::size_t size) noexcept {
  if (is_kept_size(size) && are_wanted()) {
    for (Buffer& kept : spares.buffers)
      if (kept.size >= size && kept.size / 2 <= size) return std::exchange(kept, {}).bytes;
  }
  return static_cast<unsigned char*>(std::malloc(size));
}

void spare_packets::free_buffer(unsigned char* buffer, std::size_t size) noexcept {
  if (buffer != nullptr && is_kept_size(size) && may_keep(spares)) {
    // The eldest leaves, unless there is a free place.
    for (Buffer& kept : spares.buffers) {
      std::swap(kept.bytes, buffer);
      std::swap(kept.size, size);
      if (buffer == nullptr) return;
    }
  }
  ErrnoGuard keep_errno;
  std::free(buffer);
}

void comm_socket_v4_packet_keep_spares(int keep) {
  wanted = spare_packets::are_kept && keep != 0;
  if (!are_wanted()) give_back(spares);
}
