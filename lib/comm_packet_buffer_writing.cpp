// The writer: one pass over a growing buffer. Strings and values are copied at once; the entries
// that point at them are collected and written as two tables with the first data or at the end.
#include <sys/types.h>
#include <tarn_utils_v4/comm_packet.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "lib/errno_guard.h"
#include "lib/fatal_assert.h"
#include "lib/packet_layout.h"

namespace {

using packet_layout::header;

constexpr char source[] = "lib/comm_packet_buffer_writing";

// Most packets have no more of them, and so grow their arrays of entries once.
constexpr std::size_t usual_argv_entries = 16;
constexpr std::size_t usual_nv_pair_entries = 8;

constexpr std::size_t default_buffer_size = 8192;
constexpr std::size_t min_buffer_size = 4096;
constexpr std::size_t growth = 8192;      // room beyond what a copy needs
constexpr std::size_t copy_spare = 16;    // a copy that leaves no more than this grows the buffer
constexpr std::size_t table_spare = 64;   // likewise for a table
constexpr std::size_t data_spare = 8192;  // likewise for data

// Whether `length` more bytes keep every offset and length of the packet within 32 bits. Written
// so that no sum can wrap.
bool fits_packet(const comm_socket_v4_packet& p, std::size_t length) {
  return p.buffer_write <= COMM_V4_MAX_PACKET && length <= COMM_V4_MAX_PACKET - p.buffer_write;
}

bool may_add_argv(const comm_socket_v4_packet& p) {
  return p.wr_argv.size() < COMM_V4_MAX_ARGUMENTS && p.buffer_write <= COMM_V4_MAX_ARGUMENT_OFFSET;
}

bool is_terminated(std::uint32_t type) {
  return type == comm_v4_type_text || type == comm_v4_type_json;
}

// Most of the writer leaves errno alone, also when the buffer cannot grow. Out of line, as is the
// growth of entries: the callers seldom need either.
[[gnu::noinline, gnu::cold]] bool make_room(comm_socket_v4_packet& p, std::size_t size) {
  ErrnoGuard keep_errno;
  return p.resize_buffer(size) == 0;
}

// Copies bytes, and a NUL that counts if wished, to the write position. There is room for them and
// for the NUL behind them, which lets a packet be dumped while it is being written.
inline void append(comm_socket_v4_packet& p, const void* bytes, std::size_t length,
                   bool terminate = false) {
  unsigned char* const at = p.buffer + p.buffer_write;
  const std::size_t size = length + (terminate ? 1 : 0);
  const std::size_t end = p.buffer_write + size;
  if (length != 0) std::memcpy(at, bytes, length);
  at[length] = 0;
  at[size] = 0;
  p.buffer_write = p.buffer_length = end;
  if (p.buffer_write > p.buffer_alloc)
    fatal_assertion_failed(source, __func__, "buffer_write <= buffer_alloc");
}

// Appends bytes to the buffer, which grows as needed; where they start, 0 when it cannot grow. The
// callers refuse what a packet cannot hold, so no sum here wraps. Inline, as most copies are short.
inline comm_v4_offset_t int_copy_data(comm_socket_v4_packet& p, const void* data,
                                      std::size_t length, bool terminate) {
  const std::size_t start = p.buffer_write;
  if (start + length + copy_spare >= p.buffer_alloc && !make_room(p, start + length + growth))
    return 0;
  append(p, data, length, terminate);
  return static_cast<comm_v4_offset_t>(start);
}

comm_v4_offset_t int_write_string(comm_socket_v4_packet& p, const char* text, std::size_t max) {
  return int_copy_data(p, text, strnlen(text, max), true);
}

template <class Entry>
[[gnu::noinline, gnu::cold]] void enlarge(std::vector<Entry>& pending, std::size_t usual_entries) {
  pending.reserve(std::max(usual_entries, 2 * pending.size()));
}

// Adds a zero-filled entry. When memory runs out nothing has changed.
template <class Entry>
inline Entry* add_entry(std::vector<Entry>& pending, std::size_t usual_entries) {
  if (pending.size() == pending.capacity()) enlarge(pending, usual_entries);
  return &pending.emplace_back();
}

inline comm_socket_v4_packet_argv* alloc_argv(comm_socket_v4_packet& p, std::uint8_t type) {
  const std::size_t idx = p.wr_argv.size();
  comm_socket_v4_packet_argv* const entry = add_entry(p.wr_argv, usual_argv_entries);
  if (p.wr_argv.size() != idx + 1u)
    fatal_assertion_failed(source, __func__, "wr_argv.size() == (idx+1u)");
  entry->type_code = type;
  return entry;
}

comm_socket_v4_packet_nv_pair* alloc_nv_pair(comm_socket_v4_packet& p, std::uint32_t type) {
  const std::size_t idx = p.wr_nv_pair.size();
  comm_socket_v4_packet_nv_pair* const entry = add_entry(p.wr_nv_pair, usual_nv_pair_entries);
  if (p.wr_nv_pair.size() != idx + 1u)
    fatal_assertion_failed(source, __func__, "wr_nv_pair.size() == (idx+1u)");
  entry->type_code = type;
  return entry;
}

// Appends pending entries as a table; *offset is where it starts, 0 without one. More entries than
// `most` go nowhere: the packet is then sent without that table. Returns 0, or an errno, as do
// those below.
template <class Entry>
int append_table(comm_socket_v4_packet& p, const std::vector<Entry>& pending, std::size_t most,
                 comm_v4_offset_t* offset) {
  *offset = 0;
  if (pending.empty() || pending.size() > most) return 0;
  const std::size_t size = pending.size() * sizeof(Entry);
  if (p.buffer == nullptr) return EINVAL;
  if (!fits_packet(p, size)) return EMSGSIZE;
  const std::size_t needed = p.buffer_write + size + table_spare;
  if (needed > p.buffer_alloc && !make_room(p, needed)) return ENOMEM;
  *offset = static_cast<comm_v4_offset_t>(p.buffer_write);
  append(p, pending.data(), size);
  return 0;
}

int write_int_append_argv_table(comm_socket_v4_packet& p) {
  comm_v4_offset_t offset;
  const int error = append_table(p, p.wr_argv, COMM_V4_MAX_ARGUMENTS, &offset);
  if (offset == 0) return error;
  header(p.buffer)->argv_offset = offset;
  header(p.buffer)->argv_count = static_cast<std::uint8_t>(p.wr_argv.size());
  return 0;
}

int write_int_append_nv_pair_table(comm_socket_v4_packet& p) {
  comm_v4_offset_t offset;
  const int error = append_table(p, p.wr_nv_pair, COMM_V4_MAX_PAIRS, &offset);
  if (offset == 0) return error;
  header(p.buffer)->nv_pair_table_offset = offset;
  header(p.buffer)->nv_pair_table_count = static_cast<std::uint16_t>(p.wr_nv_pair.size());
  return 0;
}

// Both or none: entries that could be added between a first and a second try need one table.
int write_int_append_tables(comm_socket_v4_packet& p) {
  const std::size_t start = p.buffer_write;
  if (const int error = write_int_append_argv_table(p); error != 0) return error;
  if (const int error = write_int_append_nv_pair_table(p); error != 0) {
    if (p.buffer_write == start) return error;
    header(p.buffer)->argv_offset = 0;
    header(p.buffer)->argv_count = 0;
    p.buffer_write = p.buffer_length = start;
    p.buffer[start] = 0;
    return error;
  }
  p.wr_argv.clear();
  // Too many pairs go nowhere, and stay where they are.
  if (p.wr_nv_pair.size() <= COMM_V4_MAX_PAIRS) p.wr_nv_pair.clear();
  return 0;
}

// Room for data where the writer stands, behind the tables; what was reserved before ends.
int make_room_for_data(comm_socket_v4_packet& p, std::size_t length) {
  if (length > COMM_V4_MAX_DATA_PER_WRITE) return EINVAL;
  if (p.write_state == comm_socket_v4_packet::write_state_header) {
    if (const int error = write_int_append_tables(p); error != 0) return error;
    p.write_state = comm_socket_v4_packet::write_state_data;
  }
  if (p.write_state != comm_socket_v4_packet::write_state_data || p.buffer == nullptr)
    return EINVAL;
  if (!fits_packet(p, length)) return EMSGSIZE;
  p.data_reserved = 0;
  const std::size_t needed = p.buffer_write + length + data_spare;
  return needed <= p.buffer_alloc || make_room(p, needed) ? 0 : ENOMEM;
}

// The last `length` bytes of the packet, more than none, are data.
void take_for_data(comm_socket_v4_packet& p, std::size_t length) {
  comm_socket_v4_packet_header* const first = header(p.buffer);
  if (first->data_offset == 0)
    first->data_offset = static_cast<comm_v4_offset_t>(p.buffer_write - length);
  first->data_length = static_cast<std::uint32_t>(p.buffer_write) - first->data_offset;
}

// The room ends: its first `length` bytes are data, and the NUL stands behind them.
void take_from_room(comm_socket_v4_packet& p, std::size_t length) {
  if (length != 0) {
    p.buffer_write = p.buffer_length = p.buffer_write + length;
    take_for_data(p, length);
  }
  p.buffer[p.buffer_write] = 0;
  p.data_reserved = 0;
}

int write_argv_number(comm_socket_v4_packet& p, std::uint8_t type, const void* value) {
  if (p.write_state != comm_socket_v4_packet::write_state_header || p.buffer == nullptr) return -1;
  if (!may_add_argv(p)) return -1;
  comm_socket_v4_packet_argv* const entry = alloc_argv(p, type);
  packet_layout::set_value_offset(*entry, int_copy_data(p, value, 8, false));
  return 0;
}

int write_nv_pair_list(comm_socket_v4_packet& p, const char* name, const void* values,
                       std::size_t count, std::uint32_t type) {
  if (count > COMM_V4_MAX_PACKET / 8) return -1;
  return p.write_nv_pair_raw(name, static_cast<const unsigned char*>(values), count * 8, type);
}

}  // namespace

