// Has a job_server do jobs, all of them at once, and prints the answers as they come.
//
//   job_client [--parts] [--slow] SOCKET JOB [, JOB]...
//
// A JOB is one of these; "-" is standard input or output:
//   checksum FILE      upper FILE OUTPUT      echo FILE OUTPUT      sleep MILLISECONDS      crash
// Files are handed to the server as open descriptors; with --parts their bytes travel in packets.
// With --slow it reads no answer before a line comes on standard input.
//
// While there is no server it waits for one, and when one ends without having answered it asks the
// next one for what is missing.
#include <fcntl.h>

#include <map>
#include <vector>

#include "../common.h"
#include "protocol.h"
#include "transfers.h"

namespace {

// For each wait: a server may have to do the jobs of others first.
constexpr std::chrono::seconds patience(60);
constexpr std::chrono::seconds no_time(0);

struct Job {
  std::vector<std::string> words;
  CommDescriptor output;

  const char* word(std::size_t i) const { return i < words.size() ? words[i].c_str() : ""; }
  std::size_t files() const { return find_command(words[0])->files; }
  std::string text() const {
    std::string all;
    for (const std::string& word : words) all += (all.empty() ? "" : " ") + word;
    return all;
  }
};

class Client {
 public:
  Client(const char* path, bool by_parts, bool is_slow)
      : path_(path), by_parts_(by_parts), is_slow_(is_slow) {}

  void add(std::vector<std::string> words) {
    const Command* const command = find_command(words.empty() ? "" : words[0]);
    if (command == nullptr) fail("usage", "an unknown job");
    if (words.size() != 1 + (words[0] == "sleep" ? 1 : command->files))
      fail(words[0].c_str(), "too few or too many words");
    jobs_[server_.next_id()].words = std::move(words);
  }

  // Returns whether all of them were done.
  bool run() {
    for (; !jobs_.empty(); is_again_ = true) {
      if (!server_.connect(path_, patience, CommMissingServer::is_awaited)) fail(path_);
      ask();
      take_answers(patience);
    }
    return is_right_;
  }

 private:
  // Asks for everything, unless the server goes meanwhile.
  void ask() {
    for (auto job = jobs_.begin(); job != jobs_.end();) {
      const std::uint64_t id = job->first;
      if (!ask_for(id, job->second)) return;
      job = jobs_.upper_bound(id);
    }
    if (std::exchange(is_slow_, false)) std::getchar();
  }

  bool ask_for(std::uint64_t id, Job& job) {
    CommDescriptor input;
    if (job.files() > 0) input = open_file(job.word(1), O_RDONLY, STDIN_FILENO);
    if (job.files() > 1)
      job.output = open_file(job.word(2), O_WRONLY | O_CREAT | O_TRUNC, STDOUT_FILENO);
    // The job may have gone by the last part.
    const auto begin = [id, command = job.words[0],
                        argument = std::strtoull(job.word(1), nullptr, 10),
                        input_fd = by_parts_ ? -1 : input.get(), output_fd = job.output.get()] {
      CommPacketBuilder request = CommPacketBuilder::request(command);
      request.message_id(id).argument_uint64(argument);
      if (input_fd >= 0) request.descriptor(input_fd);
      if (input_fd >= 0 && output_fd >= 0) request.descriptor(output_fd);
      return request;
    };
    Outgoing request = by_parts_ ? Outgoing(begin, std::move(input)) : Outgoing(begin);
    while (request.has_next() && jobs_.contains(id)) {
      const CommPacket part = request.next();
      if (part == nullptr) fail(job.text().c_str());
      if (!server_.send(part, patience)) return is_there();
      if (!is_slow_ && !take_answers(no_time)) return false;
    }
    return true;
  }

  CommDescriptor open_file(const char* path, int flags, int standard) const {
    const bool is_standard = std::strcmp(path, "-") == 0;
    if (is_standard && is_again_) fail(path, "has been used up when the server ended");
    CommDescriptor file(is_standard ? ::fcntl(standard, F_DUPFD_CLOEXEC, 0)
                                    : ::open(path, flags | O_CLOEXEC, 0666));
    if (!file.is_open()) fail(path);
    return file;
  }

  // Takes answers until there is none for so long, or none is missing. Returns false when the
  // server has gone.
  bool take_answers(std::chrono::seconds wait) {
    while (!jobs_.empty()) {
      const CommPacket answer = server_.next(wait);
      if (answer != nullptr)
        take(*answer);
      else if (errno == ETIMEDOUT && wait == no_time)
        return true;
      else
        return is_there();
    }
    return true;
  }

  // Of a call that failed. What is no end of the connection ends the program.
  static bool is_there() {
    if (errno != ENOTCONN && errno != EPIPE && errno != ECONNRESET) fail("no answer");
    return false;
  }

  void take(const comm_socket_v4_packet& answer) {
    const auto entry = jobs_.find(answer.message_id);
    if (entry == jobs_.end()) return;
    const CommPacketReader read(answer);
    const Job& job = entry->second;
    if (!write_all(job.output.get(), read.data())) fail(job.word(2));
    const CommMultipart part = read.multipart();
    if (part == CommMultipart::first || part == CommMultipart::middle) return;
    tell(job, answer);
    jobs_.erase(entry);
  }

  // Not among what goes to standard output as the result of a job.
  void tell(const Job& job, const comm_socket_v4_packet& answer) {
    std::string text = job.text() + ":";
    for (const CommValue value : CommPacketReader(answer).arguments())
      text += " " + std::to_string(value.as_uint64().value_or(0));
    if (answer.error_code != 0) {
      text +=
          " error " + std::to_string(answer.error_code) + ", " + printable(answer.error_string());
      is_right_ = false;
    }
    std::fprintf(std::strcmp(job.word(2), "-") == 0 ? stderr : stdout, "%s\n", text.c_str());
    std::fflush(stdout);
  }

  const char* const path_;
  const bool by_parts_;
  bool is_slow_;
  bool is_again_ = false;
  bool is_right_ = true;
  CommClient server_;
  std::map<std::uint64_t, Job> jobs_;  // those without an answer, by their message ids
};

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> words(argv + 1, argv + argc);
  const auto take_option = [&words](const char* option) {
    const bool is_given = !words.empty() && words[0] == option;
    if (is_given) words.erase(words.begin());
    return is_given;
  };
  const bool by_parts = take_option("--parts");
  const bool is_slow = take_option("--slow");
  if (words.size() < 2) fail("usage", "job_client [--parts] [--slow] SOCKET JOB [, JOB]...");
  open_standard_descriptors();
  Client client(words[0].c_str(), by_parts, is_slow);
  for (auto word = words.begin() + 1; word < words.end();) {
    const auto end = std::find(word, words.end(), ",");
    client.add({word, end});
    word = end == words.end() ? end : end + 1;
  }
  return client.run() ? 0 : 1;
}
