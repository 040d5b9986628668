// HTTP client: URL splitting, request text and response reading over a
// socket pair standing in for the server.
#include "net/http.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// A connection whose peer has already sent `response` and closed.
std::unique_ptr<NetConn> conn_with_response(std::string_view response) {
  int ends[2];
  EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
  EXPECT_EQ(static_cast<ssize_t>(response.size()), write(ends[1], response.data(), response.size()));
  close(ends[1]);
  auto conn = net_conn_new();
  conn->socket = std::make_unique<SocketRec>();
  conn->socket->handle = ends[0];
  conn->connected = true;
  conn->timeout_seconds = 5;
  http_attach(*conn);
  return conn;
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
  for (const char* text : {"https://example.com/", "HTTP://example.com/", "/relative/page.cvm",
                           "http://my-host/" /* "-" is not a word character */, "http://host:80x/", ""}) {
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
      "GET /dir/f.txt?q=1 HTTP/1.1\nAuthorization: BASIC dXNlcjpwYXNz\nHost: example.com\n"
      "Connection: keep-alive\nAccept: image/gif,*/*\n\n",
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
      "POST http://h:81/ HTTP/1.0\nHost: h\nConnection: keep-alive\n"
      "Content-type: application/x-www-form-urlencoded\nContent-length: 7\n\na=1&b=2",
      http_build_request(state, 81));
  state.post_data.clear();
  state.proxy_host.clear();
  EXPECT_EQ("GET / HTTP/1.0\nHost: h\nConnection: keep-alive\n\n", http_build_request(state, 81));
  EXPECT_EQ("", net_auth_value("u", "p", "DIGEST"));
}

TEST(HttpResponse, SizedBodyAndHeaderCase) {
  auto conn = conn_with_response("HTTP/1.1 200 OK\r\ncontent-length: 5\r\nServer: t\r\n\r\nhello");
  HttpState& state = *http_state(*conn);
  ASSERT_TRUE(http_read_response(*conn, state, false));
  EXPECT_EQ("HTTP/1.1 200 OK", state.status_line);
  EXPECT_EQ("content-length: 5\nServer: t\n", state.headers);
  EXPECT_EQ("hello", state.body);
}

TEST(HttpResponse, BodyLengths) {
  auto conn = conn_with_response("HTTP/1.1 200 OK\nContent-Length: 10\n\nshort");
  ASSERT_FALSE(http_read_response(*conn, *http_state(*conn), false));
  EXPECT_EQ("short", http_state(*conn)->body);
  // Without the blank after the colon the length is not recognised: the
  // body is what came with the header block.
  auto conn2 = conn_with_response("HTTP/1.1 200 OK\nContent-length:10\n\nabc");
  ASSERT_TRUE(http_read_response(*conn2, *http_state(*conn2), false));
  EXPECT_EQ("abc", http_state(*conn2)->body);
  // Without a length the body runs to the close, zero bytes kept.
  std::string body("a\0b", 3);
  auto conn3 = conn_with_response("HTTP/1.0 200 OK\nCONNECTION: CLOSE\n\n" + body + "more");
  ASSERT_TRUE(http_read_response(*conn3, *http_state(*conn3), false));
  EXPECT_EQ(body + "more", http_state(*conn3)->body);
  EXPECT_FALSE(conn3->connected);
}

TEST(HttpResponse, ChunkedMixedCaseSizesAndTrailer) {
  auto conn = conn_with_response(
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
      "a\r\n0123456789\r\nB\r\nabcdefghijk\r\n0\r\nX-Trailer: yes\r\n\r\n");
  HttpState& state = *http_state(*conn);
  ASSERT_TRUE(http_read_response(*conn, state, false));
  EXPECT_EQ("0123456789abcdefghijk", state.body);
  EXPECT_EQ("Transfer-Encoding: chunked\nX-Trailer: yes\n", state.headers);
}

TEST(HttpResponse, TruncatedChunkAndHeaderBlockFail) {
  auto conn = conn_with_response("HTTP/1.1 200 OK\nTransfer-Encoding: chunked\n\nFFFFFFFFFFFFFFFFFFFF\nabc");
  EXPECT_FALSE(http_read_response(*conn, *http_state(*conn), false));
  auto conn2 = conn_with_response("HTTP/1.1 200 OK\nServer: t\n");
  EXPECT_FALSE(http_read_response(*conn2, *http_state(*conn2), false));
  EXPECT_EQ("HTTP/1.1 200 OK", http_state(*conn2)->status_line);
  // A HEAD request ends after the headers, whatever length they name.
  auto head = conn_with_response("HTTP/1.1 200 OK\nContent-length: 99\n\n");
  ASSERT_TRUE(http_read_response(*head, *http_state(*head), true));
  EXPECT_EQ("", http_state(*head)->body);
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
