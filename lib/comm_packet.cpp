// The packet object: its lifetime, its buffer, its descriptors and header values, and the readers
// as functions.
#include <fcntl.h>
#include <tarn_utils_v4/comm_packet.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <tuple>

#include "lib/errno_guard.h"
#include "lib/received_descriptors.h"
#include "lib/spare_packets.h"
#include "lib/standard_error.h"

namespace {

constexpr std::size_t min_buffer_size = 32;
// Kept behind the packet when surplus memory is given back; it has room for the NUL.
constexpr std::size_t shrink_spare = 32;
// A packet up to this size moves out of a larger buffer, which the next one finds as it is.
constexpr std::size_t most_bytes_moved = 4096;

template <class Duplicate>
bool attach(comm_socket_v4_packet& p, int fd, Duplicate duplicate) {
  if (fd < 0 || p.attached_fd.size() >= COMM_V4_MAX_ATTACHED_FDS) return false;
  // Room first: nothing may throw between the duplication and the moment the packet owns it.
  p.attached_fd.reserve(COMM_V4_MAX_ATTACHED_FDS);
  const int copy = duplicate();
  if (copy < 0) return false;
  p.attached_fd.push_back(copy);
  return true;
}

// As realloc. The packet, with the NUL behind it, is shorter than half of the buffer.
unsigned char* shrink(unsigned char* buffer, std::size_t alloc, std::size_t size) noexcept {
  if (size > most_bytes_moved || size > alloc)
    return static_cast<unsigned char*>(std::realloc(buffer, size));
  unsigned char* const smaller = spare_packets::allocate_buffer(size);
  if (smaller == nullptr) return nullptr;
  std::memcpy(smaller, buffer, size);
  spare_packets::free_buffer(buffer, alloc);
  return smaller;
}

// The header defines the readers inline. Their addresses make the shared library export them as
// well, whatever the compiler makes of the calls.
using Packet = comm_socket_v4_packet;
template <class Result>
using ArgvReader = Result (Packet::*)(const comm_socket_v4_packet_argv*) const;
template <class Result>
using ArgvReaderByIndex = Result (Packet::*)(std::size_t) const;

[[gnu::used]] const auto exported_readers = std::make_tuple(
    &Packet::command, &Packet::error_string, &Packet::data, &Packet::data_length, &Packet::argc,
    &Packet::nv_entries, &Packet::argv, ArgvReader<const char*>(&Packet::argv_text),
    ArgvReader<std::uint64_t>(&Packet::argv_uint64), ArgvReader<std::int64_t>(&Packet::argv_int64),
    ArgvReader<double>(&Packet::argv_double), ArgvReaderByIndex<const char*>(&Packet::argv_text),
    ArgvReaderByIndex<std::uint64_t>(&Packet::argv_uint64),
    ArgvReaderByIndex<std::int64_t>(&Packet::argv_int64),
    ArgvReaderByIndex<double>(&Packet::argv_double), &Packet::nv_entry, &Packet::nv_pair_name,
    &Packet::nv_pair_value_raw, &Packet::nv_pair_value_binary, &Packet::nv_pair_value_text,
    &Packet::nv_pair_value_uint64, &Packet::nv_pair_value_int64, &Packet::nv_pair_value_double);

}  // namespace

// --- Lifetime -----------------------------------------------------------------------------------

comm_socket_v4_packet::comm_socket_v4_packet() noexcept
    : buffer(nullptr),
      buffer_alloc(0),
      buffer_write(0),
      buffer_length(0),
      flags(0),
      message_id(0),
      error_code(0),
      refcount(1),
      write_state(write_state_none),
      stream_id(0),
      complete_cb(nullptr),
      tag(0),
      data_reserved(0) {}

comm_socket_v4_packet::~comm_socket_v4_packet() {
  if (!attached_fd.empty()) close_attached_fd();
  spare_packets::free_buffer(buffer, buffer_alloc);
}

int comm_socket_v4_packet::addref() { return ++refcount; }

int comm_socket_v4_packet::release() {
  // Who holds the only reference needs no atomic subtraction.
  const bool is_last = refcount.load(std::memory_order_acquire) == 1;
  const std::int32_t count = is_last ? 0 : --refcount;
  if (count > 0 || count < -1) return count;
  if (count == -1) {
    write_to_standard_error("comm socket v4 packet error: result released below zero!\n");
    if (spare_packets::has(this)) return 0;
  }
  if (spare_packets::keep(this)) return 0;
  ErrnoGuard keep_errno;
  delete this;
  return 0;
}

