// Message channels between processes of one host, over AF_UNIX sockets of type SOCK_SEQPACKET.
//
// Conventions, once for all
//
//  1. Results. An int result is 0 on success and -1 on failure, with errno set where the function
//     says so; a pointer result is null on failure. Truth values are 1 or 0. The waits and the two
//     calls that complete a connect answer 1 (ready), 0 (not yet) or -1 (failed); a send answers
//     the byte count, 0 (would block) or -1.
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
//     comm_socket_v4_connect_wait_for_completion block, and comm_socket_v4_create_server for two
//     seconds at most. What the application lends may block all the same: standard error, when it
//     is a full pipe, and the close of a descriptor that a peer has sent. No send and no log line
//     raises SIGPIPE, and a signal that ends a wait or a transfer is no failure.
//  6. Threads. None inside. One thread at a time uses an endpoint, its client records and its
//     queues, and callbacks run on that thread. A packet may be referenced from several threads
//     (addref and release are atomic), but is written or read by one thread at a time.
//  7. Null. A pointer argument must not be null unless the function says what null does.
//  8. Memory. Running out of memory for packets and their buffers is answered by null or -1, and
//     ENOMEM where the function says so; the writers of a packet answer as they say. Where a
//     std::vector, std::deque, std::list or std::string must grow, std::bad_alloc propagates and
//     the object stays as it was, except where a function says that it answers -1. Broken internal
//     invariants print what broke and where, then abort.
//  9. Trust. A packet that reached a slot has passed comm_socket_v4_validate_packet_contents: every
//     accessor may be used on it. What the values mean is still the peer's word. The ids of the
//     peer's process, user and group come from the kernel (SO_PEERCRED, unix(7)) and are not.
//
// Limits
//
//     arguments in a packet         255, values below byte 2^24 of the packet
//     name/value pairs in a packet  4095; with more of them it goes out without any
//     command                       255 bytes, a longer one is cut
//     error string, name            4095 bytes, likewise
//     text                          65,535 bytes, likewise
//     formatted argument            256 bytes, a longer one is refused
//     data in one write call        262,144 bytes
//     a packet that is received     64 to 65,551 bytes; a longer one can be sent, and is dropped
//     attached descriptors          8; a received packet that is sent on carries up to 60
//     path of a server              106 characters; a client takes 108 of an abstract name
//     client records of a server    16 at first, grows to 1,048,576
//     packets in a queue            4096
#ifndef TARN_UTILS_V4_COMM_H
#define TARN_UTILS_V4_COMM_H

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <list>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#define COMM_V4_EXPORT __attribute__((visibility("default")))
#define COMM_V4_INTERNAL __attribute__((visibility("hidden")))
// The arguments are checked like printf's; `first` is 0 for a va_list. A member counts `this` as 1.
#define COMM_V4_PRINTF(format_at, first) __attribute__((format(printf, format_at, first)))

class comm_socket_v4;
class comm_socket_v4_client;
class comm_socket_v4_packet;

static_assert(sizeof(unsigned long) == 8, "deadlines and indices are unsigned longs of 64 bits");

// ------------------------------------------------------------------------------------------------
// Bytes of a packet. They travel as they are: little-endian, without alignment or padding, every
// part found by an offset from the first byte of the packet. Codes and offsets are never
// renumbered.

// Bytes from the start of the packet; 0 means absent.
typedef std::uint32_t comm_v4_offset_t;

constexpr std::uint32_t COMM_V4_SIGHDR = 0xABCD0201u;
constexpr std::uint32_t COMM_V4_HEADER_LENGTH = 63;
// A read asks for the size that the kernel reports plus 16 bytes; beyond this cap, for the cap.
constexpr std::size_t COMM_V4_RECV_SIZE_CAP = 65536;
// Ancillary data of one packet; it holds one SCM_RIGHTS message of at most 60 descriptors.
constexpr std::size_t COMM_V4_CONTROL_BUFFER_SIZE = 256;
constexpr std::size_t COMM_V4_MAX_SEND_FDS = 60;

// Types of arguments and of name/value pairs. Arguments are text, uint64, double or int64. Any
// other number in a pair is the caller's own: four characters, the lowest byte first.
enum : std::uint32_t {
  comm_v4_type_text = 0,    // NUL-terminated text
  comm_v4_type_binary = 1,  // bytes
  comm_v4_type_uint64 = 2,  // one value in an argument, any number of them in a pair
  comm_v4_type_double = 3,  // likewise, IEEE 754 binary64
  comm_v4_type_json = 4,    // NUL-terminated text, not parsed
  comm_v4_type_int64 = 5    // as uint64, two's complement
};

// Elements of the lists inside a packet, which start at any byte. Index them as they are returned:
// a pointer to these types converts to `const uint64_t*` and so on, but reading through that, or
// through an `auto` variable under g++ (which forgets the alignment), is undefined where the
// address is odd.
typedef std::uint64_t comm_v4_unaligned_uint64_t __attribute__((aligned(1), may_alias));
typedef std::int64_t comm_v4_unaligned_int64_t __attribute__((aligned(1), may_alias));
typedef double comm_v4_unaligned_double_t __attribute__((aligned(1), may_alias));

// The first 63 bytes of every packet.
struct __attribute__((packed)) comm_socket_v4_packet_header {
  std::uint32_t sighdr;
  std::uint32_t header_length;
  std::uint64_t stream_id;
  std::uint64_t message_id;
  std::uint64_t error_code;
  std::uint32_t flags;
  comm_v4_offset_t error_string_offset;
  comm_v4_offset_t command_offset;
  std::uint8_t argv_count;
  comm_v4_offset_t argv_offset;
  std::uint16_t nv_pair_table_count;
  comm_v4_offset_t nv_pair_table_offset;
  comm_v4_offset_t data_offset;
  std::uint32_t data_length;
};

// One argument: where its value starts (24 bits, lowest byte first) and its type.
struct __attribute__((packed)) comm_socket_v4_packet_argv {
  std::uint8_t value_offset[3];
  std::uint8_t type_code;

  std::uint8_t type() const { return type_code; }
  comm_v4_offset_t offset() const {
    return static_cast<comm_v4_offset_t>(value_offset[0] | value_offset[1] << 8 |
                                         value_offset[2] << 16);
  }
  bool is_present() const { return offset() != 0; }
};

// One name/value pair. length() is in bytes and leaves out the NUL after a text.
struct __attribute__((packed)) comm_socket_v4_packet_nv_pair {
  comm_v4_offset_t name_offset;
  comm_v4_offset_t value_offset;
  std::uint32_t value_length;
  std::uint32_t type_code;

  std::uint32_t type() const { return type_code; }
  std::uint32_t length() const { return value_length; }
};

// Not defined anywhere: says at compile time whether an argument is a va_list.
void comm_v4_takes_va_list(va_list);
void comm_v4_takes_va_list(std::nullptr_t) = delete;