// --- Begin --------------------------------------------------------------------------------------

int comm_socket_v4_packet::write_begin(const char* command, const char* error_string,
                                       std::size_t size_hint) {
  if (write_state != write_state_none) return -1;
  const std::size_t size =
      size_hint == 0 ? default_buffer_size : std::max(size_hint, min_buffer_size);
  if (resize_buffer(size) != 0 || buffer == nullptr) {
    errno = ENOMEM;
    return -1;
  }

  std::memset(buffer, 0, COMM_V4_HEADER_LENGTH + 1);
  comm_socket_v4_packet_header* const first = header(buffer);
  first->sighdr = COMM_V4_SIGHDR;
  first->header_length = COMM_V4_HEADER_LENGTH;
  first->stream_id = stream_id;
  first->message_id = message_id;
  first->error_code = error_code;
  first->flags = flags;
  buffer_write = buffer_length = COMM_V4_HEADER_LENGTH;

  // The header is looked up after each copy, which may move the buffer.
  if (command != nullptr && *command != '\0') {
    const comm_v4_offset_t offset = int_write_string(*this, command, COMM_V4_MAX_COMMAND);
    header(buffer)->command_offset = offset;
  }
  if (error_string != nullptr && *error_string != '\0') {
    const comm_v4_offset_t offset = int_write_string(*this, error_string, COMM_V4_MAX_ERROR_STRING);
    header(buffer)->error_string_offset = offset;
  }
  write_state = write_state_header;
  return 0;
}

