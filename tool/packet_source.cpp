#include "tool/packet_source.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "tool/files.h"
#include "tool/packet_json.h"

// --- A file -------------------------------------------------------------------------------------

InputFile::InputFile(const std::string& path)
    : name_(path == "-" ? "standard input" : in_quotes(path)),
      file_(path == "-" ? CommDescriptor() : open_file(path, O_RDONLY)),
      fd_(path == "-" ? STDIN_FILENO : file_.get()) {}

void InputFile::read(std::string& bytes) {
  char chunk[65536];
  const ssize_t got = ::read(fd_, chunk, sizeof(chunk));
  if (got < 0 && (errno == EINTR || errno == EAGAIN)) return;
  if (got < 0) throw system_failure("cannot read " + name_);
  has_ended_ = got == 0;
  bytes.append(chunk, static_cast<std::size_t>(got));
}

// --- In parts -----------------------------------------------------------------------------------

FileInParts::FileInParts(PacketRecipe recipe, const std::string& path)
    : recipe_(std::move(recipe)),
      file_(path),
      part_size_(COMM_V4_MAX_RECEIVED_PACKET - recipe_.build(nullptr)->buffer_length),
      has_own_id_(recipe_.has_message_id()) {
  if (part_size_ == 0) throw UsageError("the packet leaves no room for data");
}

Outgoing FileInParts::next() {
  const bool is_last = file_.has_ended() && !has_enough();
  if (is_done_ || !(has_enough() || is_last)) return {};
  const std::size_t length = std::min(part_size_, bytes_.size());
  recipe_.set_data(bytes_.substr(0, length));
  if (!has_own_id_) recipe_.set_message_id(sent_);
  if (is_begun_ || !is_last)
    recipe_.set_multipart(!is_begun_ ? CommMultipart::first
                          : is_last  ? CommMultipart::last
                                     : CommMultipart::middle);
  Outgoing part = {recipe_.build(nullptr), is_last};
  recipe_.drop_descriptors();
  bytes_.erase(0, length);
  sent_ += length;
  is_begun_ = true;
  is_done_ = is_last;
  return part;
}

// --- JSON ---------------------------------------------------------------------------------------

void JsonPackets::read_input() {
  std::string bytes;
  file_.read(bytes);
  stream_.add(bytes);
}

Outgoing JsonPackets::next() {
  try {
    const std::optional<JsonText> text = stream_.next();
    if (!text.has_value() && file_.has_ended() && stream_.is_inside())
      throw Failure("the last object has no end");
    if (!text.has_value()) return {};
    PacketRecipe recipe = recipe_of(*text, false);
    if (!recipe.has_message_id()) recipe.set_message_id(++last_id_);
    Outgoing made = {recipe.build(nullptr), false};
    const std::uint32_t flags = made.packet->flags;
    made.awaits_response = (flags & comm_socket_v4_packet::flag_request) != 0 &&
                           (flags & comm_socket_v4_packet::flag_async) == 0;
    return made;
  } catch (const std::runtime_error& error) {
    throw Failure(file_.name() + ": " + error.what());
  }
}

PacketRecipe answer_in_json(const std::string& path) {
  InputFile file(path);
  JsonStream stream;
  std::string bytes;
  while (!file.has_ended()) file.read(bytes);
  try {
    stream.add(bytes);
    const std::optional<JsonText> text = stream.next();
    if (!text.has_value()) throw Failure("there is no object");
    if (stream.next().has_value() || stream.is_inside())
      throw Failure("there is more than one object");
    return recipe_of(*text, true);
  } catch (const std::runtime_error& error) {
    throw Failure(file.name() + ": " + error.what());
  }
}
