// Tests for the SMTP client: body preparation, the MIME layout, and refusals
// against a scripted server (the full send dialogue is a CVWEB system test).
#include "net/smtp.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "fake_peer.h"

namespace {

using fake_peer::hear_line;
using fake_peer::send_text;

// What the client gives in EHLO when no name is set.
std::string greeting_name() {
  NetConn conn;
  return net_greeting_name(conn);
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
  // A bare LF or CR ends a line too: it becomes CR LF, and the line after
  // it is stuffed, so a lone "." cannot end the DATA phase early.
  EXPECT_EQ("a.\r\n..b", smtp_prepare_body("a.\n.b"));
  EXPECT_EQ("x\r\n..\r\nQUIT\r\n", smtp_prepare_body("x\n.\nQUIT\n"));
  EXPECT_EQ("x\r\n..\r\ny\r\n\r\nz", smtp_prepare_body("x\r.\ry\n\r\nz"));
  // The 990 split counts from a bare LF as well.
  EXPECT_EQ("a\r\n" + std::string(990, 'x') + "\r\nxx", smtp_prepare_body("a\n" + std::string(992, 'x')));
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

TEST(SmtpMessage, NonAsciiTextIsLabelledAndEncoded) {
  auto conn = net_conn_new();
  ASSERT_TRUE(smtp_set_server(*conn, "mail.example", 25));
  smtp_set_sender(*conn, "Jürgen Groß <jg@example.com>");
  smtp_add_recipient(*conn, "\"Ann Lee\" <ann@example.com>");
  smtp_add_recipient(*conn, "Zoë <z@example.com>");
  smtp_add_header(*conn, "Subject", "Grüße");
  smtp_set_body(*conn, "Schöne Grüße\n");
  std::string message = smtp_build_message(*smtp_state(*conn), "--B0UNDARYXX");
  EXPECT_EQ(0u, message.find("From: =?UTF-8?B?SsO8cmdlbiBHcm/Dnw==?= <jg@example.com>\r\n"
                             "To: \"Ann Lee\" <ann@example.com>, =?UTF-8?B?Wm/Dqw==?= <z@example.com>\r\n"
                             "Subject: =?UTF-8?B?R3LDvMOfZQ==?=\r\n"))
      << message;
  EXPECT_NE(std::string::npos, message.find("--B0UNDARYXX\r\nContent-type: text/plain; charset=\"UTF-8\"\r\n"
                                            "Content-Transfer-Encoding: 8bit\r\n\r\nSch\xC3\xB6ne Gr\xC3\xBC\xC3\x9F" "e\r\n"));
  // Bytes that are not UTF-8 are taken for ISO-8859-1.
  smtp_set_body(*conn, "caf\xE9");
  message = smtp_build_message(*smtp_state(*conn), "--B0UNDARYXX");
  EXPECT_NE(std::string::npos, message.find("charset=\"ISO-8859-1\"\r\nContent-Transfer-Encoding: 8bit\r\n"));
  EXPECT_EQ("=?ISO-8859-1?B?Y2Fm6Q==?=", smtp_encode_words("caf\xE9"));
  // Long text takes several words, each whole characters, each at most 75.
  std::string long_text;
  for (int i = 0; i < 40; ++i) long_text += "\xE2\x82\xAC";  // the euro sign
  std::string words = smtp_encode_words(long_text);
  size_t start = 0, count = 0;
  while (start < words.size()) {
    size_t end = words.find("\r\n ", start);
    std::string word = words.substr(start, end == std::string::npos ? std::string::npos : end - start);
    EXPECT_LE(word.size(), 75u);
    EXPECT_EQ(0u, word.find("=?UTF-8?B?"));
    ++count;
    start = end == std::string::npos ? words.size() : end + 3;
  }
  EXPECT_EQ(3u, count);
  EXPECT_EQ("a@b", smtp_envelope_address("Name <a@b>"));
  EXPECT_EQ("a@b", smtp_envelope_address("a@b"));
  EXPECT_FALSE(smtp_is_utf8("\xC0\x80"));   // overlong
  EXPECT_FALSE(smtp_is_utf8("\xED\xA0\x80"));  // surrogate
  EXPECT_TRUE(smtp_is_utf8("\xF0\x9F\x98\x80"));
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
    // A server that refuses EHLO gets HELO, whose reply must be "250 ": a
    // continued reply is refused.
    fake_peer::Server server;
    server.start([](int fd, std::string& heard) {
      send_text(fd, "220 ready\r\n");
      hear_line(fd, heard);
      send_text(fd, "502 no EHLO here\r\n");
      hear_line(fd, heard);
      send_text(fd, "250-hello\r\n250 SIZE 100\r\n");
    });
    auto conn = smtp_conn(server.port);
    std::string err;
    EXPECT_FALSE(smtp_connect(err, *conn));
    EXPECT_EQ("Error:  Expected 250 response.  Received 250-hello\r\n250 SIZE 100\r\n", err);
    server.finish();
    EXPECT_EQ("EHLO " + greeting_name() + "\r\nHELO " + greeting_name() + "\r\n", server.heard);
  }
}

// The server offers STARTTLS but the handshake is not TLS: the client
// tries it (it is offered) and fails with the reason, sending no AUTH.
TEST(SmtpDialogue, OfferedStarttlsIsUsedAndAuthWaitsForIt) {
  fake_peer::Server server;
  server.start([](int fd, std::string& heard) {
    send_text(fd, "220 ready\r\n");
    hear_line(fd, heard);
    send_text(fd, "250-mx.example\r\n250-AUTH PLAIN LOGIN\r\n250 STARTTLS\r\n");
    hear_line(fd, heard);
    send_text(fd, "220 go ahead\r\n");
    fake_peer::read_until(fd, "\x16");  // the first byte of the client's hello
    send_text(fd, "this is not TLS\r\n");
  });
  auto conn = smtp_conn(server.port);
  smtp_state(*conn)->user = "ann";
  smtp_state(*conn)->password = "pw";
  smtp_state(*conn)->helo_name = "client.example";
  std::string err;
  EXPECT_FALSE(smtp_connect(err, *conn));
  EXPECT_EQ(0u, err.find("Error:  The TLS handshake with 127.0.0.1 failed (")) << err;
  server.finish();
  EXPECT_EQ("EHLO client.example\r\nSTARTTLS\r\n", server.heard);
}

TEST(SmtpDialogue, AuthPlainOrLoginWithoutTls) {
  for (const char* method : {"", "LOGIN"}) {
    fake_peer::Server server;
    server.start([](int fd, std::string& heard) {
      send_text(fd, "220 ready\r\n");
      hear_line(fd, heard);
      send_text(fd, "250-mx.example\r\n250-AUTH=LOGIN\r\n250-AUTH PLAIN LOGIN\r\n250 8BITMIME\r\n");
      std::string line = hear_line(fd, heard);
      if (line.rfind("AUTH LOGIN", 0) == 0) {
        send_text(fd, "334 VXNlcm5hbWU6\r\n");
        hear_line(fd, heard);
        send_text(fd, "334 UGFzc3dvcmQ6\r\n");
        hear_line(fd, heard);
      }
      send_text(fd, "235 2.7.0 Authentication successful\r\n");
      heard += fake_peer::read_all(fd);
    });
    auto conn = smtp_conn(server.port);
    conn->tls_options.mode = TLS_OFF;
    SmtpState* state = smtp_state(*conn);
    state->user = "ann";
    state->password = "pw";
    state->auth_method = method;
    state->helo_name = "client.example";
    std::string err;
    EXPECT_TRUE(smtp_connect(err, *conn)) << err;
    EXPECT_TRUE(state->offered.eight_bit);
    smtp_quit(*conn);
    server.finish();
    EXPECT_EQ(*method ? "EHLO client.example\r\nAUTH LOGIN\r\nYW5u\r\ncHc=\r\nQUIT\r\n"
                      : "EHLO client.example\r\nAUTH PLAIN AGFubgBwdw==\r\nQUIT\r\n",
              server.heard);
  }
}

TEST(SmtpDialogue, RequiredStarttlsThatIsNotOffered) {
  fake_peer::Server server;
  server.start([](int fd, std::string& heard) {
    send_text(fd, "220 ready\r\n");
    hear_line(fd, heard);
    send_text(fd, "250 mx.example\r\n");
    heard += fake_peer::read_all(fd);
  });
  auto conn = smtp_conn(server.port);
  conn->tls_options.mode = TLS_STARTTLS;
  smtp_state(*conn)->helo_name = "c.example";
  std::string err;
  EXPECT_FALSE(smtp_connect(err, *conn));
  EXPECT_EQ("Error:  The server does not offer STARTTLS.\n", err);
  net_close(*conn);
}

// Hostile servers: an endless continued reply, and a greeting that trickles.
TEST(SmtpDialogue, HostileRepliesEndAtTheirLimits) {
  {
    fake_peer::Server server;
    server.start([](int fd, std::string&) {
      send_text(fd, "220 ready\r\n");
      for (int i = 0; i < 20000; ++i) send_text(fd, "220-more and more\r\n");
    });
    auto conn = smtp_conn(server.port);
    conn->tls_options.mode = TLS_OFF;
    smtp_state(*conn)->helo_name = "c.example";
    std::string err;
    EXPECT_FALSE(smtp_connect(err, *conn));
    EXPECT_EQ(0u, err.find("Error:  A reply from the server exceeded the limit of 65536 bytes (CVML_NET_LINE_MAX).\n"
                           "Error:  Expected 250 response.  Received 220-more")) << err.substr(0, 200);
    net_close(*conn);
  }
  {
    fake_peer::Server server;
    server.start([](int fd, std::string&) {
      for (int i = 0; i < 30 && send(fd, "2", 1, MSG_NOSIGNAL) == 1; ++i) usleep(100000);
    });
    auto conn = smtp_conn(server.port);
    net_start_deadline(*conn, 1);
    std::string err;
    EXPECT_FALSE(smtp_connect(err, *conn));
    EXPECT_EQ("Error:  The operation did not finish within its time limit of 1 seconds (CVML_NET_DEADLINE).\n"
              "Error:  Expected 220 response.  Received \n",
              err);
    net_close(*conn);
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
  smtp_state(*conn)->helo_name = "c.example";
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
  EXPECT_EQ("EHLO c.example\r\nQUIT\r\n", server.heard);
}

}  // namespace
