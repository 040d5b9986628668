// Tests for the FTP client: reply parsing, PASV parsing, and log-in,
// transfers and directory commands against a scripted server in passive and
// active mode.
#include "net/ftp.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstdio>

#include "fake_peer.h"

namespace {

using fake_peer::hear_line;
using fake_peer::send_text;

std::unique_ptr<NetConn> ftp_conn(int port, bool passive, int base_data_port = kFtpDefaultDataPort,
                                  std::string_view user = "ann") {
  auto conn = net_conn_new();
  conn->timeout_seconds = 5;
  ftp_set_server(*conn, "127.0.0.1", port, user, "pw", "acc", passive, base_data_port);
  return conn;
}

// Answers a PASV with a data listener, advertising an unrelated address: the
// client must connect to the control connection's peer instead.
int answer_pasv(int fd, std::string& heard) {
  hear_line(fd, heard);
  int port = 0;
  int listener = fake_peer::listen_any(port);
  char reply[80];
  std::snprintf(reply, sizeof reply, "227 Entering Passive Mode (10,9,8,7,%d,%d).\r\n", port >> 8, port & 255);
  send_text(fd, reply);
  return listener;
}

// Hears a PORT command and connects to the port it names.
int answer_port(int fd, std::string& heard, int& port) {
  std::string line = hear_line(fd, heard);
  unsigned a, b, c, d, high, low;
  port = 0;
  if (std::sscanf(line.c_str(), "PORT %u,%u,%u,%u,%u,%u", &a, &b, &c, &d, &high, &low) != 6) return -1;
  port = static_cast<int>(high * 256 + low);
  send_text(fd, "200 PORT ok\r\n");
  return fake_peer::connect_to(port);
}

TEST(FtpReply, SingleAndMultiLine) {
  int pair[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
  NetConn conn;
  conn.timeout_seconds = 5;
  conn.socket = std::make_unique<SocketRec>();
  conn.socket->handle = pair[0];
  send_text(pair[1], "230-Welcome\r\n 230 indented, not the end\r\n230-still going\r\n230 done\r\n200 next\r\nbad\r\n");
  FtpReply reply;
  ASSERT_TRUE(ftp_read_reply(conn, reply));
  EXPECT_EQ(230, reply.code);
  EXPECT_EQ("230-Welcome\r\n 230 indented, not the end\r\n230-still going\r\n230 done\r\n", reply.text);
  ASSERT_TRUE(ftp_read_reply(conn, reply));
  EXPECT_EQ(200, reply.code);
  ASSERT_TRUE(ftp_read_reply(conn, reply));
  EXPECT_EQ(0, reply.code);
  EXPECT_EQ("bad\r\n", reply.text);
  close(pair[1]);
  EXPECT_FALSE(ftp_read_reply(conn, reply));
}

TEST(FtpPasv, SixNumbersWithOrWithoutParentheses) {
  uint32_t address = 0;
  int port = 0;
  ASSERT_TRUE(ftp_parse_pasv("227 Entering Passive Mode (127,0,0,1,4,1).\r\n", address, port));
  EXPECT_EQ(0x7F000001u, address);
  EXPECT_EQ(1025, port);
  ASSERT_TRUE(ftp_parse_pasv("227 =192,168,1,2,255,255\r\n", address, port));
  EXPECT_EQ(0xC0A80102u, address);
  EXPECT_EQ(65535, port);
  EXPECT_FALSE(ftp_parse_pasv("227 (127,0,0,1,256,1)\r\n", address, port));
  EXPECT_FALSE(ftp_parse_pasv("227 (127,0,0,1,4)\r\n", address, port));
  EXPECT_FALSE(ftp_parse_pasv("227 Passive\r\n", address, port));
}

TEST(FtpDialogue, PassiveLogInTransfersAndDirectories) {
  fake_peer::Server server;
  std::string stored;
  server.start([&stored](int fd, std::string& heard) {
    send_text(fd, "220-Welcome\r\n220 ready\r\n");
    hear_line(fd, heard);
    send_text(fd, "331 password please\r\n");
    hear_line(fd, heard);
    send_text(fd, "332 account please\r\n");
    hear_line(fd, heard);
    send_text(fd, "230 in\r\n");
    hear_line(fd, heard);
    send_text(fd, "200 binary\r\n");
    // RETR
    int listener = answer_pasv(fd, heard);
    hear_line(fd, heard);
    send_text(fd, "150 opening\r\n");
    int data = fake_peer::accept_one(listener);
    send_text(data, std::string("file\0bytes", 10));
    close(data);
    close(listener);
    send_text(fd, "226 done\r\n");
    // STOR
    listener = answer_pasv(fd, heard);
    hear_line(fd, heard);
    send_text(fd, "125 go ahead\r\n");
    data = fake_peer::accept_one(listener);
    stored = fake_peer::read_all(data);
    close(data);
    close(listener);
    send_text(fd, "226 stored\r\n");
    // LIST
    listener = answer_pasv(fd, heard);
    hear_line(fd, heard);
    send_text(fd, "150 listing\r\n");
    data = fake_peer::accept_one(listener);
    send_text(data, "a.txt\r\nb.txt\r\n");
    close(data);
    close(listener);
    send_text(fd, "226 done\r\n");
    for (const char* answer : {"250 CWD ok\r\n", "257 \"new\" created\r\n", "250 removed\r\n", "250 deleted\r\n",
                               "221 bye\r\n"}) {
      hear_line(fd, heard);
      send_text(fd, answer);
    }
  });
  auto conn = ftp_conn(server.port, true);
  std::string err, data, listing;
  ASSERT_TRUE(ftp_connect(err, *conn)) << err;
  EXPECT_TRUE(ftp_get(err, *conn, "dir/f.bin", data)) << err;
  EXPECT_EQ(std::string("file\0bytes", 10), data);
  EXPECT_TRUE(ftp_put(err, *conn, "up.bin", std::string("\0\xff up", 5))) << err;
  EXPECT_TRUE(ftp_list(err, *conn, listing)) << err;
  EXPECT_EQ("a.txt\r\nb.txt\r\n", listing);
  EXPECT_TRUE(ftp_cd(err, *conn, "pub")) << err;
  EXPECT_TRUE(ftp_md(err, *conn, "new")) << err;
  EXPECT_TRUE(ftp_rd(err, *conn, "old")) << err;
  EXPECT_TRUE(ftp_delete(err, *conn, "f.bin")) << err;
  ftp_quit(*conn);
  server.finish();
  EXPECT_EQ("", err);
  EXPECT_EQ(std::string("\0\xff up", 5), stored);
  EXPECT_EQ(
      "USER ann\r\nPASS pw\r\nACCT acc\r\nTYPE I\r\nPASV\r\nRETR dir/f.bin\r\nPASV\r\nSTOR up.bin\r\n"
      "PASV\r\nLIST\r\nCWD pub\r\nMKD new\r\nRMD old\r\nDELE f.bin\r\nQUIT\r\n",
      server.heard);
}

TEST(FtpDialogue, ActiveTransfersTakeConsecutivePorts) {
  int base = 0;
  int probe = fake_peer::listen_any(base);
  close(probe);  // a port that was free a moment ago
  fake_peer::Server server;
  int ports[2] = {0, 0};
  server.start([&ports](int fd, std::string& heard) {
    send_text(fd, "220 ready\r\n");
    hear_line(fd, heard);
    send_text(fd, "230 no password needed\r\n");
    hear_line(fd, heard);
    send_text(fd, "200 binary\r\n");
    for (int i = 0; i < 2; ++i) {
      int data = answer_port(fd, heard, ports[i]);
      hear_line(fd, heard);
      send_text(fd, "150 opening\r\n");
      send_text(data, i == 0 ? "first" : "second");
      close(data);
      send_text(fd, "226 done\r\n");
    }
  });
  auto conn = ftp_conn(server.port, false, base, "");
  std::string err, data;
  ASSERT_TRUE(ftp_connect(err, *conn)) << err;
  EXPECT_TRUE(ftp_get(err, *conn, "one", data)) << err;
  EXPECT_EQ("first", data);
  EXPECT_TRUE(ftp_get(err, *conn, "two", data)) << err;
  EXPECT_EQ("second", data);
  server.finish();
  EXPECT_EQ(base, ports[0]);
  EXPECT_EQ(base + 1, ports[1]);
  char expected[200];
  std::snprintf(expected, sizeof expected,
                "USER anonymous\r\nTYPE I\r\nPORT 127,0,0,1,%d,%d\r\nRETR one\r\nPORT 127,0,0,1,%d,%d\r\nRETR two\r\n",
                base >> 8, base & 255, (base + 1) >> 8, (base + 1) & 255);
  EXPECT_EQ(expected, server.heard);
}

TEST(FtpDialogue, RefusalsNameTheReply) {
  {
    fake_peer::Server server;
    server.start([](int fd, std::string& heard) {
      send_text(fd, "220 ready\r\n");
      hear_line(fd, heard);
      send_text(fd, "331 password please\r\n");
      hear_line(fd, heard);
      send_text(fd, "530 Login incorrect.\r\n");
    });
    auto conn = ftp_conn(server.port, true);
    std::string err;
    EXPECT_FALSE(ftp_connect(err, *conn));
    EXPECT_EQ("Error:  Expected 230 response.  Received 530 Login incorrect.\r\n", err);
  }
  fake_peer::Server server;
  server.start([](int fd, std::string& heard) {
    send_text(fd, "220 ready\r\n");
    hear_line(fd, heard);
    send_text(fd, "230 in\r\n");
    hear_line(fd, heard);
    send_text(fd, "200 binary\r\n");
    int listener = answer_pasv(fd, heard);
    hear_line(fd, heard);
    send_text(fd, "550 No such file\r\n");
    close(listener);
    hear_line(fd, heard);
    send_text(fd, "550 No such directory\r\n");
  });
  auto conn = ftp_conn(server.port, true);
  std::string err, data;
  ASSERT_TRUE(ftp_connect(err, *conn)) << err;
  EXPECT_FALSE(ftp_get(err, *conn, "missing", data));
  EXPECT_EQ("Error:  Expected 1xx response.  Received 550 No such file\r\n", err);
  err.clear();
  EXPECT_FALSE(ftp_cd(err, *conn, "nowhere"));
  EXPECT_EQ("Error:  Expected 2xx response.  Received 550 No such directory\r\n", err);
  // A name with a line break would add a command of its own; nothing is sent.
  err.clear();
  EXPECT_FALSE(ftp_delete(err, *conn, "x\r\nRMD /"));
  EXPECT_EQ("Error:  The name contains a line break.\n", err);
  server.finish();
  EXPECT_EQ("USER ann\r\nTYPE I\r\nPASV\r\nRETR missing\r\nCWD nowhere\r\n", server.heard);
}

TEST(FtpDialogue, MissingActiveDataConnectionKeepsRepliesInStep) {
  fake_peer::Server server;
  server.start([](int fd, std::string& heard) {
    send_text(fd, "220 ready\r\n");
    hear_line(fd, heard);
    send_text(fd, "230 in\r\n");
    hear_line(fd, heard);
    send_text(fd, "200 binary\r\n");
    hear_line(fd, heard);  // PORT, never connected to
    send_text(fd, "200 PORT ok\r\n");
    hear_line(fd, heard);
    send_text(fd, "150 opening\r\n425 Cannot open data connection\r\n");
    hear_line(fd, heard);
    send_text(fd, "250 CWD ok\r\n");
  });
  auto conn = ftp_conn(server.port, false, 0);
  conn->timeout_seconds = 1;
  std::string err, data;
  ASSERT_TRUE(ftp_connect(err, *conn)) << err;
  EXPECT_FALSE(ftp_get(err, *conn, "f", data));
  EXPECT_EQ("Error:  The server did not open the data connection.\n", err);
  err.clear();
  EXPECT_TRUE(ftp_cd(err, *conn, "pub")) << err;
  server.finish();
}

}  // namespace
