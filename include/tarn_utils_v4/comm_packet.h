// A packet: the bytes that cross a connection, the object that holds them, and everything that
// writes, reads and prints them. Nothing here knows of endpoints; comm.h, which has the conventions
// on its first page, adds them.
//
// All these headers but comm_cpp.h are C99, too. C programs see the classes by name only, and have
// a function for everything that a member does.
#ifndef TARN_UTILS_V4_COMM_PACKET_H
#define TARN_UTILS_V4_COMM_PACKET_H

#include <limits.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <type_traits>
#include <utility>
#include <vector>

#define COMM_V4_CLASS(name) class name
#define COMM_V4_ENUM_BASE : std::uint32_t
#define COMM_V4_DEFAULT(value) = value
#else
#define COMM_V4_CLASS(name) typedef struct name name
#define COMM_V4_ENUM_BASE
#define COMM_V4_DEFAULT(value)
#endif

#define COMM_V4_EXPORT __attribute__((visibility("default")))
#define COMM_V4_INTERNAL __attribute__((visibility("hidden")))
// The arguments are checked like printf's; `first` is 0 for a va_list. A member counts `this` as 1.
#define COMM_V4_PRINTF(format_at, first) __attribute__((format(printf, format_at, first)))

#if ULONG_MAX != 0xFFFFFFFFFFFFFFFF
#error deadlines and indices are unsigned longs of 64 bits
#endif

COMM_V4_CLASS(comm_socket_v4_packet);

// ------------------------------------------------------------------------------------------------
// Limits of a packet. Texts are counted in bytes, without the NUL behind them.

#define COMM_V4_MAX_ARGUMENTS 255ul
#define COMM_V4_MAX_PAIRS 4095ul              // with more of them it goes out without any
#define COMM_V4_MAX_COMMAND 255ul             // a longer one is cut
#define COMM_V4_MAX_ERROR_STRING 4095ul       // a longer one is cut
#define COMM_V4_MAX_NAME 4095ul               // of a pair; a longer one is cut
#define COMM_V4_MAX_TEXT 65535ul              // of an argument or a pair; a longer one is cut
#define COMM_V4_MAX_FORMATTED_ARGUMENT 256ul  // a longer one is refused
#define COMM_V4_MAX_DATA_PER_WRITE 262144ul   // any number of writes may follow
#define COMM_V4_MAX_ATTACHED_FDS 8ul          // by attach_fd_to_send
#define COMM_V4_MAX_SEND_FDS 60ul             // in a received packet that is sent on
// What is received; longer packets can be sent, and the receiver drops them.
#define COMM_V4_MIN_RECEIVED_PACKET 64ul
#define COMM_V4_MAX_RECEIVED_PACKET 65551ul
// What 32 bits of offset and length hold, and the last byte where an argument's value may start.
#define COMM_V4_MAX_PACKET 0xFFFFFFFFul
#define COMM_V4_MAX_ARGUMENT_OFFSET 0xFFFFFFul

// ------------------------------------------------------------------------------------------------
// Bytes of a packet. They travel as they are: little-endian, without alignment or padding, every
// part found by an offset from the first byte of the packet. Codes and offsets are never
// renumbered.

// Bytes from the start of the packet; 0 means absent.
typedef uint32_t comm_v4_offset_t;

#define COMM_V4_SIGHDR 0xABCD0201u
#define COMM_V4_HEADER_LENGTH 63u

