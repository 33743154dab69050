// Where the packets of a call come from: the command line, a file that goes out in parts, or JSON.
#ifndef TOOL_PACKET_SOURCE_H
#define TOOL_PACKET_SOURCE_H

#include <cstdint>
#include <string>

#include "tool/handles.h"
#include "tool/json_reader.h"
#include "tool/packet_recipe.h"

struct Outgoing {
  CommPacket packet;
  bool awaits_response = false;
};

class PacketSource {
 public:
  virtual ~PacketSource() = default;
  // The next one, if what has been read is enough for it. Once the input has ended there is one
  // each time until there is none.
  virtual Outgoing next() = 0;
  // A descriptor that is to be read when it is readable; -1 when all has been read.
  virtual int input() const { return -1; }
  virtual void read_input() {}
};

class SinglePacket : public PacketSource {
 public:
  explicit SinglePacket(CommPacket packet) : packet_(std::move(packet)) {}
  Outgoing next() override { return {std::move(packet_), true}; }

 private:
  CommPacket packet_;
};

// A file or, for "-", standard input, of any size, a piece at a time.
class InputFile {
 public:
  explicit InputFile(const std::string& path);
  int descriptor() const { return has_ended_ ? -1 : fd_; }
  bool has_ended() const { return has_ended_; }
  const std::string& name() const { return name_; }
  // Appends what can be read now.
  void read(std::string& bytes);

 private:
  std::string name_;
  CommDescriptor file_;
  int fd_;
  bool has_ended_ = false;
};

// The bytes of a file as the data of as many packets as it takes.
class FileInParts : public PacketSource {
 public:
  FileInParts(PacketRecipe recipe, const std::string& path);
  Outgoing next() override;
  int input() const override { return has_enough() ? -1 : file_.descriptor(); }
  void read_input() override { file_.read(bytes_); }

 private:
  // Behind a whole part there has to be a byte: the part is not the last one then.
  bool has_enough() const { return bytes_.size() > part_size_; }

  PacketRecipe recipe_;
  InputFile file_;
  std::size_t part_size_;
  std::string bytes_;
  std::uint64_t sent_ = 0;
  const bool has_own_id_;
  bool is_begun_ = false;
  bool is_done_ = false;
};

// The objects of a file. Those without a message id get 1, 2 and so on.
class JsonPackets : public PacketSource {
 public:
  explicit JsonPackets(const std::string& path) : file_(path) {}
  Outgoing next() override;
  int input() const override { return file_.descriptor(); }
  void read_input() override;

 private:
  InputFile file_;
  JsonStream stream_;
  std::uint64_t last_id_ = 0;
};

// The one object of a file, as an answer.
PacketRecipe answer_in_json(const std::string& path);

#endif
