// CommLoop as functions: a handler made of callbacks, and a loop that throws nothing.
#include <tarn_utils_v4/comm_loop.h>

#include <cerrno>
#include <new>

#include "lib/or_no_memory.h"

namespace {

class CallbackHandler final : public CommLoopHandler {
 public:
  explicit CallbackHandler(const CommLoopCallbacks& callbacks) : do_(callbacks) {}

  bool on_connect(CommLoop& loop, CommLoopId peer, const struct ucred& who) override {
    return do_.on_connect == nullptr || do_.on_connect(do_.user, &loop, peer, &who) > 0;
  }
  void on_packet(CommLoop& loop, CommLoopId from, comm_socket_v4_packet* packet) override {
    if (do_.on_packet != nullptr) do_.on_packet(do_.user, &loop, from, packet);
  }
  void on_room(CommLoop& loop, CommLoopId peer) override {
    if (do_.on_room != nullptr) do_.on_room(do_.user, &loop, peer);
  }
  void on_gone(CommLoop& loop, CommLoopId peer, CommLoopReason why, int error) override {
    if (do_.on_gone != nullptr) do_.on_gone(do_.user, &loop, peer, why, error);
  }
  void on_accept_failed(CommLoop& loop, CommLoopId server, int error) override {
    if (do_.on_accept_failed != nullptr) do_.on_accept_failed(do_.user, &loop, server, error);
  }
  void on_ready(CommLoop& loop, CommLoopId watched, std::uint32_t events) override {
    if (do_.on_ready != nullptr) do_.on_ready(do_.user, &loop, watched, events);
  }
  void on_time(CommLoop& loop, CommLoopId timer) override {
    if (do_.on_time != nullptr) do_.on_time(do_.user, &loop, timer);
  }

 private:
  const CommLoopCallbacks do_;
};

CommLoopLimits limits_or_defaults(const CommLoopLimits* limits) {
  return limits != nullptr ? *limits : CommLoopLimits();
}

CommLoop* create_loop() {
  return or_no_memory<CommLoop*>(nullptr, [] { return new CommLoop; });
}

}  // namespace

CommLoopHandler* comm_socket_v4_loop_handler_create(const CommLoopCallbacks* callbacks) {
  auto* const handler = new (std::nothrow) CallbackHandler(*callbacks);
  if (handler == nullptr) errno = ENOMEM;
  return handler;
}
void comm_socket_v4_loop_handler_destroy(CommLoopHandler* handler) { delete handler; }

void comm_socket_v4_loop_limits_init(CommLoopLimits* limits) { *limits = CommLoopLimits(); }

CommLoop* comm_socket_v4_loop_create() {
  CommLoop* const loop = create_loop();
  if (loop == nullptr || loop->fd() >= 0) return loop;
  loop->dispatch(0);  // It fails, and says why there are no descriptors.
  const int error = errno;
  delete loop;
  errno = error;
  return nullptr;
}
void comm_socket_v4_loop_destroy(CommLoop* loop) { delete loop; }

int comm_socket_v4_loop_get_fd(const CommLoop* loop) { return loop->fd(); }
int comm_socket_v4_loop_dispatch(CommLoop* loop, unsigned long deadline_us) {
  return loop->dispatch(deadline_us);
}
int comm_socket_v4_loop_run(CommLoop* loop) { return loop->run(); }
void comm_socket_v4_loop_stop(CommLoop* loop) { loop->stop(); }
int comm_socket_v4_loop_stopped(const CommLoop* loop) { return loop->stopped(); }

CommLoopId comm_socket_v4_loop_add(CommLoop* loop, comm_socket_v4* endpoint,
                                   CommLoopHandler* handler, const CommLoopLimits* limits) {
  return loop->add(endpoint, *handler, limits_or_defaults(limits));
}
CommLoopId comm_socket_v4_loop_serve(CommLoop* loop, const char* path, CommLoopHandler* handler,
                                     const CommLoopLimits* limits) {
  return loop->serve(path, *handler, limits_or_defaults(limits));
}
CommLoopId comm_socket_v4_loop_connect(CommLoop* loop, const char* path, CommLoopHandler* handler,
                                       const CommLoopLimits* limits) {
  return loop->connect(path, *handler, limits_or_defaults(limits));
}
CommLoopId comm_socket_v4_loop_adopt(CommLoop* loop, int descriptor, CommLoopHandler* handler,
                                     const CommLoopLimits* limits) {
  return loop->adopt(descriptor, *handler, limits_or_defaults(limits));
}
CommLoopId comm_socket_v4_loop_connect_endpoint(CommLoop* loop, comm_socket_v4* endpoint,
                                                const char* path, CommLoopHandler* handler,
                                                const CommLoopLimits* limits) {
  return loop->connect(endpoint, path, *handler, limits_or_defaults(limits));
}
int comm_socket_v4_loop_remove(CommLoop* loop, CommLoopId id) { return loop->remove(id); }
int comm_socket_v4_loop_stop_listening(CommLoop* loop, CommLoopId server) {
  return loop->stop_listening(server);
}
comm_socket_v4* comm_socket_v4_loop_get_endpoint(const CommLoop* loop, CommLoopId id) {
  return loop->endpoint(id);
}

int comm_socket_v4_loop_send(CommLoop* loop, CommLoopId to, comm_socket_v4_packet* packet) {
  return loop->send(to, packet);
}
int comm_socket_v4_loop_disconnect(CommLoop* loop, CommLoopId peer) {
  return loop->disconnect(peer);
}
int comm_socket_v4_loop_finish(CommLoop* loop, CommLoopId peer) { return loop->finish(peer); }
int comm_socket_v4_loop_pause(CommLoop* loop, CommLoopId id) { return loop->pause(id); }
int comm_socket_v4_loop_resume(CommLoop* loop, CommLoopId id) { return loop->resume(id); }
int comm_socket_v4_loop_set_tag(CommLoop* loop, CommLoopId id, std::uint64_t tag) {
  return loop->set_tag(id, tag);
}
std::uint64_t comm_socket_v4_loop_get_tag(const CommLoop* loop, CommLoopId id) {
  return loop->tag(id);
}
comm_socket_v4_client* comm_socket_v4_loop_get_client(const CommLoop* loop, CommLoopId peer) {
  return loop->client(peer);
}

CommLoopId comm_socket_v4_loop_watch(CommLoop* loop, int descriptor, std::uint32_t events,
                                     CommLoopHandler* handler) {
  return loop->watch(descriptor, events, *handler);
}
CommLoopId comm_socket_v4_loop_after(CommLoop* loop, std::uint64_t delay_us,
                                     CommLoopHandler* handler) {
  return loop->after(delay_us, *handler);
}

int comm_socket_v4_loop_get_counters(const CommLoop* loop, CommLoopId id, CommLoopCounters* out) {
  return loop->counters(id, *out);
}
void comm_socket_v4_loop_get_all_counters(const CommLoop* loop, CommLoopCounters* out) {
  *out = loop->counters();
}
void comm_socket_v4_loop_dump(const CommLoop* loop, std::FILE* out) { loop->dump(out); }
