// Packets out and packets in over one connection, at the same time: neither side waits for the
// other to read first.
#ifndef TOOL_CONVERSATION_H
#define TOOL_CONVERSATION_H

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "tool/handles.h"
#include "tool/packet_source.h"

struct ConversationRules {
  // The first packet is the response to what is sent, whatever its id. Otherwise it is told by the
  // message id; that of a server which knows no ids, 0, is the oldest's.
  bool any_response = false;
  bool reply = true;         // wait for responses, print what comes
  bool error_ends = false;   // a response with an error
  bool follow = false;       // until the server ends the connection
  std::uint64_t count = 0;   // follow: until so many packets have come; 0 is no limit
  std::uint64_t timeout_us;  // from the last step forward on, or for all with any_response
  std::optional<std::uint64_t> follow_us;  // how long to follow
};

class Conversation {
 public:
  // Tells every packet that comes, and until when the time for it lasts.
  using OnPacket = std::function<void(comm_socket_v4_packet&, std::uint64_t deadline_us)>;

  Conversation(comm_socket_v4& endpoint, PacketSource& source, const ConversationRules& rules,
               OnPacket on_packet);
  // Returns when all has been said; throws Failure when that cannot be.
  void run(std::uint64_t deadline_us);

 private:
  bool is_complete() const;
  bool is_awaiting() const { return next_.packet != nullptr || !awaited_.empty(); }
  bool is_following() const { return rules_.follow && has_sent_all_; }
  void step_forward();
  void fetch();
  void send();
  void receive();
  bool receive_one();
  void take(comm_socket_v4_packet& packet);
  std::deque<std::uint64_t>::iterator find_request(const comm_socket_v4_packet& response);
  void wait();
  std::string so_many() const;
  void on_deadline();
  void on_server_end();
  void end_well();

  comm_socket_v4& endpoint_;
  PacketSource& source_;
  const ConversationRules rules_;
  const OnPacket on_packet_;
  std::string broken_rule_;
  Outgoing next_;
  std::deque<std::uint64_t> awaited_;  // ids of requests, the oldest first
  std::uint64_t deadline_us_ = 0;
  std::uint64_t received_ = 0;
  bool has_sent_all_ = false;
  bool may_be_unread_ = false;  // what was sent last
  bool is_over_ = false;
};

bool is_error(const comm_socket_v4_packet& packet);

#endif
