// HTTP client: URL splitting, request text, and response reading over a
// socket pair standing in for the server, hostile servers included.
#include "net/http.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>

#include "net/net_limits.h"

namespace {

// A connection whose peer runs `script` on its end of a socket pair and
// then closes; the script runs on its own thread so it may send more than a
// socket buffer holds.
struct Peer {
  std::unique_ptr<NetConn> conn = net_conn_new();
  std::thread thread;
  int peer = -1;
  explicit Peer(std::function<void(int)> script) {
    int ends[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
    conn->socket = std::make_unique<SocketRec>();
    conn->socket->handle = ends[0];
    conn->connected = true;
    conn->timeout_seconds = 5;
    http_attach(*conn);
    peer = ends[1];
    thread = std::thread([script, fd = ends[1]] {
      script(fd);
      shutdown(fd, SHUT_WR);
    });
  }
  ~Peer() {
    net_close(*conn);  // a script still writing stops on the closed socket
    thread.join();
    close(peer);
  }
};

void send_all(int fd, std::string_view text) {
  while (!text.empty()) {
    ssize_t sent = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent <= 0) return;
    text.remove_prefix(static_cast<size_t>(sent));
  }
}

std::function<void(int)> sends(std::string text) {
  return [text](int fd) { send_all(fd, text); };
}

// Reads the response; the outcome and the error text as "outcome|err".
std::string read(Peer& peer, bool head_only = false) {
  std::string err;
  HttpOutcome outcome = http_read_response(err, *peer.conn, *http_state(*peer.conn), head_only);
  return std::string(outcome == HTTP_DONE ? "done" : outcome == HTTP_CLOSED ? "closed" : "failed") + "|" + err;
}

// Each part of an accepted URL joined with "|", or "refused".
std::string url_parts(std::string_view text) {
  HttpUrl url;
  if (!http_parse_url(text, url)) return "refused";
  return url.scheme + "|" + url.host + "|" + url.port + "|" + url.path + "|" + url.file + "|" + url.query;
}

TEST(HttpUrl, SplitsOrRefuses) {
  EXPECT_EQ("http|www.example.com|8080|a/b/|page.cvm|x=1&y=2",
            url_parts("http://www.example.com:8080/a/b/page.cvm?x=1&y=2"));
  EXPECT_EQ("http|localhost||||", url_parts("http://localhost"));
  EXPECT_EQ("http|127.0.0.1||dir/||", url_parts("http://127.0.0.1:/dir/"));
  EXPECT_EQ("https|my-host.example||||", url_parts("https://my-host.example/"));
  EXPECT_EQ("http|[::1]|8080||x|", url_parts("http://[::1]:8080/x"));
  for (const char* text : {"ftp://example.com/", "HTTP://example.com/", "/relative/page.cvm", "http://-host/",
                           "http://host-/", "http://a..b/", "http://under_score/", "http://[::1/", "http://[xyz]/",
                           "http://host:80x/", ""}) {
    EXPECT_EQ("refused", url_parts(text)) << text;
  }
}

TEST(HttpRequestText, GetWithAuthAndExtraHeaders) {
  HttpState state;
  state.host = "example.com";
  state.path = "/dir/";
  state.file = "f.txt";
  state.query = "q=1";
  state.version = "1.1";
  state.auth_scheme = "BASIC";
  state.auth_value = net_auth_value("user", "pass", "basic");
  state.extra_headers = {"Accept: image/gif,*/*"};
  EXPECT_EQ(
      "GET /dir/f.txt?q=1 HTTP/1.1\r\nAuthorization: BASIC dXNlcjpwYXNz\r\nHost: example.com\r\n"
      "Connection: keep-alive\r\nAccept: image/gif,*/*\r\n\r\n",
      http_build_request(state, 80));
}

TEST(HttpRequestText, PostProxyAndEmptyPost) {
  HttpState state;
  state.host = "h";
  state.proxy_host = "proxy";
  state.method = HTTP_POST;
  state.post_data = "a=1&b=2";
  state.version = "1.0";
  EXPECT_EQ(
      "POST http://h:81/ HTTP/1.0\r\nHost: h\r\nConnection: keep-alive\r\n"
      "Content-type: application/x-www-form-urlencoded\r\nContent-length: 7\r\n\r\na=1&b=2",
      http_build_request(state, 81));
  state.post_data.clear();
  state.proxy_host.clear();
  EXPECT_EQ("GET / HTTP/1.0\r\nHost: h\r\nConnection: keep-alive\r\n\r\n", http_build_request(state, 81));
  EXPECT_EQ("", net_auth_value("u", "p", "DIGEST"));
}

TEST(HttpResponse, HeaderNamesAnyCaseAndSpacing) {
  Peer peer(sends("HTTP/1.1 200 OK\r\ncontent-LENGTH:5\r\nServer: t\r\n\r\nhelloEXTRA"));
  EXPECT_EQ("done|", read(peer));
  HttpState& state = *http_state(*peer.conn);
  EXPECT_EQ("HTTP/1.1 200 OK", state.status_line);
  EXPECT_EQ("content-LENGTH:5\nServer: t\n", state.headers);
  EXPECT_EQ("hello", state.body);
  Peer spaced(sends("HTTP/1.1 200 OK\nContent-Length: \t3 \nCONNECTION: keep-alive, CLOSE\n\nabc"));
  EXPECT_EQ("done|", read(spaced));
  EXPECT_EQ("abc", http_state(*spaced.conn)->body);
  EXPECT_FALSE(spaced.conn->connected);  // "close" among the tokens
}

TEST(HttpResponse, BodiesToTheClose) {
  // Neither a length nor chunking: the body runs to the close, zero bytes
  // kept, over several reads.
  std::string body = std::string("a\0b", 3) + std::string(20000, 'x');
  Peer peer(sends("HTTP/1.0 200 OK\nServer: old\n\n" + body));
  EXPECT_EQ("done|", read(peer));
  EXPECT_EQ(body, http_state(*peer.conn)->body);
  // A transfer coding other than chunked is read to the close as well.
  Peer gzip(sends("HTTP/1.1 200 OK\nTransfer-Encoding: gzip\nContent-Length: 2\n\nabcdef"));
  EXPECT_EQ("done|", read(gzip));
  EXPECT_EQ("abcdef", http_state(*gzip.conn)->body);
  // A HEAD request, a 204 and a 304 end after the headers.
  Peer head(sends("HTTP/1.1 200 OK\nContent-length: 99\n\n"));
  EXPECT_EQ("done|", read(head, true));
  Peer empty(sends("HTTP/1.1 204 No Content\n\n"));
  EXPECT_EQ("done|", read(empty));
  // An interim answer is skipped.
  Peer interim(sends("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"));
  EXPECT_EQ("done|", read(interim));
  EXPECT_EQ("HTTP/1.1 200 OK", http_state(*interim.conn)->status_line);
}

TEST(HttpResponse, ChunkedMixedCaseSizesExtensionsAndTrailer) {
  Peer peer(sends(
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
      "a\r\n0123456789\r\nB;name=value\r\nabcdefghijk\r\n0\r\nX-Trailer: yes\r\n\r\n"));
  EXPECT_EQ("done|", read(peer));
  EXPECT_EQ("0123456789abcdefghijk", http_state(*peer.conn)->body);
  EXPECT_EQ("Transfer-Encoding: chunked\nX-Trailer: yes\n", http_state(*peer.conn)->headers);
}

TEST(HttpResponse, ShortOrMalformedResponsesFailWithAReason) {
  struct Case {
    const char* response;
    const char* expected;
  } cases[] = {
      {"", "closed|"},
      {"HTTP/1.1 200 OK\nContent-Length: 10\n\nshort",
       "failed|Error:  The server closed the connection in the middle of the body.\n"},
      {"HTTP/1.1 200 OK\nServer: t\n", "failed|Error:  The server closed the connection in the middle of the headers.\n"},
      {"HTTP/1.1 200 OK\nContent-Length: 1x\n\n", "failed|Error:  The server sent a bad Content-Length header: Content-Length: 1x\n"},
      {"HTTP/1.1 200 OK\nContent-Length: -1\n\n", "failed|Error:  The server sent a bad Content-Length header: Content-Length: -1\n"},
      {"HTTP/1.1 200 OK\nTransfer-Encoding: chunked\n\nzz\nabc", "failed|Error:  The server sent a bad chunk size: zz\n"},
      {"HTTP/1.1 200 OK\nTransfer-Encoding: chunked\n\n\nabc", "failed|Error:  The server sent a bad chunk size: \n"},
      {"HTTP/1.1 200 OK\nTransfer-Encoding: chunked\n\nFFFFFFFFFFFFFFFFFFFF\nabc",
       "failed|Error:  The server sent a bad chunk size: FFFFFFFFFFFFFFFFFFFF\n"},
      {"HTTP/1.1 200 OK\nTransfer-Encoding: chunked\n\nFFFFFFFFFFFF\nabc",
       "failed|Error:  The response body exceeded the limit of 67108864 bytes (CVML_NET_BODY_MAX).\n"},
      {"HTTP/1.1 200 OK\nContent-Length: 999999999999\n\n",
       "failed|Error:  The response body exceeded the limit of 67108864 bytes (CVML_NET_BODY_MAX).\n"},
  };
  for (const Case& c : cases) {
    Peer peer(sends(c.response));
    EXPECT_EQ(c.expected, read(peer)) << c.response;
  }
}

// The limits apply to what a hostile server sends, each ending the read
// with the limit named.
TEST(HttpResponse, HostileServersMeetTheLimits) {
  NetLimits saved = net_limits();
  NetLimits small = saved;
  small.body_max = 100000;
  net_set_limits(small);
  // Endless header lines: the count limit ends them.
  Peer endless([](int fd) {
    send_all(fd, "HTTP/1.1 200 OK\r\n");
    for (int i = 0; i < 5000; ++i) send_all(fd, "X-Filler: " + std::to_string(i) + "\r\n");
  });
  EXPECT_EQ("failed|Error:  The header lines from the server exceeded the limit of 1000 lines "
            "(CVML_NET_HEADER_COUNT_MAX).\n",
            read(endless));
  // One huge header line, and a huge status line.
  Peer huge([](int fd) { send_all(fd, "HTTP/1.1 200 OK\r\nX-Big: " + std::string(200000, 'x')); });
  EXPECT_EQ("failed|Error:  A line from the server exceeded the limit of 65536 bytes (CVML_NET_HEADER_LINE_MAX).\n",
            read(huge));
  Peer status([](int fd) { send_all(fd, std::string(10000, 'H')); });
  EXPECT_EQ("failed|Error:  A line from the server exceeded the limit of 8192 bytes (CVML_NET_STATUS_LINE_MAX).\n",
            read(status));
  // A body past the limit, sized, chunked or read to the close.
  Peer big([](int fd) { send_all(fd, "HTTP/1.0 200 OK\r\n\r\n" + std::string(300000, 'b')); });
  EXPECT_EQ("failed|Error:  The response body exceeded the limit of 100000 bytes (CVML_NET_BODY_MAX).\n", read(big));
  Peer chunks([](int fd) {
    send_all(fd, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n");
    for (int i = 0; i < 30; ++i) send_all(fd, "1000\r\n" + std::string(4096, 'c') + "\r\n");
  });
  EXPECT_EQ("failed|Error:  The response body exceeded the limit of 100000 bytes (CVML_NET_BODY_MAX).\n",
            read(chunks));
  net_set_limits(saved);
}

TEST(HttpResponse, TricklingServerEndsAtTheDeadline) {
  Peer trickle([](int fd) {
    send_all(fd, "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n");
    for (int i = 0; i < 40; ++i) {
      if (send(fd, "x", 1, MSG_NOSIGNAL) != 1) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  });
  net_start_deadline(*trickle.conn, 1);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ("failed|Error:  The operation did not finish within its time limit of 1 seconds (CVML_NET_DEADLINE).\n",
            read(trickle));
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_LT(seconds, 2.0);
  EXPECT_GT(seconds, 0.9);
}

TEST(HttpState, AttachRefusesOtherKindsAndResets) {
  NetConn conn;
  HttpState* state = http_attach(conn);
  ASSERT_NE(nullptr, state);
  state->host = "x";
  EXPECT_EQ(state, http_attach(conn));
  EXPECT_EQ("", state->host);
  NetConn other;
  other.kind = NET_POP3;
  EXPECT_EQ(nullptr, http_attach(other));
  std::string err;
  EXPECT_FALSE(http_connect(err, conn));  // no host
  EXPECT_EQ("", err);
}

}  // namespace