// ------------------------------------------------------------------------------------------------
// A packet: reference-counted, written once from begin to end or received, then read and sent as
// often as wished. Packets whose references are counted come from comm_socket_v4_packet_create.
class COMM_V4_EXPORT comm_socket_v4_packet {
 public:
  // Bits of `flags`. The multipart value sits in bits 2 and 3; set it as
  // `flags = (flags & ~multipart_mask) | (multipart_first << multipart_shift)`.
  // Bits 4 to 31 are carried unchanged and have no meaning to the library.
  enum : std::uint32_t {
    flag_request = 1u << 0,
    flag_async = 1u << 1,
    multipart_shift = 2,
    multipart_mask = 3u << 2
  };
  enum : std::uint32_t {
    multipart_none = 0,
    multipart_first = 1,
    multipart_middle = 2,
    multipart_last = 3
  };
  // Values of `write_state`, in the order in which a packet passes them.
  enum : int {
    write_state_none = 0,     // nothing written yet
    write_state_header = 1,   // begun: arguments and pairs may be added
    write_state_data = 2,     // tables written: only data may be added
    write_state_end = 3,      // complete
    write_state_received = 4  // came from a peer and passed validation
  };

  unsigned char* buffer;      // malloc'ed, owned; null until the first resize_buffer
  std::size_t buffer_alloc;   // bytes allocated
  std::size_t buffer_write;   // where the writer goes on
  std::size_t buffer_length;  // bytes of the packet; a NUL follows a complete one, and is not sent
  std::uint32_t flags;        // copied into the packet by write_begin, out of it by a receive, like
  std::uint64_t message_id;   // message_id,
  std::uint64_t error_code;   // error_code and stream_id
  std::atomic<std::int32_t> refcount;
  int write_state;
  std::vector<comm_socket_v4_packet_argv> wr_argv;        // entries waiting for their table
  std::vector<comm_socket_v4_packet_nv_pair> wr_nv_pair;  // likewise
  std::vector<int> attached_fd;  // owned; sent with the packet or received with it, -1 is empty
  std::uint64_t stream_id;
  int (*complete_cb)(comm_socket_v4_packet*);
  std::uint64_t tag;  // the caller's, never sent

  comm_socket_v4_packet() noexcept;
  // Closes what is still attached and frees the buffer.
  ~comm_socket_v4_packet();
  comm_socket_v4_packet(const comm_socket_v4_packet&) = delete;
  comm_socket_v4_packet& operator=(const comm_socket_v4_packet&) = delete;

  // Lifetime. Both return the new count. The release that reaches 0 destroys and frees the packet;
  // a release of a packet whose count is already 0 says so on standard error and does the same.
  int addref();
  int release();

  // Buffer. resize_buffer gives the packet at least `size` bytes, never fewer than 32, and never
  // shrinks it; contents stay. enlarge_buffer does so only for a packet that has a buffer.
  // shrinkfit_buffer makes a buffer of which less than half is used buffer_length + 32 bytes long.
  // 0, also when there is nothing to do; -1 when memory runs out: the buffer is then as before.
  int resize_buffer(std::size_t size);
  int enlarge_buffer(std::size_t size);
  int shrinkfit_buffer();

  // Attached descriptors. attach_fd_to_send adds a duplicate (dup(2), so it is inherited across
  // exec); the caller keeps `fd`. False, and nothing changed, when fd is negative, 8 slots exist
  // already, emptied ones counted, or dup fails (errno is then dup's). A successful send closes
  // what was attached. get_attached_fd hands slot `index` over to the caller, who closes it: -1
  // when there is no such slot or it was emptied before. Received descriptors are not
  // close-on-exec. attached_fd_count counts emptied slots too. close_attached_fd closes what is
  // still attached and leaves every slot empty.
  bool attach_fd_to_send(int fd);
  std::size_t attached_fd_count() const;
  int get_attached_fd(std::size_t index);
  void close_attached_fd();

  // Header values. write_begin copies them; a later change does not reach the packet. make_request
  // sets flag_request, make_response clears it; no setter touches another bit. message_id,
  // error_code and the multipart bits have no setters: set the fields.
  void make_request();
  void make_response();
  void set_request(bool request);
  void set_async(bool async);
  std::uint64_t get_stream_id() const;
  void set_stream_id(std::uint64_t id);
  std::uint64_t get_tag() const;
  void set_tag(std::uint64_t value);
  // The first four bytes of a packet that has them; 0, or nothing done, without.
  std::uint32_t get_sighdr() const;
  void set_sighdr(std::uint32_t signature);
  // write_end calls `cb` once with the finished packet, also when a send ends the packet; its
  // result is ignored. It may still change the packet, buffer and buffer_length included, and close
  // or release the connection, on which a send then fails. It must not release the caller's
  // reference, destroy the endpoint, or, in a packet that a CommLargePacketQueue holds, accept a
  // connection or touch the queue. Null removes it.
  void set_complete_cb(int (*cb)(comm_socket_v4_packet*));

  // Writing: write_begin, then arguments and pairs in any mix, then data, then write_end. Each
  // returns 0 (write_data_binary the length), or -1 with nothing added: in the wrong state, for a
  // null name, past a limit. A packet is written once and a received one never. Only write_begin
  // touches errno. When memory runs out while a string or a value is copied the write still returns
  // 0, and the value is absent from the packet; the receiver refuses a packet without a command or
  // with such a pair. Pairs are not counted: with more than 4095 every write returns 0, and the
  // packet goes out without any of them; they stay in wr_nv_pair.
  //
  // write_begin: null or empty strings are left out. `size_hint` is the expected size of the whole
  // packet in bytes; 0 means 8192, anything else is raised to 4096. -1 with ENOMEM when there is no
  // memory for the buffer, with errno untouched when the packet was begun before.
  int write_begin(const char* command, const char* error_string, std::size_t size_hint);
  // A null or empty text adds nothing and returns 0.
  int write_argv(const char* text);
  // Formatted text of at most 256 characters; a longer one is refused. The second form takes a
  // va_list. (It is a template so that `write_argvf("%d", 0)` cannot mistake 0 for one.)
  int write_argvf(const char* format, ...) COMM_V4_PRINTF(2, 3);
  template <class Args, class = decltype(comm_v4_takes_va_list(std::declval<Args>()))>
  COMM_V4_PRINTF(2, 0)
  int write_argvf(const char* format, Args args) {
    return vwrite_argvf(format, args);
  }
  int write_argv_uint64(std::uint64_t value);
  int write_argv_int64(std::int64_t value);
  int write_argv_double(double value);
  // Does nothing; the table of arguments is written with the first data or at the end.
  int write_argv_end();
  // `length` is in bytes, `count` in values. A null value is empty, and refused with a length.
  // Text and JSON are followed by a NUL that the length leaves out. Only write_nv_pair and
  // write_nv_pairf cut their text.
  int write_nv_pair_raw(const char* name, const unsigned char* value, std::size_t length,
                        std::uint32_t type);
  int write_nv_pair_fourcc(std::uint32_t fourcc, const char* name, const unsigned char* value,
                           std::size_t length);
  int write_nv_pair_binary(const char* name, const unsigned char* value, std::size_t length);
  int write_nv_pair_uint64(const char* name, const std::uint64_t* values, std::size_t count);
  int write_nv_pair_int64(const char* name, const std::int64_t* values, std::size_t count);
  int write_nv_pair_double(const char* name, const double* values, std::size_t count);
  int write_nv_pair_json(const char* name, const char* json, std::size_t length);
  int write_nv_pair(const char* name, const char* text);
  // The text is empty when formatting fails.
  int write_nv_pairf(const char* name, const char* format, ...) COMM_V4_PRINTF(3, 4);
  template <class Args, class = decltype(comm_v4_takes_va_list(std::declval<Args>()))>
  COMM_V4_PRINTF(3, 0)
  int write_nv_pairf(const char* name, const char* format, Args args) {
    return vwrite_nv_pairf(name, format, args);
  }
  // Appends to the packet's one block of data and returns `length`. A length of 0 returns 0 in any
  // state; null data or more than 262,144 bytes give -1, and so does running out of memory: offer
  // the same data again. No argument or pair can follow.
  int write_data_binary(const unsigned char* data, std::size_t length);
  // Completes the packet and runs the completion callback; 0 at once when it is complete or was
  // received. -1 before write_begin; when memory for the tables runs out: call it again then; and
  // when they would end beyond byte 2^32 - 1.
  int write_end();
  // "None", "Header", "Data", "End", and "?" for any other state. The text is static.
  static const char* write_state_to_str(int state);
  const char* write_state_to_str() const;

