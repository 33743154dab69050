// For C++17 and later, on top of comm.h, and header only: what a program writes again and again
// around the library. Owners, a builder of packets that loses nothing in silence, typed reading,
// and a blocking client. A request and its answer:
//
//     CommClient client;
//     if (!client.connect("/run/greeter", 5s)) return complain(std::strerror(errno));
//     CommPacketBuilder request = CommPacketBuilder::request("greet");
//     const CommPacket answer = client.call(request.argument(name).finish(), 5s);
//     if (!answer) return complain(request ? std::strerror(errno) : request.error().what());
//     std::cout << CommPacketReader(*answer).argument(0).as_text().value_or("?") << '\n';
//
// The conventions are those of comm.h. Times are durations from the call on, and nothing here
// throws anything but std::bad_alloc.
#ifndef TARN_UTILS_V4_COMM_CPP_H
#define TARN_UTILS_V4_COMM_CPP_H

#include <poll.h>
#include <tarn_utils_v4/comm.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <ctime>
#include <initializer_list>
#include <iterator>
#include <list>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

// ------------------------------------------------------------------------------------------------
// Owners of what the library and the kernel hand out: one reference to a packet, an endpoint, a
// descriptor. Each may be empty, moves and is never copied. They give back what they hold when
// their scope ends, and leave errno alone.

struct CommReleasePacket {
  void operator()(comm_socket_v4_packet* p) const noexcept { comm_socket_v4_packet_release(p); }
};
struct CommDestroyEndpoint {
  void operator()(comm_socket_v4* c) const noexcept { comm_socket_v4_destroy(c); }
};

// Like every std::unique_ptr these let go with release(), and the caller gives back from then on.
using CommPacket = std::unique_ptr<comm_socket_v4_packet, CommReleasePacket>;
using CommEndpoint = std::unique_ptr<comm_socket_v4, CommDestroyEndpoint>;