// Types of arguments and of name/value pairs. Arguments are text, uint64, double or int64. Any
// other number in a pair is the caller's own: four characters, the lowest byte first.
enum COMM_V4_ENUM_BASE {
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
typedef uint64_t comm_v4_unaligned_uint64_t __attribute__((aligned(1), may_alias));
typedef int64_t comm_v4_unaligned_int64_t __attribute__((aligned(1), may_alias));
typedef double comm_v4_unaligned_double_t __attribute__((aligned(1), may_alias));

// The first 63 bytes of every packet.
typedef struct __attribute__((packed)) comm_socket_v4_packet_header {
  uint32_t sighdr;
  uint32_t header_length;
  uint64_t stream_id;
  uint64_t message_id;
  uint64_t error_code;
  uint32_t flags;
  comm_v4_offset_t error_string_offset;
  comm_v4_offset_t command_offset;
  uint8_t argv_count;
  comm_v4_offset_t argv_offset;
  uint16_t nv_pair_table_count;
  comm_v4_offset_t nv_pair_table_offset;
  comm_v4_offset_t data_offset;
  uint32_t data_length;
} comm_socket_v4_packet_header;

// One argument: where its value starts (24 bits, lowest byte first) and its type.
typedef struct __attribute__((packed)) comm_socket_v4_packet_argv {
  uint8_t value_offset[3];
  uint8_t type_code;

#ifdef __cplusplus
  uint8_t type() const { return type_code; }
  comm_v4_offset_t offset() const {
    return static_cast<comm_v4_offset_t>(value_offset[0] | value_offset[1] << 8 |
                                         value_offset[2] << 16);
  }
  bool is_present() const { return offset() != 0; }
#endif
} comm_socket_v4_packet_argv;

// One name/value pair. length() is in bytes and leaves out the NUL after a text.
typedef struct __attribute__((packed)) comm_socket_v4_packet_nv_pair {
  comm_v4_offset_t name_offset;
  comm_v4_offset_t value_offset;
  uint32_t value_length;
  uint32_t type_code;

#ifdef __cplusplus
  uint32_t type() const { return type_code; }
  uint32_t length() const { return value_length; }
#endif
} comm_socket_v4_packet_nv_pair;

// Bits of `flags` in the header and the packet. The multipart value sits in bits 2 and 3. Bits 4 to
// 31 are carried unchanged and have no meaning to the library.
enum COMM_V4_ENUM_BASE {
  comm_v4_flag_request = 1u << 0,
  comm_v4_flag_async = 1u << 1,
  comm_v4_multipart_shift = 2,
  comm_v4_multipart_mask = 3u << 2
};
enum COMM_V4_ENUM_BASE {
  comm_v4_multipart_none = 0,
  comm_v4_multipart_first = 1,
  comm_v4_multipart_middle = 2,
  comm_v4_multipart_last = 3
};

// How far the writing of a packet is, in the order in which it passes them.
enum {
  comm_v4_write_state_none = 0,     // nothing written yet
  comm_v4_write_state_header = 1,   // begun: arguments and pairs may be added
  comm_v4_write_state_data = 2,     // tables written: only data may be added
  comm_v4_write_state_end = 3,      // complete
  comm_v4_write_state_received = 4  // came from a peer and passed validation
};

#ifdef __cplusplus
// Not defined anywhere: says at compile time whether an argument is a va_list.
void comm_v4_takes_va_list(va_list);
void comm_v4_takes_va_list(std::nullptr_t) = delete;

// ------------------------------------------------------------------------------------------------
// A packet: reference-counted, written once from begin to end or received, then read and sent as
// often as wished. Packets whose references are counted come from comm_socket_v4_packet_create.
class COMM_V4_EXPORT comm_socket_v4_packet {
 public:
  // The constants comm_v4_... under the names of the class. Set a multipart value as
  // `flags = (flags & ~multipart_mask) | (multipart_first << multipart_shift)`.
  enum : std::uint32_t {
    flag_request = comm_v4_flag_request,
    flag_async = comm_v4_flag_async,
    multipart_shift = comm_v4_multipart_shift,
    multipart_mask = comm_v4_multipart_mask
  };
  enum : std::uint32_t {
    multipart_none = comm_v4_multipart_none,
    multipart_first = comm_v4_multipart_first,
    multipart_middle = comm_v4_multipart_middle,
    multipart_last = comm_v4_multipart_last
  };
  enum : int {
    write_state_none = comm_v4_write_state_none,
    write_state_header = comm_v4_write_state_header,
    write_state_data = comm_v4_write_state_data,
    write_state_end = comm_v4_write_state_end,
    write_state_received = comm_v4_write_state_received
  };