  // Reading, in place. What is absent, of another type or out of range reads as "", 0, 0.0 or
  // null, as does everything in a packet without a header. There is no conversion between types.
  // While a packet is being written its arguments and pairs appear with the first data or the end.
  const char* command() const;
  const char* error_string() const;
  const unsigned char* data() const;
  std::size_t data_length() const;
  std::size_t argc() const;
  std::size_t nv_entries() const;
  // Null when index is at or beyond argc().
  const comm_socket_v4_packet_argv* argv(std::size_t index) const;
  // The entry may be null.
  const char* argv_text(const comm_socket_v4_packet_argv* entry) const;
  std::uint64_t argv_uint64(const comm_socket_v4_packet_argv* entry) const;
  std::int64_t argv_int64(const comm_socket_v4_packet_argv* entry) const;
  double argv_double(const comm_socket_v4_packet_argv* entry) const;
  // The same by index. The templates make a literal 0 an index and not a null entry.
  const char* argv_text(std::size_t index) const;
  std::uint64_t argv_uint64(std::size_t index) const;
  std::int64_t argv_int64(std::size_t index) const;
  double argv_double(std::size_t index) const;
  template <class Index,
            class = typename std::enable_if<std::is_convertible<Index, std::size_t>::value>::type>
  const char* argv_text(Index index) const {
    return argv_text(static_cast<std::size_t>(index));
  }
  template <class Index,
            class = typename std::enable_if<std::is_convertible<Index, std::size_t>::value>::type>
  std::uint64_t argv_uint64(Index index) const {
    return argv_uint64(static_cast<std::size_t>(index));
  }
  template <class Index,
            class = typename std::enable_if<std::is_convertible<Index, std::size_t>::value>::type>
  std::int64_t argv_int64(Index index) const {
    return argv_int64(static_cast<std::size_t>(index));
  }
  template <class Index,
            class = typename std::enable_if<std::is_convertible<Index, std::size_t>::value>::type>
  double argv_double(Index index) const {
    return argv_double(static_cast<std::size_t>(index));
  }
  // Null when index is at or beyond nv_entries(). Pairs keep the order of writing, and several may
  // share a name. The entry passed to the others comes from here and is not null.
  const comm_socket_v4_packet_nv_pair* nv_entry(std::size_t index) const;
  const char* nv_pair_name(const comm_socket_v4_packet_nv_pair* entry) const;
  // The bytes of the value, whatever the type; entry->length() of them. Both do the same.
  const unsigned char* nv_pair_value_raw(const comm_socket_v4_packet_nv_pair* entry) const;
  const unsigned char* nv_pair_value_binary(const comm_socket_v4_packet_nv_pair* entry) const;
  // Text and JSON; "" for any other type. In a packet that was received the text ends at its first
  // NUL, which a peer may have put before entry->length() or behind it, at the latest behind the
  // last byte of the packet: use one of the two lengths, not one as the bound of the other.
  const char* nv_pair_value_text(const comm_socket_v4_packet_nv_pair* entry) const;
  // The first of entry->length() / 8 values, at any alignment; null for any other type.
  const comm_v4_unaligned_uint64_t* nv_pair_value_uint64(
      const comm_socket_v4_packet_nv_pair* entry) const;
  const comm_v4_unaligned_int64_t* nv_pair_value_int64(
      const comm_socket_v4_packet_nv_pair* entry) const;
  const comm_v4_unaligned_double_t* nv_pair_value_double(
      const comm_socket_v4_packet_nv_pair* entry) const;

  // Printing, for debugging; null means standard error. They never fail and never change the
  // packet, and any packet may be printed, half-written and hand-made ones included, but not while
  // another thread writes it. Texts are printed as they are, control characters of a peer included.
  // Errors of the stream are ignored; errno may change. dump shows raw header bytes, offsets and
  // types; dump_header_user_friendly a readable listing; dump_user_friendly that and then the raw
  // data; dump_body the raw data only.
  void dump(std::FILE* out) const;
  void dump_header_user_friendly(std::FILE* out) const;
  void dump_user_friendly(std::FILE* out) const;
  void dump_body(std::FILE* out) const;

 private:
  int vwrite_argvf(const char* format, va_list args) COMM_V4_PRINTF(2, 0);
  int vwrite_nv_pairf(const char* name, const char* format, va_list args) COMM_V4_PRINTF(3, 0);

  COMM_V4_INTERNAL const comm_socket_v4_packet_header* header_or_null() const;
  COMM_V4_INTERNAL const char* text_at(comm_v4_offset_t offset) const;
  COMM_V4_INTERNAL const unsigned char* argv_value(const comm_socket_v4_packet_argv* entry,
                                                   std::uint32_t type) const;
  template <class Number>
  COMM_V4_INTERNAL Number argv_number(const comm_socket_v4_packet_argv* entry,
                                      std::uint32_t type) const;

  COMM_V4_INTERNAL comm_socket_v4_packet_argv* alloc_argv();
  COMM_V4_INTERNAL comm_socket_v4_packet_nv_pair* alloc_nv_pair();
  COMM_V4_INTERNAL int write_argv_number(std::uint8_t type, const void* value);
  COMM_V4_INTERNAL int write_nv_pair_list(const char* name, const void* values, std::size_t count,
                                          std::uint32_t type);
  COMM_V4_INTERNAL int write_int_append_argv_table();
  COMM_V4_INTERNAL int write_int_append_nv_pair_table();
  COMM_V4_INTERNAL int write_int_append_tables();
};

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
  std::uint64_t tag;                   // the application's; a reused slot still has the old value,
  int (*recv_cb)(comm_socket_v4_client*, comm_socket_v4_packet*);  // and so with this

  comm_socket_v4_client() noexcept;  // an empty slot

  comm_socket_v4* get_server() const;
  bool client_is_open() const;  // has a descriptor and neither status flag
  int get_client_fd() const;
  unsigned long get_tag() const;
  void set_tag(unsigned long value);
  // `cb` is called with every packet that arrives from this client, before the packet is validated:
  // it may look at buffer, buffer_length and attached_fd, and must not use an accessor. A negative
  // result drops the packet. It may take a reference; it must not take or release the slot's. It
  // may accept, disconnect and release clients, this one included, and close the endpoint; it must
  // not destroy the endpoint. The packet of a client that it releases is gone with the client. An
  // exception drops the packet and passes through.
  void set_recv_cb(int (*cb)(comm_socket_v4_client*, comm_socket_v4_packet*));

 private:
  friend struct comm_v4_internals;
  std::uint64_t generation_;
};