comm_socket_v4_packet* comm_socket_v4_packet_create() {
  comm_socket_v4_packet* const p = spare_packets::take();
  return p != nullptr ? p : new (std::nothrow) comm_socket_v4_packet;
}

void comm_socket_v4_packet_addref(comm_socket_v4_packet* p) {
  if (p != nullptr) p->addref();
}

comm_socket_v4_packet* comm_socket_v4_packet_release(comm_socket_v4_packet* p) {
  if (p == nullptr) return nullptr;
  return p->release() != 0 ? p : nullptr;
}

// --- Buffer -------------------------------------------------------------------------------------

int comm_socket_v4_packet::resize_buffer(std::size_t size) {
  const std::size_t target = std::max(size, min_buffer_size);
  if (buffer != nullptr && buffer_alloc >= target) return 0;

  if (buffer == nullptr) buffer_alloc = buffer_length = buffer_write = 0;
  // Beyond PTRDIFF_MAX no allocation succeeds.
  if (target > PTRDIFF_MAX) return -1;
  void* const grown =
      buffer != nullptr ? std::realloc(buffer, target) : spare_packets::allocate_buffer(target);
  if (grown == nullptr) return -1;
  buffer = static_cast<unsigned char*>(grown);
  buffer_alloc = target;
  data_reserved = 0;
  return 0;
}

int comm_socket_v4_packet::enlarge_buffer(std::size_t size) {
  return buffer != nullptr && buffer_alloc < size ? resize_buffer(size) : 0;
}

int comm_socket_v4_packet::shrinkfit_buffer() {
  if (buffer == nullptr || buffer_length >= buffer_alloc / 2) return 0;
  const std::size_t target = buffer_length + shrink_spare;
  unsigned char* const shrunk = shrink(buffer, buffer_alloc, target);
  if (shrunk == nullptr) return -1;
  buffer = shrunk;
  buffer_alloc = target;
  data_reserved = 0;
  return 0;
}

int comm_socket_v4_packet_resize_buffer(comm_socket_v4_packet* p, std::size_t size) {
  return p != nullptr ? p->resize_buffer(size) : -1;
}
int comm_socket_v4_packet_enlarge_buffer(comm_socket_v4_packet* p, std::size_t size) {
  return p != nullptr ? p->enlarge_buffer(size) : -1;
}
int comm_socket_v4_packet_shrinkfit_buffer(comm_socket_v4_packet* p) {
  return p != nullptr ? p->shrinkfit_buffer() : -1;
}

const unsigned char* comm_socket_v4_packet_get_buffer(const comm_socket_v4_packet* p,
                                                      std::size_t* length) {
  if (length != nullptr) *length = p->buffer_length;
  return p->buffer;
}

int comm_socket_v4_packet_set_buffer(comm_socket_v4_packet* p, const unsigned char* bytes,
                                     std::size_t length) {
  if (p->write_state != comm_v4_write_state_none || length > COMM_V4_MAX_PACKET) {
    errno = EINVAL;
    return -1;
  }
  if (p->resize_buffer(length + 1) != 0) {
    errno = ENOMEM;
    return -1;
  }
  if (length > 0) std::memcpy(p->buffer, bytes, length);
  p->buffer[length] = 0;
  p->buffer_length = length;
  return 0;
}

// --- Attached descriptors -----------------------------------------------------------------------

bool comm_socket_v4_packet::attach_fd_to_send(int fd) {
  return attach(*this, fd, [fd] { return ::dup(fd); });
}

bool comm_socket_v4_packet::attach_fd_to_send_cloexec(int fd) {
  return attach(*this, fd, [fd] { return ::fcntl(fd, F_DUPFD_CLOEXEC, 0); });
}

std::size_t comm_socket_v4_packet::attached_fd_count() const { return attached_fd.size(); }

int comm_socket_v4_packet::get_attached_fd(std::size_t index) {
  if (index >= attached_fd.size()) return -1;
  const int fd = attached_fd[index];
  attached_fd[index] = -1;
  return fd;
}

void comm_socket_v4_packet::close_attached_fd() {
  ErrnoGuard keep_errno;
  const bool was_written = write_state != write_state_none && write_state != write_state_received;
  for (int& fd : attached_fd) {
    if (fd >= 0) was_written ? static_cast<void>(::close(fd)) : close_received(fd);
    fd = -1;
  }
}

