// Has a job_server do jobs, all of them at once, and prints the answers as they come.
//
//   job_client [--parts] [--slow] SOCKET JOB [, JOB]...
//
// A JOB is one of these; "-" is standard input or output:
//   checksum FILE      upper FILE OUTPUT      echo FILE OUTPUT      sleep MILLISECONDS      crash
// Files are handed to the server as open descriptors; with --parts their bytes travel in packets.
// With --slow those of the output do, and it reads no answer before a line comes on standard input.
//
// While there is no server it waits for one, and when one ends without having answered it asks the
// next one for what is missing.
#include "../common.h"
#include "protocol.h"

namespace {

// For each wait: a server may have to do the jobs of others first.
constexpr std::chrono::seconds patience(60);
constexpr std::chrono::seconds no_time(0);

struct Job {
  const Command* command;
  std::string words[2], text;
  CommDescriptor output = CommDescriptor();
  bool is_done = false;
};

// The message id of a job is its place among the others, from 1 on.
class Client {
 public:
  Client(const char* path, bool by_parts, bool is_slow)
      : path_(path), by_parts_(by_parts), is_slow_(is_slow) {}

  void add(const std::vector<std::string>& words) {
    const Command* const command = find_command(words.empty() ? "" : words[0]);
    if (command == nullptr || words.size() != 1 + command->words)
      fail("usage", "an unknown job, or too few or too many words");
    Job& job = jobs_.emplace_back(Job{command, {}, words[0]});
    for (std::size_t i = 1; i < words.size(); ++i) job.text += " " + (job.words[i - 1] = words[i]);
    ++missing_;
  }

  // Returns whether all of them were done.
  bool run() {
    for (; missing_ != 0; is_again_ = true) {
      if (!server_.connect(path_, patience, CommMissingServer::is_awaited)) fail(path_);
      if (ask()) take_answers(patience);
    }
    return is_right_;
  }

 private:
  // Asks for everything. Each of these returns false when the server has gone meanwhile.
  bool ask() {
    for (std::size_t i = 0; i < jobs_.size(); ++i)
      if (!jobs_[i].is_done && !ask_for(i + 1, jobs_[i])) return false;
    if (std::exchange(is_slow_, false)) std::getchar();
    return true;
  }

  bool ask_for(std::uint64_t id, Job& job) {
    CommDescriptor input;
    if (job.command->files > 0) input = open_file(job.words[0], O_RDONLY, STDIN_FILENO);
    if (job.command->files > 1)
      job.output = open_file(job.words[1], O_WRONLY | O_CREAT | O_TRUNC, STDOUT_FILENO);
    const std::uint64_t argument = std::strtoull(job.words[0].c_str(), nullptr, 10);
    std::vector<unsigned char> bytes;
    for (bool is_first = true; is_first || !(bytes.empty() || job.is_done); is_first = false) {
      if (by_parts_ && input.is_open() && !read_part(input.get(), bytes)) fail(job.text.c_str());
      CommPacketBuilder request = CommPacketBuilder::request(job.command->name);
      request.message_id(id).argument_uint64(argument).multipart(is_first, bytes.empty());
      if (!by_parts_ && input.is_open()) request.descriptor(input.get());
      if (!by_parts_ && !is_slow_ && job.output.is_open()) request.descriptor(job.output.get());
      if (!server_.send(request.data(bytes).finish(), patience)) return is_there();
      if (!is_slow_ && !take_answers(no_time)) return false;
    }
    return true;
  }

  // Until there is none for so long, or none is missing.
  bool take_answers(std::chrono::seconds wait) {
    while (missing_ != 0) {
      const CommPacket answer = server_.next(wait);
      if (answer == nullptr) return (errno == ETIMEDOUT && wait == no_time) || is_there();
      take(*answer);
    }
    return true;
  }

  // Of a call that failed. What is no end of the connection ends the program.
  static bool is_there() {
    if (errno != ENOTCONN && errno != EPIPE && errno != ECONNRESET) fail("no answer");
    return false;
  }

  void take(const comm_socket_v4_packet& answer) {
    if (answer.message_id - 1 >= jobs_.size()) return;
    Job& job = jobs_[answer.message_id - 1];
    const CommPacketReader read(answer);
    if (!write_all(job.output.get(), read.data())) fail(job.text.c_str());
    if (job.is_done || !read.ends_series()) return;
    std::string text = job.text + ":";
    for (const CommValue value : read.arguments())
      text += " " + std::to_string(value.as_uint64().value_or(0));
    if (answer.error_code != 0)
      text += " error " + std::to_string(answer.error_code) + ", " +
              printable(std::string(read.error_string()));
    is_right_ = is_right_ && answer.error_code == 0;
    // Not among what goes to standard output as the result of a job.
    std::fprintf(job.words[1] == "-" ? stderr : stdout, "%s\n", text.c_str());
    std::fflush(stdout);
    job.is_done = true;
    --missing_;
  }

  CommDescriptor open_file(const std::string& path, int flags, int standard) const {
    if (path == "-" && is_again_) fail("-", "has been used up when the server ended");
    CommDescriptor file(path == "-" ? ::fcntl(standard, F_DUPFD_CLOEXEC, 0)
                                    : ::open(path.c_str(), flags | O_CLOEXEC, 0666));
    if (!file.is_open()) fail(path.c_str());
    return file;
  }

  const char* const path_;
  const bool by_parts_;
  bool is_slow_, is_again_ = false, is_right_ = true;
  CommClient server_;
  std::vector<Job> jobs_;
  std::size_t missing_ = 0;  // answers
};

}  // namespace

int main(int argc, char** argv) {
  int first = 1;
  const auto take_option = [&](const char* option) {
    return first < argc && std::strcmp(argv[first], option) == 0 && ++first != 0;
  };
  const bool by_parts = take_option("--parts");
  const bool is_slow = take_option("--slow");
  if (argc < first + 2) fail("usage", "job_client [--parts] [--slow] SOCKET JOB [, JOB]...");
  open_standard_descriptors();
  Client client(argv[first], by_parts, is_slow);
  const std::vector<std::string> words(argv + first + 1, argv + argc);
  for (auto word = words.begin(); word < words.end();) {
    const auto end = std::find(word, words.end(), ",");
    client.add({word, end});
    word = end == words.end() ? end : end + 1;
  }
  return client.run() ? 0 : 1;
}