// ------------------------------------------------------------------------------------------------
// An endpoint: a server, a client of one, or an end of a socket pair, by the call that opens it.
// It may be closed and opened again in any role.
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
  std::int32_t socket_fd;   // -1 when closed
  std::string socket_path;  // a leading "@" is an abstract name; not to be changed while open
  struct sockaddr_un sun;   // of a client: the address it connects to
  std::uint64_t connect_start;
  std::uint64_t connect_timeout;
  std::uint64_t connect_timeout_routine;
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

  int get_socket_fd() const;
  bool socket_open() const;
  std::uint64_t get_tag() const;
  void set_tag(std::uint64_t value);
  // As on a client record, for packets that arrive on the endpoint's own socket.
  void set_recv_cb(int (*cb)(comm_socket_v4*, comm_socket_v4_packet*));

  bool client_list_not_allocated() const;         // always false
  unsigned long client_maximum_index() const;     // client_max
  unsigned long client_allocation_count() const;  // slots, empty ones included
  // The record in a slot, which may be empty; null beyond the table or above client_max.
  comm_socket_v4_client* index2client(unsigned long index);
  // The slot of a record; COMM_V4_NO_INDEX for null, an empty record or one outside the table.
  static unsigned long client_ptr2index_noerr(const comm_socket_v4_client* client);

 private:
  friend struct comm_v4_internals;
  struct comm_v4_internals* const internals_;
};

constexpr unsigned long COMM_V4_NO_INDEX = ~0ul;

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
  enum : std::uint64_t { LARGE_PACKET_QUEUE_MAX = 4096 };

  std::list<comm_socket_v4_packet*> queued_packets;  // oldest first, one reference each
  std::uint64_t queued_count;

  CommLargePacketQueue();
  virtual ~CommLargePacketQueue();  // releases what is queued, sends nothing
  CommLargePacketQueue(const CommLargePacketQueue&) = delete;
  CommLargePacketQueue& operator=(const CommLargePacketQueue&) = delete;

  // Flushes, then sends `p` if nothing is queued, else queues it. 1 sent or queued; 0 refused, the
  // queue is full; -1 a send past an empty queue failed, with its errno. The caller keeps its
  // reference. std::bad_alloc when the list cannot grow: nothing is queued then.
  int send_packet(comm_socket_v4_client* c, comm_socket_v4_packet* p);
  // Sends what is queued, oldest first, until the socket takes no more or a send fails.
  void flush_queued_packet(comm_socket_v4_client* c);
  // Releases everything that is queued, unsent.
  void dump_queued_packets();
};

