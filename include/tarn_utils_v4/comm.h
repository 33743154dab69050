// Message channels between processes of one host, over AF_UNIX sockets of type SOCK_SEQPACKET.
//
// Conventions, once for all
//
//  1. Results. The text of a function ends with what it returns and, where it sets one, with errno:
//     "Returns ...; errno ...". An int is 0 on success and -1 on failure unless the text says
//     otherwise, a truth value is 1 or 0, a wait and a call that completes a connect return 1
//     (ready), 0 (not yet) or -1 (failed), a send the byte count, 0 (would block) or -1.
//  2. errno. Where a failure is documented with an errno, that value is what the caller finds:
//     writing a log line, closing an endpoint and releasing a packet all leave errno as it was.
//     Where a function says nothing of errno, do not read it.
//  3. Time. Every time is in microseconds. Connect timeouts are durations, 0 means none. Whatever
//     is called deadline_us is an absolute moment of CLOCK_MONOTONIC, in microseconds; a deadline
//     that has passed makes a wait a poll, ULONG_MAX makes it endless.
//  4. Ownership. The application owns the endpoints that it creates and one reference to every
//     packet that it creates or retrieves. An endpoint owns its sockets, its client records and the
//     packet in its slot. A packet owns its bytes and its attached descriptors. A returned text or
//     array points into the packet and lives until the packet is destroyed or its buffer is
//     resized, which any write may do; an empty text is static.
//  5. Blocking. Only the four waits, comm_socket_v4_connect_to and
//     comm_socket_v4_connect_wait_for_completion block, and comm_socket_v4_create_server for about
//     two seconds at most; beside this header run() and dispatch() of a CommLoop and the calls of a
//     CommClient. What others lend may block all the same: standard error, when it is a
//     full pipe, and the close of a descriptor that a peer has sent. No send and no log line raises
//     SIGPIPE, and a signal that ends a wait or a transfer is no failure.
//  6. Threads. None inside. One thread at a time uses an endpoint, its client records and its
//     queues, and callbacks run on that thread. A packet may be referenced from several threads
//     (addref and release are atomic), but is written or read by one thread at a time.
//  7. Null. A pointer argument must not be null unless the function says what null does.
//  8. Memory. Running out of memory for packets and their buffers is answered by null or -1, and
//     ENOMEM where the function says so; the writers of a packet answer as they say. Where a
//     std::vector, std::deque, std::list or std::string must grow, std::bad_alloc propagates and
//     the object stays as it was, except where a function says that it returns -1. It ends a
//     program that catches nothing, such as one in C, and comes from comm_socket_v4_create, from
//     what sets a path, which opening does, from attach_fd_to_send and its like, and from what adds
//     an argument or a pair. Broken internal invariants print what broke and where, then abort.
//  9. Trust. A packet that reached a slot has passed comm_socket_v4_validate_packet_contents: every
//     accessor may be used on it. What the values mean is still the peer's word. The ids of the
//     peer's process, user and group come from the kernel (SO_PEERCRED, unix(7)) and are not.
// 10. Limits. They are the constants COMM_V4_MAX_..., those of a packet in comm_packet.h.
#ifndef TARN_UTILS_V4_COMM_H
#define TARN_UTILS_V4_COMM_H

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>
#include <tarn_utils_v4/comm_packet.h>

#ifdef __cplusplus
#include <deque>
#include <list>
#include <string>
#endif

COMM_V4_CLASS(comm_socket_v4);
COMM_V4_CLASS(comm_socket_v4_client);
COMM_V4_CLASS(CommLargePacketQueue);
struct ucred;  // sys/socket.h, which C programs get it from by _GNU_SOURCE

// ------------------------------------------------------------------------------------------------
// Limits of endpoints.

// Characters, the "@" of a name included. A longer path of a client may be a link.
#define COMM_V4_MAX_SERVER_PATH 106ul
#define COMM_V4_MAX_ABSTRACT_NAME 108ul    // that a client connects to, with its "@"
#define COMM_V4_MAX_CLIENTS 1048576ul      // records of a server
#define COMM_V4_FIRST_CLIENTS 16ul         // records that a server begins with
#define COMM_V4_MAX_QUEUED_PACKETS 4096ul  // in a CommLargePacketQueue

// A read asks for the size that the kernel reports plus 16 bytes; beyond this cap, and in a
// CommLoop, for the cap.
#define COMM_V4_RECV_SIZE_CAP 65536ul
// Ancillary data of one packet; it holds one SCM_RIGHTS message of COMM_V4_MAX_SEND_FDS.
#define COMM_V4_CONTROL_BUFFER_SIZE 256ul

// The index of no slot.
#define COMM_V4_NO_INDEX (~0ul)

#ifdef __cplusplus
// ------------------------------------------------------------------------------------------------
// The record of one connection that a server accepted. Records live in the server's table: the
// index of a slot stays the same for the life of the connection, the address of its record only
// until the table grows, which comm_socket_v4_accept_connection may do. Keep the index.
class COMM_V4_EXPORT comm_socket_v4_client {
 public:
  struct {
    std::uint32_t disconnected : 1;  // ended or given up; the slot is on the disconnect list
    std::uint32_t error : 1;         // a receive failed; likewise
  } status;
  std::int32_t halt;  // the application's: while not 0 the connection is left alone
  comm_socket_v4_packet* pending_response_packet;  // the application's, one reference owned: while
                                                   // set no further packet is handed out
  std::int32_t client_fd;                          // non-blocking, close-on-exec; -1 when empty
  struct ucred cred;                               // pid, uid and gid of the peer, from the kernel
  std::uint64_t accept_time_us;        // when, on the clock of the deadlines; only for reading
  comm_socket_v4_packet* next_packet;  // the packet that waits to be retrieved, one reference owned
  comm_socket_v4* server;              // null when empty
  std::uint64_t tag;                   // the application's; a reused slot still has the old value
  int (*recv_cb)(comm_socket_v4_client*, comm_socket_v4_packet*);  // see set_recv_cb; likewise

