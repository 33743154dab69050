// The loop that every server needs, once: any number of servers, clients and ends of socket pairs
// behind one descriptor, with the limits that keep one peer from harming the others. It starts no
// thread, and nobody has to use it: the functions of comm.h are there without it.
//
//   struct Greeter : CommLoopHandler {
//     void on_packet(CommLoop& loop, CommLoopId from, comm_socket_v4_packet* request) override {
//       ... loop.send(from, answer) ...
//     }
//   };
//   CommLoop loop;
//   Greeter greeter;
//   loop.serve("greeter.socket", greeter);
//   loop.run();
//
// The conventions are those on the first page of comm.h, and these:
//
//  - Threads. One thread at a time uses a loop, its endpoints and its connections. stop() alone may
//    be called from any thread and from a signal handler.
//  - Handlers are called by dispatch() and run() only, never from within another call, and may call
//    everything but these two: send, disconnect, pause, add and remove endpoints, their own
//    included, and stop. They must not destroy the loop. What they throw comes out of dispatch()
//    and run(), and the next call does what is left of the turn; a peer whose on_connect throws is
//    turned away. Receive callbacks and log sinks of comm.h are no handlers: they must not call the
//    loop, nor throw.
//  - Endpoints in a loop belong to it. Settings and log functions of comm.h may be called on them,
//    but nothing that opens, closes, reads, sends, accepts or releases, and no wait. `halt` and
//    pending_response_packet of client records and flags.idle_enabled stay as they are: pause() is
//    in their place.
//  - A forked child must not use the loop of its parent. It may destroy it: this closes the copies
//    that the child has and does nothing to what the parent serves.
//  - Memory. Without memory for a connection the accept is put off, without memory for a packet the
//    read is, and other calls return -1 with ENOMEM. std::bad_alloc comes out of the constructor
//    only.
#ifndef TARN_UTILS_V4_COMM_LOOP_H
#define TARN_UTILS_V4_COMM_LOOP_H

#include <tarn_utils_v4/comm.h>

COMM_V4_CLASS(CommLoop);
COMM_V4_CLASS(CommLoopHandler);

// ------------------------------------------------------------------------------------------------
// The name of a member of one loop: a server, a connection (a client of a server, a client endpoint
// or an end of a pair), a watched descriptor or a timer. It is a value that may be kept for ever: a
// call with the id of a member that has gone fails with ENOENT and reaches nobody else.
typedef struct CommLoopId {
  uint64_t slot;
  uint64_t generation;  // never the same for two members of a loop, and so the key for tables
                        // of the application; 0 names nobody
} CommLoopId;
#ifdef __cplusplus
inline bool operator==(CommLoopId a, CommLoopId b) {
  return a.slot == b.slot && a.generation == b.generation;
}
inline bool operator!=(CommLoopId a, CommLoopId b) { return !(a == b); }
#endif

// Why a connection has gone.
typedef enum CommLoopReason COMM_V4_ENUM_BASE {
  comm_loop_peer_ended = 0,    // the peer closed it or died, or ended its sending and has been sent
                               // what was queued
  comm_loop_failed = 1,        // a system call on it failed; the error says why
  comm_loop_unsendable = 2,    // a packet to it can never be sent; the error says why
  comm_loop_no_first = 3,      // no packet came within CommLoopLimits::first_packet_us
  comm_loop_idle = 4,          // no packet came within CommLoopLimits::idle_us of the one before
  comm_loop_not_finished = 5,  // finish() took longer than finish_us
  comm_loop_disconnected = 6,  // by disconnect()
  comm_loop_finished = 7       // by finish(): everything was sent, and the peer has ended
} CommLoopReason;
#define COMM_LOOP_REASONS 8ul