// ------------------------------------------------------------------------------------------------
// Functions. All have C linkage, except the one that takes C++ types.
extern "C" {

// For tests of the application: bits flipped, with rand(), at random places of every packet that is
// received, before it is validated. 0 at first; the library never writes it.
COMM_V4_EXPORT extern unsigned int comm_socket_v4_recv_corrupt_debug;

// --- Endpoint -----------------------------------------------------------------------------------

// A closed endpoint without a role; null when there is no memory for it, std::bad_alloc when there
// is none for its members.
COMM_V4_EXPORT comm_socket_v4* comm_socket_v4_create(void);
// Drops the waiting packet, closes the endpoint and frees it. Returns 0, for null too.
COMM_V4_EXPORT int comm_socket_v4_destroy(comm_socket_v4* c);
// Back to closed, whatever it was: closes its sockets, removes the file of a server, releases every
// client. The file is whatever socket lies at the path by then, so a copy of the endpoint in a
// forked child must not be closed, and a relative path needs the working directory of its opening.
// Sets flags.idle_enabled. Keeps path, log level, tag, callback, timeouts, flags.debug and a packet
// that waits in next_packet. Closing while packets of the peer are unread makes the kernel reset
// the connection: the peer gets ECONNRESET in place of what still waits for it. Returns 0 and
// leaves errno alone.
COMM_V4_EXPORT int comm_socket_v4_close(comm_socket_v4* c);
// 1 or 0; 0 for null.
COMM_V4_EXPORT int comm_socket_v4_is_open(const comm_socket_v4* c);
// 1 while a client's connect is unfinished, else 0; 0 for null.
COMM_V4_EXPORT int comm_socket_v4_connection_pending(const comm_socket_v4* c);
// Stores a copy, or empties the path when it is null. An open endpoint is closed first, which is
// reported as a bug of the caller. Returns 0. The opening calls do this themselves. Where memory
// for the copy runs out std::bad_alloc leaves the endpoint closed, with the old path.
COMM_V4_EXPORT int comm_socket_v4_set_socket_path(comm_socket_v4* c, const char* path);

// --- Logging, to standard error -----------------------------------------------------------------

// Errors, warnings and bug reports (the default); everything; nothing.
COMM_V4_EXPORT void comm_socket_v4_normal_logging(comm_socket_v4* c);
COMM_V4_EXPORT void comm_socket_v4_debug_logging(comm_socket_v4* c);
COMM_V4_EXPORT void comm_socket_v4_shut_up(comm_socket_v4* c);
// A line "comm_socket_v4 LEVEL [address]: message" if the function's bit of log_mask is set: 1 for
// errors, 2 for warnings and bug reports, 8 for debug. Otherwise the format is not looked at. A
// newline is added to every message, also to one that ends in one. They leave errno alone. A line
// goes to stderr in one call, and so to its file in one write(2) unless the application buffers the
// stream. What cannot be written is lost: neither SIGPIPE nor SIGXFSZ comes of it. A pipe that is
// full makes the call wait for its reader.
COMM_V4_EXPORT void comm_socket_v4_error(comm_socket_v4* c, const char* format, ...)
    COMM_V4_PRINTF(2, 3);
COMM_V4_EXPORT void comm_socket_v4_warning(comm_socket_v4* c, const char* format, ...)
    COMM_V4_PRINTF(2, 3);
COMM_V4_EXPORT void comm_socket_v4_bug(comm_socket_v4* c, const char* format, ...)
    COMM_V4_PRINTF(2, 3);
COMM_V4_EXPORT void comm_socket_v4_debug(comm_socket_v4* c, const char* format, ...)
    COMM_V4_PRINTF(2, 3);
// Prints the endpoint and its open clients; null `c` is said so, null `out` is standard error.
COMM_V4_EXPORT void comm_socket_v4_dump_state(const comm_socket_v4* c, std::FILE* out);

// --- Server -------------------------------------------------------------------------------------

// Listens on `path`: a file of mode 0666, or the abstract name after a leading "@", which has no
// permissions at all ("@" alone is a file, which close leaves behind). Choose a directory in which
// others cannot write. The backlog is 0: a client that meets a full queue gets EAGAIN and tries
// again, which comm_socket_v4_connect_to does by itself. The file of a dead server is replaced; a
// live server's is not (unless flags.debug is set), nor one of which that cannot be found out, nor
// anything that is not a socket. Of several servers that start at once one gets the path: they take
// turns by a lock (flock(2)) on its directory, which is waited for two seconds at most and done
// without where it cannot be had. The mode is given to the file that was bound, by way of
// /proc/self/fd or, from Linux 6.6 on, without; where neither works the umask has its say.
// -1 with the endpoint closed and the path kept: EINVAL without a path, ENAMETOOLONG above 106
// characters, ENOMEM, EADDRINUSE when the path is held, EMFILE and its like also when there is no
// descriptor to ask with whether it is, or what the failing system call left.
COMM_V4_EXPORT int comm_socket_v4_create_server(comm_socket_v4* c, const char* path);
// Binds an open server to its path again. -1 when c is null or not an open server; errno is then 0.
// Else 0, with the errno of the bind: 0 after success, EINVAL while it is still bound, for which
// newer kernels say EADDRINUSE when the file is there, or why it failed otherwise. Linux binds a
// socket once: a file that was removed does not come back.
COMM_V4_EXPORT int comm_socket_v4_reopen_server(comm_socket_v4* c);
// Takes one waiting connection into an empty slot. Null with EAGAIN when none waits, with ENOMEM
// when the table cannot grow (the connection keeps waiting), and when the credentials of the peer
// cannot be read (it is closed then, the server is not). Any other failure of the accept, EMFILE
// included, CLOSES THE SERVER: keep descriptors in reserve. Null on a closed endpoint or one that
// is no server. May move all records.
COMM_V4_EXPORT comm_socket_v4_client* comm_socket_v4_accept_connection(comm_socket_v4* c);

// Table of slots. Both are called by the library itself. alloc: 16 slots; aborts over a table that
// exists. expand: up to `add` more, 1,048,576 in all; may move all records. -1 with ENOMEM, the
// table unchanged, when memory runs out or the table is full.
COMM_V4_EXPORT int comm_socket_v4_alloc_client_list(comm_socket_v4* c);
COMM_V4_EXPORT int comm_socket_v4_expand_client_list(comm_socket_v4* c, unsigned long add);
// As the members; null gives null or COMM_V4_NO_INDEX. The first two of three do the same.
COMM_V4_EXPORT unsigned long comm_socket_v4_client_ptr2index(comm_socket_v4_client* client);
COMM_V4_EXPORT unsigned long comm_socket_v4_client_ptr2index_noerr(
    const comm_socket_v4_client* client);
COMM_V4_EXPORT comm_socket_v4_client* comm_socket_v4_index2client(comm_socket_v4* c,
                                                                  unsigned long index);
COMM_V4_EXPORT int comm_socket_v4_client_is_open(const comm_socket_v4_client* c);
// Asserts that the slot is still empty; the accept gives a slot back with it.
COMM_V4_EXPORT void comm_socket_v4_new_client_cancel(comm_socket_v4_client* c);

// --- End of a client ----------------------------------------------------------------------------

// A connection that ended, failed or was disconnected stays in its slot, its descriptor open, until
// the application takes it here, once, in order, and releases it with comm_socket_v4_free_client.
// Null when the list is empty, and once for an entry that a release cancelled: the entries behind
// it come with the next call. Null endpoints, closed ones and others than servers get a line and
// null.
COMM_V4_EXPORT comm_socket_v4_client* comm_socket_v4_get_disconnected_client(comm_socket_v4* c);
// Puts an open client on that list; its descriptor stays open. 0, also when it was put there or
// taken from it before; -1 for a client that is not open otherwise, or with ENOMEM: it stays open
// then.
COMM_V4_EXPORT int comm_socket_v4_disconnect_client(comm_socket_v4_client* c);
// Closes the connection, releases the record's packets and empties the slot; keeps tag and recv_cb.
// A client that is still on the list is taken off it, which is reported as a bug of the caller. An
// empty slot stays as it is; null aborts. Leaves errno alone.
COMM_V4_EXPORT void comm_socket_v4_free_client(comm_socket_v4_client* c);
// Its first step: takes the client off the list and reports it. Null does nothing.
COMM_V4_EXPORT void comm_socket_v4_free_client_check(comm_socket_v4_client* c);
// Release all clients. drop keeps the table; free, which is part of close, gives it back: an open
// server can accept nobody after it.
COMM_V4_EXPORT void comm_socket_v4_drop_clients(comm_socket_v4* c);
COMM_V4_EXPORT void comm_socket_v4_free_clients(comm_socket_v4* c);
// Forgets what is on the list. The clients stay in their slots and are never reported.
COMM_V4_EXPORT void comm_socket_v4_client_disconnect_list_clear(comm_socket_v4* c);

// --- Client -------------------------------------------------------------------------------------

// Connects to the server at `path`; a path above 106 characters may be a symbolic link to a socket
// with a shorter one (a relative target starts at the working directory). While the server's queue
// is full it tries again every 10 ms, within the two timeouts below, without them for ever. `path`
// may be the text of c->socket_path; null or empty is a bug of the caller: -1, errno untouched.
// 0 when connected, but also when the routine timeout came first, and when a retry found that the
// server had gone: a caller that needs to know asks comm_socket_v4_is_open and
// comm_socket_v4_connection_pending (an endpoint that is open and not pending is connected, unless
// the kernel reported an error of the pending connect, which is logged). -1 with the endpoint
// closed: ETIMEDOUT, ENAMETOOLONG, ENOENT, ECONNREFUSED, or what the failing system call left. That
// no server is there is logged at debug level only.
COMM_V4_EXPORT int comm_socket_v4_connect_to(comm_socket_v4* c, const char* path);
// From the start of connect_to, in microseconds, 0 for none. The first makes it fail; the second
// makes it return 0 with the connection pending. Of equal ones the first wins. An expired one is
// noticed at the next try, up to 10 ms later. Close keeps both.
COMM_V4_EXPORT void comm_socket_v4_set_connect_timeout(comm_socket_v4* c, std::uint64_t usec);
COMM_V4_EXPORT void comm_socket_v4_set_connect_timeout_routine(comm_socket_v4* c,
                                                               std::uint64_t usec);
// Complete a pending connect: try once, without waiting (idle does this too); or wait until the
// deadline, up to 10 ms beyond it while the server's queue is full. 1 connected or nothing pending,
// 0 not yet, -1 failed. A connect that met a full queue needs tries: waiting only looks.
// check_pending closes the endpoint when it fails, also a server or an end of a pair, for which it
// is not meant (EINVAL, as for a closed endpoint); errno is 0 after a connect that completed.
// wait_for_completion leaves errno 0 with 1 and 0 (EINTR when a signal came), closes the endpoint
// when a system call fails, and leaves it open when the kernel reports that the connect failed;
// ETIMEDOUT on a closed endpoint.
COMM_V4_EXPORT int comm_socket_v4_connect_check_pending(comm_socket_v4* c);
COMM_V4_EXPORT int comm_socket_v4_connect_wait_for_completion(comm_socket_v4* c,
                                                              std::uint64_t deadline_us);

// --- Socket pair --------------------------------------------------------------------------------

// A pair of connected, non-blocking, close-on-exec SOCK_SEQPACKET sockets, as socketpair(2)
// answers.
COMM_V4_EXPORT int comm_socket_v4_make_socketpair(int* sv);
// Opens a closed endpoint on one end of a new pair, keeps the other, and empties the path. -1 on an
// endpoint that is open or a server, which stays as it is; or with the errno of socketpair.
COMM_V4_EXPORT int comm_socket_v4_connect_new_socketpair(comm_socket_v4* c);
// Hands the other end over, to be closed by the caller; it survives exec, so that a child can be
// told its number. -1 when the endpoint holds none.
COMM_V4_EXPORT int comm_socket_v4_socketpair_get_remote_end(comm_socket_v4* c);
// Closes it, if it was not taken.
COMM_V4_EXPORT void comm_socket_v4_socketpair_close_remote_end(comm_socket_v4* c);
// Opens a closed endpoint on `fd`, which it owns from then on, and empties the path. -1, and fd is
// still the caller's, when fd is no socket or the endpoint is open or a server, which stays as it
// is. Blocking mode, close-on-exec and type of the socket are left as they are. Leave SO_PASSPIDFD
// off: its descriptors would pile up.
COMM_V4_EXPORT int comm_socket_v4_connect_use_socketpair(comm_socket_v4* c, int fd);

// --- The application's loop ---------------------------------------------------------------------

// Idle: work that does not block. Reads at most one packet per connection into its slot, unless one
// waits there; completes a pending connect; never accepts; runs receive callbacks. A record of zero
// bytes reads as the end of the connection. A server visits half of its slots per call, and its
// clients never make it fail. -1 on a closed endpoint, null too (ENOTCONN); when the connection of
// a client ends (ENOTCONN), fails or could not be made: the endpoint is closed then; with ENOMEM or
// the error of ioctl(2): nothing was read, and it stays open.
COMM_V4_EXPORT int comm_socket_v4_idle(comm_socket_v4* s);
// The client's half of it, and one record's. 0 also while a packet waits, while a connect is
// pending or halt is set, and when a connection ended but memory to list it ran out: the next read
// tries again. -1 as idle, with EBADF on a closed endpoint, ENOTCONN or EINVAL on a record that
// ended or failed before. An empty record aborts, in client_get_packet too.
COMM_V4_EXPORT int comm_socket_v4_idle_clientside(comm_socket_v4* s);
COMM_V4_EXPORT int comm_socket_v4_client_idle(comm_socket_v4_client* c);

// Retrieval: the packet that waits, or one that can be read now; null when there is none, which
// does not say whether the connection still stands. The caller releases it. server_get_packet looks
// at all clients in turn, starting behind the one that delivered last, and stores the sender in
// *from, good until the table grows (null without a packet); `from` may be null. A client with halt
// set is left alone; with pending_response_packet set its next packet is read, but not handed out.
// A null endpoint gives null from get_packet_from_server. Null also when a packet was read and
// dropped with others behind it: watch level-triggered, and after an idle or a wait call until null
// before sleeping elsewhere. errno is what the idle beneath left, which tells how a connection of a
// client ended; where there was just nothing to read it says nothing.
COMM_V4_EXPORT comm_socket_v4_packet* comm_socket_v4_server_get_packet(
    comm_socket_v4* s, comm_socket_v4_client** from);
COMM_V4_EXPORT comm_socket_v4_packet* comm_socket_v4_client_get_packet(comm_socket_v4_client* c);
COMM_V4_EXPORT comm_socket_v4_packet* comm_socket_v4_client_get_packet_from_server(
    comm_socket_v4* s);

// Waits: idle, then block until something is ready or the deadline passes. 1 ready, 0 not ready (or
// a signal came), -1 on an endpoint that is null, closed or of the wrong kind, when idle fails, or
// when select(2) fails, which is logged and leaves its errno. Descriptors may have any number, 1024
// and above too. A wait on a server idles half of its slots, as idle does, and may so notice the
// end of a client, which no select reports again: look at the disconnect list before a wait without
// a deadline. On a connection on which nothing has come a wait does not read, and so does not meet
// what makes a read fail, such as a lack of memory. A client whose halt or pending_response_packet
// is set makes the server's wait answer 1 as long as it has something. While a connect is pending
// the waits of a client answer 1: use comm_socket_v4_connect_wait_for_completion.
//
// A server: a connection to be accepted, a client that can be read, or a packet that waits (which
// is seen only when the deadline has not passed).
COMM_V4_EXPORT int comm_socket_v4_server_from_client_readable(comm_socket_v4* s,
                                                              unsigned long deadline_us);
// A client or an end of a pair: its socket can be read, or a packet waits.
COMM_V4_EXPORT int comm_socket_v4_client_from_server_readable(comm_socket_v4* s,
                                                              unsigned long deadline_us);
COMM_V4_EXPORT int comm_socket_v4_wait_for_client_to_server_writeable(comm_socket_v4* s,
                                                                      unsigned long deadline_us);
COMM_V4_EXPORT int comm_socket_v4_wait_for_server_to_client_writeable(comm_socket_v4_client* c,
                                                                      unsigned long deadline_us);

// --- Sending ------------------------------------------------------------------------------------

// Sends the packet as one record with its descriptors, without blocking; a packet that was not
// ended is ended first, with a warning. The caller keeps its reference. The number of bytes when it
// went out: the attached descriptors are then closed, and sending the packet again fails with EBADF
// if it had any. 0 when the socket takes no more (EAGAIN) or a signal came (EINTR): nothing was
// sent, and the same packet can be sent later. -1: EINVAL for null or a packet without bytes,
// ENOTCONN when closed, ECONNRESET for a client that disconnected, or the errno of sendmsg(2), such
// as EPIPE when the peer has gone and EMSGSIZE above the socket's buffer, neither logged nor
// closing anything; a packet never written, and a short count, which is warned of, leave errno
// alone. With more than 60 descriptors attached the packet goes without them, with a warning, and
// they are closed.
COMM_V4_EXPORT int comm_socket_v4_packet_send_to_client(comm_socket_v4_client* c,
                                                        comm_socket_v4_packet* p);
COMM_V4_EXPORT int comm_socket_v4_packet_send_to_server(comm_socket_v4* s,
                                                        comm_socket_v4_packet* p);

// --- Receiving, called by idle and retrieval ----------------------------------------------------

// Reads one record from the endpoint's socket into its empty slot. A record of zero bytes reads as
// the end of the connection. A packet that is too long, refused by the callback or not valid is
// dropped with its descriptors, the connection goes on, and the result is 0, as when nothing waits.
// -1 when the connection ends (ENOTCONN) or fails: the endpoint is closed then. -1 with ENOMEM or
// the error of ioctl(2), EBADF on a closed endpoint included: nothing was read, nothing is lost. 0
// without reading while a packet waits.
COMM_V4_EXPORT int comm_socket_v4_idle_clientside_read(comm_socket_v4* s);
// Accepts the received bytes of `p` and copies the header's values into the packet, or answers -1:
// without a line for null, no buffer, fewer than 64 bytes or no NUL behind them, otherwise with the
// line of the validation. Flips bits first when comm_socket_v4_recv_corrupt_debug is set. Leaves
// errno and the references alone.
COMM_V4_EXPORT int comm_socket_v4_client_on_recv_packet(comm_socket_v4* s,
                                                        comm_socket_v4_packet* p);
// 0 when every offset, count and length in `p` stays inside it, so that accessors need no checks of
// their own; else -1 and one debug line that names the first broken rule. `header` is the start of
// p->buffer; p has at least 64 bytes and a NUL behind them. Not checked: header_length, flags, ids,
// types of pairs, overlaps, where a text ends, whether the length of a list is a multiple of 8.
// Only reads; leaves errno alone.
COMM_V4_EXPORT int comm_socket_v4_validate_packet_contents(
    comm_socket_v4* c, const comm_socket_v4_packet* p, const comm_socket_v4_packet_header* header);

// --- Packet: the members as functions. Null is taken only where it is mentioned. ----------------

// A packet with one reference; null when there is no memory for it.
COMM_V4_EXPORT comm_socket_v4_packet* comm_socket_v4_packet_create(void);
// Null is ignored.
COMM_V4_EXPORT void comm_socket_v4_packet_addref(comm_socket_v4_packet* p);
// Null when the packet was destroyed (and for null), else `p`: assign it to your pointer.
COMM_V4_EXPORT comm_socket_v4_packet* comm_socket_v4_packet_release(comm_socket_v4_packet* p);
// -1 for null.
COMM_V4_EXPORT int comm_socket_v4_packet_resize_buffer(comm_socket_v4_packet* p, std::size_t size);
COMM_V4_EXPORT int comm_socket_v4_packet_enlarge_buffer(comm_socket_v4_packet* p, std::size_t size);
COMM_V4_EXPORT int comm_socket_v4_packet_shrinkfit_buffer(comm_socket_v4_packet* p);

COMM_V4_EXPORT void comm_socket_v4_packet_make_request(comm_socket_v4_packet* p);
COMM_V4_EXPORT void comm_socket_v4_packet_make_response(comm_socket_v4_packet* p);
// Set when v is above 0, cleared otherwise.
COMM_V4_EXPORT void comm_socket_v4_packet_set_request(comm_socket_v4_packet* p, int v);
COMM_V4_EXPORT void comm_socket_v4_packet_set_async(comm_socket_v4_packet* p, int v);

// As write_begin, in another order.
COMM_V4_EXPORT int comm_socket_v4_packet_begin_writing(comm_socket_v4_packet* p,
                                                       std::size_t size_hint, const char* command,
                                                       const char* error_string);
COMM_V4_EXPORT int comm_socket_v4_packet_write_argv(comm_socket_v4_packet* p, const char* text);
COMM_V4_EXPORT int comm_socket_v4_packet_write_argvf(comm_socket_v4_packet* p, const char* format,
                                                     ...) COMM_V4_PRINTF(2, 3);
COMM_V4_EXPORT int comm_socket_v4_packet_write_argv_uint64(comm_socket_v4_packet* p,
                                                           std::uint64_t value);
COMM_V4_EXPORT int comm_socket_v4_packet_write_argv_int64(comm_socket_v4_packet* p,
                                                          std::int64_t value);
COMM_V4_EXPORT int comm_socket_v4_packet_write_argv_double(comm_socket_v4_packet* p, double value);
COMM_V4_EXPORT int comm_socket_v4_packet_write_argv_end(comm_socket_v4_packet* p);
COMM_V4_EXPORT int comm_socket_v4_packet_write_nv_pair_raw(comm_socket_v4_packet* p,
                                                           const char* name,
                                                           const unsigned char* value,
                                                           std::size_t length, std::uint32_t type);
COMM_V4_EXPORT int comm_socket_v4_packet_write_nv_pair_fourcc(comm_socket_v4_packet* p,
                                                              std::uint32_t fourcc,
                                                              const char* name,
                                                              const unsigned char* value,
                                                              std::size_t length);
COMM_V4_EXPORT int comm_socket_v4_packet_write_nv_pair_binary(comm_socket_v4_packet* p,
                                                              const char* name,
                                                              const unsigned char* value,
                                                              std::size_t length);
COMM_V4_EXPORT int comm_socket_v4_packet_write_nv_pair_uint64(comm_socket_v4_packet* p,
                                                              const char* name,
                                                              const std::uint64_t* values,
                                                              std::size_t count);
COMM_V4_EXPORT int comm_socket_v4_packet_write_nv_pair_int64(comm_socket_v4_packet* p,
                                                             const char* name,
                                                             const std::int64_t* values,
                                                             std::size_t count);
COMM_V4_EXPORT int comm_socket_v4_packet_write_nv_pair_double(comm_socket_v4_packet* p,
                                                              const char* name,
                                                              const double* values,
                                                              std::size_t count);
COMM_V4_EXPORT int comm_socket_v4_packet_write_nv_pair_json(comm_socket_v4_packet* p,
                                                            const char* name, const char* json,
                                                            std::size_t length);
COMM_V4_EXPORT int comm_socket_v4_packet_write_nv_pair(comm_socket_v4_packet* p, const char* name,
                                                       const char* text);
COMM_V4_EXPORT int comm_socket_v4_packet_write_nv_pairf(comm_socket_v4_packet* p, const char* name,
                                                        const char* format, ...)
    COMM_V4_PRINTF(3, 4);
COMM_V4_EXPORT int comm_socket_v4_packet_write_data_binary(comm_socket_v4_packet* p,
                                                           const unsigned char* data,
                                                           std::size_t length);
COMM_V4_EXPORT int comm_socket_v4_packet_write_end(comm_socket_v4_packet* p);

COMM_V4_EXPORT std::size_t comm_socket_v4_packet_get_argc(const comm_socket_v4_packet* p);
COMM_V4_EXPORT std::size_t comm_socket_v4_packet_nv_entries(const comm_socket_v4_packet* p);
COMM_V4_EXPORT const char* comm_socket_v4_packet_get_command(const comm_socket_v4_packet* p);
COMM_V4_EXPORT const char* comm_socket_v4_packet_get_error_string(const comm_socket_v4_packet* p);
// The data, and its length in *length; `length` may be null.
COMM_V4_EXPORT const unsigned char* comm_socket_v4_packet_get_data(const comm_socket_v4_packet* p,
                                                                   std::size_t* length);
// The text of an argument, and its entry.
COMM_V4_EXPORT const char* comm_socket_v4_packet_get_argv(const comm_socket_v4_packet* p,
                                                          std::size_t index);
COMM_V4_EXPORT const comm_socket_v4_packet_argv* comm_socket_v4_packet_get_argv_entry(
    const comm_socket_v4_packet* p, std::size_t index);
COMM_V4_EXPORT const comm_socket_v4_packet_nv_pair* comm_socket_v4_packet_get_nv_entry(
    const comm_socket_v4_packet* p, std::size_t index);
COMM_V4_EXPORT const char* comm_socket_v4_packet_get_nv_pair_name(
    const comm_socket_v4_packet* p, const comm_socket_v4_packet_nv_pair* entry);
COMM_V4_EXPORT const unsigned char* comm_socket_v4_packet_get_nv_pair_value_raw(
    const comm_socket_v4_packet* p, const comm_socket_v4_packet_nv_pair* entry);
COMM_V4_EXPORT const char* comm_socket_v4_packet_get_nv_pair_value_text(
    const comm_socket_v4_packet* p, const comm_socket_v4_packet_nv_pair* entry);
COMM_V4_EXPORT const unsigned char* comm_socket_v4_packet_get_nv_pair_value_binary(
    const comm_socket_v4_packet* p, const comm_socket_v4_packet_nv_pair* entry);
COMM_V4_EXPORT const comm_v4_unaligned_uint64_t* comm_socket_v4_packet_get_nv_pair_value_uint64(
    const comm_socket_v4_packet* p, const comm_socket_v4_packet_nv_pair* entry);
COMM_V4_EXPORT const comm_v4_unaligned_int64_t* comm_socket_v4_packet_get_nv_pair_value_int64(
    const comm_socket_v4_packet* p, const comm_socket_v4_packet_nv_pair* entry);
COMM_V4_EXPORT const comm_v4_unaligned_double_t* comm_socket_v4_packet_get_nv_pair_value_double(
    const comm_socket_v4_packet* p, const comm_socket_v4_packet_nv_pair* entry);

// A null packet: dump says so, dump_user_friendly and dump_body print nothing; the header listing
// takes none.
COMM_V4_EXPORT void comm_socket_v4_packet_dump(const comm_socket_v4_packet* p, std::FILE* out);
COMM_V4_EXPORT void comm_socket_v4_packet_dump_user_friendly(const comm_socket_v4_packet* p,
                                                             std::FILE* out);
COMM_V4_EXPORT void comm_socket_v4_packet_dump_header_user_friendly(const comm_socket_v4_packet* p,
                                                                    std::FILE* out);
COMM_V4_EXPORT void comm_socket_v4_packet_dump_body(const comm_socket_v4_packet* p, std::FILE* out);

}  // extern "C"