  unsigned char* buffer;      // malloc'ed, owned; null until the first resize_buffer
  std::size_t buffer_alloc;   // bytes allocated
  std::size_t buffer_write;   // where the writer goes on
  std::size_t buffer_length;  // bytes of the packet; a NUL follows a complete one, and is not sent
  std::uint32_t flags;        // copied into the packet by write_begin, out of it by a receive
  std::uint64_t message_id;   // likewise
  std::uint64_t error_code;   // likewise
  std::atomic<std::int32_t> refcount;                     // see addref
  int write_state;                                        // write_state_none and so on
  std::vector<comm_socket_v4_packet_argv> wr_argv;        // entries waiting for their table
  std::vector<comm_socket_v4_packet_nv_pair> wr_nv_pair;  // likewise
  std::vector<int> attached_fd;  // owned; sent with the packet or received with it, -1 is empty
  std::uint64_t stream_id;       // as flags
  int (*complete_cb)(comm_socket_v4_packet*);  // see set_complete_cb
  std::uint64_t tag;                           // the caller's, never sent
  std::size_t data_reserved;                   // bytes of the room of reserve_data

  comm_socket_v4_packet() noexcept;
  // Closes what is still attached and frees the buffer.
  ~comm_socket_v4_packet();
  comm_socket_v4_packet(const comm_socket_v4_packet&) = delete;
  comm_socket_v4_packet& operator=(const comm_socket_v4_packet&) = delete;

  // Lifetime. The release that reaches 0 destroys and frees the packet; a release of a packet whose
  // count is already 0 does the same and prints a line to standard error.
  // Returns the new count; 0 when the packet was destroyed.
  int addref();
  int release();

  // Buffer. resize_buffer gives the packet at least `size` bytes, never fewer than 32, and never
  // shrinks it; contents stay. enlarge_buffer does so only for a packet that has a buffer.
  // shrinkfit_buffer makes a buffer of which less than half is used buffer_length + 32 bytes long.
  // Returns 0, also when there is nothing to do; -1 without memory, the buffer as it was.
  int resize_buffer(std::size_t size);
  int enlarge_buffer(std::size_t size);
  int shrinkfit_buffer();

  // Attached descriptors. A packet owns them; a successful send closes them. Received ones survive
  // exec, unless their endpoint is told otherwise, and have the numbers that are free: after a
  // close of 0, 1 or 2 one of these. Slots are counted and numbered from 0, emptied ones included.
  //
  // Adds a duplicate (dup(2)); `fd` stays the caller's. The duplicate of the second does not
  // survive exec.
  // Returns true; false, nothing changed, for a negative fd and with COMM_V4_MAX_ATTACHED_FDS
  // slots, errno untouched, and when the duplication fails, errno its own.
  bool attach_fd_to_send(int fd);
  bool attach_fd_to_send_cloexec(int fd);
  // Returns the number of slots.
  std::size_t attached_fd_count() const;
  // Hands a descriptor over to the caller, who closes it, and empties its slot.
  // Returns it; -1 when there is no such slot or it is empty.
  int get_attached_fd(std::size_t index);
  // Closes what is still attached, and empties every slot. Leaves errno alone.
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
  // The first four bytes. In a packet that has fewer the setter does nothing.
  // Returns them; 0 without.
  std::uint32_t get_sighdr() const;
  void set_sighdr(std::uint32_t signature);
  // write_end calls `cb` once with the finished packet, also when a send ends the packet; its
  // result is ignored. It may still change the packet, buffer and buffer_length included, and close
  // or release the connection, on which a send then fails. It must not release the caller's
  // reference, destroy the endpoint, or, in a packet that a CommLargePacketQueue holds, accept a
  // connection or touch the queue. Null removes it.
  void set_complete_cb(int (*cb)(comm_socket_v4_packet*));

