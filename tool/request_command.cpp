#include "tool/request_command.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string_view>
#include <vector>

#include "tool/arguments.h"
#include "tool/files.h"

namespace {

CommDescriptor memory_file(std::string_view bytes) {
  CommDescriptor file(::memfd_create("request", MFD_CLOEXEC));
  if (!file.is_open()) throw system_failure("cannot keep the data for the command");
  write_all(file.get(), bytes, "the data for the command");
  ::lseek(file.get(), 0, SEEK_SET);
  return file;
}

std::string argument_text(const comm_socket_v4_packet& packet, std::size_t index) {
  const comm_socket_v4_packet_argv* const entry = packet.argv(index);
  if (entry->type() == comm_v4_type_uint64) return std::to_string(packet.argv_uint64(entry));
  if (entry->type() == comm_v4_type_int64) return std::to_string(packet.argv_int64(entry));
  if (entry->type() == comm_v4_type_text) return packet.argv_text(entry);
  char number[32];
  std::snprintf(number, sizeof(number), "%.17g", packet.argv_double(entry));
  return number;
}

std::vector<std::string> words_for(const std::string& command,
                                   const comm_socket_v4_packet& request) {
  std::vector<std::string> words = {"sh", "-c", command, "sh"};
  for (std::size_t i = 0; i < request.argc(); ++i) words.push_back(argument_text(request, i));
  return words;
}

std::vector<std::string> environment_for(const comm_socket_v4_packet& request,
                                         const struct ucred& peer) {
  constexpr std::string_view prefix = "TARN_COMM_";
  std::vector<std::string> variables;
  for (char** v = environ; *v != nullptr; ++v)
    if (!std::string_view(*v).starts_with(prefix)) variables.emplace_back(*v);
  const auto add = [&](const char* name, const std::string& value) {
    variables.push_back(std::string(prefix) + name + "=" + value);
  };
  add("COMMAND", request.command());
  add("STREAM_ID", std::to_string(request.stream_id));
  add("MESSAGE_ID", std::to_string(request.message_id));
  add("PID", std::to_string(peer.pid));
  add("UID", std::to_string(peer.uid));
  add("GID", std::to_string(peer.gid));
  return variables;
}

std::vector<char*> pointers_to(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

// Signals are as a program expects them, whatever this one has made of them.
pid_t spawn_shell(std::vector<std::string> words, std::vector<std::string> variables, int input,
                  int output) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawnattr_init(&attributes);
  ::posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  sigset_t none;
  sigset_t pipe;
  sigemptyset(&none);
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  ::posix_spawnattr_setsigmask(&attributes, &none);
  ::posix_spawnattr_setsigdefault(&attributes, &pipe);
  ::posix_spawnattr_setpgroup(&attributes, 0);
  ::posix_spawnattr_setflags(
      &attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  pid_t pid = -1;
  const int error = ::posix_spawn(&pid, "/bin/sh", &actions, &attributes, pointers_to(words).data(),
                                  pointers_to(variables).data());
  ::posix_spawnattr_destroy(&attributes);
  ::posix_spawn_file_actions_destroy(&actions);
  errno = error;
  if (error != 0) throw system_failure("cannot start the command");
  return pid;
}

}  // namespace

RequestCommand::RequestCommand(ServingLoop& loop, const std::string& command,
                               const comm_socket_v4_packet& request, const struct ucred& peer,
                               std::uint64_t timeout_us, Done done)
    : loop_(loop), done_(std::move(done)) {
  const CommDescriptor input =
      memory_file({reinterpret_cast<const char*>(request.data()), request.data_length()});
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) throw system_failure("cannot create a pipe");
  output_ = CommDescriptor(ends[0]);
  const CommDescriptor writer(ends[1]);
  ::fcntl(output_.get(), F_SETFL, O_NONBLOCK);
  pid_ = spawn_shell(words_for(command, request), environment_for(request, peer), input.get(),
                     writer.get());
  process_ = CommDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
  output_id_ = loop_.watch(output_.get(), POLLIN, *this);
  process_id_ = loop_.watch(process_.get(), POLLIN, *this);
  if (timeout_us != 0) timer_id_ = loop_.after(timeout_us, *this);
  if (ServingLoop::is_member(output_id_) && ServingLoop::is_member(process_id_) &&
      (timeout_us == 0 || ServingLoop::is_member(timer_id_)))
    return;
  const Failure failure = system_failure("cannot watch the command");
  leave_loop();
  ::kill(-pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  throw failure;
}

RequestCommand::~RequestCommand() {
  leave_loop();
  if (pid_ > 0) ::kill(-pid_, SIGTERM);
}

void RequestCommand::leave_loop() {
  for (const CommLoopId id : {output_id_, process_id_, timer_id_}) loop_.remove(id);
}

void RequestCommand::on_ready(CommLoop& /*loop*/, CommLoopId watched, std::uint32_t /*events*/) {
  watched == process_id_ ? on_exit() : read_output();
}

void RequestCommand::on_time(CommLoop& /*loop*/, CommLoopId /*timer*/) {
  result_.timed_out = true;
  ::kill(-pid_, SIGKILL);
}

void RequestCommand::read_output() {
  char chunk[65536];
  const ssize_t got = ::read(output_.get(), chunk, sizeof(chunk));
  if (got < 0) return;
  result_.output.append(chunk, static_cast<std::size_t>(got));
  result_.too_long = result_.output.size() > COMM_V4_MAX_RECEIVED_PACKET;
  if (result_.too_long) ::kill(-pid_, SIGKILL);
  if (result_.too_long || got == 0) loop_.remove(output_id_);
}

// What a background process of the command may still write is not waited for.
void RequestCommand::on_exit() {
  for (std::size_t before = SIZE_MAX; before != result_.output.size() && !result_.too_long;) {
    before = result_.output.size();
    read_output();
  }
  ::waitpid(pid_, &result_.wait_status, 0);
  pid_ = -1;
  const Done done = std::move(done_);
  const CommandResult result = std::move(result_);
  done(result);
}