// The socket address of a path and the length to pass with it: 2 plus the text's length for an
// abstract name ("@" and at least one character), 0 for an empty text, otherwise the size of the
// structure. At most 108 characters: more is a broken invariant and aborts.
COMM_V4_EXPORT void comm_socket_path_to_sockaddr_un(struct sockaddr_un& sun, std::size_t& len,
                                                    const std::string& path);

// ------------------------------------------------------------------------------------------------
// The readers, inline: they cost as much as reading a struct. Validation has checked what they
// follow, so they check nothing again. Nothing below says more than the declarations above.

// Null without a whole header.
inline const comm_socket_v4_packet_header* comm_socket_v4_packet::header_or_null() const {
  return buffer != nullptr && buffer_length >= COMM_V4_HEADER_LENGTH
             ? reinterpret_cast<const comm_socket_v4_packet_header*>(buffer)
             : nullptr;
}

inline const char* comm_socket_v4_packet::text_at(comm_v4_offset_t offset) const {
  return offset != 0 ? reinterpret_cast<const char*>(buffer + offset) : "";
}

inline const char* comm_socket_v4_packet::command() const {
  return text_at(header_or_null() != nullptr ? header_or_null()->command_offset : 0);
}

inline const char* comm_socket_v4_packet::error_string() const {
  return text_at(header_or_null() != nullptr ? header_or_null()->error_string_offset : 0);
}