  comm_socket_v4_client() noexcept;  // an empty slot

  // Each returns a field; client_is_open whether there is a descriptor and neither status flag.
  comm_socket_v4* get_server() const;
  bool client_is_open() const;
  int get_client_fd() const;
  unsigned long get_tag() const;
  void set_tag(unsigned long value);
  // `cb` is called with every packet that arrives from this client, before the packet is validated:
  // it may look at buffer, buffer_length and attached_fd, and must not use an accessor. A negative
  // result drops the packet. It may take a reference; it must not take or release the slot's. It
  // may accept, disconnect and release clients, this one included, and close the endpoint; it must
  // not destroy the endpoint. The packet of a client that it releases is gone with the client. An
  // exception drops the packet and passes through. Null removes it.
  void set_recv_cb(int (*cb)(comm_socket_v4_client*, comm_socket_v4_packet*));

 private:
  friend struct comm_v4_internals;
  std::uint64_t generation_;
};

// ------------------------------------------------------------------------------------------------
// An endpoint: a server, a client of one, or an end of a socket pair, by the call that opens it. It
// may be closed and opened again in any role.
class COMM_V4_EXPORT comm_socket_v4 {
 public:
  unsigned log_mask : 4;  // 1 errors, 2 warnings and bug reports, 8 debug
  struct {
    std::uint32_t server : 1;
    std::uint32_t bound : 1;         // bound to socket_path, and so removes it at close; cleared by
                                     // an application that wants the file to stay
    std::uint32_t idle_enabled : 1;  // comm_socket_v4_idle works only while set
    std::uint32_t debug : 1;  // the application's: a server takes a path over from a live one
    std::uint32_t socketpair : 1;
  } flags;
  struct {
    std::uint32_t connect_pending : 1;
  } status;
  std::uint64_t tag;  // the application's
  int (*recv_cb)(comm_socket_v4*, comm_socket_v4_packet*);
  std::int32_t socket_fd;         // -1 when closed
  std::string socket_path;        // a leading "@" is an abstract name; not to be changed while open
  struct sockaddr_un sun;         // of a client: the address it connects to
  std::uint64_t connect_start;    // of a client: when its connect began
  std::uint64_t connect_timeout;  // see comm_socket_v4_set_connect_timeout
  std::uint64_t connect_timeout_routine;      // likewise
  std::vector<comm_socket_v4_client> client;  // of a server: the slots
  std::uint64_t client_max;                   // highest index handed out
  std::uint64_t client_next;                  // where the search for an empty slot starts
  std::uint64_t client_idlescan;              // where the next idle pass starts
  std::uint64_t client_getpktscan;            // where the next retrieval starts
  comm_socket_v4_packet* next_packet;         // of a client: the packet that waits, one reference
  std::deque<std::uint64_t> disconnect_list;  // slots to be released
  std::int32_t socketpair_remote_fd;          // the other end, until it is taken

  comm_socket_v4();
  ~comm_socket_v4();
  comm_socket_v4(const comm_socket_v4&) = delete;
  comm_socket_v4& operator=(const comm_socket_v4&) = delete;

  // Each returns a field; socket_open whether there is a socket.
  int get_socket_fd() const;
  bool socket_open() const;
  std::uint64_t get_tag() const;
  void set_tag(std::uint64_t value);
  // As on a client record, for packets that arrive on the endpoint's own socket.
  void set_recv_cb(int (*cb)(comm_socket_v4*, comm_socket_v4_packet*));

  // Returns false, always.
  bool client_list_not_allocated() const;
  // Returns client_max.
  unsigned long client_maximum_index() const;
  // Returns the number of slots, empty ones included.
  unsigned long client_allocation_count() const;
  // Returns the record in a slot, which may be empty; null beyond the table or above client_max.
  comm_socket_v4_client* index2client(unsigned long index);
  // Returns the slot of a record; COMM_V4_NO_INDEX for null, an empty record or one outside the
  // table.
  static unsigned long client_ptr2index_noerr(const comm_socket_v4_client* client);

 private:
  friend struct comm_v4_internals;
  struct comm_v4_internals* const internals_;
};

// ------------------------------------------------------------------------------------------------
// Packets to a client that reads slowly, kept in order. One queue serves one client record; every
// call names the record, always the same one. Its life follows the record's: make it after the
// accept, flush it when the record's descriptor is writeable, and destroy or dump it when the
// record is released, before the slot is used again. It holds no pointer to the record in between.
//
// A queue on a dead connection does not report it: it fills up and then refuses. The end of a
// connection shows in the disconnect list. A packet that can never be sent (null, never written,
// larger than the socket's buffer, its descriptors closed by an earlier send) is refused with -1
// while nothing is queued; behind other packets it is queued, stays at the head when its turn has
// come and holds everything back until dump_queued_packets.
class COMM_V4_EXPORT CommLargePacketQueue {
 public:
  enum : std::uint64_t { LARGE_PACKET_QUEUE_MAX = COMM_V4_MAX_QUEUED_PACKETS };

  std::list<comm_socket_v4_packet*> queued_packets;  // oldest first, one reference each
  std::uint64_t queued_count;

  CommLargePacketQueue();
  virtual ~CommLargePacketQueue();  // releases what is queued, sends nothing
  CommLargePacketQueue(const CommLargePacketQueue&) = delete;
  CommLargePacketQueue& operator=(const CommLargePacketQueue&) = delete;

  // Flushes, then sends `p` if nothing is queued, else queues it. The caller keeps its reference.
  // std::bad_alloc when the list cannot grow: nothing is queued then.
  // Returns 1 when it was sent or queued; 0 when the queue is full; -1 when a send past an empty
  // queue failed, errno the send's.
  int send_packet(comm_socket_v4_client* c, comm_socket_v4_packet* p);
  // Sends what is queued, oldest first, until the socket takes no more or a send fails.
  void flush_queued_packet(comm_socket_v4_client* c);
  // Releases everything that is queued, unsent.
  void dump_queued_packets();
};