  // Writing: write_begin, then arguments and pairs in any mix, then data, then write_end. A packet
  // is written once and a received one never. What is lost in silence:
  //  - a text beyond its limit is cut;
  //  - with more than COMM_V4_MAX_PAIRS pairs the packet goes out without any of them; they stay in
  //    wr_nv_pair;
  //  - a string or a value for which there is no memory is absent from the packet, and the receiver
  //    refuses a packet without a command or with such a pair.
  // Each returns 0, but write_data_binary the length; -1, nothing added, in the wrong state, for a
  // null name and past a limit; errno only from write_begin and write_data_from_file, the others
  // leave it alone.
  //
  // Null or empty strings are left out. `size_hint` is the expected size of the whole packet in
  // bytes; 0 means 8192, anything else is raised to 4096.
  // Returns 0; -1 without memory for the buffer, errno ENOMEM, and for a packet that was begun
  // before, errno untouched.
  int write_begin(const char* command, const char* error_string, std::size_t size_hint);
  // A null or empty text adds nothing.
  // Returns 0; -1 as above; so do those below whose text says nothing else.
  int write_argv(const char* text);
  // Formatted text of at most COMM_V4_MAX_FORMATTED_ARGUMENT bytes, which is not cut. The second
  // form takes a va_list. (It is a template so that `write_argvf("%d", 0)` cannot mistake 0 for
  // one.)
  // Returns 0; -1 also for a longer text and when formatting fails.
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
  // Returns 0, in any state.
  int write_argv_end();
  // `length` is in bytes, `count` in values. A null value is empty, and refused with a length. Text
  // and JSON are followed by a NUL that the length leaves out. Only write_nv_pair and
  // write_nv_pairf cut their text; the text of write_nv_pairf is empty when formatting fails.
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
  int write_nv_pairf(const char* name, const char* format, ...) COMM_V4_PRINTF(3, 4);
  template <class Args, class = decltype(comm_v4_takes_va_list(std::declval<Args>()))>
  COMM_V4_PRINTF(3, 0)
  int write_nv_pairf(const char* name, const char* format, Args args) {
    return vwrite_nv_pairf(name, format, args);
  }
  // Appends to the packet's one block of data. No argument or pair can follow.
  // Returns `length`; 0 for a length of 0, in any state; -1 also for null data, for more than
  // COMM_V4_MAX_DATA_PER_WRITE bytes, and without memory: offer the same data again.
  int write_data_binary(const unsigned char* data, std::size_t length);
  // Data without a copy: reserve_data makes room behind what the packet holds, the caller writes
  // there, with read(2) for example, and commit_data makes the first `length` bytes data. Until
  // then the packet is without them. The room comes filled with zeros: what nobody writes is sent
  // as zeros, never as what the memory held before. It ends with a commit_data that succeeds, with
  // the next reserve_data, write_data_... or write_end, a send, and a change of the buffer's size.
  // Both may be called again and again, in any mix with write_data_binary; as there no argument or
  // pair can follow.
  // Returns the room; null in the wrong state, for a length of 0, for more than
  // COMM_V4_MAX_DATA_PER_WRITE bytes, past COMM_V4_MAX_PACKET and without memory: try again.
  unsigned char* reserve_data(std::size_t most);
  // With a length of 0 the room ends, and nothing is added.
  // Returns `length`; -1 without a room, and for more than was reserved: the room stays.
  int commit_data(std::size_t length);
  // Appends what one read of a file gives, without a copy: pread(2) at `offset`, or read(2) when
  // `offset` is negative, of `most` bytes, or of COMM_V4_MAX_DATA_PER_WRITE if that is less. It
  // waits as long as the read does. No argument or pair can follow, also when a read gave nothing.
  // Returns how many bytes it has appended; 0 at the end of the file, and for a `most` of 0, in any
  // state; -1, nothing appended; errno that of the read, or, without a read, EINVAL in the wrong
  // state, EMSGSIZE where so many bytes would pass COMM_V4_MAX_PACKET, and ENOMEM: try again.
  int write_data_from_file(int fd, std::int64_t offset, std::size_t most);
  // Completes the packet and runs the completion callback.
  // Returns 0, at once when it is complete or was received; -1 before write_begin, without memory
  // for the tables: call it again, and when they would end beyond COMM_V4_MAX_PACKET.
  int write_end();
  // Returns "None", "Header", "Data", "End", and "?" for any other state. The text is static.
  static const char* write_state_to_str(int state);
  const char* write_state_to_str() const;

