// Any sequence of calls of the writer, beside a model of the packet that they make. What was
// written validates and reads back; a call that is refused has changed nothing.
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <tuple>

#include "fuzz/harness.h"

namespace {

using Writer = comm_socket_v4_packet;

constexpr std::size_t most_bytes = 70000;  // the longest text fits, and time is bounded

std::string cut(const std::string& text, std::size_t most) {
  return std::string(text.c_str()).substr(0, most);
}

class Model {
 public:
  explicit Model(const Input& in) : in_(in) {
    p_.flags = 0xfffffff5;
    p_.set_complete_cb([](comm_socket_v4_packet* p) { return static_cast<int>(++p->tag); });
  }

  bool goes_on() const { return !in_.empty() && p_.buffer_length < most_bytes; }

  // One call, or the same one until it was made often enough or is refused.
  void step() {
    constexpr int often[] = {1, 2, 255, 257, 4096};
    const int times = often[in_.one_of(".:aA*")];
    const Input call = in_;
    for (int i = 0; i < times && p_.buffer_length < most_bytes; ++i) {
      in_ = call;
      if (!make_step(in_, *this, "bapdercf", &Model::begin, &Model::argument, &Model::pair,
                     &Model::data, &Model::end, &Model::reserve, &Model::commit, &Model::from_file))
        break;
    }
    REQUIRE(p_.write_state == state_);
    if (p_.buffer_length > 1000) return;
    REQUIRE(read_everything(p_) == readable());
    dump_everything(p_);
  }

  void finish() {
    if (!end()) return;
    REQUIRE(p_.tag == 1);  // completions
    REQUIRE(p_.wr_nv_pair.size() == (pair_count_ < 4096 ? 0 : pair_count_));
    REQUIRE(p_.buffer[p_.buffer_length] == 0);
    const CommPacket sent = exact_packet(bytes_of(&p_));
    const bool accepted = accepts(sent);
    REQUIRE(accepted == (head_[0] != '\0') && sent->flags == (accepted ? p_.flags : 0));
    REQUIRE(read_everything(*sent) == readable());
  }

 private:
  // The tables come with the first data or the end; one of more than 4095 pairs does not come.
  std::string readable() const {
    const bool tables = state_ >= Writer::write_state_data;
    return head_ + (tables ? arguments_ : "") + (tables && pair_count_ < 4096 ? pairs_ : "") +
           data_;
  }
  bool in_header() const { return state_ == Writer::write_state_header; }

  template <class Call>
  bool make(bool legal, Call call, std::size_t answer = 0) {
    const auto everything = [this] {
      return std::tuple(bytes_of(&p_), p_.buffer_write, p_.wr_argv.size(), p_.wr_nv_pair.size());
    };
    const auto before = legal ? decltype(everything())() : everything();
    errno = EILSEQ;
    REQUIRE(call() == (legal ? static_cast<int>(answer) : -1) && errno == EILSEQ);
    REQUIRE(legal || everything() == before);
    return legal;
  }

  bool begin() {
    const std::string command = in_.text(), error_string = in_.text();
    const bool made = make(state_ == Writer::write_state_none, [&] {
      return p_.write_begin(command.c_str(), error_string.c_str(), 0);
    });
    if (!made) return false;
    state_ = Writer::write_state_header;
    head_ = cut(command, 255) + '\0' + cut(error_string, 4095) + '\0';
    return true;
  }

  bool argument() {
    const std::size_t kind = in_.one_of("tfn");
    const std::string text = cut(in_.text(), SIZE_MAX);
    const bool is_number = kind == 2, adds = is_number || !text.empty();
    const std::uint64_t number = is_number ? ~text.size() : 0;
    const bool fits = !adds || p_.wr_argv.size() < 255;
    const bool legal = in_header() && fits && (kind != 1 || text.size() <= 256);
    const bool made = make(legal, [&] {
      if (is_number) return p_.write_argv_uint64(number);
      return kind == 1 ? p_.write_argvf("%s", text.c_str()) : p_.write_argv(text.c_str());
    });
    const std::uint8_t type = is_number ? comm_v4_type_uint64 : comm_v4_type_text;
    if (made && adds)
      arguments_ += bits(type, number, 0l, 0.0) + (is_number ? "" : cut(text, 65535)) + '\0';
    return made;
  }