inline const unsigned char* comm_socket_v4_packet::data() const {
  return header_or_null() != nullptr && header_or_null()->data_offset != 0
             ? buffer + header_or_null()->data_offset
             : nullptr;
}

inline std::size_t comm_socket_v4_packet::data_length() const {
  return data() != nullptr ? header_or_null()->data_length : 0;
}

inline std::size_t comm_socket_v4_packet::argc() const {
  return header_or_null() != nullptr ? header_or_null()->argv_count : 0;
}

inline std::size_t comm_socket_v4_packet::nv_entries() const {
  return header_or_null() != nullptr ? header_or_null()->nv_pair_table_count : 0;
}

inline const comm_socket_v4_packet_argv* comm_socket_v4_packet::argv(std::size_t index) const {
  if (index >= argc()) return nullptr;
  return reinterpret_cast<const comm_socket_v4_packet_argv*>(buffer +
                                                             header_or_null()->argv_offset) +
         index;
}

// The bytes of an argument's value; null when it is missing or of another type.
inline const unsigned char* comm_socket_v4_packet::argv_value(
    const comm_socket_v4_packet_argv* entry, std::uint32_t type) const {
  return entry != nullptr && entry->type() == type && entry->is_present() ? buffer + entry->offset()
                                                                          : nullptr;
}