  // Reading, in place, without conversion between types. While a packet is being written its
  // arguments and pairs appear with the first data or the end.
  // Each returns what its name says; what is absent, of another type or out of range, and
  // everything in a packet without a header, reads as "", 0, 0.0 or null.
  const char* command() const;
  const char* error_string() const;
  const unsigned char* data() const;
  std::size_t data_length() const;
  std::size_t argc() const;
  std::size_t nv_entries() const;
  // Returns the entry; null when index is at or beyond argc().
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
  // Pairs keep the order of writing, and several may share a name.
  // Returns the entry, which the readers below take and which is then not null; null when index is
  // at or beyond nv_entries().
  const comm_socket_v4_packet_nv_pair* nv_entry(std::size_t index) const;
  const char* nv_pair_name(const comm_socket_v4_packet_nv_pair* entry) const;
  // Returns the bytes of the value, whatever the type; entry->length() of them. Both do the same.
  const unsigned char* nv_pair_value_raw(const comm_socket_v4_packet_nv_pair* entry) const;
  const unsigned char* nv_pair_value_binary(const comm_socket_v4_packet_nv_pair* entry) const;
  // Returns text and JSON; "" for any other type. In a packet that was received the text ends at
  // its first NUL, which a peer may have put before entry->length() or behind it, at the latest
  // behind the last byte of the packet: use one of the two lengths, not one as the bound of the
  // other.
  const char* nv_pair_value_text(const comm_socket_v4_packet_nv_pair* entry) const;
  // Returns the first of entry->length() / 8 values, at any alignment; null for any other type.
  const comm_v4_unaligned_uint64_t* nv_pair_value_uint64(
      const comm_socket_v4_packet_nv_pair* entry) const;
  const comm_v4_unaligned_int64_t* nv_pair_value_int64(
      const comm_socket_v4_packet_nv_pair* entry) const;
  const comm_v4_unaligned_double_t* nv_pair_value_double(
      const comm_socket_v4_packet_nv_pair* entry) const;