  bool pair() {
    constexpr std::uint32_t types[] = {0, 1, 2, 3, 4, 5, 0x61746164};  // the last reads "data"
    const std::size_t kind = in_.one_of("rtf");
    const std::uint32_t type = kind == 0 ? types[in_.below(std::size(types))] : comm_v4_type_text;
    const std::string name = in_.text(), given = in_.text();
    const bool made = make(in_header(), [&] {
      const auto* const bytes = reinterpret_cast<const unsigned char*>(given.data());
      if (kind == 1) return p_.write_nv_pair(name.c_str(), given.c_str());
      if (kind == 2) return p_.write_nv_pairf(name.c_str(), "%s", given.c_str());
      return p_.write_nv_pair_raw(name.c_str(), bytes, given.size(), type);
    });
    const std::string value = kind == 0 ? given : cut(given, 65535);
    const bool is_text = type == comm_v4_type_text || type == comm_v4_type_json;
    const char* const text = is_text ? value.c_str() : "";
    if (made) pairs_ += bits(type) + cut(name, 4095) + '=' + value + '=' + text + '\0';
    pair_count_ += made ? 1 : 0;
    return made;
  }

  bool data() {
    const std::string given = in_.text();
    const bool legal = given.empty() || takes_data();
    if (legal && !given.empty()) begin_data(0);
    data_ += legal ? given : "";
    const auto* const bytes = reinterpret_cast<const unsigned char*>(given.data());
    return make(
        legal, [&] { return p_.write_data_binary(bytes, given.size()); }, given.size());
  }

  // Writes all of it but for the last byte, which is then zero.
  bool reserve() {
    const std::string given = in_.text();
    const bool legal = !given.empty() && takes_data();
    if (legal) begin_data(given.size());
    return make(legal, [&] {
      unsigned char* const room = p_.reserve_data(given.size());
      if (room == nullptr) return -1;
      written_ = given.substr(0, given.size() - 1) + '\0';
      std::memcpy(room, written_.data(), given.size() - 1);
      return 0;
    });
  }

  bool commit() {
    const std::size_t length = in_.text().size();
    const bool legal = reserved_ != 0 && length <= reserved_;
    data_ += legal ? written_.substr(0, length) : "";
    if (legal) reserved_ = 0;
    return make(
        legal, [&] { return p_.commit_data(length); }, length);
  }

  // Asks for one byte more or fewer than the file has, by either way to read.
  bool from_file() {
    static const CommDescriptor file(::memfd_create("file", MFD_CLOEXEC));
    const bool at_offset = in_.yes();
    const std::string given = in_.text();
    const std::size_t most = in_.yes() ? given.size() + 1 : given.size() - 1;
    REQUIRE(::ftruncate(file.get(), 0) == 0 && ::lseek(file.get(), 0, SEEK_SET) == 0);
    REQUIRE(::pwrite(file.get(), given.data(), given.size(), 0) ==
            static_cast<ssize_t>(given.size()));
    const bool legal = most == 0 || takes_data();
    if (legal && most != 0) begin_data(0);
    const std::string taken = given.substr(0, most);
    data_ += legal ? taken : "";
    return make(
        legal,
        [&] {
          const int answer = p_.write_data_from_file(file.get(), at_offset ? 0 : -1, most);
          REQUIRE(legal || errno == EINVAL);
          if (!legal) errno = EILSEQ;
          return answer;
        },
        taken.size());
  }

  bool takes_data() const { return in_header() || state_ == Writer::write_state_data; }
  void begin_data(std::size_t reserved) {
    state_ = Writer::write_state_data;
    reserved_ = reserved;
  }

  bool end() {
    const bool legal = state_ != Writer::write_state_none;
    if (legal) state_ = Writer::write_state_end, reserved_ = 0;
    return make(legal, [this] { return p_.write_end(); });
  }

  Input in_;
  Writer p_;
  std::string head_ = std::string(2, '\0'), arguments_, pairs_, data_, written_;
  int state_ = Writer::write_state_none;
  std::size_t pair_count_ = 0, reserved_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Model model({data, size});
  while (model.goes_on()) model.step();
  model.finish();
  return 0;
}
