// The packet: its bytes, its buffer, references and descriptors, the writer and the readers. What
// makes it valid is compared with what another reader says, in read_packet_test.py.
#include <sys/mman.h>

#include "support.h"

namespace {

using namespace std::string_literals;
using PacketTest = CommTest;
using P = comm_socket_v4_packet;

constexpr std::size_t kHuge = SIZE_MAX;

const unsigned char* bytes(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

std::string data_of(const CommPacket& p) {
  return std::string(reinterpret_cast<const char*>(p->data()), p->data_length());
}

const std::string kPing =
    "\x01\x02\xCD\xAB\x3F\0\0\0"
    "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"
    "\x01\0\0\0\0\0\0\0\x3F\0\0\0\x01\x4A\0\0\0\x01\0\x4E\0\0\0\0\0\0\0\0\0\0\0"
    "ping\0a\0k\0v\0"
    "\x44\0\0\0\x46\0\0\0\x48\0\0\0\x01\0\0\0\0\0\0\0"s;

// --- Bytes --------------------------------------------------------------------------------------

TEST_F(PacketTest, WritesTheExample) {
  const CommPacket p = ping_packet();
  EXPECT_EQ(kPing, bytes_of(p.get()));
  EXPECT_EQ(0, p->buffer[94]);
}

// --- Readers ------------------------------------------------------------------------------------

// Through the functions, which forward to the members.
TEST_F(PacketTest, ReadsEachValueByItsOwnTypeOnly) {
  const CommPacket packet = rich_packet();
  const P* const p = packet.get();
  EXPECT_EQ(std::tuple(0xFEDCBA9876543210, 0x9C, 4, 9),
            std::tuple(p->get_stream_id(), p->get_tag(), comm_socket_v4_packet_get_argc(p),
                       comm_socket_v4_packet_nv_entries(p)));
  EXPECT_STREQ("list", comm_socket_v4_packet_get_command(p));
  EXPECT_STREQ("broken", comm_socket_v4_packet_get_error_string(p));
  EXPECT_EQ(p->buffer + 418, comm_socket_v4_packet_get_data(p, nullptr));
  for (std::size_t n = 0; n < 5; ++n) {
    EXPECT_STREQ(n == 0 ? "text" : "", comm_socket_v4_packet_get_argv(p, n)) << n;
    EXPECT_EQ(n == 1 ? 0xFEDC : 0, p->argv_uint64(n)) << n;
    EXPECT_EQ(n == 2 ? -5 : 0, p->argv_int64(n)) << n;
    EXPECT_EQ(n == 3 ? 0.1 : 0, p->argv_double(n)) << n;
  }
  for (const std::size_t beyond : {4ul, kHuge})
    EXPECT_EQ(nullptr, comm_socket_v4_packet_get_argv_entry(p, beyond));
  EXPECT_EQ(nullptr, comm_socket_v4_packet_get_nv_entry(p, 9));
  const char* const names[] = {"t", "j", "d", "u", "i", "none", "b", "code", "raw"};
  const char* const texts[] = {"v w", "{}", "", "", "", "", "", "", ""};
  for (std::size_t n = 0; n < 9; ++n) {
    const auto* const pair = comm_socket_v4_packet_get_nv_entry(p, n);
    EXPECT_STREQ(names[n], comm_socket_v4_packet_get_nv_pair_name(p, pair));
    EXPECT_STREQ(texts[n], comm_socket_v4_packet_get_nv_pair_value_text(p, pair));
  }
  EXPECT_EQ(UINT64_MAX, std::uint64_t{p->nv_pair_value_uint64(p->nv_entry(3))[4]});
  EXPECT_EQ(INT64_MIN, std::int64_t{p->nv_pair_value_int64(p->nv_entry(4))[2]});
  EXPECT_EQ(-0.25, double{p->nv_pair_value_double(p->nv_entry(2))[1]});
}

TEST_F(PacketTest, ReadsNothingFromAPacketWithoutHeader) {
  const CommPacket packets[] = {make_packet(), exact_packet(kPing.substr(0, 62)),
                                exact_packet(kPing.substr(0, 40) + std::string(23, '\0'))};
  packets[2]->buffer[59] = 1;  // data_length counts for nothing without data_offset
  for (const CommPacket& p : packets) {
    std::size_t length = 1;
    EXPECT_EQ(nullptr, comm_socket_v4_packet_get_data(p.get(), &length));
    EXPECT_EQ(std::tuple(0, 0, 0, 0),
              std::tuple(length, p->argc(), p->nv_entries(), p->argv_uint64(0)));
    EXPECT_STREQ("", p->command());
    EXPECT_STREQ("", p->error_string());
    EXPECT_EQ(nullptr, p->nv_entry(0));
  }
}

// --- Object, buffer and descriptors -------------------------------------------------------------

TEST_F(PacketTest, LivesAsLongAsItsReferences) {
  P* p = comm_socket_v4_packet_create();
  EXPECT_EQ(std::tuple(1, 0, 0), std::tuple(+p->refcount, p->get_tag(), p->buffer_write));
  EXPECT_EQ(2, p->addref());
  comm_socket_v4_packet_addref(p);
  EXPECT_EQ(2, p->release());
  EXPECT_EQ(p, comm_socket_v4_packet_release(p));
  EXPECT_EQ(nullptr, comm_socket_v4_packet_release(p));
  comm_socket_v4_packet_addref(nullptr);
  EXPECT_EQ(nullptr, comm_socket_v4_packet_release(nullptr));
  EXPECT_EQ(nullptr, failing(Call::operator_new, ENOMEM, comm_socket_v4_packet_create));

  p = comm_socket_v4_packet_create();
  EXPECT_TRUE(p->attach_fd_to_send(0));
  p->refcount = 0;
  const StderrCapture captured;
  EXPECT_EQ(0, p->release());
  EXPECT_EQ("comm socket v4 packet error: result released below zero!\n", captured.text());
}

TEST_F(PacketTest, GrowsItsBufferAndNeverShrinksIt) {
  const CommPacket p = make_packet();
  const auto grow = [&p] { return p->resize_buffer(100); };
  // An answer, and what of the buffer is allocated, used and written then.
  using After = std::tuple<int, std::size_t, std::size_t, std::size_t>;
  const auto after = [&p](int answer) {
    return After(answer, p->buffer_alloc, p->buffer_length, p->buffer_write);
  };
  EXPECT_EQ(After(0, 0, 0, 0), after(p->enlarge_buffer(100000)));
  EXPECT_EQ(After(0, 0, 0, 0), after(p->shrinkfit_buffer()));
  EXPECT_EQ(After(-1, 0, 0, 0), after(failing(Call::malloc, ENOMEM, grow)));
  EXPECT_EQ(After(-1, 0, 0, 0), after(p->resize_buffer(kHuge)));
  EXPECT_EQ(nullptr, p->buffer);

  EXPECT_EQ(After(0, 32, 0, 0), after(p->resize_buffer(0)));
  std::memset(p->buffer, 'x', 32);
  p->buffer_length = p->buffer_write = 31;
  EXPECT_EQ(After(-1, 32, 31, 31), after(failing(Call::malloc, ENOMEM, grow)));
  EXPECT_EQ(After(-1, 32, 31, 31), after(p->enlarge_buffer(kHuge)));
  EXPECT_EQ(After(0, 33, 31, 31), after(p->enlarge_buffer(33)));
  EXPECT_EQ(After(0, 10000, 31, 31), after(p->resize_buffer(10000)));
  EXPECT_EQ(After(0, 10000, 31, 31), after(p->resize_buffer(50)));
  EXPECT_EQ(std::string(31, 'x'), bytes_of(p.get()));
  for (const auto call :
       {comm_socket_v4_packet_resize_buffer, comm_socket_v4_packet_enlarge_buffer})
    EXPECT_EQ(-1, call(nullptr, 1));
  EXPECT_EQ(-1, comm_socket_v4_packet_shrinkfit_buffer(nullptr));
}

TEST_F(PacketTest, GivesSurplusMemoryBackKeepingTheTerminator) {
  const std::size_t rows[][3] = {{8192, 100, 132}, {8192, 5000, 8192}, {200, 100, 200},
                                 {200, 99, 131},   {201, 100, 201},    {66, 32, 64},
                                 {32, 15, 47}};
  for (const auto& [alloc, length, expected] : rows) {
    const CommPacket p = exact_packet(std::string(length, 'x'));
    EXPECT_EQ(0, p->resize_buffer(alloc));
    const auto shrink = [&] { return comm_socket_v4_packet_shrinkfit_buffer(p.get()); };
    Faults faults;
    if (expected != alloc) faults.fail(Call::malloc, ENOMEM);
    EXPECT_EQ(expected != alloc ? -1 : 0, faults.during(shrink));
    EXPECT_EQ(alloc, p->buffer_alloc);
    EXPECT_EQ(0, shrink());
    EXPECT_EQ(expected, p->buffer_alloc);
    EXPECT_EQ(std::string(length, 'x'), reinterpret_cast<const char*>(p->buffer));
  }
}

TEST_F(PacketTest, OwnsDuplicatesOfWhatIsAttached) {
  const CommPacket p = make_packet();
  const auto attach = [&p] { return p->attach_fd_to_send(0); };
  EXPECT_THROW(failing(Call::operator_new, ENOMEM, attach), std::bad_alloc);
  EXPECT_FALSE(failing(Call::dup, EMFILE, attach));
  EXPECT_EQ(EMFILE, errno);
  EXPECT_FALSE(p->attach_fd_to_send(-1));
  EXPECT_EQ(0u, p->attached_fd_count());

  for (int n = 0; n < 8; ++n) EXPECT_TRUE(attach());
  EXPECT_FALSE(attach());
  const int taken = p->get_attached_fd(3);
  EXPECT_EQ(-1, p->get_attached_fd(3));
  EXPECT_EQ(-1, p->get_attached_fd(8));
  EXPECT_FALSE(attach()) << "an emptied slot counts";
  EXPECT_EQ(8u, p->attached_fd_count());
  p->close_attached_fd();
  EXPECT_EQ(std::vector<int>(8, -1), p->attached_fd);
  EXPECT_EQ(0, close(taken));
  EXPECT_EQ(0, close(dup(0))) << "what was attached stays the caller's";
}

TEST_F(PacketTest, ChangesOneFlagAtATimeAndASignatureOfFourBytes) {
  CommPacket p = make_packet();
  for (const int v : {-1, 0, 1, 2})
    for (const std::uint32_t before : {0u, ~0u}) {
      p->flags = before;
      comm_socket_v4_packet_set_request(p.get(), v);
      comm_socket_v4_packet_set_async(p.get(), 1 - v);
      EXPECT_EQ((before & ~3u) | (v > 0 ? 1 : 2), p->flags);
    }
  p->flags = ~0u;
  comm_socket_v4_packet_make_response(p.get());
  EXPECT_EQ(~1u, p->flags);
  for (const std::string signature : {"123", "1234"}) {
    p = exact_packet(signature);
    p->set_sighdr(0x64636261);
    EXPECT_EQ(signature == "1234" ? 0x64636261u : 0, p->get_sighdr());
  }
}

// --- Writer -------------------------------------------------------------------------------------

TEST_F(PacketTest, RefusesWhatItCannotCopy) {
  static const std::uint64_t u = 1;
  static const unsigned char b[] = "abc";
  const struct {
    int answer;
    int (*write)(P*);
  } rows[] = {{-1, [](P* p) { return p->write_nv_pair_raw("n", nullptr, 1, 9); }},
              {-1, [](P* p) { return p->write_nv_pair_raw(nullptr, b, 3, 9); }},
              {-1, [](P* p) { return p->write_nv_pair_binary("n", b, std::size_t{1} << 32); }},
              {-1, [](P* p) { return p->write_nv_pair_binary("n", b, kHuge); }},
              {-1, [](P* p) { return p->write_nv_pair_uint64("n", &u, kHuge / 8 + 2); }},
              {-1, [](P* p) { return p->write_nv_pairf(nullptr, "%d", 1); }},
              {-1, [](P* p) { return p->write_data_binary(nullptr, 3); }},
              {-1, [](P* p) { return p->write_data_binary(b, 262145); }},
              {0, [](P* p) { return p->write_data_binary(nullptr, 0); }},
              {0, [](P* p) { return p->write_argv_end(); }}};
  const auto everything = [](const CommPacket& p) {
    return std::tuple(p->write_state_to_str() + bytes_of(p.get()), p->wr_argv.size(),
                      p->wr_nv_pair.size());
  };
  const CommPacket begun = begin_request(), none = make_packet();
  for (const auto& row : rows)
    for (const CommPacket* const p : {&begun, &none})
      EXPECT_EQ(Outcome(row.answer, errno_before), outcome([&] { return row.write(p->get()); }))
          << &row - rows;
  EXPECT_EQ(everything(begin_request()), everything(begun));
  EXPECT_EQ(0, begun->write_nv_pair("n", nullptr));
  const char* const names[] = {"None", "Header", "Data", "End", "?"};
  for (const int state : {0, 1, 2, 3, 4}) EXPECT_STREQ(names[state], P::write_state_to_str(state));
}

TEST_F(PacketTest, BeginsWithRoomAsHinted) {
  const std::size_t rows[][2] = {{0, 8192}, {1, 4096}, {4097, 4097}, {100000, 100000}};
  for (const auto& [hint, alloc] : rows) {
    const CommPacket p = make_packet();
    const auto begin = [&p, size = hint] { return p->write_begin("", "", size); };
    EXPECT_EQ(-1, failing(Call::malloc, EAGAIN, begin));
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_EQ(0, begin());
    EXPECT_EQ(alloc, p->buffer_alloc);
    EXPECT_EQ(63u, p->buffer_length);
  }
}

TEST_F(PacketTest, RefusesAnArgumentBeyondTwentyFourBits) {
  for (const std::size_t over : {0u, 1u}) {
    const CommPacket p = begin_request(nullptr);
    const std::string filler((1u << 24) - 1 + over - p->buffer_write - 2, 'x');
    ASSERT_EQ(0, p->write_nv_pair_binary("f", bytes(filler), filler.size()));
    EXPECT_EQ(over ? -1 : 0, p->write_argv_int64(-7));
    EXPECT_EQ(-1, p->write_argv("x"));
    EXPECT_EQ(over ? 0x1000000u : 0x1000007u, p->buffer_write);
    EXPECT_EQ(0, p->write_nv_pair("k", "v"));
    EXPECT_EQ(0, p->write_end());
    EXPECT_EQ(over ? 0 : -7, p->argv_int64(0));
    EXPECT_STREQ("v", p->nv_pair_value_text(p->nv_entry(1)));
  }
}

// The write position is set by hand and growth fails, so no 4 GiB are needed: a write that fits
// asks for memory, one that does not is refused before.
TEST_F(PacketTest, RefusesToPassThirtyTwoBits) {
  const struct {
    int (*write)(P*);
    std::size_t size;
    unsigned growths;
  } rows[] = {
      {[](auto* p) { return p->write_nv_pair_raw("n", bytes("abc"), 3, 9); }, 2 + 3, 2},
      {[](auto* p) { return p->write_nv_pair("n", "abc"); }, 2 + 4, 2},
      {[](auto* p) { return p->write_data_binary(bytes("abc"), 3); }, 3, 1},
      {[](auto* p) { return p->reserve_data(3) == nullptr ? -1 : 0; }, 3, 1},
      {[](auto* p) { return p->write_data_from_file(-1, 0, 3); }, 3, 1},
      {[](auto* p) { return p->wr_argv.emplace_back(), p->write_end(); }, 4, 1},
      {[](auto* p) { return p->wr_nv_pair.emplace_back(), p->write_end(); }, 16, 1},
  };
  for (const auto& row : rows)
    for (const bool fits : {true, false}) {
      const CommPacket p = begin_request();
      p->buffer_write = UINT32_MAX - row.size + !fits;
      Faults faults;
      if (fits) faults.fail(Call::malloc, ENOMEM, 1, row.growths);
      faults.during([&] { return row.write(p.get()); });
      EXPECT_EQ(fits ? row.growths : 0u, faults.count(Call::malloc)) << &row - rows;
    }
  for (const std::size_t arguments : {0ul, 1ul}) {
    const CommPacket p = begin_request();
    p->wr_argv.resize(arguments);
    p->buffer_write = UINT32_MAX - 2;
    const auto add = [&] { return p->write_data_from_file(-1, 0, 3 - arguments); };
    EXPECT_EQ(Outcome(-1, EMSGSIZE), outcome(add));
  }
}

// What is not committed is not there; what was not written is zero, whatever the memory held.
TEST_F(PacketTest, TakesDataThatIsWrittenInPlace) {
  const std::string dirt(20000, 'x');
  const CommDescriptor nothing(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  const CommPacket p = make_packet();
  EXPECT_EQ(0, p->resize_buffer(dirt.size()));
  std::memcpy(p->buffer, dirt.data(), dirt.size());
  EXPECT_EQ(nullptr, p->reserve_data(1));
  EXPECT_EQ(-1, p->commit_data(0));
  ASSERT_EQ(0, p->write_begin("put", nullptr, 0));
  EXPECT_EQ(0, p->write_argv("a"));
  for (const std::size_t never : {0ul, 262145ul}) EXPECT_EQ(nullptr, p->reserve_data(never));
  EXPECT_EQ(0, p->write_argv("b")) << "nothing has changed";

  std::memcpy(p->reserve_data(8), "lost", 4);
  EXPECT_EQ(-1, p->write_argv("c"));
  EXPECT_EQ(2u, p->argc());
  std::memcpy(p->reserve_data(8), "in place", 8);
  EXPECT_EQ(0u, p->data_length());
  EXPECT_EQ(-1, p->commit_data(9));
  EXPECT_EQ(8, comm_socket_v4_packet_commit_data(p.get(), 8));
  EXPECT_EQ(-1, p->commit_data(0)) << "once";
  EXPECT_EQ(2, p->write_data_binary(bytes(", "), 2));
  std::memcpy(comm_socket_v4_packet_reserve_data(p.get(), 300), "zero", 4);
  EXPECT_EQ(6, p->commit_data(6));
  for (const auto& ends : {std::function<int()>([&p] { return p->resize_buffer(30000); }),
                           {[&p] { return p->shrinkfit_buffer(); }},
                           {[&p] { return p->reserve_data(5), p->commit_data(0); }},
                           {[&] {
                             return p->write_data_from_file(nothing.get(), -1, 9) +
                                    p->buffer[p->buffer_write];
                           }},
                           {[&p] { return p->write_data_binary(bytes("."), 1) - 1; }},
                           {[&p] { return p->write_end(); }}}) {
    std::memset(p->reserve_data(4), '?', 4);
    EXPECT_EQ(0, ends());
    EXPECT_EQ(-1, p->commit_data(4));
  }
  EXPECT_EQ(nullptr, p->reserve_data(4));
  EXPECT_EQ("in place, zero\0\0."s, data_of(p));
  EXPECT_EQ(0, p->buffer[p->buffer_length]);
}

// What a read gives, and nothing that the room held before.
TEST_F(PacketTest, TakesDataFromAFile) {
  const CommDescriptor file(memfd_create("file", MFD_CLOEXEC)), folder(open("/", O_CLOEXEC));
  int ends[2];
  ASSERT_EQ(0, pipe2(ends, O_CLOEXEC | O_NONBLOCK));
  const CommDescriptor out(ends[0]), in(ends[1]);
  ASSERT_EQ(10, write(file.get(), "0123456789", 10));
  ASSERT_EQ(5, write(in.get(), "piped", 5));
  const CommPacket p = make_packet();
  ASSERT_EQ(0, p->resize_buffer(300000));
  std::memset(p->buffer, 'x', p->buffer_alloc);
  const auto add = [&](int from, std::int64_t at, std::size_t most) {
    return outcome(
        [&] { return comm_socket_v4_packet_write_data_from_file(p.get(), from, at, most); });
  };
  EXPECT_EQ(Outcome(-1, EINVAL), add(file.get(), 0, 3));
  ASSERT_EQ(0, p->write_begin("put", nullptr, 0));
  EXPECT_EQ(Outcome(0, errno_before), add(-1, 0, 0));
  EXPECT_EQ(0, p->write_argv("a")) << "nothing has changed";
  const struct {
    Outcome ends;
    int from;
    std::int64_t at;
    std::size_t most;
    std::string data;
  } rows[] = {
      {{-1, EISDIR}, folder.get(), 0, 5, ""},
      {{3, errno_before}, file.get(), 4, 3, "456"},
      {{2, errno_before}, file.get(), 8, kHuge, "45689"},
      {{0, errno_before}, file.get(), 10, 5, "45689"},
      {{-1, EBADF}, -1, 0, 5, "45689"},
      {{2, errno_before}, out.get(), -1, 2, "45689pi"},
      {{-1, ESPIPE}, out.get(), 0, 2, "45689pi"},
      {{3, errno_before}, out.get(), INT64_MIN, 9, "45689piped"},
      {{-1, EAGAIN}, out.get(), -1, 9, "45689piped"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.ends, add(row.from, row.at, row.most)) << &row - rows;
    EXPECT_EQ(row.data, data_of(p)) << &row - rows;
    EXPECT_EQ(row.data.empty(), p->data() == nullptr) << &row - rows;
    EXPECT_EQ(0, p->buffer[p->buffer_length]) << &row - rows;
  }
  EXPECT_EQ(-1, p->write_argv("b"));
  ASSERT_EQ(0, ftruncate(file.get(), 262145));
  EXPECT_EQ(Outcome(262144, errno_before), add(file.get(), 0, 262145));
  const auto more = [&] { return add(file.get(), -1, 262144); };
  lseek(file.get(), 0, SEEK_SET);
  EXPECT_EQ(Outcome(-1, ENOMEM), failing(Call::malloc, ENOMEM, more));
  EXPECT_EQ(Outcome(262144, errno_before), more()) << "nothing was read before";
  EXPECT_EQ(0, p->write_end());
  EXPECT_EQ(524298u, p->data_length());
  EXPECT_EQ(Outcome(-1, EINVAL), add(file.get(), 0, 3));
}

TEST_F(PacketTest, CompletesOnce) {
  const CommPacket p = begin_request();
  p->set_complete_cb([](P* q) {
    EXPECT_STREQ("End", q->write_state_to_str());
    q->tag += q->buffer_length;
    q->buffer_length = 66;
    return -1;
  });
  for (int i = 0; i < 2; ++i) EXPECT_EQ(0, p->write_end());
  EXPECT_EQ(68u, p->tag);
  EXPECT_STREQ("pin", p->command()) << "the terminator follows what the callback left";
}

// --- Memory runs out ----------------------------------------------------------------------------

TEST_F(PacketTest, LeavesOutAValueForWhichThereIsNoMemory) {
  const std::string text(9000, 'x');
  const char* const big = text.c_str();
  const CommPacket p = make_packet();
  const auto expect_done = [](auto write) {
    Faults faults;
    EXPECT_EQ((Outcome{0, errno_before}), outcome(faults.fail(Call::malloc, ENOMEM), write));
  };
  ASSERT_EQ(0, p->resize_buffer(4096));
  expect_done([&] { return p->write_begin("c", big, 4096); });
  const std::size_t before = p->buffer_write;
  expect_done([&] { return p->write_argv(big); });
  expect_done([&] { return p->write_nv_pair("n", big); });
  expect_done([&] { return p->write_nv_pair(big, "v"); });
  EXPECT_EQ(before + 4, p->buffer_length) << "n and v and their terminators";
  EXPECT_EQ(0, failing(Call::vasprintf, ENOMEM, [&] { return p->write_nv_pairf("m", "%d", 1); }));
  EXPECT_EQ(0, p->write_end());
  EXPECT_STREQ("", p->error_string());
  ASSERT_EQ(1u, p->argc());
  EXPECT_EQ(0u, p->argv(0)->offset());
  EXPECT_STREQ("", p->argv_text(0));
  const auto *const no_value = p->nv_entry(0), *const no_name = p->nv_entry(1);
  EXPECT_EQ(std::tuple(0, 0, 0),
            std::tuple(+no_value->value_offset, no_value->length(), +no_name->name_offset));
  EXPECT_STREQ("", p->nv_pair_value_text(no_value));
  EXPECT_EQ(nullptr, comm_socket_v4_packet_get_nv_pair_value_raw(p.get(), no_value));
  EXPECT_STREQ("", p->nv_pair_name(no_name));
  EXPECT_STREQ("v", p->nv_pair_value_text(no_name));
}

// An entry is added whole or not at all. One table would fit, but both are written or none; then,
// and while data comes, all goes on.
TEST_F(PacketTest, GoesOnWhereMemoryRanOut) {
  comm_socket_v4_packet_keep_spares(0);  // nor has an earlier packet left storage for entries
  const CommPacket p = begin_request();
  const auto argument = [&] { return p->write_argv_uint64(5); };
  const auto pair = [&] { return p->write_nv_pairf("k", "%s", "v"); };
  EXPECT_THROW(failing(Call::operator_new, ENOMEM, argument), std::bad_alloc);
  EXPECT_THROW(failing(Call::operator_new, ENOMEM, pair), std::bad_alloc);
  EXPECT_EQ(0, argument());
  const std::string rest(p->buffer_alloc - p->buffer_write - 80, 'f'), data(262144, 'd');
  ASSERT_EQ(0, p->write_nv_pair_binary("f", bytes(rest), rest.size()));
  const auto add_data = [&] { return p->write_data_binary(bytes(data), data.size()); };
  const std::string before = bytes_of(p.get());
  EXPECT_EQ(-1, failing(Call::malloc, ENOMEM, [&] { return p->write_end(); }));
  EXPECT_EQ(-1, failing(Call::malloc, ENOMEM, add_data));
  EXPECT_EQ(before, bytes_of(p.get()));
  EXPECT_EQ(0, p->write_argv_uint64(6));
  EXPECT_EQ(-1, failing(Call::malloc, ENOMEM, add_data, 3));
  EXPECT_EQ(2u, p->argc()) << "the tables come with the data";
  EXPECT_EQ(10, p->write_data_binary(bytes("0123456789"), 10));
  EXPECT_EQ(262144, add_data());
  EXPECT_EQ(-1, failing(Call::malloc, ENOMEM, add_data));
  EXPECT_EQ(0, p->write_end());
  ASSERT_EQ(std::tuple(2, 5, 6, 1, 262154),
            std::tuple(p->argc(), p->argv_uint64(0), p->argv_uint64(1), p->nv_entries(),
                       p->data_length()));
  EXPECT_EQ("0123456789" + data, data_of(p));
}

}  // namespace