// --- Arguments ----------------------------------------------------------------------------------

int comm_socket_v4_packet::write_argv(const char* text) {
  if (write_state != write_state_header || buffer == nullptr) return -1;
  if (text == nullptr || *text == '\0') return 0;
  if (!may_add_argv(*this)) return -1;
  comm_socket_v4_packet_argv* const entry = alloc_argv(*this, comm_v4_type_text);
  packet_layout::set_value_offset(*entry, int_write_string(*this, text, COMM_V4_MAX_TEXT));
  return 0;
}

int comm_socket_v4_packet::write_argv_uint64(std::uint64_t value) {
  return write_argv_number(*this, comm_v4_type_uint64, &value);
}
int comm_socket_v4_packet::write_argv_int64(std::int64_t value) {
  return write_argv_number(*this, comm_v4_type_int64, &value);
}
int comm_socket_v4_packet::write_argv_double(double value) {
  return write_argv_number(*this, comm_v4_type_double, &value);
}

int comm_socket_v4_packet::vwrite_argvf(const char* format, va_list args) {
  if (write_state != write_state_header) return -1;
  ErrnoGuard keep_errno;
  char text[COMM_V4_MAX_FORMATTED_ARGUMENT + 1];
  const int length = std::vsnprintf(text, sizeof(text), format, args);
  if (length < 0 || static_cast<std::size_t>(length) > COMM_V4_MAX_FORMATTED_ARGUMENT) return -1;
  return write_argv(text);
}

int comm_socket_v4_packet::write_argvf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int result = vwrite_argvf(format, args);
  va_end(args);
  return result;
}

int comm_socket_v4_packet::write_argv_end() { return 0; }

// --- Name/value pairs ---------------------------------------------------------------------------

int comm_socket_v4_packet::write_nv_pair_raw(const char* name, const unsigned char* value,
                                             std::size_t length, std::uint32_t type) {
  if (name == nullptr || write_state != write_state_header || buffer == nullptr) return -1;
  if (value == nullptr && length != 0) return -1;
  // A length near the largest one is out before anything is added to it.
  if (length > COMM_V4_MAX_PACKET) return -1;
  const std::size_t name_length = strnlen(name, COMM_V4_MAX_NAME);
  const bool terminated = is_terminated(type);
  if (!fits_packet(*this, name_length + 1 + length + (terminated ? 1 : 0))) return -1;

  comm_socket_v4_packet_nv_pair* const entry = alloc_nv_pair(*this, type);
  entry->value_length = static_cast<std::uint32_t>(length);
  entry->name_offset = int_copy_data(*this, name, name_length, true);
  entry->value_offset = int_copy_data(*this, value, length, terminated);
  // A value that found no memory is absent, and so has no length.
  if (entry->value_offset == 0) entry->value_length = 0;
  return 0;
}

int comm_socket_v4_packet::write_nv_pair_fourcc(std::uint32_t fourcc, const char* name,
                                                const unsigned char* value, std::size_t length) {
  return write_nv_pair_raw(name, value, length, fourcc);
}

int comm_socket_v4_packet::write_nv_pair_binary(const char* name, const unsigned char* value,
                                                std::size_t length) {
  return write_nv_pair_raw(name, value, length, comm_v4_type_binary);
}

int comm_socket_v4_packet::write_nv_pair_uint64(const char* name, const std::uint64_t* values,
                                                std::size_t count) {
  return write_nv_pair_list(*this, name, values, count, comm_v4_type_uint64);
}
int comm_socket_v4_packet::write_nv_pair_int64(const char* name, const std::int64_t* values,
                                               std::size_t count) {
  return write_nv_pair_list(*this, name, values, count, comm_v4_type_int64);
}
int comm_socket_v4_packet::write_nv_pair_double(const char* name, const double* values,
                                                std::size_t count) {
  return write_nv_pair_list(*this, name, values, count, comm_v4_type_double);
}

int comm_socket_v4_packet::write_nv_pair_json(const char* name, const char* json,
                                              std::size_t length) {
  return write_nv_pair_raw(name, reinterpret_cast<const unsigned char*>(json), length,
                           comm_v4_type_json);
}

int comm_socket_v4_packet::write_nv_pair(const char* name, const char* text) {
  const std::size_t length = text != nullptr ? strnlen(text, COMM_V4_MAX_TEXT) : 0;
  return write_nv_pair_raw(name, reinterpret_cast<const unsigned char*>(text), length,
                           comm_v4_type_text);
}

int comm_socket_v4_packet::vwrite_nv_pairf(const char* name, const char* format, va_list args) {
  if (name == nullptr || write_state != write_state_header) return -1;
  ErrnoGuard keep_errno;
  struct Formatted {
    char* text = nullptr;
    ~Formatted() { std::free(text); }
  } formatted;
  // A failed vasprintf leaves the pointer undefined.
  if (::vasprintf(&formatted.text, format, args) < 0) formatted.text = nullptr;
  return write_nv_pair(name, formatted.text);
}

int comm_socket_v4_packet::write_nv_pairf(const char* name, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int result = vwrite_nv_pairf(name, format, args);
  va_end(args);
  return result;
}

// --- Tables, data and end -----------------------------------------------------------------------

int comm_socket_v4_packet::write_data_binary(const unsigned char* data, std::size_t length) {
  if (length == 0) return 0;
  if (data == nullptr || make_room_for_data(*this, length) != 0) return -1;
  append(*this, data, length);
  take_for_data(*this, length);
  return static_cast<int>(length);
}

unsigned char* comm_socket_v4_packet::reserve_data(std::size_t most) {
  if (most == 0 || make_room_for_data(*this, most) != 0) return nullptr;
  data_reserved = most;
  // The last one is the NUL behind a packet that takes it all.
  return static_cast<unsigned char*>(std::memset(buffer + buffer_write, 0, most + 1));
}

int comm_socket_v4_packet::commit_data(std::size_t length) {
  if (data_reserved == 0 || length > data_reserved) return -1;
  take_from_room(*this, length);
  return static_cast<int>(length);
}

int comm_socket_v4_packet::write_data_from_file(int fd, std::int64_t offset, std::size_t most) {
  if (most == 0) return 0;
  const std::size_t length = std::min(most, COMM_V4_MAX_DATA_PER_WRITE);
  if (const int error = make_room_for_data(*this, length); error != 0) {
    errno = error;
    return -1;
  }
  unsigned char* const room = buffer + buffer_write;
  const ssize_t count =
      offset < 0 ? ::read(fd, room, length) : ::pread(fd, room, length, static_cast<off_t>(offset));
  // What failed may have written there, too.
  take_from_room(*this, count > 0 ? static_cast<std::size_t>(count) : 0);
  return static_cast<int>(count);
}

int comm_socket_v4_packet::write_end() {
  if (write_state == write_state_none) return -1;
  if (write_state != write_state_header && write_state != write_state_data) return 0;
  if (write_int_append_tables(*this) != 0) return -1;
  buffer_length = buffer_write;
  data_reserved = 0;
  write_state = write_state_end;
  if (complete_cb != nullptr) complete_cb(this);
  if (buffer != nullptr && buffer_alloc > buffer_length) buffer[buffer_length] = 0;
  return 0;
}

const char* comm_socket_v4_packet::write_state_to_str(int state) {
  switch (state) {
    case write_state_none:
      return "None";
    case write_state_header:
      return "Header";
    case write_state_data:
      return "Data";
    case write_state_end:
      return "End";
    default:
      return "?";
  }
}

const char* comm_socket_v4_packet::write_state_to_str() const {
  return write_state_to_str(write_state);
}

// --- The same as functions ----------------------------------------------------------------------

int comm_socket_v4_packet_begin_writing(comm_socket_v4_packet* p, std::size_t size_hint,
                                        const char* command, const char* error_string) {
  return p->write_begin(command, error_string, size_hint);
}
int comm_socket_v4_packet_write_argv(comm_socket_v4_packet* p, const char* text) {
  return p->write_argv(text);
}
int comm_socket_v4_packet_write_argvf(comm_socket_v4_packet* p, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int result = p->write_argvf(format, args);
  va_end(args);
  return result;
}
int comm_socket_v4_packet_vwrite_argvf(comm_socket_v4_packet* p, const char* format, va_list args) {
  return p->write_argvf(format, args);
}
int comm_socket_v4_packet_write_argv_uint64(comm_socket_v4_packet* p, std::uint64_t value) {
  return p->write_argv_uint64(value);
}
int comm_socket_v4_packet_write_argv_int64(comm_socket_v4_packet* p, std::int64_t value) {
  return p->write_argv_int64(value);
}
int comm_socket_v4_packet_write_argv_double(comm_socket_v4_packet* p, double value) {
  return p->write_argv_double(value);
}
int comm_socket_v4_packet_write_argv_end(comm_socket_v4_packet* p) { return p->write_argv_end(); }
int comm_socket_v4_packet_write_nv_pair_raw(comm_socket_v4_packet* p, const char* name,
                                            const unsigned char* value, std::size_t length,
                                            std::uint32_t type) {
  return p->write_nv_pair_raw(name, value, length, type);
}
int comm_socket_v4_packet_write_nv_pair_fourcc(comm_socket_v4_packet* p, std::uint32_t fourcc,
                                               const char* name, const unsigned char* value,
                                               std::size_t length) {
  return p->write_nv_pair_fourcc(fourcc, name, value, length);
}
int comm_socket_v4_packet_write_nv_pair_binary(comm_socket_v4_packet* p, const char* name,
                                               const unsigned char* value, std::size_t length) {
  return p->write_nv_pair_binary(name, value, length);
}
int comm_socket_v4_packet_write_nv_pair_uint64(comm_socket_v4_packet* p, const char* name,
                                               const std::uint64_t* values, std::size_t count) {
  return p->write_nv_pair_uint64(name, values, count);
}
int comm_socket_v4_packet_write_nv_pair_int64(comm_socket_v4_packet* p, const char* name,
                                              const std::int64_t* values, std::size_t count) {
  return p->write_nv_pair_int64(name, values, count);
}
int comm_socket_v4_packet_write_nv_pair_double(comm_socket_v4_packet* p, const char* name,
                                               const double* values, std::size_t count) {
  return p->write_nv_pair_double(name, values, count);
}
int comm_socket_v4_packet_write_nv_pair_json(comm_socket_v4_packet* p, const char* name,
                                             const char* json, std::size_t length) {
  return p->write_nv_pair_json(name, json, length);
}
int comm_socket_v4_packet_write_nv_pair(comm_socket_v4_packet* p, const char* name,
                                        const char* text) {
  return p->write_nv_pair(name, text);
}
int comm_socket_v4_packet_write_nv_pairf(comm_socket_v4_packet* p, const char* name,
                                         const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int result = p->write_nv_pairf(name, format, args);
  va_end(args);
  return result;
}
int comm_socket_v4_packet_vwrite_nv_pairf(comm_socket_v4_packet* p, const char* name,
                                          const char* format, va_list args) {
  return p->write_nv_pairf(name, format, args);
}
int comm_socket_v4_packet_write_data_binary(comm_socket_v4_packet* p, const unsigned char* data,
                                            std::size_t length) {
  return p->write_data_binary(data, length);
}
unsigned char* comm_socket_v4_packet_reserve_data(comm_socket_v4_packet* p, std::size_t most) {
  return p->reserve_data(most);
}
int comm_socket_v4_packet_commit_data(comm_socket_v4_packet* p, std::size_t length) {
  return p->commit_data(length);
}
int comm_socket_v4_packet_write_data_from_file(comm_socket_v4_packet* p, int fd,
                                               std::int64_t offset, std::size_t most) {
  return p->write_data_from_file(fd, offset, most);
}
int comm_socket_v4_packet_write_end(comm_socket_v4_packet* p) { return p->write_end(); }
