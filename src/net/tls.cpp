// TLS on OpenSSL: client handshakes with certificate and host-name checks,
// and non-blocking reads and writes whose waits go through the socket layer.
#include "net/tls.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <cstring>
#include <deque>
#include <memory>

#include "base/memory_budget.h"

// Sessions the server offered on a resumable context, oldest first; the
// connection that made the context owns it.
struct SessionPool {
  std::deque<SSL_SESSION*> sessions;
  ~SessionPool() {
    for (SSL_SESSION* s : sessions) SSL_SESSION_free(s);
  }
};

struct TlsSession {
  SSL_CTX* context = nullptr;
  SSL* ssl = nullptr;
  std::unique_ptr<SessionPool> pool;  // set on the connection that made a resumable context
  ~TlsSession() {
    if (ssl) SSL_free(ssl);
    if (pool) SSL_CTX_set_app_data(context, nullptr);
    if (context) SSL_CTX_free(context);
  }
};

void TlsSessionDeleter::operator()(TlsSession* session) const { delete session; }

namespace {

// The most specific reason OpenSSL queued, or `fallback`.
std::string openssl_reason(const char* fallback) {
  unsigned long code, last = 0;
  while ((code = ERR_get_error()) != 0) last = code;
  if (last == 0) return fallback;
  const char* reason = ERR_reason_error_string(last);
  return reason ? reason : fallback;
}

// Waits as OpenSSL asks after a non-blocking call; false when the wait ran
// out (the socket layer notes why) or the call failed for good.
bool wait_for(NetConn& conn, int result, int* error) {
  *error = SSL_get_error(conn.tls->ssl, result);
  if (*error == SSL_ERROR_WANT_READ) return net_poll(conn, false, net_wait_ms(conn));
  if (*error == SSL_ERROR_WANT_WRITE) return net_poll(conn, true, net_wait_ms(conn));
  return false;
}

void note_timeout(NetConn& conn) {
  if (conn.note.empty())
    conn.note = "Error:  The server sent nothing for " + std::to_string(conn.timeout_seconds) +
                " seconds (CVML_NET_TIMEOUT).\n";
}

// Keeps each session a server offers (TLS 1.3 servers send tickets after
// the handshake, one use each), at most eight.
int remember_session(SSL* ssl, SSL_SESSION* session) {
  auto* pool = static_cast<SessionPool*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
  if (!pool) return 0;
  // Called from inside OpenSSL, which an exception must not cross.
  MemoryReleaseScope must_not_fail;
  pool->sessions.push_back(session);
  if (pool->sessions.size() > 8) {
    SSL_SESSION_free(pool->sessions.front());
    pool->sessions.pop_front();
  }
  return 1;  // the pool holds the reference
}

// A session to offer again: a TLS 1.3 one is used up, a TLS 1.2 one stays
// for the next connection.
SSL_SESSION* take_session(const NetConn& from) {
  void* data = SSL_CTX_get_app_data(from.tls->context);
  auto* pool = static_cast<SessionPool*>(data);
  if (pool && !pool->sessions.empty()) {
    SSL_SESSION* session = pool->sessions.back();
    if (SSL_SESSION_get_protocol_version(session) >= TLS1_3_VERSION) {
      pool->sessions.pop_back();
      return session;
    }
    SSL_SESSION_up_ref(session);
    return session;
  }
  return SSL_get1_session(from.tls->ssl);
}

bool is_address(const std::string& host) {
  unsigned char probe[16];
  return inet_pton(AF_INET, host.c_str(), probe) == 1 || inet_pton(AF_INET6, host.c_str(), probe) == 1;
}

}  // namespace