template <class Number>
Number comm_socket_v4_packet::argv_number(const comm_socket_v4_packet_argv* entry,
                                          std::uint32_t type) const {
  Number number = 0;
  if (const unsigned char* value = argv_value(entry, type))
    std::memcpy(&number, value, sizeof(number));
  return number;
}

inline const char* comm_socket_v4_packet::argv_text(const comm_socket_v4_packet_argv* entry) const {
  const unsigned char* const value = argv_value(entry, comm_v4_type_text);
  return value != nullptr ? reinterpret_cast<const char*>(value) : "";
}

inline std::uint64_t comm_socket_v4_packet::argv_uint64(
    const comm_socket_v4_packet_argv* entry) const {
  return argv_number<std::uint64_t>(entry, comm_v4_type_uint64);
}

inline std::int64_t comm_socket_v4_packet::argv_int64(
    const comm_socket_v4_packet_argv* entry) const {
  return argv_number<std::int64_t>(entry, comm_v4_type_int64);
}

inline double comm_socket_v4_packet::argv_double(const comm_socket_v4_packet_argv* entry) const {
  return argv_number<double>(entry, comm_v4_type_double);
}

inline const char* comm_socket_v4_packet::argv_text(std::size_t index) const {
  return argv_text(argv(index));
}
inline std::uint64_t comm_socket_v4_packet::argv_uint64(std::size_t index) const {
  return argv_uint64(argv(index));
}
inline std::int64_t comm_socket_v4_packet::argv_int64(std::size_t index) const {
  return argv_int64(argv(index));
}
inline double comm_socket_v4_packet::argv_double(std::size_t index) const {
  return argv_double(argv(index));
}

inline const comm_socket_v4_packet_nv_pair* comm_socket_v4_packet::nv_entry(
    std::size_t index) const {
  if (index >= nv_entries()) return nullptr;
  return reinterpret_cast<const comm_socket_v4_packet_nv_pair*>(
             buffer + header_or_null()->nv_pair_table_offset) +
         index;
}

inline const char* comm_socket_v4_packet::nv_pair_name(
    const comm_socket_v4_packet_nv_pair* entry) const {
  return text_at(entry->name_offset);
}

inline const unsigned char* comm_socket_v4_packet::nv_pair_value_raw(
    const comm_socket_v4_packet_nv_pair* entry) const {
  return entry->value_offset != 0 ? buffer + entry->value_offset : nullptr;
}

inline const unsigned char* comm_socket_v4_packet::nv_pair_value_binary(
    const comm_socket_v4_packet_nv_pair* entry) const {
  return nv_pair_value_raw(entry);
}

inline const char* comm_socket_v4_packet::nv_pair_value_text(
    const comm_socket_v4_packet_nv_pair* entry) const {
  return entry->type() == comm_v4_type_text || entry->type() == comm_v4_type_json
             ? text_at(entry->value_offset)
             : "";
}

inline const comm_v4_unaligned_uint64_t* comm_socket_v4_packet::nv_pair_value_uint64(
    const comm_socket_v4_packet_nv_pair* entry) const {
  return entry->type() == comm_v4_type_uint64
             ? reinterpret_cast<const comm_v4_unaligned_uint64_t*>(nv_pair_value_raw(entry))
             : nullptr;
}

inline const comm_v4_unaligned_int64_t* comm_socket_v4_packet::nv_pair_value_int64(
    const comm_socket_v4_packet_nv_pair* entry) const {
  return entry->type() == comm_v4_type_int64
             ? reinterpret_cast<const comm_v4_unaligned_int64_t*>(nv_pair_value_raw(entry))
             : nullptr;
}

inline const comm_v4_unaligned_double_t* comm_socket_v4_packet::nv_pair_value_double(
    const comm_socket_v4_packet_nv_pair* entry) const {
  return entry->type() == comm_v4_type_double
             ? reinterpret_cast<const comm_v4_unaligned_double_t*>(nv_pair_value_raw(entry))
             : nullptr;
}

#endif