// ------------------------------------------------------------------------------------------------
// What a server, or a connection that was added by itself, may use up. Change what does not fit.
typedef struct CommLoopLimits {
  // Of a server. A client beyond these is accepted and closed at once. One user, root and the
  // server's own included, may have half of the places, so that no user keeps all others out.
  uint32_t clients COMM_V4_DEFAULT(1024);
  uint32_t clients_per_user COMM_V4_DEFAULT(512);
  // How much of one server and of one connection is done before it is the turn of the others; 0
  // counts as 1.
  uint32_t accepts_per_turn COMM_V4_DEFAULT(16);
  uint32_t packets_per_turn COMM_V4_DEFAULT(16);
  // Of each connection: with this much queued it is full. Nothing more is read from it, and
  // nothing more may be sent to it, until all that is queued has gone.
  uint32_t queued_packets COMM_V4_DEFAULT(64);
  uint64_t queued_bytes COMM_V4_DEFAULT(1048576);
  // comm_socket_v4_set_max_descriptors: a packet with more is dropped. 0 takes none: raise it where
  // peers are to pass descriptors.
  uint32_t descriptors_per_packet COMM_V4_DEFAULT(0);
  // A client of a server that sends no packet for so long, from its accept on and since its last
  // one, is disconnected, also when it is not read because its queue is full. 0: no limit. A client
  // that is paused is spared.
  uint64_t first_packet_us COMM_V4_DEFAULT(0);
  uint64_t idle_us COMM_V4_DEFAULT(0);
  // How long a connect may take, 0: for ever. How long finish() waits for the peer to read, and to
  // end; 0: not at all.
  uint64_t connect_us COMM_V4_DEFAULT(0);
  uint64_t finish_us COMM_V4_DEFAULT(5000000);
  uint64_t reserved[4] COMM_V4_DEFAULT({});  // 0
} CommLoopLimits;

// What happened to a member since it was added to the loop, and what is there now.
typedef struct CommLoopCounters {
  uint64_t accepted COMM_V4_DEFAULT(0);                  // those that were turned away included
  uint64_t turned_away_full COMM_V4_DEFAULT(0);          // CommLoopLimits::clients
  uint64_t turned_away_user COMM_V4_DEFAULT(0);          // clients_per_user
  uint64_t turned_away_handler COMM_V4_DEFAULT(0);       // on_connect said no
  uint64_t turned_away_failed COMM_V4_DEFAULT(0);        // its credentials could not be read
  uint64_t accepts_put_off COMM_V4_DEFAULT(0);           // for want of descriptors or memory
  uint64_t gone[COMM_LOOP_REASONS] COMM_V4_DEFAULT({});  // connections, by CommLoopReason
  uint64_t packets_received COMM_V4_DEFAULT(0);          // handed to a handler
  uint64_t bytes_received COMM_V4_DEFAULT(0);
  uint64_t packets_dropped COMM_V4_DEFAULT(0);  // received and not valid, too long, with too many
                                                // descriptors or without room for them in this
                                                // process, or refused by a receive callback
  uint64_t packets_sent COMM_V4_DEFAULT(0);     // taken by the kernel
  uint64_t bytes_sent COMM_V4_DEFAULT(0);
  uint64_t packets_unsent COMM_V4_DEFAULT(0);  // queued, and dropped with their connection
  uint64_t sends_refused COMM_V4_DEFAULT(0);   // by a full queue
  uint64_t connections COMM_V4_DEFAULT(0);     // there now
  uint64_t queued_packets COMM_V4_DEFAULT(0);  // now
  uint64_t queued_bytes COMM_V4_DEFAULT(0);    // now
  uint64_t reserved[8] COMM_V4_DEFAULT({});
} CommLoopCounters;