bool tls_start(std::string& err, NetConn& conn, const NetConn* resume) {
  if (!conn.socket) return false;
  ERR_clear_error();
  auto session = std::unique_ptr<TlsSession, TlsSessionDeleter>(new TlsSession);
  if (resume && resume->tls) {
    // One context for the control and data connections, so the session can
    // be offered again.
    session->context = resume->tls->context;
    SSL_CTX_up_ref(session->context);
  } else {
    session->context = SSL_CTX_new(TLS_client_method());
    if (!session->context) {
      err += "Error:  TLS could not be set up (" + openssl_reason("no context") + ").\n";
      return false;
    }
    SSL_CTX_set_min_proto_version(session->context, TLS1_2_VERSION);
    if (conn.tls_options.resumable) {
      session->pool = std::make_unique<SessionPool>();
      SSL_CTX_set_app_data(session->context, session->pool.get());
      SSL_CTX_set_session_cache_mode(session->context, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL_STORE);
      SSL_CTX_sess_set_new_cb(session->context, remember_session);
    }
    // A server that closes without the closing alert ends the data as a
    // plain close would; sized bodies are still checked by their length.
    SSL_CTX_set_options(session->context, SSL_OP_IGNORE_UNEXPECTED_EOF);
    SSL_CTX_set_session_cache_mode(session->context, SSL_SESS_CACHE_CLIENT);
    const NetTlsOptions& options = conn.tls_options;
    if (options.verify) {
      bool loaded = options.ca_file.empty()
                        ? SSL_CTX_set_default_verify_paths(session->context) == 1
                        : SSL_CTX_load_verify_locations(session->context, options.ca_file.c_str(), nullptr) == 1;
      if (!loaded) {
        err += "Error:  The trusted certificates could not be loaded from " +
               (options.ca_file.empty() ? std::string("the system's store") : options.ca_file) + " (" +
               openssl_reason("unreadable") + ").\n";
        return false;
      }
      SSL_CTX_set_verify(session->context, SSL_VERIFY_PEER, nullptr);
    } else {
      SSL_CTX_set_verify(session->context, SSL_VERIFY_NONE, nullptr);
    }
  }
  session->ssl = SSL_new(session->context);
  if (!session->ssl || SSL_set_fd(session->ssl, conn.socket->handle) != 1) {
    err += "Error:  TLS could not be set up (" + openssl_reason("no session") + ").\n";
    return false;
  }
  const std::string& host = conn.peer_name;
  if (!host.empty() && !is_address(host)) SSL_set_tlsext_host_name(session->ssl, host.c_str());
  if (conn.tls_options.verify && !host.empty()) {
    X509_VERIFY_PARAM* param = SSL_get0_param(session->ssl);
    if (is_address(host)) X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str());
    else SSL_set1_host(session->ssl, host.c_str());
  }
  if (resume && resume->tls) {
    if (SSL_SESSION* previous = take_session(*resume)) {
      SSL_set_session(session->ssl, previous);
      SSL_SESSION_free(previous);
    }
  }
  conn.tls = std::move(session);
  for (;;) {
    int result = SSL_connect(conn.tls->ssl);
    if (result == 1) return true;
    int error = 0;
    if (wait_for(conn, result, &error)) continue;
    std::string reason;
    long verify = SSL_get_verify_result(conn.tls->ssl);
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
      note_timeout(conn);
      reason = "no answer in time";
    } else if (verify != X509_V_OK) {
      reason = std::string("certificate verify failed: ") + X509_verify_cert_error_string(verify);
    } else {
      reason = openssl_reason("the server closed the connection");
    }
    err += "Error:  The TLS handshake with " + (host.empty() ? std::string("the server") : host) +
           " failed (" + reason + ").\n";
    conn.tls.reset();
    return false;
  }
}

long tls_read(NetConn& conn, char* data, size_t size) {
  for (;;) {
    size_t got = 0;
    int result = SSL_read_ex(conn.tls->ssl, data, size, &got);
    if (result == 1) return static_cast<long>(got);
    int error = 0;
    if (wait_for(conn, result, &error)) continue;
    if (error == SSL_ERROR_ZERO_RETURN || (error == SSL_ERROR_SYSCALL && ERR_peek_error() == 0)) {
      conn.eof = true;
      return 0;
    }
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) note_timeout(conn);
    ERR_clear_error();
    return -1;
  }
}

bool tls_write(NetConn& conn, std::string_view data) {
  while (!data.empty()) {
    size_t sent = 0;
    int result = SSL_write_ex(conn.tls->ssl, data.data(), data.size(), &sent);
    if (result == 1) {
      data.remove_prefix(sent);
      continue;
    }
    int error = 0;
    if (wait_for(conn, result, &error)) continue;
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) note_timeout(conn);
    ERR_clear_error();
    return false;
  }
  return true;
}

void tls_finish_sending(NetConn& conn) {
  if (!conn.tls || !conn.socket) return;
  SSL_shutdown(conn.tls->ssl);
  ERR_clear_error();
  // The server answers the closing alert by closing; what it sent before
  // (session tickets) is read on the way.
  char chunk[512];
  while (tls_read(conn, chunk, sizeof chunk) > 0) {
  }
}

size_t tls_pending(const NetConn& conn) {
  return conn.tls ? static_cast<size_t>(SSL_pending(conn.tls->ssl)) : 0;
}

void tls_end(NetConn& conn) {
  if (!conn.tls) return;
  // One try at the closing alert; the peer's answer is not awaited.
  SSL_shutdown(conn.tls->ssl);
  ERR_clear_error();
  conn.tls.reset();
}
