// Socket layer: host-name rules, the limits read from the environment, and
// the deadline that bounds every wait.
#include "net/socket.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>

#include "net/net_limits.h"

namespace {

TEST(NetHost, DnsNamesAddressesAndBrackets) {
  for (const char* host : {"localhost", "my-host.example", "a.b-c.d", "127.0.0.1", "::1", "[::1]", "[2001:db8::7]",
                           "x1", "1-2"}) {
    EXPECT_TRUE(net_valid_host(host)) << host;
  }
  for (const char* host : {"", "-host", "host-", "a..b", ".a", "under_score", "sp ace", "[127.0.0.1]", "[::1",
                           "host\r\nX: y", "a.-b"}) {
    EXPECT_FALSE(net_valid_host(host)) << host;
  }
  EXPECT_TRUE(net_valid_host(std::string(63, 'a') + ".example"));
  EXPECT_FALSE(net_valid_host(std::string(64, 'a') + ".example"));
}

TEST(NetLimits, EnvironmentOverridesOnlyPositiveWholeNumbers) {
  setenv("CVML_NET_DEADLINE", "5", 1);
  setenv("CVML_NET_BODY_MAX", "1048576", 1);
  setenv("CVML_NET_LINE_MAX", "0", 1);
  setenv("CVML_NET_HEADER_COUNT_MAX", "12x", 1);
  setenv("CVML_NET_TIMEOUT", "-3", 1);
  NetLimits limits = net_limits_from_environment();
  for (const char* name : {"CVML_NET_DEADLINE", "CVML_NET_BODY_MAX", "CVML_NET_LINE_MAX", "CVML_NET_HEADER_COUNT_MAX",
                           "CVML_NET_TIMEOUT"}) {
    unsetenv(name);
  }
  EXPECT_EQ(5, limits.deadline_seconds);
  EXPECT_EQ(1048576u, limits.body_max);
  NetLimits defaults;
  EXPECT_EQ(defaults.line_max, limits.line_max);
  EXPECT_EQ(defaults.header_count_max, limits.header_count_max);
  EXPECT_EQ(defaults.timeout_seconds, limits.timeout_seconds);
  EXPECT_EQ("Error:  The message exceeded the limit of 7 bytes (CVML_NET_BODY_MAX).\n",
            net_limit_text("The message", 7, "bytes", "CVML_NET_BODY_MAX"));
}

// A silent peer: the wait ends at the deadline, not at the longer time-out,
// and says so; an explicit shorter wait ends without a note.
TEST(NetDeadline, EndsWaitsAndSaysSo) {
  int ends[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
  NetConn conn;
  conn.socket = std::make_unique<SocketRec>();
  conn.socket->handle = ends[0];
  conn.connected = true;
  conn.timeout_seconds = 30;
  EXPECT_FALSE(net_wait_readable(conn, 0, 100000));
  EXPECT_EQ("", conn.note);
  net_start_deadline(conn, 1);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(0u, net_fill(conn));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
  EXPECT_EQ("Error:  The operation did not finish within its time limit of 1 seconds (CVML_NET_DEADLINE).\n", conn.note);
  EXPECT_FALSE(conn.eof);
  // A closed peer is an end of data, not a failure to wait.
  net_start_deadline(conn, 1);
  close(ends[1]);
  EXPECT_EQ(0u, net_fill(conn));
  EXPECT_TRUE(conn.eof);
  EXPECT_EQ("", conn.note);
}

TEST(NetConnect, RefusedAndUnknownHosts) {
  std::string err;
  int port = 0;
  {
    int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(probe, reinterpret_cast<sockaddr*>(&address), length);
    getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    close(probe);
  }
  EXPECT_EQ(nullptr, net_connect_socket(err, AF_INET, SOCK_STREAM, 0, false, "127.0.0.1", port));
  EXPECT_EQ("Error connecting to remote server.  Socket error number:  111 (0x0000006F).\n", err);
  err.clear();
  EXPECT_EQ(nullptr, net_connect_socket(err, AF_INET, SOCK_STREAM, 0, false, "bad host", 80));
  EXPECT_EQ("Error getting IP address for bad host.  Socket error number:  -2 (0xFFFFFFFE).\n", err);
}

}  // namespace
