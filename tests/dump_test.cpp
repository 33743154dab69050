// What the dumps print, whole and to the letter, and that any packet can be printed.
#include <cstdlib>

#include "support.h"

namespace {

using DumpTest = CommTest;

std::string printed(void (*dump)(const comm_socket_v4_packet*, FILE*), const CommPacket& p) {
  char* text = nullptr;
  std::size_t length = 0;
  FILE* out = open_memstream(&text, &length);
  dump(p.get(), out);
  fclose(out);
  std::string copy(text, length);
  free(text);
  return copy;
}
std::string address(const void* p) { return testing::PrintToString(p); }
// Behind the packet's own address.
std::string full(const CommPacket& p) {
  const std::string start = "comm_socket_v4_packet[" + address(p.get()) + "]: ";
  const std::string text = printed(comm_socket_v4_packet_dump, p);
  EXPECT_EQ(start, text.substr(0, start.size()));
  return text.substr(start.size());
}
std::string listing(const CommPacket& p) {
  return printed(comm_socket_v4_packet_dump_user_friendly, p);
}

TEST_F(DumpTest, TheFullDumpShowsEveryPart) {
  CommPacket p = rich_packet();
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(p->attach_fd_to_send(0));
  close(p->get_attached_fd(1));
  std::string expected =
      "\n  01 02 cd ab ?  00 00 00 10 2  T  v  98 ba dc fe \n"
      "  ab 00 00 00 00 00 00 00 05 00 00 00 00 00 00 00 \n"
      "  0b 00 00 00 D  00 00 00 ?  00 00 00 04 02 01 00 \n"
      "  00 09 00 12 01 00 00 a2 01 00 00 (  00 00 00 l  \n\n"
      "Refcount: 1\nMessage ID: AB\nStream ID: FEDCBA9876543210\nError code: 5\n"
      "Tag (internal): 9C\nWrite state: End\nFlags: Type=Request multipart=middle Async \n"
      "File descriptors: 0 -1\n"
      "Command@63: 'list'\nErrorString@68: 'broken'\n"
      "   argv[0]@75: 'text'\n   argv[1]@80: 0x000000000000fedc\n   argv[2]@94: -5\n"
      "   argv[3]@102: 0.10000000000000000555\n"
      "   nv: 't' = <TEXT LENGTH=3> 'v w'\n   nv: 'j' = <JSON LENGTH=2> '{}'\n"
      "   nv: 'd' = <DOUBLE LENGTH=16, 2 entries>\n"
      "      1.50000000000000000000 \n      -0.25000000000000000000 \n<END DOUBLE>\n"
      "   nv: 'u' = <UINT64 LENGTH=40, 5 entries>\n"
      "      0000000000000001 0000000000000002 0000000000000003 0000000000000004 \n"
      "      ffffffffffffffff \n<END UINT64>\n"
      "   nv: 'i' = <INT64 LENGTH=32, 4 entries>\n"
      "      ffffffffffffffff 0000000000000002 8000000000000000 0000000000000004 \n<END INT64>\n"
      "   nv: 'none' = <UINT64 LENGTH=0, 0 entries>\n<END UINT64>\n"
      "   nv: 'b' = <BINARY LENGTH=17>\n"
      "      1f 20 21 61 62 63 64 65 66 67 68 69 6a 6b 6c 7e \n      7f \n<END BINARY>\n"
      "   nv: 'code' = <'data' LENGTH=16>\n"
      "      1f 20 21 61 62 63 64 65 66 67 68 69 6a 6b 6c 7e \n<END 'data'>\n"
      "   nv: 'raw' = <TYPE:0x00000007 LENGTH=0>\n<END TYPE:0x00000007>\n"
      "Data: 40 bytes at offset 418\n"
      "  1f    !  a  b  c  d  e  f  g  h  i  j  k  l  ~  \n"
      "  7f m  n  o  p  q  r  s  t  u  v  w  x  y  z  0  \n\n";
  expected.replace(expected.find("0 -1"), 1, std::to_string(p->attached_fd[0]));
  EXPECT_EQ(expected, full(p));
}

TEST_F(DumpTest, TheListingShowsTheContentAndTheBodyTheBareData) {
  const std::string header =
      "*Message ID: 0xAB\n*Stream ID:  0xFEDCBA9876543210\n*Error code: 0x5\n*Tag (int):  0x9C\n"
      "*Type:       Asynchronous Request\n*Multipart:  Middle\n"
      "*Error str:  broken\n*Command:    list\n"
      "*Argv[0]:    text\n*Argv[1]:    0x000000000000fedc\n*Argv[2]:    -5\n"
      "*Argv[3]:    0.10000000000000000555\n"
      "t: v w\nj:(JSON) {}\nd:(DOUBLE) 1.500000 -0.250000 \nu:(UINT64) 0000000000000001 "
      "0000000000000002 0000000000000003 0000000000000004 ffffffffffffffff \n"
      "i:(INT64) -1 2 -9223372036854775808 4 \nnone:(UINT64) \n"
      "b:(BINARY) 1f 20 21 61 62 63 64 65 66 67 68 69 6a 6b 6c 7e 7f \n"
      "code:('data') 1f 20 21 61 62 63 64 65 66 67 68 69 6a 6b 6c 7e \nraw:(0x00000007) \n";
  CommPacket p = rich_packet();
  const std::string bytes(reinterpret_cast<const char*>(p->data()), 40);
  EXPECT_EQ(header, printed(comm_socket_v4_packet_dump_header_user_friendly, p));
  EXPECT_EQ(header + bytes, listing(p));
  EXPECT_EQ(std::string::npos, listing(ping_packet()).find("*Error str"));
  EXPECT_EQ(bytes, printed(comm_socket_v4_packet_dump_body, p));
  const StderrCapture captured;
  p->dump_user_friendly(nullptr);
  EXPECT_EQ(listing(p), captured.text());
}

TEST_F(DumpTest, AHeaderAloneAndTheWordsOfItsFlags) {
  CommPacket p = make_packet();
  p->write_begin(nullptr, nullptr, 0);
  p->buffer[p->buffer_length] = 0;
  const std::string words[] = {"none", "first", "middle", "last"};
  const std::string lines[] = {"", "*Multipart:  First\n", "*Multipart:  Middle\n",
                               "*Multipart:  Last\n"};
  for (const unsigned i : {0u, 1u, 2u, 3u}) {
    p->flags = i << p->multipart_shift;
    const std::string text = full(p), list = listing(p);
    EXPECT_NE(std::string::npos, text.find("00 00 \nRefcount: 1\n")) << "an empty line";
    EXPECT_EQ("Header\nFlags: Type=Response multipart=" + words[i] + " \nCommand@0: ''\n",
              text.substr(text.find("Header")));
    EXPECT_EQ("Response\n" + lines[i] + "*Command:    \n", list.substr(list.find("Response")));
  }
}

TEST_F(DumpTest, SaysWhyAPacketCannotBeShown) {
  const std::string ping = bytes_of(ping_packet().get());
  const CommPacket open_ended = exact_packet(ping), endless = exact_packet(ping);
  open_ended->buffer[94] = 'x';
  endless->buffer_length = SIZE_MAX;
  const std::string bad_length = "\n(invalid buffer length)\n";
  EXPECT_EQ(bad_length, full(exact_packet(ping.substr(0, 62))));
  EXPECT_NE(std::string::npos, full(exact_packet(ping.substr(0, 63))).find("Command@63: ''\n"));
  EXPECT_EQ(bad_length, full(exact_packet(ping, "")));
  EXPECT_EQ(bad_length, full(endless));
  EXPECT_EQ("\n(last byte of buffer is not nullptr)\n", full(open_ended));
  const CommPacket empty = make_packet(), null;
  EXPECT_EQ("(no buffer)\n", full(empty));
  for (const CommPacket* none : {&empty, &null})
    EXPECT_EQ("", listing(*none) + printed(comm_socket_v4_packet_dump_body, *none));
  const StderrCapture captured;
  comm_socket_v4_packet_dump(nullptr, nullptr);
  EXPECT_EQ("comm_socket_v4_packet[(nil)]: (null)\n", captured.text());
}

// Behind the header a pair and two arguments, in tables that are said to be far longer.
TEST_F(DumpTest, PrintsOnlyWhatLiesInsideThePacket) {
  const struct __attribute__((packed)) {
    comm_socket_v4_packet_header header;
    comm_socket_v4_packet_nv_pair pair;
    comm_socket_v4_packet_argv arguments[2];
  } packet{
      {COMM_V4_SIGHDR, 63, 0, 0, 0, 0, UINT32_MAX, 87, 255, 79, UINT16_MAX, 63, 79, UINT32_MAX},
      {86, 71, UINT32_MAX, comm_v4_type_int64},
      {{{80, 0, 0}, comm_v4_type_uint64}, {{9, 0, 0}, 1}}};
  const std::string raw(reinterpret_cast<const char*>(&packet), sizeof packet);
  const std::string text = full(exact_packet(raw));
  EXPECT_EQ(
      "Command@87: ''\nErrorString@4294967295: ''\n"
      "   argv[0]@80: 0x0000000000000000\n   argv[1]@9: unknown type 1\n"
      "   nv: '\1' = <INT64 LENGTH=4294967295, 536870911 entries>\n"
      "      00000005ffffffff 0100000902000050 \n<END INT64>\n"
      "Data: 4294967295 bytes at offset 79\n  P  00 00 02 09 00 00 01 \n",
      text.substr(text.find("Command@")));
  CommPacket p = exact_packet(raw, "");
  p->buffer_length = SIZE_MAX;
  const std::string list = printed(comm_socket_v4_packet_dump_header_user_friendly, p);
  EXPECT_EQ(
      "*Error str:  \n*Command:    \n*Argv[0]:    0x0000000000000000\n"
      "*Argv[1]:    (unknown type)\n:(INT64) 25769803775 72057632726188112 \n",
      list.substr(list.find("*Error str")));
}

TEST_F(DumpTest, TheStateOfAnEndpointAndItsOpenClients) {
  comm_socket_v4 server;
  server.flags.server = 1;
  server.connect_timeout = 1500000;
  server.connect_timeout_routine = 250000;
  server.socket_path = "@name";
  server.client.resize(3);
  server.client_max = 2;
  server.client_next = 1;
  server.client_idlescan = 4;
  server.client_getpktscan = 5;
  comm_socket_v4_client& open = server.client[2];
  open.client_fd = 1000;
  open.cred = {7, 8, 9};
  open.accept_time_us = UINT64_MAX;
  open.server = &server;
  const StderrCapture captured;
  comm_socket_v4_dump_state(&server, nullptr);
  comm_socket_v4_dump_state(nullptr, nullptr);
  EXPECT_EQ("comm_socket_v4[" + address(&server) +
                "]:\n  socketpair:       no\n  socket_fd:        -1\n"
                "  socket_path:      @name\n  server:           yes\n"
                "  connect timeout:  1.500 / 0.250 routine\n"
                "  client list:      " +
                address(server.client.data()) +
                " alloc=3/max=2/next=1/idlescan=4/getpktscan=5\n"
                "    client[2]: fd=1000 cred(pid=7/uid=8/gid=9) at=18446744073709551615 server=" +
                address(&server) + "\ncomm_socket_v4[nullptr] = No state\n",
            captured.text());
  server.client.clear();
}

}  // namespace
