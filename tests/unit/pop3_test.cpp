// Tests for the POP3 client: the message split, and the listing and failure
// cases of the dialogue (the full dialogue is a CVWEB system test).
#include "net/pop3.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>

#include "fake_peer.h"
#include "net/net_limits.h"

namespace {

using fake_peer::hear_line;
using fake_peer::send_text;

std::unique_ptr<NetConn> pop3_conn(int port, std::string_view user = "ann", std::string_view password = "pw") {
  auto conn = net_conn_new();
  conn->timeout_seconds = 5;
  pop3_set_server(*conn, "127.0.0.1", port, user, password);
  return conn;
}

// Greeting, USER, PASS and RSET accepted; the caller's script goes on by
// hearing STAT.
void log_in(int fd, std::string& heard) {
  send_text(fd, "+OK POP3 ready\r\n");
  hear_line(fd, heard);
  send_text(fd, "+OK user\r\n");
  hear_line(fd, heard);
  send_text(fd, "+OK pass\r\n");
  hear_line(fd, heard);
  send_text(fd, "+OK reset\r\n");
}

TEST(Pop3Split, SenderSubjectHeaderAndBody) {
  Pop3State state;
  pop3_split_message(state, "FROM: Ann <a@x.org>\r\nsubject: Hi there\r\nX: y\r\n\r\nbody\r\nFrom: not a header\r\n");
  EXPECT_EQ("Ann <a@x.org>", state.sender);
  EXPECT_EQ("Hi there", state.subject);
  EXPECT_EQ("FROM: Ann <a@x.org>\r\nsubject: Hi there\r\nX: y\r\n\r\n", state.header);
  EXPECT_EQ("body\r\nFrom: not a header\r\n", state.body);
  // Without an empty line everything is header; the last message is cleared.
  pop3_split_message(state, "X: 1\r\nY: 2\r\n");
  EXPECT_EQ("", state.sender);
  EXPECT_EQ("", state.subject);
  EXPECT_EQ("X: 1\r\nY: 2\r\n", state.header);
  EXPECT_EQ("", state.body);
}

TEST(Pop3Dialogue, ListingInPiecesWithALineTooMany) {
  fake_peer::Server server;
  server.start([](int fd, std::string& heard) {
    log_in(fd, heard);
    hear_line(fd, heard);  // STAT
    send_text(fd, "+OK 2 320\r\n");
    hear_line(fd, heard);  // LIST
    // The listing arrives in two pieces and has one line too many.
    send_text(fd, "+OK 2 messages\r\n1 120\r\n2 2");
    send_text(fd, "00\r\n3 999\r\n.\r\n");
    hear_line(fd, heard);  // QUIT
    send_text(fd, "+OK bye\r\n");
  });
  auto conn = pop3_conn(server.port);
  std::string err;
  ASSERT_TRUE(pop3_connect(err, *conn)) << err;
  Pop3State* state = pop3_state(*conn);
  ASSERT_NE(nullptr, state);
  EXPECT_EQ(2u, state->count);
  EXPECT_EQ((std::vector<uint32_t>{120, 200}), state->sizes);
  pop3_quit(*conn);
  EXPECT_FALSE(conn->connected);
  server.finish();
  EXPECT_EQ("", err);
  EXPECT_EQ("USER ann\r\nPASS pw\r\nRSET\r\nSTAT\r\nLIST\r\nQUIT\r\n", server.heard);
}

TEST(Pop3Dialogue, EmptyMailboxSendsNoList) {
  fake_peer::Server server;
  server.start([](int fd, std::string& heard) {
    log_in(fd, heard);
    hear_line(fd, heard);
    send_text(fd, "+OK 0 0\r\n");
    heard += fake_peer::read_all(fd);
  });
  auto conn = pop3_conn(server.port);
  std::string err;
  ASSERT_TRUE(pop3_connect(err, *conn)) << err;
  EXPECT_EQ(0u, pop3_state(*conn)->count);
  EXPECT_TRUE(pop3_state(*conn)->sizes.empty());
  net_close(*conn);
  server.finish();
  EXPECT_EQ("USER ann\r\nPASS pw\r\nRSET\r\nSTAT\r\n", server.heard);
}

// A refused reply is shown as it came, its CR LF included.
TEST(Pop3Dialogue, PlusOkWithABlankOrAloneIsPositive) {
  for (std::string greeting : {"+OKAY\r\n", "+ok ready\r\n", "-ERR busy\r\n", "+OK\n"}) {
    fake_peer::Server server;
    server.start([greeting](int fd, std::string&) { send_text(fd, greeting); });
    auto conn = pop3_conn(server.port);
    std::string err;
    EXPECT_FALSE(pop3_connect(err, *conn));
    EXPECT_EQ("Error:  Expected +OK response.  Received " + greeting + ".\n", err);
  }
  // A bare "+OK" (as Dovecot answers USER) is a success.
  fake_peer::Server server;
  server.start([](int fd, std::string& heard) {
    send_text(fd, "+OK\r\n");
    hear_line(fd, heard);
    send_text(fd, "+OK\r\n");
    hear_line(fd, heard);
    send_text(fd, "+OK Logged in.\r\n");
    hear_line(fd, heard);
    send_text(fd, "+OK\r\n");
    hear_line(fd, heard);
    send_text(fd, "+OK 0 0\r\n");
  });
  auto conn = pop3_conn(server.port);
  std::string err;
  EXPECT_TRUE(pop3_connect(err, *conn)) << err;
  server.finish();
  EXPECT_EQ("USER ann\r\nPASS pw\r\nRSET\r\nSTAT\r\n", server.heard);
}

// Hostile servers: a message without end, a line without end, a trickle.
TEST(Pop3Dialogue, HostileServersEndAtTheirLimits) {
  NetLimits saved = net_limits();
  NetLimits small = saved;
  small.body_max = 50000;
  net_set_limits(small);
  struct Case {
    std::function<void(int)> flood;
    int deadline;
    std::string expected;
  } cases[] = {
      {[](int fd) {
         for (int i = 0; i < 10000; ++i) send_text(fd, "line of an endless message\r\n");
       },
       30, "Error:  The message exceeded the limit of 50000 bytes (CVML_NET_BODY_MAX).\n"},
      {[](int fd) { send_text(fd, std::string(100000, 'x')); }, 30,
       "Error:  A line from the server exceeded the limit of 65536 bytes (CVML_NET_LINE_MAX).\n"},
      {[](int fd) {
         for (int i = 0; i < 30 && send(fd, "x", 1, MSG_NOSIGNAL) == 1; ++i) usleep(100000);
       },
       1, "Error:  The operation did not finish within its time limit of 1 seconds (CVML_NET_DEADLINE).\n"},
      {[](int) {}, 30, "Error:  Server dropped connection.\n"},
  };
  for (Case& c : cases) {
    fake_peer::Server server;
    server.start([&c](int fd, std::string& heard) {
      log_in(fd, heard);
      hear_line(fd, heard);
      send_text(fd, "+OK 1 10\r\n");
      hear_line(fd, heard);
      send_text(fd, "+OK\r\n1 10\r\n.\r\n");
      hear_line(fd, heard);  // RETR 1
      send_text(fd, "+OK\r\n");
      c.flood(fd);
    });
    auto conn = pop3_conn(server.port);
    std::string err;
    ASSERT_TRUE(pop3_connect(err, *conn)) << err;
    net_start_deadline(*conn, c.deadline);
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(pop3_retrieve(err, *conn, 1));
    EXPECT_EQ(c.expected, err);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    net_close(*conn);
  }
  net_set_limits(saved);
}

TEST(Pop3Dialogue, DroppedConnectionMidMessage) {
  fake_peer::Server server;
  server.start([](int fd, std::string& heard) {
    log_in(fd, heard);
    hear_line(fd, heard);
    send_text(fd, "+OK 1 10\r\n");
    hear_line(fd, heard);
    send_text(fd, "+OK 1 message\r\n1 10\r\n.\r\n");
    hear_line(fd, heard);  // RETR 1
    send_text(fd, "+OK sending\r\nSubject: cut short\r\n");  // and the server goes away
  });
  auto conn = pop3_conn(server.port);
  std::string err;
  ASSERT_TRUE(pop3_connect(err, *conn)) << err;
  EXPECT_FALSE(pop3_retrieve(err, *conn, 1));
  EXPECT_EQ("Error:  Server dropped connection.\n", err);
  server.finish();
}

TEST(Pop3Dialogue, MissingOrUnsafeCredentials) {
  auto conn = pop3_conn(1, "ann", "");
  std::string err;
  EXPECT_FALSE(pop3_connect(err, *conn));
  EXPECT_EQ("", err);
  auto unsafe = pop3_conn(1, "ann\r\nDELE 1", "pw");
  EXPECT_FALSE(pop3_connect(err, *unsafe));
  EXPECT_EQ("Error:  The user name or password contains a line break.\n", err);
  err.clear();
  auto zero = pop3_conn(1, "ann", std::string("p\0w", 3));
  EXPECT_FALSE(pop3_connect(err, *zero));
  EXPECT_EQ("Error:  The user name or password contains a line break.\n", err);
}

}  // namespace