#ifdef __cplusplus
// ------------------------------------------------------------------------------------------------
// What the application does when something happens. One object serves one endpoint or many, and
// has to live until they are removed; it may be destroyed by one of its own functions that has
// removed them. What is not overridden does nothing, and on_connect says yes.
class COMM_V4_EXPORT CommLoopHandler {
 public:
  virtual ~CommLoopHandler();
  // A client of a server was accepted, or an endpoint of ours is connected. `who` is the peer as
  // the kernel knows it: who connected, who listens, or who made the pair. It may be sent to from
  // now on.
  // Returns whether it may stay; false turns it away, without an on_gone.
  virtual bool on_connect(CommLoop& loop, CommLoopId peer, const struct ucred& who);
  // `packet` passed the validation. It is the loop's: take a reference to keep it. It may be sent
  // on as it is, its descriptors included, if nobody has taken them.
  virtual void on_packet(CommLoop& loop, CommLoopId from, comm_socket_v4_packet* packet);
  // All that was queued has been sent, or dropped since the peer will never read it.
  virtual void on_room(CommLoop& loop, CommLoopId peer);
  // The connection has gone, for all reasons but turning away and remove(). Its tag and its client
  // record can be had for the last time. `error` is an errno, or 0 where the reason has none.
  virtual void on_gone(CommLoop& loop, CommLoopId peer, CommLoopReason why, int error);
  // A server can accept nobody any more, since its socket failed. Its clients are served on, until
  // it is removed. A client endpoint that fails to connect gets on_gone.
  virtual void on_accept_failed(CommLoop& loop, CommLoopId server, int error);
  // A watched descriptor is ready: bits of poll(2).
  virtual void on_ready(CommLoop& loop, CommLoopId watched, std::uint32_t events);
  // The time of a timer has come; the timer has gone, and its tag with it.
  virtual void on_time(CommLoop& loop, CommLoopId timer);
};

// ------------------------------------------------------------------------------------------------
class COMM_V4_EXPORT CommLoop {
 public:
  // Takes three descriptors. Without them fd() is -1, and every other call fails as this did.
  CommLoop();
  // Removes everything: closes its endpoints, calls no handler.
  ~CommLoop();
  CommLoop(const CommLoop&) = delete;
  CommLoop& operator=(const CommLoop&) = delete;

  // --- Running ----------------------------------------------------------------------------------

  // Returns a descriptor for a loop around this one: readable whenever dispatch() has something to
  // do. It is the loop's.
  int fd() const;
  // Waits until something is to be done, at most until the deadline, and does a turn of it:
  // whatever is ready gets its share, and what is left is ready again.
  // Returns 1 when something was done; 0 at the deadline and when a signal came; -1; errno EBUSY
  // from within a handler, or that of epoll_wait(2).
  int dispatch(unsigned long deadline_us);
  // Dispatches until stop() is called, or was called since the last run. A stop ends one run.
  // Returns 0; -1 as dispatch.
  int run();
  // Ends run(), the next one if none runs, from any thread and from a signal handler. A turn that
  // has begun is done to its end. Leaves errno alone.
  void stop();
  // Returns whether stop() was called and no run has ended by it; a loop around this one asks after
  // a dispatch.
  bool stopped() const;

  // --- Endpoints --------------------------------------------------------------------------------

