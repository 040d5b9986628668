// Tests for the FTP client: reply parsing, PASV parsing, and active-mode
// data ports and failures against a scripted server.
#include "net/ftp.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <functional>

#include "fake_peer.h"
#include "net/net_limits.h"

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
  EXPECT_EQ(65535, port);
  EXPECT_FALSE(ftp_parse_pasv("227 (127,0,0,1,256,1)\r\n", address, port));
  EXPECT_FALSE(ftp_parse_pasv("227 (127,0,0,1,4)\r\n", address, port));
  EXPECT_FALSE(ftp_parse_pasv("227 Passive\r\n", address, port));
}

// A port that is free, with the one after it, below the range the system
// hands out for outgoing connections, so neither is taken meanwhile.
int free_port_pair() {
  auto free = [](int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    bool ok = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    if (fd >= 0) close(fd);
    return ok;
  };
  for (int port = 20000 + getpid() % 5000; port < 32000; port += 2)
    if (free(port) && free(port + 1)) return port;
  return 0;
}

TEST(FtpDialogue, ActiveTransfersTakeConsecutivePorts) {
  int base = free_port_pair();
  ASSERT_NE(0, base);
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
      send_text(data, i == 0 ? std::string("fi\0rst", 6) : std::string("second"));
      close(data);
      send_text(fd, "226 done\r\n");
    }
  });
  auto conn = ftp_conn(server.port, false, base, "");
  std::string err, data;
  ASSERT_TRUE(ftp_connect(err, *conn)) << err;
  EXPECT_TRUE(ftp_get(err, *conn, "one", data)) << err;
  EXPECT_EQ(std::string("fi\0rst", 6), data);  // binary data, zero bytes kept
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
    heard += fake_peer::read_all(fd);
  });
  auto conn = ftp_conn(server.port, false, 0);
  conn->timeout_seconds = 1;
  std::string err, data;
  ASSERT_TRUE(ftp_connect(err, *conn)) << err;
  EXPECT_FALSE(ftp_get(err, *conn, "f", data));
  EXPECT_EQ("Error:  The server did not open the data connection.\n", err);
  err.clear();
  EXPECT_TRUE(ftp_cd(err, *conn, "pub")) << err;
  // A name with a line break would add a command of its own; nothing is sent.
  EXPECT_FALSE(ftp_delete(err, *conn, "x\r\nRMD /"));
  EXPECT_EQ("Error:  The name contains a line break.\n", err);
  ftp_quit(*conn);
  server.finish();
  EXPECT_EQ(0u, server.heard.find("USER ann\r\nTYPE I\r\nPORT "));
  EXPECT_EQ(std::string::npos, server.heard.find("RMD"));
}

// Greeting, log-in and TYPE I accepted.
void log_in(int fd, std::string& heard) {
  send_text(fd, "220 ready\r\n");
  hear_line(fd, heard);
  send_text(fd, "230 in\r\n");
  hear_line(fd, heard);
  send_text(fd, "200 binary\r\n");
}

// Passive transfers: EPSV first; a server that refuses it gets PASV, and is
// not asked again.  The data goes to the control connection's peer.
TEST(FtpDialogue, PassiveTriesEpsvThenPasv) {
  fake_peer::Server server;
  server.start([](int fd, std::string& heard) {
    log_in(fd, heard);
    int data_port = 0;
    int listener = fake_peer::listen_any(data_port);
    hear_line(fd, heard);  // EPSV
    send_text(fd, "229 Entering Extended Passive Mode (|||" + std::to_string(data_port) + "|)\r\n");
    hear_line(fd, heard);  // LIST
    int data = fake_peer::accept_one(listener);
    send_text(fd, "150 here\r\n");
    send_text(data, "a.txt\r\nb.txt\r\n");
    close(data);
    send_text(fd, "226 done\r\n");
    for (int i = 0; i < 2; ++i) {
      hear_line(fd, heard);  // EPSV, then PASV; then PASV alone
      if (i == 0) {
        send_text(fd, "500 EPSV not understood\r\n");
        hear_line(fd, heard);
      }
      send_text(fd, "227 Entering Passive Mode (10,9,8,7," + std::to_string(data_port >> 8) + "," +
                        std::to_string(data_port & 255) + ")\r\n");
      hear_line(fd, heard);  // RETR
      data = fake_peer::accept_one(listener);
      send_text(fd, "150 here\r\n");
      send_text(data, "content");
      close(data);
      send_text(fd, "226 done\r\n");
    }
    close(listener);
  });
  auto conn = ftp_conn(server.port, true);
  std::string err, data;
  ASSERT_TRUE(ftp_connect(err, *conn)) << err;
  ASSERT_TRUE(ftp_list(err, *conn, data)) << err;
  EXPECT_EQ("a.txt\r\nb.txt\r\n", data);
  ASSERT_TRUE(ftp_get(err, *conn, "x", data)) << err;
  ASSERT_TRUE(ftp_get(err, *conn, "y", data)) << err;
  EXPECT_EQ("content", data);
  net_close(*conn);
  server.finish();
  EXPECT_EQ("USER ann\r\nTYPE I\r\nEPSV\r\nLIST\r\nEPSV\r\nPASV\r\nRETR x\r\nPASV\r\nRETR y\r\n",
            server.heard);
}

// Hostile servers: a reply without end, a listing line without end, data
// that trickles past the deadline.
TEST(FtpDialogue, HostileServersEndAtTheirLimits) {
  {
    fake_peer::Server server;
    server.start([](int fd, std::string&) {
      send_text(fd, "220-welcome\r\n");
      for (int i = 0; i < 10000; ++i) send_text(fd, "220-and more welcome\r\n");
    });
    auto conn = ftp_conn(server.port, true);
    std::string err;
    EXPECT_FALSE(ftp_connect(err, *conn));
    EXPECT_EQ(0u, err.find("Error:  A reply from the server exceeded the limit of 65536 bytes (CVML_NET_LINE_MAX).\n"))
        << err.substr(0, 200);
    net_close(*conn);
  }
  struct Case {
    const char* command;
    std::function<void(int)> send_data;
    std::string expected;
  } cases[] = {
      {"LIST", [](int fd) { send_text(fd, "ok\r\n" + std::string(70000, 'n')); },
       "Error:  A listing line exceeded the limit of 65536 bytes (CVML_NET_LINE_MAX).\n"},
      {"RETR", [](int fd) {
         for (int i = 0; i < 40 && send(fd, "d", 1, MSG_NOSIGNAL) == 1; ++i) usleep(100000);
       },
       "Error:  The operation did not finish within its time limit of 1 seconds (CVML_NET_DEADLINE).\n"},
  };
  for (Case& c : cases) {
    fake_peer::Server server;
    server.start([&c](int fd, std::string& heard) {
      log_in(fd, heard);
      int data_port = 0;
      int listener = fake_peer::listen_any(data_port);
      hear_line(fd, heard);
      send_text(fd, "229 (|||" + std::to_string(data_port) + "|)\r\n");
      hear_line(fd, heard);
      int data = fake_peer::accept_one(listener);
      send_text(fd, "150 here\r\n");
      c.send_data(data);
      close(data);
      close(listener);
    });
    auto conn = ftp_conn(server.port, true);
    std::string err, data;
    ASSERT_TRUE(ftp_connect(err, *conn)) << err;
    net_start_deadline(*conn, 1);
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(std::string(c.command) == "LIST" ? ftp_list(err, *conn, data) : ftp_get(err, *conn, "f", data));
    EXPECT_EQ(0u, err.find(c.expected)) << err;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    net_close(*conn);
  }
}

}  // namespace
