// FTP client: log-in with USER/PASS/ACCT (inside TLS after AUTH TLS, or on
// an implicit TLS connection), binary transfers over passive (EPSV, PASV)
// or active (PORT, EPRT) data connections, and the directory commands.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "net/socket.h"

constexpr int kFtpDefaultDataPort = 15000;

// The protocol state attached to the connection (kind NET_FTP).
struct FtpState {
  std::string host, user, password, account;  // the port is the connection's
  bool passive = false;
  int base_data_port = kFtpDefaultDataPort;  // first local port for PORT
  int next_data_port = kFtpDefaultDataPort;  // each active transfer takes the next
  bool epsv_refused = false;  // the server knows only PASV
  bool protect = false;       // data connections run TLS (PROT P)
};

// One reply: its three-digit code (0 when the line had none) and all its
// lines with their ends.
struct FtpReply {
  int code = 0;
  std::string text;
};

// Attaches a fresh state and sets the connection's port; false when the
// connection already carries another protocol.  An empty user logs in as
// "anonymous".
bool ftp_set_server(NetConn& conn, std::string_view host, int port, std::string_view user,
                    std::string_view password, std::string_view account, bool passive,
                    int base_data_port);
// The attached state, or null.
FtpState* ftp_state(NetConn& conn);

// Connects, reads the greeting, starts TLS when the connection asks for it
// (AUTH TLS, then PBSZ 0 and PROT P after the log-in), logs in and selects
// binary transfers.
bool ftp_connect(std::string& err, NetConn& conn);
// Downloads `remote` into `data`.
bool ftp_get(std::string& err, NetConn& conn, std::string_view remote, std::string& data);
// Uploads `data` as `remote`.
bool ftp_put(std::string& err, NetConn& conn, std::string_view remote, std::string_view data);
bool ftp_delete(std::string& err, NetConn& conn, std::string_view remote);
bool ftp_cd(std::string& err, NetConn& conn, std::string_view dir);
bool ftp_md(std::string& err, NetConn& conn, std::string_view dir);
bool ftp_rd(std::string& err, NetConn& conn, std::string_view dir);
// The server's listing of the current directory, as it sent it.
bool ftp_list(std::string& err, NetConn& conn, std::string& listing);
// Sends "QUIT\r\n", reads one reply without checking it, and closes.
void ftp_quit(NetConn& conn);

// Reads one reply, following "123-" continuation lines to the closing
// "123 " line.  False when the peer closes or stays silent first.
bool ftp_read_reply(NetConn& conn, FtpReply& reply);
// Parses the six numbers of a 227 reply "(h1,h2,h3,h4,p1,p2)"; false when
// they are missing or out of range.
bool ftp_parse_pasv(std::string_view text, uint32_t& address, int& port);
// The port of a 229 reply "... (|||port|)"; false when it is missing.
bool ftp_parse_epsv(std::string_view text, int& port);
// The dialogue after the connection is made: greeting, AUTH TLS, log-in,
// PBSZ/PROT and TYPE I (ftp_connect without its connect).
bool ftp_start_session(std::string& err, NetConn& conn);
// Reads a data connection to its end within the body limit (and, for a
// listing, the line limit); false when it fails or a wait runs out.
bool ftp_receive(std::string& err, NetConn& data, std::string& received, bool listing);