// Open, or none. There is no conversion to bool, since 0 is a descriptor.
class CommDescriptor {
 public:
  explicit CommDescriptor(int fd = -1) noexcept : fd_(fd) {}
  CommDescriptor(CommDescriptor&& other) noexcept : fd_(other.release()) {}
  CommDescriptor& operator=(CommDescriptor other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~CommDescriptor() {
    if (!is_open()) return;
    const int error = errno;
    ::close(fd_);
    errno = error;
  }

  int get() const noexcept { return fd_; }
  bool is_open() const noexcept { return fd_ >= 0; }
  // Returns the descriptor, which the caller closes from then on; -1 when there is none.
  int release() noexcept { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

// Takes another reference to a packet, which may be null.
// Returns its owner; empty for null.
inline CommPacket comm_share_packet(comm_socket_v4_packet* p) noexcept {
  comm_socket_v4_packet_addref(p);
  return CommPacket(p);
}

// ------------------------------------------------------------------------------------------------
// Small values that builder and reader share.

// Bytes of somebody else: a view, good as long as they are. Made of a pointer and a size, or of
// what has data() and size() and elements of one byte: a std::string, a std::string_view, a vector.
class CommBytes {
 public:
  constexpr CommBytes() noexcept = default;
  CommBytes(const void* bytes, std::size_t count) noexcept
      : data_(static_cast<const unsigned char*>(bytes)), size_(count) {}
  template <class Bytes, class Size = decltype(std::declval<const Bytes&>().size()),
            class = std::enable_if_t<sizeof(*std::declval<const Bytes&>().data()) == 1>>
  CommBytes(const Bytes& bytes) noexcept : CommBytes(bytes.data(), bytes.size()) {}

  const unsigned char* data() const noexcept { return data_; }
  std::size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  const unsigned char* begin() const noexcept { return data_; }
  const unsigned char* end() const noexcept { return data_ + size_; }
  unsigned char operator[](std::size_t index) const noexcept { return data_[index]; }
  // Returns the same bytes, whatever they are, as characters.
  std::string_view as_characters() const noexcept {
    return {reinterpret_cast<const char*>(data_), size_};
  }

 private:
  const unsigned char* data_ = nullptr;
  std::size_t size_ = 0;
};

// Where a packet stands in a series.
enum class CommMultipart : std::uint32_t {
  none = comm_socket_v4_packet::multipart_none,
  first = comm_socket_v4_packet::multipart_first,
  middle = comm_socket_v4_packet::multipart_middle,
  last = comm_socket_v4_packet::multipart_last
};
inline CommMultipart comm_get_multipart(const comm_socket_v4_packet& p) noexcept {
  return static_cast<CommMultipart>((p.flags & comm_socket_v4_packet::multipart_mask) >>
                                    comm_socket_v4_packet::multipart_shift);
}
// Before write_begin, which copies the flags.
inline void comm_set_multipart(comm_socket_v4_packet& p, CommMultipart part) noexcept {
  p.flags = (p.flags & ~comm_socket_v4_packet::multipart_mask) |
            static_cast<std::uint32_t>(part) << comm_socket_v4_packet::multipart_shift;
}

// Returns the type of a pair that is named by four characters: comm_fourcc("rgba").
constexpr std::uint32_t comm_fourcc(const char (&text)[5]) noexcept {
  std::uint32_t type = 0;
  for (int i = 3; i >= 0; --i) type = type << 8 | static_cast<unsigned char>(text[i]);
  return type;
}

// Returns the first bytes of a packet that was begun, to be changed while nobody else has the
// packet; null before. What was sent does not change.
inline comm_socket_v4_packet_header* comm_get_header(comm_socket_v4_packet& p) noexcept {
  return p.buffer != nullptr && p.buffer_length >= COMM_V4_HEADER_LENGTH
             ? reinterpret_cast<comm_socket_v4_packet_header*>(p.buffer)
             : nullptr;
}

// ------------------------------------------------------------------------------------------------
// Writing.

// Why a builder gives no packet.
enum class CommPacketReason {
  none,              // it does, so far
  no_memory,         // errno ENOMEM
  packet_too_long,   // beyond what the receiver takes; errno EMSGSIZE
  no_command,        // errno EINVAL here and below: an empty command, which no receiver takes
  too_long,          // a text beyond its limit
  nul_inside,        // a text with a NUL in it, where readers would end it
  empty_text,        // an empty text as an argument, which the library leaves out
  bad_format,        // vsnprintf failed
  too_many,          // arguments, pairs or descriptors
  too_far,           // an argument that would start beyond COMM_V4_MAX_ARGUMENT_OFFSET
  null_value,        // null with a length
  reserved,          // flags or a type that have calls of their own
  wrong_order,       // arguments and pairs behind the data, anything behind finish
  lacks_descriptor,  // negative, errno EBADF, or not to be duplicated, errno that of dup(2)
  not_filled,        // what writes the data in place, or a read, failed; errno as it left it
};

// What failed first, and where.
struct CommPacketError {
  CommPacketReason reason = CommPacketReason::none;
  const char* part = "";  // "command", "error string", "argument", "pair", "data", "descriptor",
                          // "header" or "packet"
  std::size_t index = 0;  // of the argument, pair or descriptor: how many there were before it

  // Returns it for people: "argument 2: a text beyond its limit". The texts may change.
  std::string what() const;
};

// What an empty text is, where an argument is wanted. The library leaves it out, and what follows
// moves up; here it is an error, or an argument like any other: it counts, is a text and has no
// characters. (Its value is the NUL behind the command.)
enum class CommEmptyText { is_error, is_argument };

// Writes a packet from its beginning to the end. Nothing is lost in silence: the first call that
// cannot do all that it says is remembered, the others do nothing, and finish gives no packet. So
// one look at the end is enough. Arguments and pairs come in any mix, then the data; header values
// and descriptors when you like. No call throws.
//
//     CommPacketBuilder answer = CommPacketBuilder::response_to(*request);
//     answer.pair_uint64("size", size).pair("owner", owner).descriptor(std::move(file));
//     const CommPacket packet = answer.data(bytes).finish();
//     if (!packet) log(answer.error().what());
class CommPacketBuilder {
 public:
  // Begins a packet. `size_hint` is that of write_begin: the expected size of the whole packet in
  // bytes, 0 for a usual one.
  static CommPacketBuilder request(std::string_view command, std::size_t size_hint = 0) {
    return CommPacketBuilder(true, command, {}, size_hint);
  }
  static CommPacketBuilder response(std::string_view command, std::string_view error_string = {},
                                    std::size_t size_hint = 0) {
    return CommPacketBuilder(false, command, error_string, size_hint);
  }
  // With the request's command, message id and stream id.
  static CommPacketBuilder response_to(const comm_socket_v4_packet& request,
                                       std::string_view error_string = {},
                                       std::size_t size_hint = 0) {
    CommPacketBuilder builder(false, request.command(), error_string, size_hint);
    builder.message_id(request.message_id).stream_id(request.stream_id);
    return builder;
  }
  // And with an errno as error code, and its words; 0 is none.
  static CommPacketBuilder response_to(const comm_socket_v4_packet& request, int error) {
    CommPacketBuilder builder = response_to(request, error != 0 ? std::strerror(error) : "");
    builder.error_code(static_cast<std::uint64_t>(error));
    return builder;
  }

  // Header values, until finish.
  CommPacketBuilder& message_id(std::uint64_t id) {
    return set([&](comm_socket_v4_packet& p) { p.message_id = id; });
  }
  CommPacketBuilder& stream_id(std::uint64_t id) {
    return set([&](comm_socket_v4_packet& p) { p.stream_id = id; });
  }
  CommPacketBuilder& error_code(std::uint64_t code) {
    return set([&](comm_socket_v4_packet& p) { p.error_code = code; });
  }
  CommPacketBuilder& async(bool on = true) {
    return set([&](comm_socket_v4_packet& p) { p.set_async(on); });
  }
  CommPacketBuilder& multipart(CommMultipart part) {
    return set([&](comm_socket_v4_packet& p) { comm_set_multipart(p, part); });
  }
  // The same by place; a packet that is both first and last is no part of a series.
  CommPacketBuilder& multipart(bool is_first, bool is_last) {
    if (is_first) return multipart(is_last ? CommMultipart::none : CommMultipart::first);
    return multipart(is_last ? CommMultipart::last : CommMultipart::middle);
  }
  // Bits 4 to 31, in the place of those before; another bit is an error.
  CommPacketBuilder& user_flags(std::uint32_t bits);
  // How long the packet may become: COMM_V4_MAX_RECEIVED_PACKET bytes at first, which is what a
  // receiver of this library takes. Call it before what needs it.
  CommPacketBuilder& limit(std::size_t bytes) noexcept {
    limit_ = std::min(bytes, COMM_V4_MAX_PACKET);
    return *this;
  }

  // Arguments. A null text is an empty one.
  CommPacketBuilder& argument(std::string_view text, CommEmptyText empty = CommEmptyText::is_error);
  CommPacketBuilder& argument(const char* text, CommEmptyText empty = CommEmptyText::is_error) {
    return argument(view(text), empty);
  }
  template <class Number, class = std::enable_if_t<std::is_arithmetic_v<Number>>>
  CommPacketBuilder& argument(Number) = delete;  // Which type? Take one of those below.
  // At most COMM_V4_MAX_FORMATTED_ARGUMENT bytes. A text that comes out empty is an error.
  CommPacketBuilder& argumentf(const char* format, ...) COMM_V4_PRINTF(2, 3);
  CommPacketBuilder& argument_uint64(std::uint64_t value) {
    return number_argument([&](comm_socket_v4_packet& p) { return p.write_argv_uint64(value); });
  }
  CommPacketBuilder& argument_int64(std::int64_t value) {
    return number_argument([&](comm_socket_v4_packet& p) { return p.write_argv_int64(value); });
  }
  CommPacketBuilder& argument_double(double value) {
    return number_argument([&](comm_socket_v4_packet& p) { return p.write_argv_double(value); });
  }

  // Pairs. An empty value is a value.
  CommPacketBuilder& pair(std::string_view name, std::string_view text) {
    return text_pair(name, text, COMM_V4_MAX_TEXT, comm_v4_type_text);
  }
  CommPacketBuilder& pair(std::string_view name, const char* text) {
    return pair(name, view(text));
  }
  template <class Number, class = std::enable_if_t<std::is_arithmetic_v<Number>>>
  CommPacketBuilder& pair(std::string_view name, Number) = delete;  // likewise
  CommPacketBuilder& pair_json(std::string_view name, std::string_view json) {
    return text_pair(name, json, COMM_V4_MAX_PACKET, comm_v4_type_json);
  }
  CommPacketBuilder& pair_bytes(std::string_view name, CommBytes value) {
    return raw_pair(name, value, comm_v4_type_binary);
  }
  // A type of the application's own: pair_fourcc("dot", comm_fourcc("rgba"), bytes).
  CommPacketBuilder& pair_fourcc(std::string_view name, std::uint32_t fourcc, CommBytes value);
  // One number, several in braces, or an array.
  CommPacketBuilder& pair_uint64(std::string_view name, std::uint64_t value) {
    return pair_uint64(name, &value, 1);
  }
  CommPacketBuilder& pair_uint64(std::string_view name, std::initializer_list<std::uint64_t> list) {
    return pair_uint64(name, list.begin(), list.size());
  }
  CommPacketBuilder& pair_uint64(std::string_view name, const std::uint64_t* values,
                                 std::size_t count) {
    return number_pair(name, values, count, comm_v4_type_uint64);
  }
  CommPacketBuilder& pair_int64(std::string_view name, std::int64_t value) {
    return pair_int64(name, &value, 1);
  }
  CommPacketBuilder& pair_int64(std::string_view name, std::initializer_list<std::int64_t> list) {
    return pair_int64(name, list.begin(), list.size());
  }
  CommPacketBuilder& pair_int64(std::string_view name, const std::int64_t* values,
                                std::size_t count) {
    return number_pair(name, values, count, comm_v4_type_int64);
  }
  CommPacketBuilder& pair_double(std::string_view name, double value) {
    return pair_double(name, &value, 1);
  }
  CommPacketBuilder& pair_double(std::string_view name, std::initializer_list<double> list) {
    return pair_double(name, list.begin(), list.size());
  }
  CommPacketBuilder& pair_double(std::string_view name, const double* values, std::size_t count) {
    return number_pair(name, values, count, comm_v4_type_double);
  }

  // Appends to the packet's one block of data, any number of bytes; none is no data.
  CommPacketBuilder& data(CommBytes bytes);
  // Appends data that is written in place, without a copy: calls `fill` once, as if by
  //     ssize_t count = fill(static_cast<unsigned char*>(room), size);
  // with a room of `most` bytes, or COMM_V4_MAX_DATA_PER_WRITE if that is less, all zero. The
  // first `count`, which may be none, become data; a negative one is a failure. The packet may not
  // be too long even with the whole room. `fill` must not throw, nor call the builder.
  //     builder.data_from(16384, [fd](void* room, size_t size) { return ::read(fd, room, size); });
  template <class Fill>
  CommPacketBuilder& data_from(std::size_t most, Fill&& fill);
  // The same by one read of a file, with pread(2) at `offset`, or with read(2) when `offset` is
  // negative. The end of the file gives no data; a read that fails is a failure.
  CommPacketBuilder& data_from_file(int fd, std::int64_t offset, std::size_t most);

  // Descriptors, COMM_V4_MAX_ATTACHED_FDS in all. A number stays the caller's and is duplicated;
  // the duplicate of the second does not survive exec. An owner hands its descriptor over, without
  // a duplicate: it is closed with the packet, also when there is none.
  CommPacketBuilder& descriptor(int fd);
  CommPacketBuilder& descriptor_cloexec(int fd);
  CommPacketBuilder& descriptor(CommDescriptor fd);

  // Completes the packet.
  // Returns it; null when something failed, and when it was called before; errno as the reason has
  // it.
  [[nodiscard]] CommPacket finish();
  // Returns whether nothing has failed so far.
  explicit operator bool() const noexcept { return error_.reason == CommPacketReason::none; }
  // Returns what failed first.
  const CommPacketError& error() const noexcept { return error_; }

 private:
  using Reason = CommPacketReason;

  CommPacketBuilder(bool is_request, std::string_view command, std::string_view error_string,
                    std::size_t size_hint);

  static std::string_view view(const char* text) noexcept {
    return text != nullptr ? std::string_view(text) : std::string_view();
  }
  static Reason check_text(std::string_view text, std::size_t most) noexcept {
    if (text.size() > most) return Reason::too_long;
    return text.find('\0') == std::string_view::npos ? Reason::none : Reason::nul_inside;
  }
  bool has_written() const noexcept {
    return packet_ != nullptr && packet_->write_state == comm_socket_v4_packet::write_state_data;
  }
  // So many so far; both leave their arrays for the packet with the data.
  std::size_t arguments() const noexcept {
    if (packet_ == nullptr) return 0;
    return has_written() ? packet_->argc() : packet_->wr_argv.size();
  }
  std::size_t pairs() const noexcept {
    if (packet_ == nullptr) return 0;
    return has_written() ? packet_->nv_entries() : packet_->wr_nv_pair.size();
  }
  // With the tables that are not written yet.
  std::size_t length() const noexcept {
    return packet_->buffer_write + packet_->wr_argv.size() * sizeof(comm_socket_v4_packet_argv) +
           packet_->wr_nv_pair.size() * sizeof(comm_socket_v4_packet_nv_pair);
  }
  bool has_room_for(std::size_t bytes) const noexcept {
    return length() <= limit_ && bytes <= limit_ - length();
  }

  CommPacketBuilder& fail(Reason reason, const char* part, std::size_t index = 0) noexcept;
  // Does a step that says why it failed, unless another has failed before.
  template <class Step>
  CommPacketBuilder& step(const char* part, std::size_t index, Step do_step) noexcept;
  template <class Step>
  CommPacketBuilder& table_step(const char* part, std::size_t index, Step do_step) noexcept {
    return step(part, index, [&] { return has_written() ? Reason::wrong_order : do_step(); });
  }
  template <class Set>
  CommPacketBuilder& set(Set set_value) {
    return step("header", 0, [&] {
      set_value(*packet_);
      return Reason::none;
    });
  }
  template <class Write>
  CommPacketBuilder& number_argument(Write write) {
    return table_step("argument", arguments(), [&] { return write_argument(write); });
  }
  template <class Number>
  CommPacketBuilder& number_pair(std::string_view name, const Number* values, std::size_t count,
                                 std::uint32_t type) {
    // A length that does not fit is too long for every packet.
    const std::size_t most = COMM_V4_MAX_PACKET / sizeof(Number);
    return raw_pair(name, {values, std::min(count, most) * sizeof(Number)}, type);
  }
  CommPacketBuilder& text_pair(std::string_view name, std::string_view text, std::size_t most,
                               std::uint32_t type);
  CommPacketBuilder& raw_pair(std::string_view name, CommBytes value, std::uint32_t type);

  template <class Write>
  Reason write_argument(Write write);
  Reason write_empty_argument();
  Reason write_pair(std::string_view name, CommBytes value, std::uint32_t type);
  Reason write_data(CommBytes bytes);
  template <class Add>
  Reason add_data(std::size_t most, Add add);
  template <class Fill>
  Reason fill_data(std::size_t size, Fill& fill);
  template <class Attach>
  CommPacketBuilder& attach(int fd, Attach attach_it);

  CommPacket packet_;
  CommPacketError error_;
  int errno_ = 0;  // of the failure
  std::size_t limit_ = COMM_V4_MAX_RECEIVED_PACKET;
};

// ------------------------------------------------------------------------------------------------
// Reading.

// Walks what has size() and operator[], and gives values: nothing points at unaligned elements.
template <class Range>
class CommIterator {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = decltype(std::declval<const Range&>()[0]);
  using difference_type = std::ptrdiff_t;
  using pointer = void;
  using reference = value_type;

  CommIterator() = default;
  CommIterator(const Range& range, std::size_t index) : range_(range), index_(index) {}
  value_type operator*() const { return range_[index_]; }
  CommIterator& operator++() {
    ++index_;
    return *this;
  }
  CommIterator operator++(int) { return {range_, index_++}; }
  // Of iterators over the same range.
  bool operator==(const CommIterator& other) const { return index_ == other.index_; }
  bool operator!=(const CommIterator& other) const { return index_ != other.index_; }

 private:
  Range range_;
  std::size_t index_ = 0;
};

// A list of numbers in a packet, at any alignment. It may be copied, and is good as long as the
// packet. The length that a peer sends need not be a multiple of a number's: what is left over
// behind the last number is no number, and left_over() says how many bytes that is.
template <class Number>
class CommNumbers {
 public:
  using iterator = CommIterator<CommNumbers>;

  CommNumbers() = default;
  explicit CommNumbers(CommBytes bytes) noexcept : bytes_(bytes) {}
  std::size_t size() const noexcept { return bytes_.size() / sizeof(Number); }
  bool empty() const noexcept { return size() == 0; }
  std::size_t left_over() const noexcept { return bytes_.size() % sizeof(Number); }
  // Below size().
  Number operator[](std::size_t index) const noexcept {
    Number number;
    std::memcpy(&number, bytes_.data() + index * sizeof(Number), sizeof(Number));
    return number;
  }

  iterator begin() const { return {*this, 0}; }
  iterator end() const { return {*this, size()}; }
  std::vector<Number> to_vector() const { return std::vector<Number>(begin(), end()); }

 private:
  CommBytes bytes_;
};

// The value of an argument or a pair: a view into the packet, or nothing, when the packet lacks it.
// Nothing is converted: a value of another type reads as nothing, too.
class CommValue {
 public:
  CommValue() = default;
  CommValue(std::uint32_t type, CommBytes bytes) noexcept : type_(type), bytes_(bytes) {}

  // An argument that a peer sent without a value is not present either.
  bool is_present() const noexcept { return bytes_.data() != nullptr; }
  // Returns comm_v4_type_... or the four characters of an application; of nothing it is text.
  std::uint32_t type() const noexcept { return type_; }
  // Returns the bytes, whatever the type: those of the length that the packet gives, without the
  // NUL behind a text.
  CommBytes bytes() const noexcept { return bytes_; }

  // Each returns the value if it has this type. Text and JSON end at their length or before, at the
  // first NUL. A number is the only one of its list.
  std::optional<std::string_view> as_text() const noexcept { return text(comm_v4_type_text); }
  std::optional<std::string_view> as_json() const noexcept { return text(comm_v4_type_json); }
  std::optional<std::uint64_t> as_uint64() const noexcept { return only(uint64_list()); }
  std::optional<std::int64_t> as_int64() const noexcept { return only(int64_list()); }
  std::optional<double> as_double() const noexcept { return only(double_list()); }
  std::optional<CommBytes> as_bytes() const noexcept {
    return has(comm_v4_type_binary) ? std::optional(bytes_) : std::nullopt;
  }
  // Each returns the list if it has this type, else an empty one.
  CommNumbers<std::uint64_t> uint64_list() const noexcept {
    return list<std::uint64_t>(comm_v4_type_uint64);
  }
  CommNumbers<std::int64_t> int64_list() const noexcept {
    return list<std::int64_t>(comm_v4_type_int64);
  }
  CommNumbers<double> double_list() const noexcept { return list<double>(comm_v4_type_double); }

 private:
  bool has(std::uint32_t type) const noexcept { return is_present() && type_ == type; }
  std::optional<std::string_view> text(std::uint32_t type) const noexcept {
    if (!has(type)) return std::nullopt;
    const std::string_view all = bytes_.as_characters();
    return all.substr(0, all.find('\0'));
  }
  template <class Number>
  CommNumbers<Number> list(std::uint32_t type) const noexcept {
    return CommNumbers<Number>(has(type) ? bytes_ : CommBytes());
  }
  template <class Number>
  static std::optional<Number> only(CommNumbers<Number> numbers) noexcept {
    if (numbers.size() != 1 || numbers.left_over() != 0) return std::nullopt;
    return numbers[0];
  }

  std::uint32_t type_ = comm_v4_type_text;
  CommBytes bytes_;
};

// A pair; nothing has the name "".
class CommPair : public CommValue {
 public:
  CommPair() = default;
  CommPair(const char* name, std::uint32_t type, CommBytes bytes) noexcept
      : CommValue(type, bytes), name_(name) {}
  std::string_view name() const noexcept { return name_; }

 private:
  const char* name_ = "";
};

// Typed reading of a packet that was received or completed: a view, which may be copied and is good
// as long as the packet.
//
//     const CommPacketReader read(*packet);
//     const std::optional<std::string_view> path = read.argument(0).as_text();
//     for (const std::int64_t time : read.pair("times").int64_list()) ...
//     for (const CommPair pair : read.pairs()) ...
class CommPacketReader {
 public:
  // Arguments and pairs by position; nothing at and beyond size().
  class Arguments {
   public:
    using iterator = CommIterator<Arguments>;
    Arguments() = default;
    explicit Arguments(const comm_socket_v4_packet& p) noexcept : packet_(&p) {}
    std::size_t size() const noexcept { return packet_->argc(); }
    CommValue operator[](std::size_t index) const noexcept;
    iterator begin() const { return {*this, 0}; }
    iterator end() const { return {*this, size()}; }

   private:
    const comm_socket_v4_packet* packet_ = nullptr;
  };
  class Pairs {
   public:
    using iterator = CommIterator<Pairs>;
    Pairs() = default;
    explicit Pairs(const comm_socket_v4_packet& p) noexcept : packet_(&p) {}
    std::size_t size() const noexcept { return packet_->nv_entries(); }
    CommPair operator[](std::size_t index) const noexcept;
    iterator begin() const { return {*this, 0}; }
    iterator end() const { return {*this, size()}; }

   private:
    const comm_socket_v4_packet* packet_ = nullptr;
  };

  explicit CommPacketReader(const comm_socket_v4_packet& p) noexcept : packet_(&p) {}

  std::string_view command() const noexcept { return packet_->command(); }
  std::string_view error_string() const noexcept { return packet_->error_string(); }
  bool is_request() const noexcept { return has(comm_socket_v4_packet::flag_request); }
  bool is_async() const noexcept { return has(comm_socket_v4_packet::flag_async); }
  CommMultipart multipart() const noexcept { return comm_get_multipart(*packet_); }
  // Return whether nothing of its series comes before it, or behind it: both true of a packet that
  // stands alone.
  bool begins_series() const noexcept {
    return multipart() == CommMultipart::none || multipart() == CommMultipart::first;
  }
  bool ends_series() const noexcept {
    return multipart() == CommMultipart::none || multipart() == CommMultipart::last;
  }

  CommBytes data() const noexcept { return {packet_->data(), packet_->data_length()}; }

  Arguments arguments() const noexcept { return Arguments(*packet_); }
  Pairs pairs() const noexcept { return Pairs(*packet_); }
  // Returns the argument with this number, from 0 on; nothing when there are fewer.
  CommValue argument(std::size_t index) const noexcept { return arguments()[index]; }
  // Returns the first pair with this name; nothing when there is none.
  CommPair pair(std::string_view name) const noexcept;

 private:
  bool has(std::uint32_t flag) const noexcept { return (packet_->flags & flag) != 0; }

  const comm_socket_v4_packet* packet_;
};

// ------------------------------------------------------------------------------------------------
// A blocking client.

// What connect does while no server is there: no file (ENOENT), or one that nobody listens on
// (ECONNREFUSED).
enum class CommMissingServer { fails, is_awaited };

// A connection to a server, for a program that waits for its answers. Each call blocks for
// `timeout` at most, connect up to 10 ms longer: 0 or less looks once, `endless` waits for ever.
// Signals neither shorten nor prolong it. One thread at a time may use it.
//
// While a call waits for one thing it keeps the packets that it reads besides, in order, and next()
// hands them out. They are COMM_V4_MAX_QUEUED_PACKETS at most, or what keep_at_most says: then the
// calls that may have to keep another one fail with ENOBUFS until next() has taken some.
//
// When the server has ended the connection the call that reads it fails with ENOTCONN, and closes:
// from then on every call fails so. What was kept is there until the next connect or close. A
// receive that fails does the same with its own errno: ECONNRESET when the server has closed with
// packets of ours unread. A send to a server that has gone fails with EPIPE or ECONNRESET and does
// not close: what the server sent before, if it is still there, and the end can be read.
class CommClient {
 public:
  static constexpr std::chrono::microseconds endless = std::chrono::microseconds::max();

  // Takes an endpoint over, closed or with its connection made, such as an end of a pair. Without
  // memory for one every call fails, connect with ENOMEM.
  explicit CommClient(CommEndpoint endpoint = CommEndpoint(comm_socket_v4_create())) noexcept
      : endpoint_(std::move(endpoint)) {}

  // Connects to the server at `path`, as comm_socket_v4_connect_to does, but success is a
  // connection. Closes and forgets what was there before, and sets both connect timeouts of the
  // endpoint.
  // Returns true when connected; false with the endpoint closed; errno ETIMEDOUT, EINVAL for a null
  // or empty path, ENOMEM, or that of connect_to.
  bool connect(const char* path, std::chrono::microseconds timeout,
               CommMissingServer missing = CommMissingServer::fails);
  // Returns whether there is a connection whose end has not been read.
  bool is_connected() const noexcept {
    return comm_socket_v4_is_open(endpoint_.get()) != 0 && endpoint_->flags.server == 0 &&
           comm_socket_v4_connection_pending(endpoint_.get()) == 0;
  }
  // Closes, and forgets what was kept. With packets of the server unread, those of ours that it has
  // not read yet are lost: end with a call, not with a send, where that matters.
  void close() noexcept;
  // Returns the endpoint, for settings and the log: it stays the client's, and so do the packets
  // that come. Null without memory.
  comm_socket_v4* endpoint() const noexcept { return endpoint_.get(); }

  // Sends the packet; the caller keeps it. While the socket takes no more what the server sends is
  // read and kept, so that two who send to each other do not wait for ever.
  // Returns true when it is on its way; false and nothing was sent; errno ETIMEDOUT, ENOBUFS,
  // ENOTCONN, that of the receive, or of comm_socket_v4_packet_send_to_server; EINVAL for a packet
  // that was never written; EMSGSIZE for one above COMM_V4_MAX_RECEIVED_PACKET, which the server
  // would drop; untouched for null, so that it is still that of the builder.
  bool send(const CommPacket& packet, std::chrono::microseconds timeout);
  // Sends a request and waits for its answer: the first response with its message id. That id is
  // next_id(), whatever it was before. Further parts of a multipart answer come from answer_to(id)
  // or from next(). An answer that comes when its call has timed out is dropped; so a request whose
  // call has failed may have been carried out.
  // Returns the answer; null; errno as send and answer_to.
  CommPacket call(const CommPacket& request, std::chrono::microseconds timeout);
  // Waits for a response with this message id, and looks at what was kept first. For packets that
  // were sent with an id of next_id(), several at a time perhaps, and for further parts.
  // Returns it; null; errno ETIMEDOUT, ENOBUFS, ENOMEM, ENOTCONN, or that of the receive.
  CommPacket answer_to(std::uint64_t id, std::chrono::microseconds timeout);
  // Drops the response with this message id that was kept, and what of it still comes, up to the
  // last of a series. A call that fails does so by itself; this is for answer_to.
  void give_up(std::uint64_t id) noexcept;
  // Returns the oldest packet that was kept, else the next that comes; null; errno ETIMEDOUT,
  // ENOMEM, ENOTCONN, or that of the receive.
  CommPacket next(std::chrono::microseconds timeout);
  // Returns a message id that no call and no next_id had before; never 0.
  std::uint64_t next_id() noexcept { return ++last_id_; }
  // How many packets may be kept. With 0 a send waits for room and reads nothing: for a client that
  // answers what it reads, and shall be sent no more than its answers are taken. call and answer_to
  // fail then.
  void keep_at_most(std::size_t packets) noexcept { most_kept_ = packets; }

 private:
  // So many ids of calls that timed out are remembered, to drop their answers.
  static constexpr std::size_t most_given_up = 4096;
  static constexpr unsigned long retry_pause_us = 10000;

  static unsigned long now_us() noexcept {
    return static_cast<unsigned long>(std::chrono::duration_cast<std::chrono::microseconds>(
                                          std::chrono::steady_clock::now().time_since_epoch())
                                          .count());
  }
  static unsigned long deadline_in(std::chrono::microseconds timeout) noexcept {
    if (timeout == endless) return ULONG_MAX;
    return now_us() +
           static_cast<unsigned long>(std::max(timeout, std::chrono::microseconds::zero()).count());
  }
  static bool is_in_time(unsigned long deadline) noexcept {
    if (now_us() < deadline) return true;
    errno = ETIMEDOUT;
    return false;
  }
  static bool is_answer(const comm_socket_v4_packet& p, std::uint64_t id) noexcept {
    return (p.flags & comm_socket_v4_packet::flag_request) == 0 && p.message_id == id;
  }
  bool may_keep() const noexcept {
    if (kept_.size() < most_kept_) return true;
    errno = ENOBUFS;
    return false;
  }

  bool try_to_connect(const char* path, unsigned long deadline);
  bool send_until(const CommPacket& packet, unsigned long deadline);
  CommPacket await_answer(std::uint64_t id, unsigned long deadline);
  CommPacket receive(unsigned long deadline);
  bool wait(short events, unsigned long deadline) const noexcept;
  bool read(CommPacket& packet);
  bool keep(CommPacket packet) noexcept;
  bool is_too_late(const comm_socket_v4_packet& p) noexcept;

  CommEndpoint endpoint_;
  std::list<CommPacket> kept_;           // oldest first
  std::vector<std::uint64_t> given_up_;  // ids of calls that timed out, ascending
  std::uint64_t last_id_ = 0;
  std::size_t most_kept_ = COMM_V4_MAX_QUEUED_PACKETS;
};

// ------------------------------------------------------------------------------------------------
// The longer functions. Nothing below says more than the declarations above.

inline std::string CommPacketError::what() const {
  const auto text = [this] {
    switch (reason) {
      case CommPacketReason::none:
        return "nothing failed";
      case CommPacketReason::no_memory:
        return "no memory";
      case CommPacketReason::packet_too_long:
        return "the packet is longer than a receiver takes";
      case CommPacketReason::no_command:
        return "an empty command";
      case CommPacketReason::too_long:
        return "a text beyond its limit";
      case CommPacketReason::nul_inside:
        return "a text with a NUL in it";
      case CommPacketReason::empty_text:
        return "an empty text";
      case CommPacketReason::bad_format:
        return "a text that cannot be formatted";
      case CommPacketReason::too_many:
        return "more than a packet holds";
      case CommPacketReason::too_far:
        return "too far from the start of the packet";
      case CommPacketReason::null_value:
        return "null with a length";
      case CommPacketReason::reserved:
        return "reserved for the library";
      case CommPacketReason::wrong_order:
        return "too late";
      case CommPacketReason::lacks_descriptor:
        return "no descriptor";
      case CommPacketReason::not_filled:
        return "not filled";
    }
    return "?";
  };
  const std::string_view where = part;
  std::string all(where);
  if (where == "argument" || where == "pair" || where == "descriptor")
    all += " " + std::to_string(index);
  if (!all.empty()) all += ": ";
  return all + text();
}

// --- Builder ------------------------------------------------------------------------------------

inline CommPacketBuilder& CommPacketBuilder::fail(Reason reason, const char* part,
                                                  std::size_t index) noexcept {
  error_ = {reason, part, index};
  if (reason == Reason::no_memory)
    errno_ = ENOMEM;
  else if (reason == Reason::packet_too_long)
    errno_ = EMSGSIZE;
  else if (reason == Reason::lacks_descriptor || reason == Reason::not_filled)
    errno_ = errno;
  else
    errno_ = EINVAL;
  return *this;
}

template <class Step>
CommPacketBuilder& CommPacketBuilder::step(const char* part, std::size_t index,
                                           Step do_step) noexcept {
  if (error_.reason != Reason::none) return *this;
  if (packet_ == nullptr) return fail(Reason::wrong_order, part, index);
  Reason reason = Reason::no_memory;
  try {
    reason = do_step();
    if (reason == Reason::none && !has_room_for(0)) reason = Reason::packet_too_long;
  } catch (const std::bad_alloc&) {
  }
  return reason == Reason::none ? *this : fail(reason, part, index);
}

inline CommPacketBuilder::CommPacketBuilder(bool is_request, std::string_view command,
                                            std::string_view error_string, std::size_t size_hint)
    : packet_(comm_socket_v4_packet_create()) {
  if (packet_ == nullptr) {
    fail(Reason::no_memory, "packet");
    return;
  }
  packet_->set_request(is_request);
  step("command", 0, [&] {
    if (command.empty()) return Reason::no_command;
    return check_text(command, COMM_V4_MAX_COMMAND);
  });
  step("error string", 0, [&] { return check_text(error_string, COMM_V4_MAX_ERROR_STRING); });
  step("packet", 0, [&] {
    const std::string command_text(command);
    const std::string error_text(error_string);
    if (packet_->write_begin(command_text.c_str(), error_text.c_str(), size_hint) != 0)
      return Reason::no_memory;
    // A text for which there was no memory is absent.
    const bool whole = packet_->command() == command && packet_->error_string() == error_string;
    return whole ? Reason::none : Reason::no_memory;
  });
}

inline CommPacketBuilder& CommPacketBuilder::user_flags(std::uint32_t bits) {
  using P = comm_socket_v4_packet;
  constexpr std::uint32_t own = P::flag_request | P::flag_async | P::multipart_mask;
  return step("header", 0, [&] {
    if ((bits & own) != 0) return Reason::reserved;
    packet_->flags = (packet_->flags & own) | bits;
    return Reason::none;
  });
}

template <class Write>
CommPacketReason CommPacketBuilder::write_argument(Write write) {
  if (arguments() >= COMM_V4_MAX_ARGUMENTS) return Reason::too_many;
  if (packet_->buffer_write > COMM_V4_MAX_ARGUMENT_OFFSET) return Reason::too_far;
  const bool stored = write(*packet_) == 0 && packet_->wr_argv.back().is_present();
  return stored ? Reason::none : Reason::no_memory;
}

// The command is near the start of the packet, so its end has an offset that an argument can have.
inline CommPacketReason CommPacketBuilder::write_empty_argument() {
  const std::size_t end = COMM_V4_HEADER_LENGTH + std::strlen(packet_->command());
  return write_argument([end](comm_socket_v4_packet& p) {
    comm_socket_v4_packet_argv entry = {};
    entry.value_offset[0] = static_cast<std::uint8_t>(end);
    entry.value_offset[1] = static_cast<std::uint8_t>(end >> 8);
    entry.type_code = comm_v4_type_text;
    p.wr_argv.push_back(entry);
    return 0;
  });
}

inline CommPacketBuilder& CommPacketBuilder::argument(std::string_view text, CommEmptyText empty) {
  return table_step("argument", arguments(), [&] {
    if (text.empty())
      return empty == CommEmptyText::is_argument ? write_empty_argument() : Reason::empty_text;
    if (const Reason bad = check_text(text, COMM_V4_MAX_TEXT); bad != Reason::none) return bad;
    const std::string terminated(text);
    return write_argument(
        [&](comm_socket_v4_packet& p) { return p.write_argv(terminated.c_str()); });
  });
}

inline CommPacketBuilder& CommPacketBuilder::argumentf(const char* format, ...) {
  char text[COMM_V4_MAX_FORMATTED_ARGUMENT + 1];
  std::va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  if (length >= 0 && static_cast<std::size_t>(length) < sizeof(text))
    return argument(std::string_view(text, static_cast<std::size_t>(length)));
  return table_step("argument", arguments(),
                    [&] { return length < 0 ? Reason::bad_format : Reason::too_long; });
}

inline CommPacketBuilder& CommPacketBuilder::text_pair(std::string_view name, std::string_view text,
                                                       std::size_t most, std::uint32_t type) {
  table_step("pair", pairs(), [&] { return check_text(text, most); });
  return raw_pair(name, text, type);
}

inline CommPacketBuilder& CommPacketBuilder::pair_fourcc(std::string_view name,
                                                         std::uint32_t fourcc, CommBytes value) {
  table_step("pair", pairs(),
             [&] { return fourcc <= comm_v4_type_int64 ? Reason::reserved : Reason::none; });
  return raw_pair(name, value, fourcc);
}

inline CommPacketBuilder& CommPacketBuilder::raw_pair(std::string_view name, CommBytes value,
                                                      std::uint32_t type) {
  return table_step("pair", pairs(), [&] { return write_pair(name, value, type); });
}

inline CommPacketReason CommPacketBuilder::write_pair(std::string_view name, CommBytes value,
                                                      std::uint32_t type) {
  if (pairs() >= COMM_V4_MAX_PAIRS) return Reason::too_many;
  if (const Reason bad = check_text(name, COMM_V4_MAX_NAME); bad != Reason::none) return bad;
  if (value.data() == nullptr && !value.empty()) return Reason::null_value;
  if (!has_room_for(value.size())) return Reason::packet_too_long;
  const std::string terminated(name);
  if (packet_->write_nv_pair_raw(terminated.c_str(), value.data(), value.size(), type) != 0)
    return Reason::packet_too_long;
  // A name or a value for which there was no memory is absent.
  const comm_socket_v4_packet_nv_pair& entry = packet_->wr_nv_pair.back();
  return entry.name_offset != 0 && entry.value_offset != 0 ? Reason::none : Reason::no_memory;
}

inline CommPacketBuilder& CommPacketBuilder::data(CommBytes bytes) {
  return step("data", 0, [&] { return write_data(bytes); });
}

inline CommPacketReason CommPacketBuilder::write_data(CommBytes bytes) {
  if (bytes.data() == nullptr && !bytes.empty()) return Reason::null_value;
  if (!has_room_for(bytes.size())) return Reason::packet_too_long;
  for (std::size_t at = 0; at < bytes.size();) {
    const std::size_t part = std::min(bytes.size() - at, COMM_V4_MAX_DATA_PER_WRITE);
    if (packet_->write_data_binary(bytes.data() + at, part) < 0) return Reason::no_memory;
    at += part;
  }
  return Reason::none;
}

template <class Fill>
CommPacketBuilder& CommPacketBuilder::data_from(std::size_t most, Fill&& fill) {
  return step("data", 0, [&] {
    return add_data(most, [&](std::size_t size) { return fill_data(size, fill); });
  });
}

inline CommPacketBuilder& CommPacketBuilder::data_from_file(int fd, std::int64_t offset,
                                                            std::size_t most) {
  return step("data", 0, [&] {
    return add_data(most, [&](std::size_t size) {
      if (packet_->write_data_from_file(fd, offset, size) >= 0) return Reason::none;
      return errno == ENOMEM ? Reason::no_memory : Reason::not_filled;
    });
  });
}

// With the size of the room.
template <class Add>
CommPacketReason CommPacketBuilder::add_data(std::size_t most, Add add) {
  const std::size_t size = std::min(most, COMM_V4_MAX_DATA_PER_WRITE);
  if (size == 0) return Reason::none;
  return has_room_for(size) ? add(size) : Reason::packet_too_long;
}

template <class Fill>
CommPacketReason CommPacketBuilder::fill_data(std::size_t size, Fill& fill) {
  unsigned char* const room = packet_->reserve_data(size);
  if (room == nullptr) return Reason::no_memory;
  const auto count = fill(room, size);
  if (count < 0) return Reason::not_filled;
  if (packet_->commit_data(static_cast<std::size_t>(count)) >= 0) return Reason::none;
  errno = EINVAL;  // more than there was room for
  return Reason::not_filled;
}

template <class Attach>
CommPacketBuilder& CommPacketBuilder::attach(int fd, Attach attach_it) {
  const std::size_t index = packet_ != nullptr ? packet_->attached_fd_count() : 0;
  return step("descriptor", index, [&] {
    if (index >= COMM_V4_MAX_ATTACHED_FDS) return Reason::too_many;
    errno = EBADF;  // what a negative one fails with
    return fd >= 0 && attach_it(*packet_) ? Reason::none : Reason::lacks_descriptor;
  });
}

inline CommPacketBuilder& CommPacketBuilder::descriptor(int fd) {
  return attach(fd, [fd](comm_socket_v4_packet& p) { return p.attach_fd_to_send(fd); });
}

inline CommPacketBuilder& CommPacketBuilder::descriptor_cloexec(int fd) {
  return attach(fd, [fd](comm_socket_v4_packet& p) { return p.attach_fd_to_send_cloexec(fd); });
}

inline CommPacketBuilder& CommPacketBuilder::descriptor(CommDescriptor fd) {
  return attach(fd.get(), [&fd](comm_socket_v4_packet& p) {
    p.attached_fd.push_back(fd.get());
    fd.release();
    return true;
  });
}

inline CommPacket CommPacketBuilder::finish() {
  step("packet", 0, [&] {
    if (packet_->write_end() != 0) return Reason::no_memory;
    // They were set after write_begin had copied them.
    comm_socket_v4_packet_header* const header = comm_get_header(*packet_);
    header->stream_id = packet_->stream_id;
    header->message_id = packet_->message_id;
    header->error_code = packet_->error_code;
    header->flags = packet_->flags;
    return Reason::none;
  });
  if (error_.reason == Reason::none) return std::move(packet_);
  packet_.reset();
  errno = errno_;
  return nullptr;
}

// --- Reader -------------------------------------------------------------------------------------

inline CommValue CommPacketReader::Arguments::operator[](std::size_t index) const noexcept {
  const comm_socket_v4_packet_argv* const entry = packet_->argv(index);
  if (entry == nullptr || !entry->is_present()) return {};
  const unsigned char* const value = packet_->buffer + entry->offset();
  const bool is_text = entry->type() == comm_v4_type_text;
  return {entry->type(), {value, is_text ? std::strlen(packet_->argv_text(entry)) : 8}};
}

inline CommPair CommPacketReader::Pairs::operator[](std::size_t index) const noexcept {
  const comm_socket_v4_packet_nv_pair* const entry = packet_->nv_entry(index);
  if (entry == nullptr) return {};
  return {packet_->nv_pair_name(entry),
          entry->type(),
          {packet_->nv_pair_value_raw(entry), entry->length()}};
}

// A peer may give every pair the same long name, so no more of a name is looked at than is wanted.
inline CommPair CommPacketReader::pair(std::string_view name) const noexcept {
  for (std::size_t i = 0; i < packet_->nv_entries(); ++i) {
    const char* const candidate = packet_->nv_pair_name(packet_->nv_entry(i));
    if (::strnlen(candidate, name.size() + 1) == name.size() &&
        name.compare(0, name.size(), candidate, name.size()) == 0)
      return pairs()[i];
  }
  return {};
}

// --- Client -------------------------------------------------------------------------------------

inline void CommClient::close() noexcept {
  kept_.clear();
  given_up_.clear();
  if (endpoint_ == nullptr) return;
  CommPacket(std::exchange(endpoint_->next_packet, nullptr)).reset();
  comm_socket_v4_close(endpoint_.get());
}

inline bool CommClient::connect(const char* path, std::chrono::microseconds timeout,
                                CommMissingServer missing) {
  close();
  errno = endpoint_ == nullptr ? ENOMEM : EINVAL;
  if (endpoint_ == nullptr || path == nullptr || *path == '\0') return false;
  const unsigned long deadline = deadline_in(timeout);
  while (!try_to_connect(path, deadline)) {
    // Without an errno the server went away meanwhile, and the next try tells how.
    const bool is_missing = errno == ENOENT || errno == ECONNREFUSED;
    if (errno != 0 && !(is_missing && missing == CommMissingServer::is_awaited)) return false;
    if (!is_in_time(deadline)) return false;
    const unsigned long left = std::min(deadline - now_us(), retry_pause_us);
    std::this_thread::sleep_for(std::chrono::microseconds(left));
  }
  return true;
}

inline bool CommClient::try_to_connect(const char* path, unsigned long deadline) {
  comm_socket_v4* const server = endpoint_.get();
  const unsigned long now = now_us();
  const unsigned long left = deadline > now ? deadline - now : 1;  // 0 would be no timeout
  comm_socket_v4_set_connect_timeout(server, deadline == ULONG_MAX ? 0 : left);
  comm_socket_v4_set_connect_timeout_routine(server, 0);
  if (comm_socket_v4_connect_to(server, path) != 0) return false;
  struct ucred cred;
  if (is_connected() && comm_socket_v4_get_server_cred(server, &cred) == 0) return true;
  comm_socket_v4_close(server);
  errno = 0;
  return false;
}

inline bool CommClient::send(const CommPacket& packet, std::chrono::microseconds timeout) {
  return packet != nullptr && send_until(packet, deadline_in(timeout));
}

inline bool CommClient::send_until(const CommPacket& packet, unsigned long deadline) {
  const bool is_too_long = packet->buffer_length > COMM_V4_MAX_RECEIVED_PACKET;
  if (is_too_long || packet->write_state == comm_socket_v4_packet::write_state_none) {
    errno = is_too_long ? EMSGSIZE : EINVAL;
    return false;
  }
  for (;;) {
    const int sent = comm_socket_v4_packet_send_to_server(endpoint_.get(), packet.get());
    if (sent != 0) return sent > 0;
    if (most_kept_ == 0) {
      if (!wait(POLLOUT, deadline)) return false;
      continue;
    }
    if (!may_keep() || !wait(POLLIN | POLLOUT, deadline)) return false;
    CommPacket received;
    if (!read(received)) return false;
    if (received != nullptr && !is_too_late(*received) && !keep(std::move(received))) return false;
  }
}

inline CommPacket CommClient::call(const CommPacket& request, std::chrono::microseconds timeout) {
  if (request == nullptr || !may_keep()) return nullptr;
  const unsigned long deadline = deadline_in(timeout);
  const std::uint64_t id = next_id();
  request->message_id = id;
  if (comm_socket_v4_packet_header* const header = comm_get_header(*request))
    header->message_id = id;
  if (!send_until(request, deadline)) return nullptr;
  CommPacket answer = await_answer(id, deadline);
  if (answer == nullptr) give_up(id);
  return answer;
}

inline CommPacket CommClient::answer_to(std::uint64_t id, std::chrono::microseconds timeout) {
  const auto found = std::find_if(kept_.begin(), kept_.end(),
                                  [id](const CommPacket& p) { return is_answer(*p, id); });
  if (found == kept_.end()) return await_answer(id, deadline_in(timeout));
  CommPacket answer = std::move(*found);
  kept_.erase(found);
  return answer;
}

inline CommPacket CommClient::await_answer(std::uint64_t id, unsigned long deadline) {
  // The clock is asked for every packet: a server that sends without pause must not hold us.
  do {
    if (!may_keep()) return nullptr;
    CommPacket packet = receive(deadline);
    if (packet == nullptr || is_answer(*packet, id)) return packet;
    if (!keep(std::move(packet))) return nullptr;
  } while (is_in_time(deadline));
  return nullptr;
}

inline CommPacket CommClient::next(std::chrono::microseconds timeout) {
  if (kept_.empty()) return receive(deadline_in(timeout));
  CommPacket packet = std::move(kept_.front());
  kept_.pop_front();
  return packet;
}

// The next packet that is wanted by anybody; null with errno.
inline CommPacket CommClient::receive(unsigned long deadline) {
  CommPacket packet;
  do {
    if (!read(packet)) return nullptr;
    if (packet != nullptr && !is_too_late(*packet)) return packet;
  } while (wait(POLLIN, deadline));
  return nullptr;
}

// Both ways at a time, which the waits of the library do not.
inline bool CommClient::wait(short events, unsigned long deadline) const noexcept {
  struct pollfd socket = {endpoint_->socket_fd, events, 0};
  while (is_in_time(deadline)) {
    const unsigned long left = deadline - std::min(now_us(), deadline);
    const struct timespec time = {static_cast<time_t>(left / 1000000),
                                  static_cast<long>(left % 1000000) * 1000};
    const int ready = ::ppoll(&socket, 1, deadline == ULONG_MAX ? nullptr : &time, nullptr);
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return false;
  }
  return false;
}

// What has come, or null when there is nothing; false with errno when none can come.
inline bool CommClient::read(CommPacket& packet) {
  if (!is_connected()) {
    errno = ENOTCONN;
    return false;
  }
  const int idle = comm_socket_v4_idle_clientside(endpoint_.get());
  packet.reset(std::exchange(endpoint_->next_packet, nullptr));
  return packet != nullptr || idle == 0;
}

// Without memory the packet goes back to where it came from.
inline bool CommClient::keep(CommPacket packet) noexcept {
  try {
    kept_.push_back(std::move(packet));
    return true;
  } catch (const std::bad_alloc&) {
    endpoint_->next_packet = packet.release();
    errno = ENOMEM;
    return false;
  }
}

// The oldest id is the lowest, unless somebody makes his own.
inline void CommClient::give_up(std::uint64_t id) noexcept {
  const int error = errno;
  if (given_up_.size() >= most_given_up) given_up_.erase(given_up_.begin());
  try {
    const auto place = std::lower_bound(given_up_.begin(), given_up_.end(), id);
    if (place == given_up_.end() || *place != id) given_up_.insert(place, id);
    kept_.remove_if([this](const CommPacket& p) { return is_too_late(*p); });
  } catch (const std::bad_alloc&) {  // Its answer will be kept like any other.
  }
  errno = error;
}

// Whether it answers a call that has failed. Every part of such an answer does, up to the last.
inline bool CommClient::is_too_late(const comm_socket_v4_packet& p) noexcept {
  if ((p.flags & comm_socket_v4_packet::flag_request) != 0) return false;
  const auto found = std::lower_bound(given_up_.begin(), given_up_.end(), p.message_id);
  if (found == given_up_.end() || *found != p.message_id) return false;
  if (CommPacketReader(p).ends_series()) given_up_.erase(found);
  return true;
}

#endif
