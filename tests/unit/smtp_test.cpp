// Tests for the SMTP client: body preparation, the MIME layout, and refusals
// against a scripted server (the full send dialogue is a CVWEB system test).
#include "net/smtp.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "fake_peer.h"

namespace {

using fake_peer::hear_line;
using fake_peer::send_text;

std::string local_host() {
  char name[256] = {};
  gethostname(name, sizeof name - 1);
  return name;
}

// A connection of kind SMTP aimed at the scripted server.
std::unique_ptr<NetConn> smtp_conn(int port) {
  auto conn = net_conn_new();
  conn->timeout_seconds = 5;
  smtp_set_server(*conn, "127.0.0.1", port);
  return conn;
}

TEST(SmtpBody, DotsDoubledAndLongLinesBroken) {
  EXPECT_EQ("a\r\n..\r\nb", smtp_prepare_body("a\r\n.\r\nb"));
  EXPECT_EQ("..x\r\n...y", smtp_prepare_body(".x\r\n..y"));
  // Only a dot after CR LF starts a line.
  EXPECT_EQ("a.\n.b", smtp_prepare_body("a.\n.b"));
  // Long lines break at 990 bytes.
  std::string line(2000, 'x');
  EXPECT_EQ(std::string(990, 'x') + "\r\n" + std::string(990, 'x') + "\r\n" + std::string(20, 'x'),
            smtp_prepare_body(line));
  // A line of exactly 990 bytes keeps its own line end; no empty line.
  std::string exact = std::string(990, 'y') + "\r\nz";
  EXPECT_EQ(exact, smtp_prepare_body(exact));
  // A dot that a break brings to a line start is doubled too.
  EXPECT_EQ(std::string(990, 'x') + "\r\n..", smtp_prepare_body(std::string(990, 'x') + "."));
}

TEST(SmtpBoundary, CapitalsNotFoundInTheBody) {
  std::string body;
  for (char c = 'A'; c <= 'Z'; ++c) body += std::string("--") + c + c;
  for (int i = 0; i < 20; ++i) {
    std::string boundary = smtp_make_boundary(body);
    ASSERT_GE(boundary.size(), 10u);
    ASSERT_LT(boundary.size(), 70u);
    EXPECT_EQ("--", boundary.substr(0, 2));
    EXPECT_EQ(std::string::npos, boundary.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ", 2));
    EXPECT_EQ(std::string::npos, body.find(boundary));
  }
}

TEST(SmtpMessage, LayoutWithHeadersAndAttachment) {
  auto conn = net_conn_new();
  ASSERT_TRUE(smtp_set_server(*conn, "mail.example", 25));
  smtp_set_sender(*conn, "a@example.com");
  smtp_add_recipient(*conn, "b@example.com");
  smtp_add_recipient(*conn, "c@example.com");
  smtp_add_header(*conn, "Subject", "Hi");
  smtp_set_body(*conn, "Hello");
  smtp_add_attachment(*conn, "dir\\sub/notes.txt", "abc");
  EXPECT_EQ(
      "From: a@example.com\r\n"
      "To: b@example.com, c@example.com\r\n"
      "Subject: Hi\r\n"
      "MIME-Version: 1.0\r\n"
      "Content-Type: multipart/mixed; boundary=\"BOUNDARYXX\"\r\n"
      "\r\n"
      "If you can see this text, then your mail client does not support\r\n"
      "MIME extensions for SMTP data transfers.\r\n"
      "--BOUNDARYXX\r\n"
      "Content-type: text/plain; charset=\"ISO-8859-1\"\r\n"
      "\r\n"
      "Hello\r\n"
      "--BOUNDARYXX\r\n"
      "Content-type: Application/Octet-Stream; Name=\"notes.txt\"\r\n"
      "Content-Transfer-Encoding: Base64\r\n"
      "\r\n"
      "YWJj\r\n"
      "--BOUNDARYXX--\r\n"
      ".\r\n",
      smtp_build_message(*smtp_state(*conn), "--BOUNDARYXX"));
  // Without attachments the text part still sits in the multipart layout.
  smtp_clear_attachments(*conn);
  std::string plain = smtp_build_message(*smtp_state(*conn), "--BOUNDARYXX");
  EXPECT_NE(std::string::npos, plain.find("Hello\r\n--BOUNDARYXX--\r\n.\r\n"));
  // Another protocol's state is not replaced.
  EXPECT_EQ(nullptr, net_attach_state<int>(*conn, NET_POP3));
}

TEST(SmtpDialogue, RefusedRepliesNameWhatCame) {
  {
    fake_peer::Server server;
    server.start([](int fd, std::string&) { send_text(fd, "554 go away\r\n"); });
    auto conn = smtp_conn(server.port);
    std::string err;
    EXPECT_FALSE(smtp_connect(err, *conn));
    EXPECT_EQ("Error:  Expected 220 response.  Received 554 go away\r\n", err);
  }
  {
    // A continued reply to HELO is not the "250 " the client waits for.
    fake_peer::Server server;
    server.start([](int fd, std::string& heard) {
      send_text(fd, "220 ready\r\n");
      hear_line(fd, heard);
      send_text(fd, "250-hello\r\n250 SIZE 100\r\n");
    });
    auto conn = smtp_conn(server.port);
    std::string err;
    EXPECT_FALSE(smtp_connect(err, *conn));
    EXPECT_EQ("Error:  Expected 250 response.  Received 250-hello\r\n250 SIZE 100\r\n", err);
  }
}

TEST(SmtpDialogue, IncompleteOrUnsafeMessagesAreNotSent) {
  fake_peer::Server server;
  server.start([](int fd, std::string& heard) {
    send_text(fd, "220 ready\r\n");
    hear_line(fd, heard);
    send_text(fd, "250 hello\r\n");
    heard += fake_peer::read_all(fd);
  });
  auto conn = smtp_conn(server.port);
  std::string err;
  ASSERT_TRUE(smtp_connect(err, *conn)) << err;
  // No sender, recipient or body: refused without a message.
  EXPECT_FALSE(smtp_send(err, *conn));
  smtp_set_sender(*conn, "a@x.org");
  smtp_add_recipient(*conn, "b@x.org");
  EXPECT_FALSE(smtp_send(err, *conn));
  EXPECT_EQ("", err);
  // A recipient with a line break would smuggle in a command.
  smtp_set_body(*conn, "text");
  smtp_add_recipient(*conn, "c@x.org>\r\nRCPT TO:<d@x.org");
  EXPECT_FALSE(smtp_send(err, *conn));
  EXPECT_EQ("Error:  An address or header line contains a line break.\n", err);
  smtp_quit(*conn);
  server.finish();
  EXPECT_EQ("HELO " + local_host() + "\r\nQUIT\r\n", server.heard);
}

}  // namespace