  // Add an endpoint. Each returns its id; {0, 0} when that fails, with errno. That of a client or
  // an end of a pair is the id of its connection. `handler` must outlive it.
  //
  // An open endpoint, which the loop owns from then on; when it fails it is still the caller's. The
  // limits replace what comm_socket_v4_set_max_descriptors set, and a descriptor that
  // comm_socket_v4_set_descriptor_reserve keeps is given back. Clients that a server has already
  // are reported by on_connect, like a connection that is complete; those that it has disconnected
  // are released. Errno EINVAL for a closed endpoint and for more descriptors_per_packet than
  // COMM_V4_MAX_SEND_FDS, ENOMEM, or that of timerfd_create(2) or epoll_ctl(2).
  CommLoopId add(comm_socket_v4* endpoint, CommLoopHandler& handler,
                 const CommLoopLimits& limits = CommLoopLimits());
  // comm_socket_v4_create_server, comm_socket_v4_connect_to and
  // comm_socket_v4_connect_use_socketpair on a new endpoint, with their errno, and EINVAL without a
  // path, EBADF or ENOTSOCK for what is no socket. connect waits for nothing: it goes on by itself
  // while the server's queue is full. adopt that fails leaves the descriptor to the caller.
  CommLoopId serve(const char* path, CommLoopHandler& handler,
                   const CommLoopLimits& limits = CommLoopLimits());
  CommLoopId connect(const char* path, CommLoopHandler& handler,
                     const CommLoopLimits& limits = CommLoopLimits());
  CommLoopId adopt(int descriptor, CommLoopHandler& handler,
                   const CommLoopLimits& limits = CommLoopLimits());
  // connect on a closed endpoint, whose settings stay, those of add excepted; its timeouts are not
  // looked at, and a packet that an earlier connection has left is released. The loop owns it from
  // then on; when it fails it is still the caller's, and closed.
  // Errno also EINVAL for null, and for an open one, which stays as it is.
  CommLoopId connect(comm_socket_v4* endpoint, const char* path, CommLoopHandler& handler,
                     const CommLoopLimits& limits = CommLoopLimits());
  // Removes a member at once, and calls no handler for it any more: closes a server with all its
  // clients, a connection, ends the watching of a descriptor, cancels a timer.
  // Returns 0; -1 when it has gone; errno ENOENT.
  int remove(CommLoopId id);
  // comm_socket_v4_stop_listening: nobody is accepted any more, the file is removed, the clients
  // are served on. Clear flags.bound of the endpoint before, when the file is to stay.
  // Returns 0; -1; errno ENOENT, EINVAL for what is no server, or that of socket(2).
  int stop_listening(CommLoopId server);
  // Returns the endpoint of a server or of a connection, for its settings: of a client that of its
  // server. Null when it has gone, and for anything else.
  comm_socket_v4* endpoint(CommLoopId id) const;

  // --- Connections ------------------------------------------------------------------------------

  // Sends now, or puts the packet behind what is queued. The caller keeps its reference; the packet
  // must not be changed until it was sent. A packet with descriptors can be sent once. What the
  // peer will never read is dropped without an error: on_gone tells that it has gone.
  // Returns 1 when it was sent, 0 when it was queued; -1, nothing sent, the connection as it was;
  // errno ENOENT when it has gone or is going, EAGAIN when its queue is full (on_room tells when it
  // is not), EINVAL for null, a packet that is not complete and an id of no connection, EMSGSIZE
  // for one above COMM_V4_MAX_RECEIVED_PACKET, ENOMEM. -1 when the packet can never be sent, and
  // the connection goes, now or when the turn of the packet has come; errno that of send(2),
  // such as EBADF for descriptors that were sent before and EPERM where the peer takes none.
  int send(CommLoopId to, comm_socket_v4_packet* packet);
  // Ends a connection: on_gone is called in the next turn, or later in this one. Unsent packets are
  // dropped, unread ones are not read. The peer hears of it even where a forked process has a copy.
  // Returns 0; -1; errno ENOENT when it has gone, or is going already, EINVAL for no connection.
  int disconnect(CommLoopId peer);
  // Ends it once all that is queued has been sent: tells the peer that this is the end
  // (comm_socket_v4_client_end_sending) and waits for it to end, too. What it still sends is
  // dropped.
  // Returns as disconnect.
  int finish(CommLoopId peer);
  // pause: until resume no packet is handed over, nobody is accepted, no event of a watched
  // descriptor is reported, and perhaps no end of a connection. A pause counts once, however often
  // it is called.
  // Returns 0; -1; errno ENOENT when it has gone, EINVAL for a timer.
  int pause(CommLoopId id);
  int resume(CommLoopId id);
  // A value of the application's for each member, 0 at first.
  // Returns 0, or the tag; -1, or a tag of 0, when the member has gone; errno ENOENT.
  int set_tag(CommLoopId id, std::uint64_t tag);
  std::uint64_t tag(CommLoopId id) const;
  // Returns the client record of a server's client, for comm_socket_v4_client_get_pidfd and the
  // like, good until the next accept; null for anything else.
  comm_socket_v4_client* client(CommLoopId peer) const;

