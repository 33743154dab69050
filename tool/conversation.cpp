#include "tool/conversation.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>

#include "tool/arguments.h"
#include "tool/connection.h"
#include "tool/packet_check.h"

namespace {

bool is_request(const comm_socket_v4_packet& packet) {
  return (packet.flags & comm_socket_v4_packet::flag_request) != 0;
}

bool more_parts_follow(const comm_socket_v4_packet& packet) {
  const CommMultipart part = comm_get_multipart(packet);
  return part == CommMultipart::first || part == CommMultipart::middle;
}

}  // namespace

bool is_error(const comm_socket_v4_packet& packet) {
  return packet.error_code != 0 || *packet.error_string() != '\0';
}

Conversation::Conversation(comm_socket_v4& endpoint, PacketSource& source,
                           const ConversationRules& rules, OnPacket on_packet)
    : endpoint_(endpoint), source_(source), rules_(rules), on_packet_(std::move(on_packet)) {
  endpoint_.set_tag(reinterpret_cast<std::uintptr_t>(&broken_rule_));
  endpoint_.set_recv_cb([](comm_socket_v4* receiver, comm_socket_v4_packet* packet) {
    std::string& broken = *reinterpret_cast<std::string*>(receiver->get_tag());
    broken = broken_rule(*packet);
    return broken.empty() ? 0 : -1;
  });
}

void Conversation::run(std::uint64_t deadline_us) {
  deadline_us_ = deadline_us;
  fetch();  // What is sent first does not wait for what comes.
  while (!is_over_) {
    send();
    fetch();
    receive();
    if (is_complete()) is_over_ = true;
    if (!is_over_) wait();
  }
  if (may_be_unread_ && !rules_.any_response) end_well();
}

bool Conversation::is_complete() const {
  if (!has_sent_all_) return false;
  if (!rules_.reply) return true;
  if (rules_.follow) return rules_.count != 0 && received_ >= rules_.count;
  return awaited_.empty();
}

// A single request has its time for all, and so has the following; of several requests each step.
void Conversation::step_forward() {
  if (!rules_.any_response && !is_following()) deadline_us_ = now_us() + rules_.timeout_us;
}

// --- Out ----------------------------------------------------------------------------------------

void Conversation::fetch() {
  if (next_.packet != nullptr || has_sent_all_) return;
  const bool was_ended = source_.input() < 0;
  const bool was_idle = !is_awaiting();
  next_ = source_.next();
  if (next_.packet != nullptr && was_idle) step_forward();
  if (next_.packet != nullptr || !was_ended) return;
  has_sent_all_ = true;
  if (rules_.follow)
    deadline_us_ = rules_.follow_us.has_value() ? now_us() + *rules_.follow_us : UINT64_MAX;
}

void Conversation::send() {
  if (next_.packet == nullptr) return;
  const int sent = comm_socket_v4_packet_send_to_server(&endpoint_, next_.packet.get());
  if (sent == 0) return;
  if (sent < 0 && (errno == EPIPE || errno == ECONNRESET || errno == ENOTCONN))
    return on_server_end();
  if (sent < 0) throw system_failure("cannot send");
  may_be_unread_ = !rules_.reply || !next_.awaits_response;
  if (next_.awaits_response && rules_.reply) awaited_.push_back(next_.packet->message_id);
  next_ = {};
  step_forward();
}

// --- In -----------------------------------------------------------------------------------------

// A share of what is there: a server that sends without pause stops neither what we send nor the
// clock.
void Conversation::receive() {
  constexpr int share = 16;
  for (int i = 0; i < share && !is_over_ && !is_complete(); ++i)
    if (!receive_one()) break;
  if (!endpoint_.socket_open()) on_server_end();
}

bool Conversation::receive_one() {
  const CommPacket packet(comm_socket_v4_client_get_packet_from_server(&endpoint_));
  if (!broken_rule_.empty())
    throw Failure("the server sent a packet that is not valid: " + broken_rule_);
  if (packet != nullptr) take(*packet);
  return packet != nullptr;
}

void Conversation::take(comm_socket_v4_packet& packet) {
  if (!rules_.reply) return;
  ++received_;
  const auto request = find_request(packet);
  const bool ends_it = is_error(packet) && rules_.error_ends && !is_request(packet);
  const bool is_answer = request != awaited_.end();
  if (is_answer && !more_parts_follow(packet)) awaited_.erase(request);
  if (is_answer) step_forward();
  on_packet_(packet, deadline_us_);
  if (!ends_it) return;
  is_over_ = true;
  may_be_unread_ = false;  // Nobody wants it.
}

std::deque<std::uint64_t>::iterator Conversation::find_request(
    const comm_socket_v4_packet& response) {
  if (rules_.any_response) return awaited_.begin();
  if (is_request(response)) return awaited_.end();
  const auto found = std::find(awaited_.begin(), awaited_.end(), response.message_id);
  return found == awaited_.end() && response.message_id == 0 ? awaited_.begin() : found;
}

// --- Waiting, and the end -----------------------------------------------------------------------

void Conversation::wait() {
  // With nothing to send and nothing awaited it is the input that takes its time.
  const bool has_deadline = is_awaiting() || is_following();
  if (has_deadline && now_us() >= deadline_us_) return on_deadline();
  const auto out = static_cast<short>(next_.packet != nullptr ? POLLOUT : 0);
  const int input = next_.packet == nullptr && !has_sent_all_ ? source_.input() : -1;
  struct pollfd ready[] = {{endpoint_.get_socket_fd(), static_cast<short>(POLLIN | out), 0},
                           {input, POLLIN, 0}};
  const std::uint64_t left = deadline_us_ - std::min(now_us(), deadline_us_);
  const struct timespec time = {static_cast<time_t>(left / 1'000'000),
                                static_cast<long>(left % 1'000'000 * 1000)};
  const bool is_endless = !has_deadline || deadline_us_ == UINT64_MAX;
  if (::ppoll(ready, 2, is_endless ? nullptr : &time, nullptr) < 0 && errno != EINTR)
    throw system_failure("cannot wait");
  if (ready[1].revents != 0) source_.read_input();
}

std::string Conversation::so_many() const {
  return std::to_string(received_) + " of " + std::to_string(rules_.count) + " packets";
}

void Conversation::on_deadline() {
  if (next_.packet != nullptr) throw Failure("the server takes no packet in time");
  if (!is_following()) throw Failure("no response in time");
  if (received_ < rules_.count) throw Failure("only " + so_many() + " in time");
  is_over_ = true;
}

// What it has sent before is read first.
void Conversation::on_server_end() {
  while (!is_over_ && now_us() < deadline_us_)
    if (!receive_one()) break;
  is_over_ = is_over_ || is_complete();
  if (is_over_) return;
  if (next_.packet != nullptr || !has_sent_all_) throw Failure("the server closed the connection");
  if (received_ == 0 || !rules_.follow)
    throw Failure("the server closed the connection without a response");
  if (received_ < rules_.count)
    throw Failure("the server closed the connection after " + so_many());
  is_over_ = true;
}

// What nobody has answered may not have been read, and a close with packets unread on our side
// would take it back.
void Conversation::end_well() {
  comm_socket_v4_end_sending(&endpoint_);
  const std::uint64_t deadline_us = now_us() + rules_.timeout_us;
  while (endpoint_.socket_open() && now_us() < deadline_us) {
    comm_socket_v4_client_from_server_readable(&endpoint_, deadline_us);
    CommPacket(comm_socket_v4_client_get_packet_from_server(&endpoint_)).reset();
  }
}