int comm_socket_v4_packet_attach_fd_to_send(comm_socket_v4_packet* p, int fd) {
  return p->attach_fd_to_send(fd);
}
int comm_socket_v4_packet_attach_fd_to_send_cloexec(comm_socket_v4_packet* p, int fd) {
  return p->attach_fd_to_send_cloexec(fd);
}
std::size_t comm_socket_v4_packet_attached_fd_count(const comm_socket_v4_packet* p) {
  return p->attached_fd_count();
}
int comm_socket_v4_packet_get_attached_fd(comm_socket_v4_packet* p, std::size_t index) {
  return p->get_attached_fd(index);
}
void comm_socket_v4_packet_close_attached_fd(comm_socket_v4_packet* p) { p->close_attached_fd(); }

// --- Header values ------------------------------------------------------------------------------

void comm_socket_v4_packet::make_request() { set_request(true); }
void comm_socket_v4_packet::make_response() { set_request(false); }
void comm_socket_v4_packet::set_request(bool request) {
  flags = request ? flags | flag_request : flags & ~flag_request;
}
void comm_socket_v4_packet::set_async(bool async) {
  flags = async ? flags | flag_async : flags & ~flag_async;
}
std::uint64_t comm_socket_v4_packet::get_stream_id() const { return stream_id; }
void comm_socket_v4_packet::set_stream_id(std::uint64_t id) { stream_id = id; }
std::uint64_t comm_socket_v4_packet::get_tag() const { return tag; }
void comm_socket_v4_packet::set_tag(std::uint64_t value) { tag = value; }

std::uint32_t comm_socket_v4_packet::get_sighdr() const {
  std::uint32_t signature = 0;
  if (buffer != nullptr && buffer_length >= sizeof(signature))
    std::memcpy(&signature, buffer, sizeof(signature));
  return signature;
}

void comm_socket_v4_packet::set_sighdr(std::uint32_t signature) {
  if (buffer != nullptr && buffer_length >= sizeof(signature))
    std::memcpy(buffer, &signature, sizeof(signature));
}

void comm_socket_v4_packet::set_complete_cb(int (*cb)(comm_socket_v4_packet*)) { complete_cb = cb; }

void comm_socket_v4_packet_make_request(comm_socket_v4_packet* p) { p->make_request(); }
void comm_socket_v4_packet_make_response(comm_socket_v4_packet* p) { p->make_response(); }
void comm_socket_v4_packet_set_request(comm_socket_v4_packet* p, int v) { p->set_request(v > 0); }
void comm_socket_v4_packet_set_async(comm_socket_v4_packet* p, int v) { p->set_async(v > 0); }

std::uint32_t comm_socket_v4_packet_get_flags(const comm_socket_v4_packet* p) { return p->flags; }
void comm_socket_v4_packet_set_flags(comm_socket_v4_packet* p, std::uint32_t flags) {
  p->flags = flags;
}
std::uint32_t comm_socket_v4_packet_get_multipart(const comm_socket_v4_packet* p) {
  return (p->flags & comm_v4_multipart_mask) >> comm_v4_multipart_shift;
}
void comm_socket_v4_packet_set_multipart(comm_socket_v4_packet* p, std::uint32_t value) {
  p->flags = (p->flags & ~std::uint32_t{comm_v4_multipart_mask}) |
             (value << comm_v4_multipart_shift & comm_v4_multipart_mask);
}
std::uint64_t comm_socket_v4_packet_get_stream_id(const comm_socket_v4_packet* p) {
  return p->stream_id;
}
void comm_socket_v4_packet_set_stream_id(comm_socket_v4_packet* p, std::uint64_t id) {
  p->stream_id = id;
}
std::uint64_t comm_socket_v4_packet_get_message_id(const comm_socket_v4_packet* p) {
  return p->message_id;
}
void comm_socket_v4_packet_set_message_id(comm_socket_v4_packet* p, std::uint64_t id) {
  p->message_id = id;
}
std::uint64_t comm_socket_v4_packet_get_error_code(const comm_socket_v4_packet* p) {
  return p->error_code;
}
void comm_socket_v4_packet_set_error_code(comm_socket_v4_packet* p, std::uint64_t code) {
  p->error_code = code;
}
std::uint64_t comm_socket_v4_packet_get_tag(const comm_socket_v4_packet* p) { return p->tag; }
void comm_socket_v4_packet_set_tag(comm_socket_v4_packet* p, std::uint64_t value) {
  p->tag = value;
}
int comm_socket_v4_packet_get_refcount(const comm_socket_v4_packet* p) { return p->refcount; }
int comm_socket_v4_packet_get_write_state(const comm_socket_v4_packet* p) { return p->write_state; }
void comm_socket_v4_packet_set_write_state(comm_socket_v4_packet* p, int state) {
  p->write_state = state;
}
const char* comm_socket_v4_packet_write_state_to_str(int state) {
  return comm_socket_v4_packet::write_state_to_str(state);
}
std::uint32_t comm_socket_v4_packet_get_sighdr(const comm_socket_v4_packet* p) {
  return p->get_sighdr();
}
void comm_socket_v4_packet_set_sighdr(comm_socket_v4_packet* p, std::uint32_t signature) {
  p->set_sighdr(signature);
}
void comm_socket_v4_packet_set_complete_cb(comm_socket_v4_packet* p,
                                           int (*cb)(comm_socket_v4_packet*)) {
  p->set_complete_cb(cb);
}