  // --- Other descriptors, and times -------------------------------------------------------------

  // Watches a descriptor for POLLIN or POLLOUT or both (poll(2)), level-triggered, until remove(),
  // which comes before its close. It stays the caller's.
  // Returns its id; {0, 0}; errno that of epoll_ctl(2), or ENOMEM.
  CommLoopId watch(int descriptor, std::uint32_t events, CommLoopHandler& handler);
  // Calls on_time once, `delay_us` from now.
  // Returns its id; {0, 0}; errno ENOMEM.
  CommLoopId after(std::uint64_t delay_us, CommLoopHandler& handler);

  // --- What happened ----------------------------------------------------------------------------

  // Stores the counters of a server, its clients included, or of a connection that was added by
  // itself.
  // Returns 0; -1; errno ENOENT, EINVAL for another member.
  int counters(CommLoopId id, CommLoopCounters& out) const;
  // Returns those of everything that was ever in the loop.
  CommLoopCounters counters() const;
  // Prints the members and counters for people; null is standard error.
  void dump(std::FILE* out) const;

 private:
  struct comm_v4_loop* const internals_;
};
#endif  // __cplusplus

// ------------------------------------------------------------------------------------------------
// The members as functions with C linkage. Each returns what the member returns, a bool as 1 or 0,
// and an id of {0, 0} where a member does.
#ifdef __cplusplus
extern "C" {
#endif

// A handler in C: one function for each of CommLoopHandler, which says what it is told. `user` is
// passed to all of them. on_connect says yes with a result above 0, and turns away with any other.
// A null pointer stands for a function that does nothing, on_connect for one that says yes.
typedef struct CommLoopCallbacks {
  void* user;
  int (*on_connect)(void* user, CommLoop* loop, CommLoopId peer, const struct ucred* who);
  void (*on_packet)(void* user, CommLoop* loop, CommLoopId from, comm_socket_v4_packet* packet);
  void (*on_room)(void* user, CommLoop* loop, CommLoopId peer);
  void (*on_gone)(void* user, CommLoop* loop, CommLoopId peer, CommLoopReason why, int error);
  void (*on_accept_failed)(void* user, CommLoop* loop, CommLoopId server, int error);
  void (*on_ready)(void* user, CommLoop* loop, CommLoopId watched, uint32_t events);
  void (*on_time)(void* user, CommLoop* loop, CommLoopId timer);
  void (*reserved[4])(void);  // null
} CommLoopCallbacks;

// Returns a handler with a copy of the callbacks; null without memory, errno ENOMEM. As an object
// of C++ it has to live until the endpoints that it serves are removed, and may be destroyed by a
// function of its own that has removed them. destroy takes null.
COMM_V4_EXPORT CommLoopHandler* comm_socket_v4_loop_handler_create(
    const CommLoopCallbacks* callbacks);
COMM_V4_EXPORT void comm_socket_v4_loop_handler_destroy(CommLoopHandler* handler);

// Fills in the limits that the comments of CommLoopLimits speak of: 1024 clients, and so on. A
// program in C starts from them, and null stands for them where limits are taken.
COMM_V4_EXPORT void comm_socket_v4_loop_limits_init(CommLoopLimits* limits);

// Returns a loop; null without memory, errno ENOMEM, and without descriptors, errno that of
// epoll_create1(2), eventfd(2) or timerfd_create(2). destroy takes null.
COMM_V4_EXPORT CommLoop* comm_socket_v4_loop_create(void);
COMM_V4_EXPORT void comm_socket_v4_loop_destroy(CommLoop* loop);

COMM_V4_EXPORT int comm_socket_v4_loop_get_fd(const CommLoop* loop);
COMM_V4_EXPORT int comm_socket_v4_loop_dispatch(CommLoop* loop, unsigned long deadline_us);
COMM_V4_EXPORT int comm_socket_v4_loop_run(CommLoop* loop);
COMM_V4_EXPORT void comm_socket_v4_loop_stop(CommLoop* loop);
COMM_V4_EXPORT int comm_socket_v4_loop_stopped(const CommLoop* loop);

COMM_V4_EXPORT CommLoopId comm_socket_v4_loop_add(CommLoop* loop, comm_socket_v4* endpoint,
                                                  CommLoopHandler* handler,
                                                  const CommLoopLimits* limits);
COMM_V4_EXPORT CommLoopId comm_socket_v4_loop_serve(CommLoop* loop, const char* path,
                                                    CommLoopHandler* handler,
                                                    const CommLoopLimits* limits);
COMM_V4_EXPORT CommLoopId comm_socket_v4_loop_connect(CommLoop* loop, const char* path,
                                                      CommLoopHandler* handler,
                                                      const CommLoopLimits* limits);
COMM_V4_EXPORT CommLoopId comm_socket_v4_loop_adopt(CommLoop* loop, int descriptor,
                                                    CommLoopHandler* handler,
                                                    const CommLoopLimits* limits);

// The connect of CommLoop that takes a closed endpoint.
COMM_V4_EXPORT CommLoopId comm_socket_v4_loop_connect_endpoint(CommLoop* loop,
                                                               comm_socket_v4* endpoint,
                                                               const char* path,
                                                               CommLoopHandler* handler,
                                                               const CommLoopLimits* limits);

COMM_V4_EXPORT int comm_socket_v4_loop_remove(CommLoop* loop, CommLoopId id);
COMM_V4_EXPORT int comm_socket_v4_loop_stop_listening(CommLoop* loop, CommLoopId server);
COMM_V4_EXPORT comm_socket_v4* comm_socket_v4_loop_get_endpoint(const CommLoop* loop,
                                                                CommLoopId id);

COMM_V4_EXPORT int comm_socket_v4_loop_send(CommLoop* loop, CommLoopId to,
                                            comm_socket_v4_packet* packet);
COMM_V4_EXPORT int comm_socket_v4_loop_disconnect(CommLoop* loop, CommLoopId peer);
COMM_V4_EXPORT int comm_socket_v4_loop_finish(CommLoop* loop, CommLoopId peer);
COMM_V4_EXPORT int comm_socket_v4_loop_pause(CommLoop* loop, CommLoopId id);
COMM_V4_EXPORT int comm_socket_v4_loop_resume(CommLoop* loop, CommLoopId id);
COMM_V4_EXPORT int comm_socket_v4_loop_set_tag(CommLoop* loop, CommLoopId id, uint64_t tag);
COMM_V4_EXPORT uint64_t comm_socket_v4_loop_get_tag(const CommLoop* loop, CommLoopId id);
COMM_V4_EXPORT comm_socket_v4_client* comm_socket_v4_loop_get_client(const CommLoop* loop,
                                                                     CommLoopId peer);

COMM_V4_EXPORT CommLoopId comm_socket_v4_loop_watch(CommLoop* loop, int descriptor, uint32_t events,
                                                    CommLoopHandler* handler);
COMM_V4_EXPORT CommLoopId comm_socket_v4_loop_after(CommLoop* loop, uint64_t delay_us,
                                                    CommLoopHandler* handler);

COMM_V4_EXPORT int comm_socket_v4_loop_get_counters(const CommLoop* loop, CommLoopId id,
                                                    CommLoopCounters* out);
// Stores those of everything that was ever in the loop.
COMM_V4_EXPORT void comm_socket_v4_loop_get_all_counters(const CommLoop* loop,
                                                         CommLoopCounters* out);

COMM_V4_EXPORT void comm_socket_v4_loop_dump(const CommLoop* loop, FILE* out);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif
