// What a C++ program builds, reads and asks with comm_cpp.h.
#include <tarn_utils_v4/comm_cpp.h>

#include <csignal>
#include <thread>

#include "connections.h"

using namespace std::literals;
using Builder = CommPacketBuilder;

namespace {

std::string texts(std::size_t size) { return std::string(size, 'x'); }

// What finish answers: the length, or why there is no packet.
std::string finished(Builder& builder) {
  errno = 0;
  const CommPacket packet = builder.finish();
  if (packet) return std::to_string(packet->buffer_length) + builder.error().part;
  return builder.error().what() + " " + strerrorname_np(errno);
}

class BuilderTest : public CommTest {};

TEST_F(BuilderTest, WritesWhatTheWritersWrite) {
  const std::string data = "\x1f !abcdefghijkl~\x7fmnopqrstuvwxyz012345678";
  const std::vector<std::int64_t> i = {-1, 2, INT64_MIN, 4};
  Builder builder = Builder::response_to(*begin_request("list"), "broken", 5000);
  builder.user_flags(1u << 31).argumentf("te%s", "xt").argument_uint64(0xFEDC).pair("t", "v w");
  builder.argument_int64(-5).argument_double(0.1).pair_json("j", "{}");
  builder.pair_double("d", {1.5, -0.25}).pair_uint64("u", {1, 2, 3, 4, UINT64_MAX});
  builder.pair_int64("i", i.data(), i.size()).pair_uint64("none", {});
  builder.pair_bytes("b", {data.data(), 17})
      .pair_fourcc("code", comm_fourcc("data"), {&data[0], 16});
  builder.pair_fourcc("raw", 7, {}).data({&data[0], 30}).message_id(0xAB).data({&data[30], 10});
  builder.stream_id(0xFEDCBA9876543210).error_code(5).async().multipart(CommMultipart::middle);
  builder.descriptor(0).descriptor_cloexec(0);
  const CommPacket built = builder.finish(), rich = rich_packet();
  ASSERT_TRUE(built);
  EXPECT_EQ(0, fcntl(built->attached_fd[0], F_GETFD));
  EXPECT_EQ(FD_CLOEXEC, fcntl(built->attached_fd[1], F_GETFD));
  std::string written = bytes_of(built.get());
  EXPECT_EQ(0x8000000Au, built->flags);
  EXPECT_EQ(written.substr(32, 4), std::string("\x0A\0\0\x80", 4));
  written.replace(32, 4, bytes_of(rich.get()), 32, 4);
  EXPECT_EQ(bytes_of(rich.get()), written);
}

TEST_F(BuilderTest, WritesSeriesAndErrors) {
  const CommPacket ask = begin_request("ask");
  for (const bool first : {false, true}) {
    for (const bool last : {false, true}) {
      const CommPacket part =
          Builder::response_to(*ask, last ? EIO : 0).multipart(first, last).finish();
      const CommPacketReader read(*part);
      EXPECT_EQ(std::make_pair(first, last),
                std::make_pair(read.begins_series(), read.ends_series()));
      EXPECT_EQ(last ? EIO : 0u, part->error_code);
      EXPECT_EQ(last ? strerror(EIO) : "", read.error_string());
    }
  }
}

using Calls = std::function<void(Builder&)>;
Calls repeated(int times, const Calls& call) {
  return [=](Builder& b) {
    for (int i = 0; i < times; ++i) call(b);
  };
}
Calls argument(const std::string& text) {
  return [=](Builder& b) { b.argument_double(0).argument(text).pair("k", "v"); };
}
Calls formatted(int width) {
  return [=](Builder& b) { b.argumentf("%*s", width, "x"); };
}
Calls pair(const std::string& name, const std::string& text) {
  return [=](Builder& b) { b.pair(name, text); };
}
Calls far_argument(std::size_t at) {
  return [=](Builder& b) { b.pair_bytes("f", texts(at - 67)).argument_uint64(1); };
}
// Asks for room, in which it writes nothing.
Calls filled(std::size_t most, ssize_t count) {
  return [=](Builder& b) {
    b.data_from(most, [=](unsigned char* room, std::size_t size) {
      EXPECT_EQ(std::string(most, '\0'), std::string(reinterpret_cast<char*>(room), size));
      errno = ENXIO;
      return count;
    });
  };
}
CommDescriptor file() { return CommDescriptor(memfd_create("file", MFD_CLOEXEC)); }
// Of a file of three bytes the last one.
Calls from_file(std::size_t most) {
  return [=](Builder& b) {
    const CommDescriptor fd = file();
    EXPECT_EQ(0, ftruncate(fd.get(), 3));
    b.data_from_file(fd.get(), 2, most);
  };
}

TEST_F(BuilderTest, SaysWhatWouldBeLost) {
  const std::string nul("a\0b", 3);
  const struct {
    const char* ends;
    std::string command, error_string;
  } beginnings[] = {
      {"319", texts(255), ""},
      {"command: a text beyond its limit EINVAL", texts(256), ""},
      {"command: a text with a NUL in it EINVAL", nul, ""},
      {"command: an empty command EINVAL", "", ""},
      {"4161", "c", texts(4095)},
      {"error string: a text beyond its limit EINVAL", "c", texts(4096)},
      {"error string: a text with a NUL in it EINVAL", "c", nul},
  };
  for (const auto& row : beginnings) {
    Builder builder = Builder::response(row.command, row.error_string);
    EXPECT_EQ(row.ends, finished(builder));
  }
  const struct {
    const char* ends;
    Calls calls;
  } rows[] = {
      {"65637", argument(texts(65535))},
      {"argument 1: a text beyond its limit EINVAL", argument(texts(65536))},
      {"argument 1: a text with a NUL in it EINVAL", argument(nul)},
      {"argument 1: an empty text EINVAL", argument("")},
      {"argument 0: an empty text EINVAL", [](Builder& b) { b.argument(nullptr); }},
      {"326", formatted(256)},
      {"argument 0: a text beyond its limit EINVAL", formatted(257)},
      {"argument 0: an empty text EINVAL", [](Builder& b) { b.argumentf("%s", ""); }},
      {"argument 0: a text that cannot be formatted EINVAL",
       [](Builder& b) { b.argumentf("%ls", L"\xD800"); }},
      {"3125", repeated(255, [](Builder& b) { b.argument_int64(1); })},
      {"argument 255: more than a packet holds EINVAL",
       repeated(256, [](Builder& b) { b.argument("", CommEmptyText::is_argument); })},
      {"16777243", far_argument(0xFFFFFF)},
      {"argument 0: too far from the start of the packet EINVAL", far_argument(0x1000000)},
      {"69713", pair(texts(4095), texts(65535))},
      {"pair 0: a text beyond its limit EINVAL", pair(texts(4096), "")},
      {"pair 0: a text beyond its limit EINVAL", pair("k", texts(65536))},
      {"pair 0: a text with a NUL in it EINVAL", pair(nul, "")},
      {"pair 0: a text with a NUL in it EINVAL", pair("k", nul)},
      {"pair 0: a text with a NUL in it EINVAL", [&](Builder& b) { b.pair_json("k", nul); }},
      {"pair 0: null with a length EINVAL", [](Builder& b) { b.pair_int64("k", nullptr, 1); }},
      {"pair 0: reserved for the library EINVAL",
       [](Builder& b) { b.pair_fourcc("k", comm_v4_type_int64, {}); }},
      {"77870", repeated(4095, pair("k", ""))},
      {"pair 4095: more than a packet holds EINVAL", repeated(4096, pair("k", ""))},
      {"65551", [](Builder& b) { b.limit(65551).pair("k", "v").data(texts(65466)); }},
      {"600065", [](Builder& b) { b.data(texts(600000)).data({}); }},
      {"pair 2: the packet is longer than a receiver takes EMSGSIZE",
       [](Builder& b) { repeated(3, pair("k", ""))(b.limit(121)); }},
      {"data: null with a length EINVAL",
       [](Builder& b) {
         b.data({nullptr, 1});
       }},
      {"262209", filled(COMM_V4_MAX_DATA_PER_WRITE, COMM_V4_MAX_DATA_PER_WRITE)},
      {"65", repeated(2, filled(1, 0))},
      {"65", [](Builder& b) { b.data_from(0, [](void*, std::size_t) { return 1; }); }},
      {"data: not filled EINVAL", filled(1, 2)},
      {"66", from_file(262144)},
      {"data: not filled EBADF", [](Builder& b) { b.data_from_file(-1, 0, 1); }},
      {"data: the packet is longer than a receiver takes EMSGSIZE",
       [](Builder& b) { from_file(7)(b.limit(71)); }},
      {"data: not filled ENXIO", filled(1, -1)},
      {"data: the packet is longer than a receiver takes EMSGSIZE",
       [](Builder& b) { filled(7, 1)(b.limit(71)); }},
      {"pair 1: too late EINVAL",
       [](Builder& b) { b.pair("k", "v").data("x"s).pair("k", "v").user_flags(1); }},
      {"argument 0: too late EINVAL", [](Builder& b) { b.data("x"s).argument_uint64(1); }},
      {"header: reserved for the library EINVAL", [](Builder& b) { b.user_flags(8).data("x"s); }},
      {"packet: too late EINVAL", [](Builder& b) { EXPECT_TRUE(b.finish()); }},
      {"descriptor 0: no descriptor EBADF", [](Builder& b) { b.descriptor(-1); }},
      {"descriptor 1: no descriptor EMFILE",
       [](Builder& b) {
         failing(Call::fcntl, EMFILE, [&] { return &b.descriptor(0).descriptor_cloexec(0); });
       }},
      {"65", repeated(8, [](Builder& b) { b.descriptor(file()); })},
      {"descriptor 8: more than a packet holds EINVAL",
       repeated(9, [](Builder& b) { b.descriptor(file()); })},
  };
  for (const auto& row : rows) {
    Builder builder = Builder::request("c");
    row.calls(builder.limit(1 << 30));
    EXPECT_EQ(row.ends, finished(builder)) << &row - rows;
  }
  Builder usual = Builder::request("c");
  usual.pair("k", "v").data(texts(65467));
  EXPECT_EQ("data: the packet is longer than a receiver takes EMSGSIZE", finished(usual));
}

// Whatever allocation fails, there is the whole packet or none.
TEST_F(BuilderTest, NeedsMemory) {
  const std::string command = texts(100), error = texts(4000), text = texts(9000);
  unsigned fired = 1;
  for (unsigned kth = 1; fired != 0; ++kth) {
    Faults faults;
    faults.fail_any(kth, ENOMEM, {Call::malloc, Call::operator_new});
    auto builder = faults.during([&] {
      auto b = std::make_pair(Builder::response(command, error), CommPacket());
      b.first.argument(text).argument_int64(1).pair(command, text);
      b.first.pair_double("n", 1).data(text).data(text).descriptor(0);
      from_file(9000)(b.first);
      b.second = b.first.finish();
      return b;
    });
    fired = faults.fired();
    EXPECT_EQ(fired != 0, builder.first.error().reason == CommPacketReason::no_memory) << kth;
    EXPECT_EQ(fired != 0, !builder.second) << kth;
  }
}

template <class Number>
std::string listed(const char* type, CommNumbers<Number> numbers) {
  std::string all;
  for (const Number number : numbers) all += type + std::to_string(number) + " ";
  return all + (numbers.left_over() != 0 ? "and more " : "");
}
// Whatever each way to read a value gives.
std::string shown(const CommValue& value) {
  std::string all = value.is_present() ? "" : "nothing ";
  if (const auto text = value.as_text()) all += std::string(*text) + " ";
  if (const auto json = value.as_json()) all += "json " + std::string(*json) + " ";
  if (const auto bytes = value.as_bytes()) all += std::to_string(bytes->size()) + " bytes ";
  all += listed("u", value.uint64_list()) + listed("i", value.int64_list());
  all += listed("d", value.double_list());
  return all + (value.as_uint64() || value.as_int64() || value.as_double() ? "alone " : "");
}
std::string shown(const CommPacketReader& read) {
  std::string all = std::string(read.command()) + " " + std::string(read.error_string()) + ": ";
  for (const CommValue argument : read.arguments()) all += shown(argument);
  for (const CommPair pair : read.pairs()) all += std::string(pair.name()) + ": " + shown(pair);
  return all + std::to_string(read.data().size());
}

class ReaderTest : public CommTest {};

static_assert(std::input_iterator<CommNumbers<double>::iterator> &&
              std::input_iterator<CommPacketReader::Pairs::iterator>);

TEST_F(ReaderTest, GivesWhatIsThere) {
  const CommPacket rich = rich_packet();
  const CommPacketReader read(*rich);
  EXPECT_EQ(
      "list broken: text u65244 alone i-5 alone d0.100000 alone t: v w j: json {} "
      "d: d1.500000 d-0.250000 u: u1 u2 u3 u4 u18446744073709551615 "
      "i: i-1 i2 i-9223372036854775808 i4 none: b: 17 bytes code: raw: 40",
      shown(read));
  EXPECT_TRUE(read.is_request() && read.is_async() && read.multipart() == CommMultipart::middle);
  EXPECT_EQ(comm_fourcc("data"), read.pair("code").type());
  EXPECT_EQ(-5, read.argument(2).as_int64());
  EXPECT_EQ((std::vector{1.5, -0.25}), read.pair("d").double_list().to_vector());
  EXPECT_EQ("nothing ", shown(read.argument(4)));
  for (const auto name : {""sv, "tt"sv, "t\0"sv, "nobody"sv})
    EXPECT_EQ("nothing ", shown(read.pair(name))) << name;
}

// What validation lets through: lengths that no writer writes, at every address, and no value.
TEST_F(ReaderTest, BelievesNoLength) {
  const unsigned char values[24] = "\1\0\0\0\0\0\0\0\2\0\0\0\0\0\0\0\3\0\0\0\0\0\0";
  for (std::size_t shift = 0; shift < 8; ++shift) {
    const CommPacket p = begin_request();
    p->wr_argv.push_back({{0, 0, 0}, comm_v4_type_uint64});
    p->write_nv_pair_binary("shift", values, shift);
    p->write_nv_pair_raw("list", values, 23, comm_v4_type_uint64);
    p->write_nv_pair_raw("one", values, 9, comm_v4_type_int64);
    p->write_nv_pair_raw("less", values, 7, comm_v4_type_double);
    p->write_nv_pair_raw("text", CommBytes("ab\0cd"sv).data(), 5, comm_v4_type_text);
    p->write_end();
    EXPECT_EQ("ping : nothing shift: " + std::to_string(shift) +
                  " bytes list: u1 u2 and more one: i1 and more less: and more text: ab 0",
              shown(CommPacketReader(*p)));
    EXPECT_EQ("ab\0cd"sv, CommPacketReader(*p).pair("text").bytes().as_characters());
  }
}

class ClientTest : public ServerTest {
 protected:
  ClientTest() {
    EXPECT_TRUE(client.connect(s.socket_path.c_str(), 10s));
    EXPECT_NE(nullptr, accept());
  }

  CommClient client;

  static CommPacket request() { return Builder::request("ask").finish(); }
  void answer(std::uint64_t id, const char* text, CommMultipart part = CommMultipart::none) {
    const CommPacket p =
        Builder::response("ask").argument(text).message_id(id).multipart(part).finish();
    EXPECT_LT(0, send_to(0, p));
  }
  // What it says, or the errno of there being none.
  static std::string said(const CommPacket& p) {
    return p ? std::string(CommPacketReader(*p).argument(0).as_text().value_or("?"))
             : strerrorname_np(errno);
  }
  std::string rest() {
    std::string all;
    while (const CommPacket p = client.next(0s)) all += said(p) + " ";
    return all + strerrorname_np(errno);
  }
};

TEST_F(ClientTest, FindsItsAnswerAmongOthers) {
  answer(0, "event");
  answer(3, "third");
  const CommPacket asked = Builder::request("ask").message_id(1).finish();
  EXPECT_LT(0, send_to(0, asked));
  answer(1, "first", CommMultipart::first);
  answer(1, "last", CommMultipart::last);
  answer(2, "second");
  const CommPacket asking = Builder::request("ask").message_id(77).finish();
  EXPECT_EQ("first", said(client.call(asking, 10s)));
  EXPECT_EQ("last", said(client.answer_to(1, 10s)));
  EXPECT_EQ("second", said(client.call(asking, 10s)));
  EXPECT_EQ(3u, client.next_id());
  EXPECT_EQ("third", said(client.answer_to(3, 0s)));
  EXPECT_EQ("event ? ETIMEDOUT", rest());
  for (const std::uint64_t id : {1u, 2u}) {
    const CommPacket came(comm_socket_v4_server_get_packet(&s, nullptr));
    EXPECT_EQ(id, came ? came->message_id : 0);
  }
}

// Not the answer to the next call, nor among what is kept; but a request may have its id.
TEST_F(ClientTest, DropsAnswersThatCameTooLate) {
  EXPECT_EQ("ETIMEDOUT", said(client.call(request(), 0s)));
  EXPECT_EQ("ETIMEDOUT", said(client.call(request(), 1ms)));
  answer(1, "late", CommMultipart::first);
  answer(2, "late");
  answer(1, "late", CommMultipart::last);
  answer(1, "again");
  answer(3, "third");
  answer(8, "fourth", CommMultipart::first);
  EXPECT_EQ("third", said(client.call(request(), 10s)));
  client.give_up(8);
  answer(8, "fourth", CommMultipart::last);
  answer(8, "again");
  EXPECT_EQ("again", said(client.answer_to(8, 10s)));
  EXPECT_EQ("again ETIMEDOUT", rest());
}

TEST_F(ClientTest, KeepsNoMoreThanItMay) {
  client.keep_at_most(2);
  for (const char* text : {"a", "b", "c"}) answer(0, text);
  answer(1, "first");
  EXPECT_EQ("ENOBUFS", said(client.call(request(), 10s)));
  EXPECT_EQ("ENOBUFS", said(client.call(request(), 10s)));
  EXPECT_EQ("a", said(client.next(0s)));
  EXPECT_EQ("ENOBUFS", said(client.answer_to(5, 10s)));
  EXPECT_EQ("b c ETIMEDOUT", rest());
  // Nothing: a send reads nothing, and waits.
  client.keep_at_most(0);
  answer(0, "unread");
  const CommPacket asking = request();
  while (client.send(asking, 0s)) {
  }
  EXPECT_EQ(ETIMEDOUT, errno);
  EXPECT_EQ("ENOBUFS", said(client.call(asking, 10s)));
  EXPECT_EQ("unread ETIMEDOUT", rest());
}

TEST_F(ClientTest, LosesNothingWithoutMemory) {
  answer(0, "event");
  answer(1, "first");
  EXPECT_EQ("ENOMEM", failing(Call::malloc, ENOMEM, [&] { return said(client.next(0s)); }));
  // The third is for the list, behind a packet and room for its descriptors.
  const CommPacket asking = request();
  EXPECT_EQ("ENOMEM",
            failing(
                Call::operator_new, ENOMEM, [&] { return said(client.call(asking, 10s)); }, 3));
  EXPECT_EQ("event ETIMEDOUT", rest());
  EXPECT_EQ("EINVAL", said(client.call(CommPacket(comm_socket_v4_packet_create()), 0s)));
  errno = EDOM;
  EXPECT_EQ("EDOM", said(client.call(nullptr, 0s)));
}

TEST_F(ClientTest, HearsOfTheEnd) {
  CommClient reset;
  EXPECT_TRUE(reset.connect(s.socket_path.c_str(), 10s) && reset.send(request(), 0s) && accept());
  answer(0, "last words");
  comm_socket_v4_close(&s);
  await_end(client.endpoint()->socket_fd);
  await_end(reset.endpoint()->socket_fd);
  EXPECT_EQ("ECONNRESET", said(reset.next(CommClient::endless)));
  EXPECT_EQ("EPIPE", said(client.call(request(), 10s)));
  EXPECT_EQ("last words ENOTCONN", rest());
  EXPECT_FALSE(client.is_connected() || reset.is_connected());
  EXPECT_EQ("ENOTCONN", said(client.call(request(), 10s)));
  EXPECT_EQ("ENOTCONN", said(client.next(CommClient::endless)));
}

// An empty text is an argument that every reader sees.
TEST_F(ClientTest, SendsEmptyArguments) {
  Builder builder = Builder::request(texts(255));
  builder.argument("", CommEmptyText::is_argument).argument("x");
  EXPECT_TRUE(client.send(builder.argument(""s, CommEmptyText::is_argument).finish(), 10s));
  const CommPacket came(comm_socket_v4_server_get_packet(&s, nullptr));
  ASSERT_TRUE(came);
  EXPECT_EQ(3u, came->argc());
  EXPECT_TRUE(came->argv(0)->is_present() && came->argv(0)->type() == comm_v4_type_text);
  EXPECT_STREQ("", came->argv_text(2));
  EXPECT_EQ("", CommPacketReader(*came).argument(0).as_text());
  EXPECT_EQ("x", CommPacketReader(*came).argument(1).as_text());
}

// Both send far more than a socket takes before either reads.
TEST_F(ClientTest, ReadsWhileItSends) {
  constexpr int many = 3000;
  int ends[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends));
  const CommPacket p = Builder::response("ask").argument("event").finish();
  {
    const Peer peer([&] {
      close(ends[0]);
      char record[256];
      for (int i = 0; i < many; ++i) EXPECT_LT(0, ::send(ends[1], p->buffer, p->buffer_length, 0));
      for (int i = 0; i < many; ++i) EXPECT_LT(0, recv(ends[1], record, sizeof record, 0));
    });
    close(ends[1]);
    CommEndpoint end = make_endpoint();
    EXPECT_EQ(0, comm_socket_v4_connect_use_socketpair(end.get(), ends[0]));
    CommClient both(std::move(end));
    int sent = 0, received = 0;
    while (sent < many && both.send(request(), 100s)) ++sent;
    while (received < many && said(both.next(100s)) == "event") ++received;
    EXPECT_EQ(std::make_pair(many, many), std::make_pair(sent, received));
    EXPECT_EQ("ENOTCONN", said(both.next(100s)));
  }
}

TEST_F(ClientTest, SignalsNeitherShortenNorProlongATimeout) {
  struct sigaction action = {}, before;
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, &before);
  std::atomic<bool> over = false;
  std::thread signals([&over, whom = pthread_self()] {
    for (; !over; std::this_thread::sleep_for(1ms)) pthread_kill(whom, SIGUSR1);
  });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ("ETIMEDOUT", said(client.call(request(), 100ms)));
  CommClient other;
  EXPECT_FALSE(other.connect(path().c_str(), 100ms, CommMissingServer::is_awaited));
  EXPECT_EQ(ETIMEDOUT, errno);
  EXPECT_LE(200ms, std::chrono::steady_clock::now() - start);
  over = true;
  signals.join();
  sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(ClientTest, ConnectsOrSaysWhyNot) {
  const auto outcome_of = [&](const char* path, auto... missing) {
    const bool connected = client.connect(path, 20ms, missing...);
    EXPECT_EQ(connected, client.is_connected());
    return connected ? "connected" : strerrorname_np(errno);
  };
  answer(0, "of the old connection");
  EXPECT_EQ("ETIMEDOUT", said(client.answer_to(1, 0s)));
  knock();  // Its queue is full now.
  EXPECT_STREQ("ETIMEDOUT", outcome_of(s.socket_path.c_str()));
  accept();
  EXPECT_STREQ("connected", outcome_of(s.socket_path.c_str()));
  accept();
  EXPECT_EQ("ETIMEDOUT", rest());
  const std::string nobody = path("nobody"), deaf = path("deaf");
  EXPECT_STREQ("ENOENT", outcome_of(nobody.c_str()));
  EXPECT_STREQ("ETIMEDOUT", outcome_of(nobody.c_str(), CommMissingServer::is_awaited));
  close(bound_socket(deaf));
  EXPECT_STREQ("ECONNREFUSED", outcome_of(deaf.c_str()));
  EXPECT_STREQ("EINVAL", outcome_of(""));
  EXPECT_STREQ("EINVAL", outcome_of(nullptr));
  EXPECT_STREQ("ENAMETOOLONG",
               outcome_of(("@" + texts(108)).c_str(), CommMissingServer::is_awaited));
  // The server of a pending connect goes away; the next one is there.
  Faults faults;
  const std::vector<int> errors = {EAGAIN, ECONNREFUSED};
  faults.replace(Call::connect, [&, n = 0u](const auto& real, void*) mutable -> long {
    if (n >= errors.size()) return real();
    errno = errors[n++];
    return -1;
  });
  EXPECT_TRUE(faults.during([&] { return client.connect(s.socket_path.c_str(), 10s); }));
}

TEST_F(ClientTest, AwaitsItsServer) {
  const std::string late = path();
  const Peer peer([&] {
    usleep(30000);
    EXPECT_EQ(0, comm_socket_v4_create_server(&s, late.c_str()));
    comm_socket_v4_client* from = nullptr;
    CommPacket asked;
    while (!asked && comm_socket_v4_server_from_client_readable(&s, in_ms(100000)) == 1) {
      accept();
      asked.reset(comm_socket_v4_server_get_packet(&s, &from));
    }
    const CommPacket answer = Builder::response_to(*asked).argument("here").finish();
    EXPECT_LT(0, comm_socket_v4_packet_send_to_client(from, answer.get()));
  });
  ASSERT_TRUE(client.connect(late.c_str(), 100s, CommMissingServer::is_awaited));
  EXPECT_EQ("here", said(client.call(request(), CommClient::endless)));
  Builder long_request = Builder::request("long");
  const CommPacket nobody_takes = long_request.limit(65552).data(texts(65485)).finish();
  EXPECT_EQ("EMSGSIZE", said(client.call(nobody_takes, 0s))) << nobody_takes->buffer_length;
}

}  // namespace