// --- Readers ------------------------------------------------------------------------------------

std::size_t comm_socket_v4_packet_get_argc(const comm_socket_v4_packet* p) { return p->argc(); }
std::size_t comm_socket_v4_packet_nv_entries(const comm_socket_v4_packet* p) {
  return p->nv_entries();
}
const char* comm_socket_v4_packet_get_command(const comm_socket_v4_packet* p) {
  return p->command();
}
const char* comm_socket_v4_packet_get_error_string(const comm_socket_v4_packet* p) {
  return p->error_string();
}
const unsigned char* comm_socket_v4_packet_get_data(const comm_socket_v4_packet* p,
                                                    std::size_t* length) {
  if (length != nullptr) *length = p->data_length();
  return p->data();
}
const char* comm_socket_v4_packet_get_argv(const comm_socket_v4_packet* p, std::size_t index) {
  return p->argv_text(index);
}
std::uint64_t comm_socket_v4_packet_get_argv_uint64(const comm_socket_v4_packet* p,
                                                    std::size_t index) {
  return p->argv_uint64(index);
}
std::int64_t comm_socket_v4_packet_get_argv_int64(const comm_socket_v4_packet* p,
                                                  std::size_t index) {
  return p->argv_int64(index);
}
double comm_socket_v4_packet_get_argv_double(const comm_socket_v4_packet* p, std::size_t index) {
  return p->argv_double(index);
}
const comm_socket_v4_packet_argv* comm_socket_v4_packet_get_argv_entry(
    const comm_socket_v4_packet* p, std::size_t index) {
  return p->argv(index);
}
const comm_socket_v4_packet_nv_pair* comm_socket_v4_packet_get_nv_entry(
    const comm_socket_v4_packet* p, std::size_t index) {
  return p->nv_entry(index);
}
const char* comm_socket_v4_packet_get_nv_pair_name(const comm_socket_v4_packet* p,
                                                   const comm_socket_v4_packet_nv_pair* entry) {
  return p->nv_pair_name(entry);
}
const unsigned char* comm_socket_v4_packet_get_nv_pair_value_raw(
    const comm_socket_v4_packet* p, const comm_socket_v4_packet_nv_pair* entry) {
  return p->nv_pair_value_raw(entry);
}
const char* comm_socket_v4_packet_get_nv_pair_value_text(
    const comm_socket_v4_packet* p, const comm_socket_v4_packet_nv_pair* entry) {
  return p->nv_pair_value_text(entry);
}
const unsigned char* comm_socket_v4_packet_get_nv_pair_value_binary(
    const comm_socket_v4_packet* p, const comm_socket_v4_packet_nv_pair* entry) {
  return p->nv_pair_value_binary(entry);
}
const comm_v4_unaligned_uint64_t* comm_socket_v4_packet_get_nv_pair_value_uint64(
    const comm_socket_v4_packet* p, const comm_socket_v4_packet_nv_pair* entry) {
  return p->nv_pair_value_uint64(entry);
}
const comm_v4_unaligned_int64_t* comm_socket_v4_packet_get_nv_pair_value_int64(
    const comm_socket_v4_packet* p, const comm_socket_v4_packet_nv_pair* entry) {
  return p->nv_pair_value_int64(entry);
}
const comm_v4_unaligned_double_t* comm_socket_v4_packet_get_nv_pair_value_double(
    const comm_socket_v4_packet* p, const comm_socket_v4_packet_nv_pair* entry) {
  return p->nv_pair_value_double(entry);
}