#endif  // __cplusplus

// ------------------------------------------------------------------------------------------------
// Functions. All have C linkage, except the one that takes C++ types.
#ifdef __cplusplus
extern "C" {
#endif

// For tests of the application: bits flipped, with rand(), at random places of every packet that is
// received, before it is validated. 0 at first; the library never writes it.
COMM_V4_EXPORT extern unsigned int comm_socket_v4_recv_corrupt_debug;

// --- Endpoint -----------------------------------------------------------------------------------

// Returns a closed endpoint without a role; null without memory for it, std::bad_alloc without any
// for its members.
COMM_V4_EXPORT comm_socket_v4* comm_socket_v4_create(void);
// Drops the waiting packet, closes the endpoint and frees it. Null does nothing.
// Returns 0.
COMM_V4_EXPORT int comm_socket_v4_destroy(comm_socket_v4* c);
// Back to closed, whatever it was: closes its sockets, removes the file of a server, releases every
// client. The file is whatever socket lies at the path by then, so a copy of the endpoint in a
// forked child must not be closed, and a relative path needs the working directory of its opening.
// Sets flags.idle_enabled. Keeps path, log level, tag, callback, timeouts, flags.debug and a packet
// that waits in next_packet. Closing while packets of the peer are unread makes the kernel reset
// the connection: the peer gets ECONNRESET in place of what still waits for it. Leaves errno alone.
// Returns 0.
COMM_V4_EXPORT int comm_socket_v4_close(comm_socket_v4* c);
// The fields of the endpoint; set_recv_cb is the member. `on` above 0 sets a flag, else it clears.
// Returns the socket, -1 when there is none; the path, good until it is changed; the tag; a flag,
// as 1 or 0; the packet that waits, which stays the endpoint's, or null.
COMM_V4_EXPORT int comm_socket_v4_get_socket_fd(const comm_socket_v4* c);
COMM_V4_EXPORT const char* comm_socket_v4_get_socket_path(const comm_socket_v4* c);
COMM_V4_EXPORT uint64_t comm_socket_v4_get_tag(const comm_socket_v4* c);
COMM_V4_EXPORT void comm_socket_v4_set_tag(comm_socket_v4* c, uint64_t value);
COMM_V4_EXPORT int comm_socket_v4_is_server(const comm_socket_v4* c);
COMM_V4_EXPORT int comm_socket_v4_is_socketpair(const comm_socket_v4* c);
COMM_V4_EXPORT int comm_socket_v4_is_bound(const comm_socket_v4* c);
COMM_V4_EXPORT void comm_socket_v4_set_bound(comm_socket_v4* c, int on);
COMM_V4_EXPORT int comm_socket_v4_is_debug(const comm_socket_v4* c);
COMM_V4_EXPORT void comm_socket_v4_set_debug(comm_socket_v4* c, int on);
COMM_V4_EXPORT int comm_socket_v4_is_idle_enabled(const comm_socket_v4* c);
COMM_V4_EXPORT void comm_socket_v4_set_idle_enabled(comm_socket_v4* c, int on);
COMM_V4_EXPORT comm_socket_v4_packet* comm_socket_v4_get_next_packet(const comm_socket_v4* c);
COMM_V4_EXPORT void comm_socket_v4_set_recv_cb(comm_socket_v4* c,
                                               int (*cb)(comm_socket_v4*, comm_socket_v4_packet*));
// Returns 1 while there is a socket, else 0; 0 for null.
COMM_V4_EXPORT int comm_socket_v4_is_open(const comm_socket_v4* c);
// Returns 1 while a client's connect is unfinished, else 0; 0 for null.
COMM_V4_EXPORT int comm_socket_v4_connection_pending(const comm_socket_v4* c);
// Stores a copy, or empties the path when it is null. An open endpoint is closed first, which is
// reported as a bug of the caller. The opening calls do this themselves. Where memory for the copy
// runs out std::bad_alloc leaves the endpoint closed, with the old path.
// Returns 0.
COMM_V4_EXPORT int comm_socket_v4_set_socket_path(comm_socket_v4* c, const char* path);

// --- Logging, to standard error -----------------------------------------------------------------

// Errors, warnings and bug reports (the default); everything; nothing.
COMM_V4_EXPORT void comm_socket_v4_normal_logging(comm_socket_v4* c);
COMM_V4_EXPORT void comm_socket_v4_debug_logging(comm_socket_v4* c);
COMM_V4_EXPORT void comm_socket_v4_shut_up(comm_socket_v4* c);
// Returns the field log_mask, of which the lowest four bits are kept: 1 for errors, 2 for warnings
// and bug reports, 8 for debug.
COMM_V4_EXPORT unsigned comm_socket_v4_get_log_mask(const comm_socket_v4* c);
COMM_V4_EXPORT void comm_socket_v4_set_log_mask(comm_socket_v4* c, unsigned mask);
// A line "comm_socket_v4 LEVEL [address]: message" if the function's bit of log_mask is set: 1 for
// errors, 2 for warnings and bug reports, 8 for debug. Otherwise the format is not looked at. A
// newline is added to every message, also to one that ends in one. A line goes to stderr in one
// call, and so to its file in one write(2) unless the application buffers the stream. What cannot
// be written is lost: neither SIGPIPE nor SIGXFSZ comes of it. A pipe that is full makes the call
// wait for its reader. They leave errno alone.
COMM_V4_EXPORT void comm_socket_v4_error(comm_socket_v4* c, const char* format, ...)
    COMM_V4_PRINTF(2, 3);
COMM_V4_EXPORT void comm_socket_v4_warning(comm_socket_v4* c, const char* format, ...)
    COMM_V4_PRINTF(2, 3);
COMM_V4_EXPORT void comm_socket_v4_bug(comm_socket_v4* c, const char* format, ...)
    COMM_V4_PRINTF(2, 3);
COMM_V4_EXPORT void comm_socket_v4_debug(comm_socket_v4* c, const char* format, ...)
    COMM_V4_PRINTF(2, 3);
// Sends the lines of this endpoint to `sink` in place of standard error: the level, "ERROR",
// "WARNING", "BUG" or "DEBUG", and the message without the newlines at its end, both gone when it
// returns. The closing of a destroy may still call it. log_mask decides as before. The sink may
// change errno. It must not throw, nor call anything on the endpoint or its clients but the log
// functions, whose lines then go to standard error. Null goes back to standard error. Close keeps
// it.
COMM_V4_EXPORT void comm_socket_v4_set_log_sink(
    comm_socket_v4* c, void (*sink)(void* user, const char* level, const char* text), void* user);
// Prints the endpoint and its open clients, for a null `c` that there is none; null `out` is
// standard error.
COMM_V4_EXPORT void comm_socket_v4_dump_state(const comm_socket_v4* c, FILE* out);

// --- Server -------------------------------------------------------------------------------------

// Listens on `path`: a file of mode 0666, or the abstract name after a leading "@", which has no
// permissions at all ("@" alone is a file, which close leaves behind). Choose a directory that
// others can neither write nor, since they could hold its lock, read. The backlog is 0: a client
// that meets a full queue gets EAGAIN and tries again, which comm_socket_v4_connect_to does by
// itself. The file of a dead server is replaced; a live server's is not (unless flags.debug is
// set), nor one of which that cannot be found out, nor anything that is not a socket. Of several
// servers that start at once one gets the path: they take turns by a lock (flock(2)) on its
// directory, which is waited for about two seconds at most and done without where it cannot be had.
// The mode is given to the file that was bound, by way of /proc/self/fd or, from Linux 6.6 on,
// without; where neither works, or the file system keeps no sticky bit, which marks the file
// meanwhile, the umask has its say.
// Returns 0; -1 with the endpoint closed and the path kept; errno EINVAL without a path,
// ENAMETOOLONG above COMM_V4_MAX_SERVER_PATH, ENOMEM, EADDRINUSE when the path is held, EMFILE and
// its like also when there is no descriptor to ask with whether it is, or to give the mode with, or
// what the failing system call left.
COMM_V4_EXPORT int comm_socket_v4_create_server(comm_socket_v4* c, const char* path);
// What comm_socket_v4_create_server gives to the file and to the socket, before anybody can
// connect: the permissions (0666), of which only the lowest nine bits count, the group (none: as
// the kernel gives it; (gid_t)-1 is none), and the backlog of listen(2) (0). Neither of the first
// two has a meaning for an abstract name. With other permissions than 0666 or a group the opening
// fails when they cannot be given, errno ESTALE when the file was replaced meanwhile, or that of
// the failing system call. Close keeps them.
COMM_V4_EXPORT void comm_socket_v4_set_socket_mode(comm_socket_v4* c, mode_t mode);
COMM_V4_EXPORT void comm_socket_v4_set_socket_group(comm_socket_v4* c, gid_t group);
COMM_V4_EXPORT void comm_socket_v4_set_listen_backlog(comm_socket_v4* c, int backlog);
// Closes the endpoint and makes it a server on a socket that listens already: handed over by a
// service manager, or by the version before. The endpoint owns it from then on, and makes it
// non-blocking and close-on-exec; mode, group and backlog are as they are. The path is the one that
// the kernel knows; close leaves the file alone, unless the application sets flags.bound.
// Returns 0; -1, the endpoint as it was and fd still the caller's; errno EINVAL for a socket that
// does not listen, is not AF_UNIX, not of type SOCK_SEQPACKET, or the endpoint's own, ENOTSOCK for
// what is no socket, EBADF, or that of getsockname(2) or fcntl(2); -1 with the endpoint closed
// without memory for its clients, errno ENOMEM.
COMM_V4_EXPORT int comm_socket_v4_use_server_socket(comm_socket_v4* c, int fd);
// Ends the listening of an open server, and removes its file as close does (clear flags.bound when
// another server has the path by now); the clients are served on. Whoever waits to be accepted is
// reset. From then on accept_connection finds nobody, and get_socket_fd is a socket that nothing
// reaches; ask for it again, as its number may change. Take the old one out of epoll(7) before:
// copies of it in other processes go on listening, and would be reported.
// Returns 0, also when it was called before; -1 on an endpoint that is no open server, errno
// EINVAL, and without a descriptor, errno that of socket(2): it listens on.
COMM_V4_EXPORT int comm_socket_v4_stop_listening(comm_socket_v4* c);
// Binds an open server to its path again. Linux binds a socket once: a file that was removed does
// not come back.
// Returns 0; errno is then the bind's: 0 after success, EINVAL while it is still bound, for which
// newer kernels say EADDRINUSE when the file is there, or why it failed otherwise. -1 when c is
// null or not a server that listens; errno 0.
COMM_V4_EXPORT int comm_socket_v4_reopen_server(comm_socket_v4* c);
// Takes one waiting connection into an empty slot. May move all records. A failure of the accept
// other than EAGAIN CLOSES THE SERVER: EMFILE and ENFILE, too, unless it has a descriptor reserve.
// Returns the record; null on a closed endpoint or one that is no server, when none waits, errno
// EAGAIN, when the table cannot grow, errno ENOMEM: the connection keeps waiting, when the
// credentials of the peer cannot be read: it is closed and the server is not, and when the accept
// failed, errno its own.
COMM_V4_EXPORT comm_socket_v4_client* comm_socket_v4_accept_connection(comm_socket_v4* c);

// With `on` above 0 the endpoint keeps a descriptor back for an accept that finds none left. The
// connection is then taken on it and closed at once, so that the peer does not wait and the loop
// does not spin. accept_connection returns null with EMFILE or ENFILE, the server stays open, and
// one warning says so until an accept succeeds again. Where another thread or process takes the
// descriptor in between, or a limit was lowered below it, the connection waits on: a loop that
// tries again at once would spin, so let it serve its clients first. Close keeps the setting, and
// the descriptor.
// Returns 0; -1 when there is no descriptor to keep, errno that of open(2).
COMM_V4_EXPORT int comm_socket_v4_set_descriptor_reserve(comm_socket_v4* c, int on);

// Table of slots. Both are called by the library itself. alloc makes COMM_V4_FIRST_CLIENTS slots
// and aborts over a table that exists. expand makes up to `add` more, COMM_V4_MAX_CLIENTS in all;
// may move all records.
// Returns 0; -1, the table unchanged, when memory runs out or the table is full; errno ENOMEM.
COMM_V4_EXPORT int comm_socket_v4_alloc_client_list(comm_socket_v4* c);
COMM_V4_EXPORT int comm_socket_v4_expand_client_list(comm_socket_v4* c, unsigned long add);
// As the members; the two that return an index do the same. client_is_open does not take null.
// Returns what the member returns; for null COMM_V4_NO_INDEX or null.
COMM_V4_EXPORT unsigned long comm_socket_v4_client_ptr2index(comm_socket_v4_client* client);
COMM_V4_EXPORT unsigned long comm_socket_v4_client_ptr2index_noerr(
    const comm_socket_v4_client* client);
COMM_V4_EXPORT comm_socket_v4_client* comm_socket_v4_index2client(comm_socket_v4* c,
                                                                  unsigned long index);
COMM_V4_EXPORT int comm_socket_v4_client_is_open(const comm_socket_v4_client* c);
// The members of the endpoint, and the fields of the record; set_recv_cb is the member. The setter
// of pending_response_packet takes a reference over, and gives the one of the packet before, if
// there was one, back to the caller.
// Returns what the name says: a flag as 1 or 0, a packet without a reference.
COMM_V4_EXPORT unsigned long comm_socket_v4_client_maximum_index(const comm_socket_v4* c);
COMM_V4_EXPORT unsigned long comm_socket_v4_client_allocation_count(const comm_socket_v4* c);
COMM_V4_EXPORT comm_socket_v4* comm_socket_v4_client_get_server(const comm_socket_v4_client* c);
COMM_V4_EXPORT int comm_socket_v4_client_get_client_fd(const comm_socket_v4_client* c);
COMM_V4_EXPORT int comm_socket_v4_client_is_disconnected(const comm_socket_v4_client* c);
COMM_V4_EXPORT int comm_socket_v4_client_has_failed(const comm_socket_v4_client* c);
COMM_V4_EXPORT uint64_t comm_socket_v4_client_get_accept_time_us(const comm_socket_v4_client* c);
COMM_V4_EXPORT uint64_t comm_socket_v4_client_get_tag(const comm_socket_v4_client* c);
COMM_V4_EXPORT void comm_socket_v4_client_set_tag(comm_socket_v4_client* c, uint64_t value);
COMM_V4_EXPORT int comm_socket_v4_client_get_halt(const comm_socket_v4_client* c);
COMM_V4_EXPORT void comm_socket_v4_client_set_halt(comm_socket_v4_client* c, int halt);
COMM_V4_EXPORT comm_socket_v4_packet* comm_socket_v4_client_get_pending_response_packet(
    const comm_socket_v4_client* c);
COMM_V4_EXPORT void comm_socket_v4_client_set_pending_response_packet(comm_socket_v4_client* c,
                                                                      comm_socket_v4_packet* p);
COMM_V4_EXPORT comm_socket_v4_packet* comm_socket_v4_client_get_next_packet(
    const comm_socket_v4_client* c);
COMM_V4_EXPORT void comm_socket_v4_client_set_recv_cb(comm_socket_v4_client* c,
                                                      int (*cb)(comm_socket_v4_client*,
                                                                comm_socket_v4_packet*));
// Asserts that the slot is still empty; the accept gives a slot back with it.
COMM_V4_EXPORT void comm_socket_v4_new_client_cancel(comm_socket_v4_client* c);

// --- Who is it? ---------------------------------------------------------------------------------

// As the kernel knew the peer when it connected or listened (SO_PEERPIDFD, SO_PEERCRED,
// SO_PEERGROUPS of unix(7) and socket(7)). A process id may belong to another process by now; a
// pidfd does not.
//
// Stores the field `cred` of a record.
// Returns 0; -1 for an empty record, errno ENOTCONN.
COMM_V4_EXPORT int comm_socket_v4_client_get_cred(const comm_socket_v4_client* c,
                                                  struct ucred* cred);
// Returns a descriptor of the peer's process, close-on-exec, to be closed by the caller; -1; errno
// ENOTCONN for an empty record, ENOPROTOOPT before Linux 6.5, or that of getsockopt(2).
COMM_V4_EXPORT int comm_socket_v4_client_get_pidfd(const comm_socket_v4_client* c);
// Stores the supplementary groups of the peer, if there are no more than `size`. A size of 0 only
// asks how many there are.
// Returns their number; -1; errno ENOTCONN for an empty record, ERANGE when there are more, nothing
// stored then, or that of getsockopt(2).
COMM_V4_EXPORT int comm_socket_v4_client_get_groups(const comm_socket_v4_client* c, gid_t* groups,
                                                    int size);
// Stores who made the other end of a client endpoint or of an end of a pair: the process that
// listens, or that made the pair.
// Returns 0; -1; errno EINVAL for a server, ENOTCONN for an endpoint that is closed or has no peer,
// or that of getsockopt(2).
COMM_V4_EXPORT int comm_socket_v4_get_server_cred(const comm_socket_v4* c, struct ucred* cred);

// --- End of a client ----------------------------------------------------------------------------

// A connection that ended, failed or was disconnected stays in its slot, its descriptor open, until
// the application takes it here, once, in order, and releases it with comm_socket_v4_free_client.
// For null, a closed endpoint and one that is no server a line is logged.
// Returns the record; null when the list is empty, and once for an entry that a release cancelled:
// the entries behind it come with the next call.
COMM_V4_EXPORT comm_socket_v4_client* comm_socket_v4_get_disconnected_client(comm_socket_v4* c);
// Puts an open client on that list; its descriptor stays open.
// Returns 0, also when it was put there or taken from it before; -1 for a client that is not open
// otherwise, and without memory, errno ENOMEM: it stays open then.
COMM_V4_EXPORT int comm_socket_v4_disconnect_client(comm_socket_v4_client* c);
// Closes the connection, releases the record's packets and empties the slot; keeps tag and recv_cb.
// While somebody else holds a copy of the descriptor, a forked child for instance, the connection
// goes on and epoll(7) reports it: take it out of epoll before. A client that is still on the list
// is taken off it, which is reported as a bug of the caller. An empty slot stays as it is; null
// aborts. Leaves errno alone.
COMM_V4_EXPORT void comm_socket_v4_free_client(comm_socket_v4_client* c);
// Its first step: takes the client off the list and reports it. Null does nothing.
COMM_V4_EXPORT void comm_socket_v4_free_client_check(comm_socket_v4_client* c);
// Ends what is sent to the peer, who still gets what was sent and then reads the end. Read on until
// it ends its side: a close with packets unread would take the last words back. A peer that uses
// this library takes the end for that of the connection, and sends nothing more.
// Returns 0; -1 for a client that is not open, errno ENOTCONN, or with that of shutdown(2).
COMM_V4_EXPORT int comm_socket_v4_client_end_sending(comm_socket_v4_client* c);
// Release all clients. drop keeps the table; free, which is part of close, gives it back: an open
// server can accept nobody after it.
COMM_V4_EXPORT void comm_socket_v4_drop_clients(comm_socket_v4* c);
COMM_V4_EXPORT void comm_socket_v4_free_clients(comm_socket_v4* c);
// Forgets what is on the list. The clients stay in their slots and are never reported.
COMM_V4_EXPORT void comm_socket_v4_client_disconnect_list_clear(comm_socket_v4* c);
// Returns how many entries are on the list, cancelled ones included.
COMM_V4_EXPORT size_t comm_socket_v4_client_disconnect_list_count(const comm_socket_v4* c);

// --- Client -------------------------------------------------------------------------------------

// Connects to the server at `path`; a path above COMM_V4_MAX_SERVER_PATH may be a symbolic link to
// a socket with a shorter one (a relative target starts at the working directory). While the
// server's queue is full it tries again every 10 ms, within the two timeouts below, without them
// for ever. `path` may be the text of c->socket_path; null or empty is a bug of the caller. That no
// server is there is logged at debug level only.
// Returns 0 when connected, but also when the routine timeout came first, and when a retry found
// that the server had gone: a caller that needs to know asks comm_socket_v4_is_open and
// comm_socket_v4_connection_pending (an endpoint that is open and not pending is connected, unless
// the kernel reported an error of the pending connect, which is logged). -1 with the endpoint
// closed; errno ETIMEDOUT, ENAMETOOLONG, ENOENT, ECONNREFUSED, or what the failing system call
// left; untouched without a path.
COMM_V4_EXPORT int comm_socket_v4_connect_to(comm_socket_v4* c, const char* path);
// From the start of connect_to, in microseconds, 0 for none. The first makes it fail; the second
// makes it return 0 with the connection pending. Of equal ones the first wins. An expired one is
// noticed at the next try, up to 10 ms later. Close keeps both.
// Returns the timeout.
COMM_V4_EXPORT void comm_socket_v4_set_connect_timeout(comm_socket_v4* c, uint64_t usec);
COMM_V4_EXPORT void comm_socket_v4_set_connect_timeout_routine(comm_socket_v4* c, uint64_t usec);
COMM_V4_EXPORT uint64_t comm_socket_v4_get_connect_timeout(const comm_socket_v4* c);
COMM_V4_EXPORT uint64_t comm_socket_v4_get_connect_timeout_routine(const comm_socket_v4* c);
// Tries once to complete a pending connect, without waiting; idle does this too. It closes the
// endpoint when it fails, also a server or an end of a pair, for which it is not meant.
// Returns 1 when connected, errno 0, or when nothing is pending; 0 when not yet; -1 when it failed;
// errno EINVAL for an endpoint that is closed or no client, else the connect's.
COMM_V4_EXPORT int comm_socket_v4_connect_check_pending(comm_socket_v4* c);
// Waits for a pending connect until the deadline, up to 10 ms beyond it while the server's queue is
// full. A connect that met a full queue needs tries, and this only looks: call the one above, too.
// It closes the endpoint when a system call fails, and leaves it open when the kernel reports that
// the connect failed.
// Returns 1 when connected or when nothing is pending, errno 0; 0 when not yet, errno 0, or EINTR
// when a signal came; -1 when it failed; errno ETIMEDOUT for a closed endpoint, else the system
// call's or the connect's.
COMM_V4_EXPORT int comm_socket_v4_connect_wait_for_completion(comm_socket_v4* c,
                                                              uint64_t deadline_us);

// While a connect is pending: a descriptor that becomes readable when it is worth a try by
// connect_check_pending or idle, for a loop that watches descriptors. It is the endpoint's, made by
// the first call and closed with the endpoint. Once the connect is complete it is not readable any
// more; the application may then forget it.
// Returns it; -1 when no connect is pending, errno EINVAL, or with that of timerfd_create(2).
COMM_V4_EXPORT int comm_socket_v4_get_connect_fd(comm_socket_v4* c);
// As comm_socket_v4_client_end_sending, for a client endpoint and an end of a pair.
// Returns 0; -1; errno EINVAL for a server, ENOTCONN for an endpoint that is closed or has no peer,
// or that of shutdown(2).
COMM_V4_EXPORT int comm_socket_v4_end_sending(comm_socket_v4* c);

// --- Socket pair --------------------------------------------------------------------------------

// Makes a pair of connected, non-blocking, close-on-exec SOCK_SEQPACKET sockets.
// Returns 0; -1; errno that of socketpair(2).
COMM_V4_EXPORT int comm_socket_v4_make_socketpair(int* sv);
// Opens a closed endpoint on one end of a new pair, keeps the other, and empties the path.
// Returns 0; -1 on an endpoint that is open or a server, which stays as it is; -1 without a pair,
// errno that of socketpair(2).
COMM_V4_EXPORT int comm_socket_v4_connect_new_socketpair(comm_socket_v4* c);
// Hands the other end over; it survives exec, so that a child can be told its number.
// Returns it, to be closed by the caller; -1 when the endpoint holds none.
COMM_V4_EXPORT int comm_socket_v4_socketpair_get_remote_end(comm_socket_v4* c);
// Closes it, if it was not taken. Leaves errno alone.
COMM_V4_EXPORT void comm_socket_v4_socketpair_close_remote_end(comm_socket_v4* c);
// Opens a closed endpoint on `fd`, which it owns from then on, and empties the path. Blocking mode,
// close-on-exec and type of the socket are left as they are. Leave SO_PASSPIDFD off: its
// descriptors would pile up.
// Returns 0; -1, and fd is still the caller's, when fd is no socket or the endpoint is open or a
// server, which stays as it is.
COMM_V4_EXPORT int comm_socket_v4_connect_use_socketpair(comm_socket_v4* c, int fd);

// --- The application's loop ---------------------------------------------------------------------

// Idle: work that does not block. Reads at most one packet per connection into its slot, unless one
// waits there; completes a pending connect; never accepts; runs receive callbacks. A record of zero
// bytes reads as the end of the connection. A server visits half of its slots per call, and its
// clients never make it fail.
// Returns 0; -1 on a closed endpoint, null too, errno ENOTCONN; when the connection of a client
// ended, errno ENOTCONN, failed or could not be made, errno why: the endpoint is closed then; and
// when nothing was read and it stays open, errno ENOMEM or that of ioctl(2).
COMM_V4_EXPORT int comm_socket_v4_idle(comm_socket_v4* s);
// The client's half of it, and one record's. The record of an empty slot aborts, also in
// comm_socket_v4_client_get_packet.
// Returns 0, also while a packet waits, while a connect is pending or halt is set, and when a
// connection ended but memory to list it ran out: the next read tries again. -1 as idle; errno also
// EBADF on a closed endpoint, ENOTCONN or EINVAL on a record that ended or failed before.
COMM_V4_EXPORT int comm_socket_v4_idle_clientside(comm_socket_v4* s);
COMM_V4_EXPORT int comm_socket_v4_client_idle(comm_socket_v4_client* c);

// Retrieval: the packet that waits, or one that can be read now. server_get_packet looks at all
// clients in turn, starting behind the one that delivered last, and stores the sender in *from,
// good until the table grows (null without a packet); `from` may be null. A client with halt set is
// left alone; with pending_response_packet set its next packet is read, but not handed out.
// A server with more than 64 slots has one descriptor more, an epoll(7), from the first idle, wait
// or server_get_packet on, which so need no look at each client. Where there is none left for it,
// and once an accept has found none, every client is asked until the server is closed. The clients'
// descriptors are the library's: close none, and put no other file under its number.
// Returns the packet, which the caller releases; null when there is none, which does not say
// whether the connection still stands, and for a null endpoint of get_packet_from_server. Null also
// when a packet was read and dropped with others behind it: watch level-triggered, and after an
// idle or a wait call until null before sleeping elsewhere. errno is what the idle beneath left,
// which tells how the connection of a client ended; where there was just nothing to read it says
// nothing.
COMM_V4_EXPORT comm_socket_v4_packet* comm_socket_v4_server_get_packet(
    comm_socket_v4* s, comm_socket_v4_client** from);
COMM_V4_EXPORT comm_socket_v4_packet* comm_socket_v4_client_get_packet(comm_socket_v4_client* c);
COMM_V4_EXPORT comm_socket_v4_packet* comm_socket_v4_client_get_packet_from_server(
    comm_socket_v4* s);

// Waits: idle, then block until something is ready or the deadline passes. Descriptors may have any
// number, 1024 and above too. A wait on a server idles half of its slots, as idle does, and may so
// notice the end of a client, which no select reports again: look at the disconnect list before a
// wait without a deadline. On a connection on which nothing has come a wait does not read, and so
// does not meet what makes a read fail, such as a lack of memory. A client whose halt or
// pending_response_packet is set makes the server's wait return 1 as long as it has something.
// While a connect is pending the waits of a client return 1: use
// comm_socket_v4_connect_wait_for_completion.
// Returns 1 when ready; 0 at the deadline, and when a signal came; -1 on an endpoint that is null
// or closed, for client_from_server_readable on a server, when idle fails, errno the idle's, and
// when select(2) fails, which is logged; errno the select's.
//
// A server: a connection to be accepted, a client that can be read, or a packet that waits (which
// is seen only when the deadline has not passed).
COMM_V4_EXPORT int comm_socket_v4_server_from_client_readable(comm_socket_v4* s,
                                                              unsigned long deadline_us);
// A client or an end of a pair: its socket can be read, or a packet waits.
COMM_V4_EXPORT int comm_socket_v4_client_from_server_readable(comm_socket_v4* s,
                                                              unsigned long deadline_us);
// The socket takes a packet: of a client or an end of a pair, and of one client of a server, which
// is idled as a whole.
COMM_V4_EXPORT int comm_socket_v4_wait_for_client_to_server_writeable(comm_socket_v4* s,
                                                                      unsigned long deadline_us);
COMM_V4_EXPORT int comm_socket_v4_wait_for_server_to_client_writeable(comm_socket_v4_client* c,
                                                                      unsigned long deadline_us);

// --- Sending ------------------------------------------------------------------------------------

// Sends the packet as one record with its descriptors, without blocking; a packet that was not
// ended is ended first, with a warning, which a received packet that is sent on gets, too, unless
// its write_state is set to write_state_end. The caller keeps its reference. Once a packet went out
// its attached descriptors are closed, and sending it again fails if it had any. With more than
// COMM_V4_MAX_SEND_FDS attached the packet goes without them, with a warning, and they are closed.
// A failure is neither logged nor closes anything, but a short count is warned of.
// Returns the number of bytes when it went out; 0 when nothing was sent, and the same packet can be
// sent later; errno EAGAIN when the socket takes no more, EINTR when a signal came. -1 when it
// failed; errno EINVAL for null or a packet without bytes, ENOTCONN when closed, ECONNRESET for a
// client that disconnected, or that of sendmsg(2), such as EPIPE when the peer has gone, EMSGSIZE
// above the socket's buffer and EBADF for descriptors that were closed; untouched for a packet
// never written and after a short count.
COMM_V4_EXPORT int comm_socket_v4_packet_send_to_client(comm_socket_v4_client* c,
                                                        comm_socket_v4_packet* p);
COMM_V4_EXPORT int comm_socket_v4_packet_send_to_server(comm_socket_v4* s,
                                                        comm_socket_v4_packet* p);

// A CommLargePacketQueue and its members. destroy takes null.
// Returns a queue; null without memory, errno ENOMEM.
COMM_V4_EXPORT CommLargePacketQueue* comm_socket_v4_queue_create(void);
COMM_V4_EXPORT void comm_socket_v4_queue_destroy(CommLargePacketQueue* q);
// Returns what the member returns; -1 also when the list cannot grow, nothing queued, errno ENOMEM.
COMM_V4_EXPORT int comm_socket_v4_queue_send_packet(CommLargePacketQueue* q,
                                                    comm_socket_v4_client* c,
                                                    comm_socket_v4_packet* p);
COMM_V4_EXPORT void comm_socket_v4_queue_flush_queued_packet(CommLargePacketQueue* q,
                                                             comm_socket_v4_client* c);
COMM_V4_EXPORT void comm_socket_v4_queue_dump_queued_packets(CommLargePacketQueue* q);
// Takes the packet out that is the next to be sent, such as one that can never be.
// Returns it, with its reference; null when there is none.
COMM_V4_EXPORT comm_socket_v4_packet* comm_socket_v4_queue_take_oldest(CommLargePacketQueue* q);
// Returns the number of packets in it.
COMM_V4_EXPORT uint64_t comm_socket_v4_queue_get_queued_count(const CommLargePacketQueue* q);

// --- Receiving, called by idle and retrieval ----------------------------------------------------

// With `on` above 0 descriptors that are received do not survive exec: the kernel sets
// close-on-exec as it hands them out (MSG_CMSG_CLOEXEC). Close keeps it.
COMM_V4_EXPORT void comm_socket_v4_set_descriptors_cloexec(comm_socket_v4* c, int on);
// How many descriptors a packet may bring, COMM_V4_MAX_SEND_FDS at first. One with more is dropped
// with its descriptors and a warning. With 0 the kernel refuses them before they are sent, where it
// can (SO_PASSRIGHTS, Linux 6.16): the sender gets EPERM. On a server it holds for all its clients,
// but for what one has sent before it was accepted or the setting changed; that is dropped. Close
// keeps it.
// Returns 0; -1 above COMM_V4_MAX_SEND_FDS, nothing changed; errno EINVAL.
COMM_V4_EXPORT int comm_socket_v4_set_max_descriptors(comm_socket_v4* c, unsigned most);

// Reads one record from the endpoint's socket into its empty slot. A record of zero bytes reads as
// the end of the connection. A packet that is too long, refused by the callback or not valid is
// dropped with its descriptors, and the connection goes on.
// Returns 0, also for a packet that was dropped, when nothing waits, and without reading while a
// packet waits; -1 when the connection ended, errno ENOTCONN, or failed, errno why: the endpoint is
// closed then; -1 when nothing was read, and nothing is lost; errno ENOMEM or that of ioctl(2),
// EBADF on a closed endpoint included.
COMM_V4_EXPORT int comm_socket_v4_idle_clientside_read(comm_socket_v4* s);
// Validates the received bytes of `p` and copies the header's values into the packet. Flips bits
// first when comm_socket_v4_recv_corrupt_debug is set. Leaves errno and the references alone.
// Returns 0; -1 for null, no buffer, fewer than COMM_V4_MIN_RECEIVED_PACKET bytes or no NUL behind
// them, which is not logged, and for a packet that is not valid, which the validation logs.
COMM_V4_EXPORT int comm_socket_v4_client_on_recv_packet(comm_socket_v4* s,
                                                        comm_socket_v4_packet* p);
// Whether every offset, count and length in `p` stays inside it, so that accessors need no checks
// of their own. `header` is the start of p->buffer; p has at least COMM_V4_MIN_RECEIVED_PACKET
// bytes and a NUL behind them. Not checked: header_length, flags, ids, types of pairs, overlaps,
// where a text ends, whether the length of a list is a multiple of 8. Leaves errno alone.
// Returns 0; -1 and one debug line that names the first broken rule.
COMM_V4_EXPORT int comm_socket_v4_validate_packet_contents(
    comm_socket_v4* c, const comm_socket_v4_packet* p, const comm_socket_v4_packet_header* header);

#ifdef __cplusplus
}  // extern "C"

// Makes the socket address of a path, of at most COMM_V4_MAX_ABSTRACT_NAME characters: more is a
// broken invariant and aborts. `len` becomes the length to pass with it: 2 plus the text's length
// for an abstract name ("@" and at least one character), 0 for an empty text, otherwise the size of
// the structure.
COMM_V4_EXPORT void comm_socket_path_to_sockaddr_un(struct sockaddr_un& sun, std::size_t& len,
                                                    const std::string& path);
#endif  // __cplusplus

#endif