  // Printing, for debugging; null means standard error. They never fail and never change the
  // packet, and any packet may be printed, half-written and hand-made ones included, but not while
  // another thread writes it. Texts are printed as they are, control characters of a peer included,
  // and as parts of a packet may overlap, what is printed of 64 KB may be hundreds of MB. Errors of
  // the stream are ignored; errno may change. dump shows raw header bytes, offsets and types;
  // dump_header_user_friendly a readable listing; dump_user_friendly that and then the raw data;
  // dump_body the raw data only.
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
};

#endif  // __cplusplus

// ------------------------------------------------------------------------------------------------
// The members as functions with C linkage. Each returns what the member returns. Null is taken only
// where it is mentioned. What a text calls entry->type() and entry->length() are type_code and
// value_length.
#ifdef __cplusplus
extern "C" {
#endif

// Returns a packet with one reference; null without memory.
COMM_V4_EXPORT comm_socket_v4_packet* comm_socket_v4_packet_create(void);
// Null is ignored.
COMM_V4_EXPORT void comm_socket_v4_packet_addref(comm_socket_v4_packet* p);
// Returns `p`; null when the packet was destroyed, and for null: assign it to your pointer.
COMM_V4_EXPORT comm_socket_v4_packet* comm_socket_v4_packet_release(comm_socket_v4_packet* p);
// A thread keeps the memory of some packets that it releases for its next ones, 170 KB at most, and
// gives it back when it ends. So what uses a packet after its release may find another one there.
// Looking for such a fault, or short of memory, turn this off: 0 gives back at once what the
// calling thread has, and nothing is kept any more in the whole process. Any other value turns it
// on again. In a library that was built with a sanitizer it is always off.
COMM_V4_EXPORT void comm_socket_v4_packet_keep_spares(int keep);
// As the members.
// Returns what they return; -1 for null.
COMM_V4_EXPORT int comm_socket_v4_packet_resize_buffer(comm_socket_v4_packet* p, size_t size);
COMM_V4_EXPORT int comm_socket_v4_packet_enlarge_buffer(comm_socket_v4_packet* p, size_t size);
COMM_V4_EXPORT int comm_socket_v4_packet_shrinkfit_buffer(comm_socket_v4_packet* p);

COMM_V4_EXPORT void comm_socket_v4_packet_make_request(comm_socket_v4_packet* p);
COMM_V4_EXPORT void comm_socket_v4_packet_make_response(comm_socket_v4_packet* p);
// Set when v is above 0, cleared otherwise.
COMM_V4_EXPORT void comm_socket_v4_packet_set_request(comm_socket_v4_packet* p, int v);
COMM_V4_EXPORT void comm_socket_v4_packet_set_async(comm_socket_v4_packet* p, int v);
// The fields; set_complete_cb and the two of the signature are the members. set_flags replaces all
// flags, set_multipart only the multipart value, of which the lowest two bits count.
// set_write_state is for a received packet that is sent on: with comm_v4_write_state_end the send
// warns of nothing.
// Returns the field.
COMM_V4_EXPORT uint32_t comm_socket_v4_packet_get_flags(const comm_socket_v4_packet* p);
COMM_V4_EXPORT void comm_socket_v4_packet_set_flags(comm_socket_v4_packet* p, uint32_t flags);
COMM_V4_EXPORT uint32_t comm_socket_v4_packet_get_multipart(const comm_socket_v4_packet* p);
COMM_V4_EXPORT void comm_socket_v4_packet_set_multipart(comm_socket_v4_packet* p, uint32_t value);
COMM_V4_EXPORT uint64_t comm_socket_v4_packet_get_stream_id(const comm_socket_v4_packet* p);
COMM_V4_EXPORT void comm_socket_v4_packet_set_stream_id(comm_socket_v4_packet* p, uint64_t id);
COMM_V4_EXPORT uint64_t comm_socket_v4_packet_get_message_id(const comm_socket_v4_packet* p);
COMM_V4_EXPORT void comm_socket_v4_packet_set_message_id(comm_socket_v4_packet* p, uint64_t id);
COMM_V4_EXPORT uint64_t comm_socket_v4_packet_get_error_code(const comm_socket_v4_packet* p);
COMM_V4_EXPORT void comm_socket_v4_packet_set_error_code(comm_socket_v4_packet* p, uint64_t code);
COMM_V4_EXPORT uint64_t comm_socket_v4_packet_get_tag(const comm_socket_v4_packet* p);
COMM_V4_EXPORT void comm_socket_v4_packet_set_tag(comm_socket_v4_packet* p, uint64_t value);
COMM_V4_EXPORT int comm_socket_v4_packet_get_refcount(const comm_socket_v4_packet* p);
COMM_V4_EXPORT int comm_socket_v4_packet_get_write_state(const comm_socket_v4_packet* p);
COMM_V4_EXPORT void comm_socket_v4_packet_set_write_state(comm_socket_v4_packet* p, int state);
COMM_V4_EXPORT const char* comm_socket_v4_packet_write_state_to_str(int state);
COMM_V4_EXPORT uint32_t comm_socket_v4_packet_get_sighdr(const comm_socket_v4_packet* p);
COMM_V4_EXPORT void comm_socket_v4_packet_set_sighdr(comm_socket_v4_packet* p, uint32_t signature);
COMM_V4_EXPORT void comm_socket_v4_packet_set_complete_cb(comm_socket_v4_packet* p,
                                                          int (*cb)(comm_socket_v4_packet*));

// Stores how many bytes the packet has in *length, unless `length` is null. Those of a complete
// packet are what is sent, and what to write to a file; while it is written they are the first
// ones.
// Returns them; null, and a length of 0, before a buffer was needed.
COMM_V4_EXPORT const unsigned char* comm_socket_v4_packet_get_buffer(const comm_socket_v4_packet* p,
                                                                     size_t* length);
// Fills a packet that was never written with a copy of bytes, as if they had been received. Pass it
// to comm_socket_v4_client_on_recv_packet before anything is read from it.
// Returns 0; -1; errno EINVAL for another packet and above COMM_V4_MAX_PACKET, ENOMEM.
COMM_V4_EXPORT int comm_socket_v4_packet_set_buffer(comm_socket_v4_packet* p,
                                                    const unsigned char* bytes, size_t length);

// As the members: attach_... return 1 in place of true, or 0.
COMM_V4_EXPORT int comm_socket_v4_packet_attach_fd_to_send(comm_socket_v4_packet* p, int fd);
COMM_V4_EXPORT int comm_socket_v4_packet_attach_fd_to_send_cloexec(comm_socket_v4_packet* p,
                                                                   int fd);
COMM_V4_EXPORT size_t comm_socket_v4_packet_attached_fd_count(const comm_socket_v4_packet* p);
COMM_V4_EXPORT int comm_socket_v4_packet_get_attached_fd(comm_socket_v4_packet* p, size_t index);
COMM_V4_EXPORT void comm_socket_v4_packet_close_attached_fd(comm_socket_v4_packet* p);

// As write_begin, its arguments in another order.
COMM_V4_EXPORT int comm_socket_v4_packet_begin_writing(comm_socket_v4_packet* p, size_t size_hint,
                                                       const char* command,
                                                       const char* error_string);

COMM_V4_EXPORT int comm_socket_v4_packet_write_argv(comm_socket_v4_packet* p, const char* text);
COMM_V4_EXPORT int comm_socket_v4_packet_write_argvf(comm_socket_v4_packet* p, const char* format,
                                                     ...) COMM_V4_PRINTF(2, 3);
COMM_V4_EXPORT int comm_socket_v4_packet_vwrite_argvf(comm_socket_v4_packet* p, const char* format,
                                                      va_list args) COMM_V4_PRINTF(2, 0);
COMM_V4_EXPORT int comm_socket_v4_packet_write_argv_uint64(comm_socket_v4_packet* p,
                                                           uint64_t value);
COMM_V4_EXPORT int comm_socket_v4_packet_write_argv_int64(comm_socket_v4_packet* p, int64_t value);
COMM_V4_EXPORT int comm_socket_v4_packet_write_argv_double(comm_socket_v4_packet* p, double value);
COMM_V4_EXPORT int comm_socket_v4_packet_write_argv_end(comm_socket_v4_packet* p);
COMM_V4_EXPORT int comm_socket_v4_packet_write_nv_pair_raw(comm_socket_v4_packet* p,
                                                           const char* name,
                                                           const unsigned char* value,
                                                           size_t length, uint32_t type);
COMM_V4_EXPORT int comm_socket_v4_packet_write_nv_pair_fourcc(comm_socket_v4_packet* p,
                                                              uint32_t fourcc, const char* name,
                                                              const unsigned char* value,
                                                              size_t length);
COMM_V4_EXPORT int comm_socket_v4_packet_write_nv_pair_binary(comm_socket_v4_packet* p,
                                                              const char* name,
                                                              const unsigned char* value,
                                                              size_t length);
COMM_V4_EXPORT int comm_socket_v4_packet_write_nv_pair_uint64(comm_socket_v4_packet* p,
                                                              const char* name,
                                                              const uint64_t* values, size_t count);
COMM_V4_EXPORT int comm_socket_v4_packet_write_nv_pair_int64(comm_socket_v4_packet* p,
                                                             const char* name,
                                                             const int64_t* values, size_t count);
COMM_V4_EXPORT int comm_socket_v4_packet_write_nv_pair_double(comm_socket_v4_packet* p,
                                                              const char* name,
                                                              const double* values, size_t count);
COMM_V4_EXPORT int comm_socket_v4_packet_write_nv_pair_json(comm_socket_v4_packet* p,
                                                            const char* name, const char* json,
                                                            size_t length);
COMM_V4_EXPORT int comm_socket_v4_packet_write_nv_pair(comm_socket_v4_packet* p, const char* name,
                                                       const char* text);
COMM_V4_EXPORT int comm_socket_v4_packet_write_nv_pairf(comm_socket_v4_packet* p, const char* name,
                                                        const char* format, ...)
    COMM_V4_PRINTF(3, 4);
COMM_V4_EXPORT int comm_socket_v4_packet_vwrite_nv_pairf(comm_socket_v4_packet* p, const char* name,
                                                         const char* format, va_list args)
    COMM_V4_PRINTF(3, 0);
COMM_V4_EXPORT int comm_socket_v4_packet_write_data_binary(comm_socket_v4_packet* p,
                                                           const unsigned char* data,
                                                           size_t length);
COMM_V4_EXPORT unsigned char* comm_socket_v4_packet_reserve_data(comm_socket_v4_packet* p,
                                                                 size_t most);
COMM_V4_EXPORT int comm_socket_v4_packet_commit_data(comm_socket_v4_packet* p, size_t length);
COMM_V4_EXPORT int comm_socket_v4_packet_write_data_from_file(comm_socket_v4_packet* p, int fd,
                                                              int64_t offset, size_t most);
COMM_V4_EXPORT int comm_socket_v4_packet_write_end(comm_socket_v4_packet* p);

COMM_V4_EXPORT size_t comm_socket_v4_packet_get_argc(const comm_socket_v4_packet* p);
COMM_V4_EXPORT size_t comm_socket_v4_packet_nv_entries(const comm_socket_v4_packet* p);
COMM_V4_EXPORT const char* comm_socket_v4_packet_get_command(const comm_socket_v4_packet* p);
COMM_V4_EXPORT const char* comm_socket_v4_packet_get_error_string(const comm_socket_v4_packet* p);
// Stores the length of the data, 0 without any, in *length, unless `length` is null.
// Returns the data, or null.
COMM_V4_EXPORT const unsigned char* comm_socket_v4_packet_get_data(const comm_socket_v4_packet* p,
                                                                   size_t* length);
// As argv_text, argv_uint64, argv_int64, argv_double and argv by index.
// Returns the value, and the last the entry; "", 0, 0.0 or null for what is absent or of another
// type.
COMM_V4_EXPORT const char* comm_socket_v4_packet_get_argv(const comm_socket_v4_packet* p,
                                                          size_t index);
COMM_V4_EXPORT uint64_t comm_socket_v4_packet_get_argv_uint64(const comm_socket_v4_packet* p,
                                                              size_t index);
COMM_V4_EXPORT int64_t comm_socket_v4_packet_get_argv_int64(const comm_socket_v4_packet* p,
                                                            size_t index);
COMM_V4_EXPORT double comm_socket_v4_packet_get_argv_double(const comm_socket_v4_packet* p,
                                                            size_t index);
COMM_V4_EXPORT const comm_socket_v4_packet_argv* comm_socket_v4_packet_get_argv_entry(
    const comm_socket_v4_packet* p, size_t index);

COMM_V4_EXPORT const comm_socket_v4_packet_nv_pair* comm_socket_v4_packet_get_nv_entry(
    const comm_socket_v4_packet* p, size_t index);
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

// Of a null packet dump prints "(null)", dump_user_friendly and dump_body nothing; the header
// listing takes none.
COMM_V4_EXPORT void comm_socket_v4_packet_dump(const comm_socket_v4_packet* p, FILE* out);
COMM_V4_EXPORT void comm_socket_v4_packet_dump_user_friendly(const comm_socket_v4_packet* p,
                                                             FILE* out);
COMM_V4_EXPORT void comm_socket_v4_packet_dump_header_user_friendly(const comm_socket_v4_packet* p,
                                                                    FILE* out);
COMM_V4_EXPORT void comm_socket_v4_packet_dump_body(const comm_socket_v4_packet* p, FILE* out);

#ifdef __cplusplus
}  // extern "C"

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

#endif  // __cplusplus
#endif
