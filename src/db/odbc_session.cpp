// Connections as real servers need them: connection plans, session set-up,
// time-outs and transactions.
#include "db/odbc_session.h"

#include <cstdint>
#include <cstring>
#include <vector>

#include "db/connection_string.h"
#include "db/odbc_api.h"
#include "base/nocase.h"

namespace {

// A setting from the driver manager's configuration ("odbc.ini" for data
// sources, "odbcinst.ini" for drivers); empty when absent or unreadable.
std::string profile(const OdbcApi& a, const std::string& section, const char* entry, const char* file) {
  if (!a.get_profile_string || section.empty()) return {};
  char value[1024] = {};
  int n = a.get_profile_string(section.c_str(), entry, "", value, sizeof value, file);
  if (n <= 0) return {};
  return std::string(value, strnlen(value, sizeof value));
}

// Runs one statement on the connection; with `first`, the first column of
// the first row is read as text into it.
SQLRETURN run_statement(std::string& err, SqlConnection* conn, const std::string& sql, std::string* first) {
  const OdbcApi& a = odbc_api(conn->env);
  SQLHSTMT stmt = nullptr;
  SQLRETURN r = a.alloc_handle(SQL_HANDLE_STMT, conn->dbc, &stmt);
  if (!odbc_ok(r)) return r;
  std::string text = sql;
  r = a.prepare(stmt, reinterpret_cast<SQLCHAR*>(text.data()), static_cast<SQLINTEGER>(text.size()));
  if (odbc_ok(r)) r = a.execute(stmt);
  if (odbc_ok(r) && first) {
    r = a.fetch(stmt);
    char value[256] = {};
    SQLLEN indicator = 0;
    if (odbc_ok(r)) r = a.get_data(stmt, 1, SQL_C_CHAR, value, sizeof value, &indicator);
    if (odbc_ok(r) && indicator >= 0) first->assign(value, strnlen(value, sizeof value));
  }
  if (!odbc_ok(r)) {
    SqlQuery q;
    q.connection = conn;
    q.stmt = stmt;
    sql_report_statement_diag(err, &q, r);
  }
  a.free_handle(SQL_HANDLE_STMT, stmt);
  return r;
}

bool is_word_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

}  // namespace

SqlTransaction sql_transaction_statement(std::string_view text) {
  while (!text.empty() && is_word_space(text.back())) text.remove_suffix(1);
  if (!text.empty() && text.back() == ';') text.remove_suffix(1);
  std::vector<std::string_view> words;
  size_t pos = 0;
  while (pos < text.size() && words.size() < 3) {
    while (pos < text.size() && is_word_space(text[pos])) pos++;
    size_t start = pos;
    while (pos < text.size() && !is_word_space(text[pos])) pos++;
    if (pos > start) words.push_back(text.substr(start, pos - start));
  }
  if (words.empty() || words.size() > 2) return SqlTransaction::none;
  bool plain = words.size() == 1;
  bool work = !plain && (equals_nocase(words[1], "WORK") || equals_nocase(words[1], "TRANSACTION"));
  if (equals_nocase(words[0], "START")) {
    return !plain && equals_nocase(words[1], "TRANSACTION") ? SqlTransaction::begin : SqlTransaction::none;
  }
  if (!plain && !work) return SqlTransaction::none;
  if (equals_nocase(words[0], "BEGIN")) return SqlTransaction::begin;
  if (equals_nocase(words[0], "COMMIT") || equals_nocase(words[0], "END")) return SqlTransaction::commit;
  if (equals_nocase(words[0], "ROLLBACK")) return SqlTransaction::rollback;
  return SqlTransaction::none;
}

ConnectPlan session_connect_plan(const SqlEnv& env, std::string_view datasource, std::string_view username,
                                 std::string_view password) {
  const OdbcApi& a = odbc_api(&env);
  ConnectPlan plan;
  std::vector<ConnectionPair> pairs;
  std::string dsn, driver;
  if (is_connection_string(datasource)) {
    plan.use_string = true;
    plan.text = datasource;
    pairs = connection_string_parse(datasource);
    if (const std::string* v = connection_string_find(pairs, "DSN")) dsn = *v;
    if (const std::string* v = connection_string_find(pairs, "DRIVER")) driver = *v;
    // The page's own credentials in the string come first.
    if (!username.empty() && !connection_string_find(pairs, "UID") && !connection_string_find(pairs, "USER"))
      connection_string_add(plan.text, "UID", username);
    if (!password.empty() && !connection_string_find(pairs, "PWD") && !connection_string_find(pairs, "PASSWORD"))
      connection_string_add(plan.text, "PWD", password);
  } else {
    dsn = datasource;
  }
  if (driver.empty()) driver = profile(a, dsn, "Driver", "odbc.ini");
  DriverFamily family = driver_family(driver);
  if (family == DriverFamily::other) family = driver_family(profile(a, driver, "Driver", "odbcinst.ini"));
  if (family == DriverFamily::other) return plan;

  if (!plan.use_string) {
    plan.use_string = true;
    connection_string_add(plan.text, "DSN", dsn);
    if (!username.empty()) connection_string_add(plan.text, "UID", username);
    if (!password.empty()) connection_string_add(plan.text, "PWD", password);
  }
  // Settings the page or the data source gives itself stand.
  auto add = [&](const char* key, uint32_t value) {
    if (value == 0 || connection_string_find(pairs, key)) return;
    if (!profile(a, dsn, key, "odbc.ini").empty()) return;
    connection_string_add(plan.text, key, std::to_string(value));
  };
  if (family == DriverFamily::postgresql) {
    // The driver otherwise holds a whole result set in memory while the
    // engine reads it: with a cursor it holds 1,000 rows at a time.
    add("UseDeclareFetch", 1);
    add("Fetch", 1000);
    // Each statement runs once, so preparing it on the server only costs
    // round trips (and the driver loses memory after a failed statement
    // prepared there).
    if (!connection_string_find(pairs, "UseServerSidePrepare") &&
        profile(a, dsn, "UseServerSidePrepare", "odbc.ini").empty())
      connection_string_add(plan.text, "UseServerSidePrepare", "0");
    return plan;
  }
  // The MariaDB driver leaves the ODBC time-out attributes aside while it
  // logs in, so a server that accepts and then stays silent would hold the
  // page for ever.  Reads wait a little longer than the server-side
  // statement limit, so a slow statement gets the server's own message.
  uint32_t read_timeout = env.query_timeout ? env.query_timeout + 5 : 0;
  add("CONN_TIMEOUT", env.login_timeout);
  add("READ_TIMEOUT", read_timeout);
  add("WRITE_TIMEOUT", read_timeout);
  return plan;
}

bool session_prepare(std::string& err, SqlConnection* conn) {
  const OdbcApi& a = odbc_api(conn->env);
  char name[128] = {};
  SQLSMALLINT length = 0;
  if (odbc_ok(a.get_info(conn->dbc, SQL_DBMS_NAME, name, sizeof name, &length)))
    conn->dbms.assign(name, strnlen(name, sizeof name));
  SQLUINTEGER extensions = 0;
  if (odbc_ok(a.get_info(conn->dbc, SQL_GETDATA_EXTENSIONS, &extensions, sizeof extensions, nullptr)))
    conn->getdata_bound = (extensions & SQL_GD_BOUND) != 0;

  uint32_t timeout = conn->env->query_timeout;
  bool mariadb = equals_nocase(conn->dbms, "MariaDB");
  if (mariadb || equals_nocase(conn->dbms, "MySQL")) {
    // Backslashes become ordinary characters in string literals, as the
    // SQL standard has them, so doubled quotes alone make text safe.
    std::string sql = "SET SESSION sql_mode = CONCAT_WS(',', NULLIF(@@SESSION.sql_mode, ''), 'NO_BACKSLASH_ESCAPES')";
    // The driver refuses the query time-out attribute; the server's own
    // limit, when it has one, stands.
    if (mariadb && timeout) {
      sql += ", max_statement_time = IF(@@SESSION.max_statement_time > 0, @@SESSION.max_statement_time, " +
             std::to_string(timeout) + ")";
    }
    conn->server_timeout = true;
    std::string diag;
    if (!odbc_ok(run_statement(diag, conn, sql, nullptr))) {
      err += "Error setting up the session on " + conn->datasource + ".\n";
      err += diag;
      return false;
    }
  } else if (equals_nocase(conn->dbms, "PostgreSQL") && timeout) {
    // A statement_timeout set for the server, database, role or data
    // source stands; the driver's time-out attribute would replace it.
    std::string value, ignored;
    if (odbc_ok(run_statement(ignored, conn, "SHOW statement_timeout", &value)) && value != "0")
      conn->server_timeout = true;
  }
  return true;
}

void session_statement_timeout(const SqlConnection* conn, SQLHSTMT stmt) {
  const OdbcApi& a = odbc_api(conn->env);
  uint32_t timeout = conn->env->query_timeout;
  if (!timeout || conn->server_timeout || !a.set_stmt_attr) return;
  // A driver that has no such attribute simply keeps no time-out.
  a.set_stmt_attr(stmt, SQL_ATTR_QUERY_TIMEOUT, reinterpret_cast<SQLPOINTER>(uintptr_t{timeout}), 0);
}

bool session_transaction(std::string& err, SqlConnection* conn, SqlTransaction what) {
  const OdbcApi& a = odbc_api(conn->env);
  SQLRETURN r = SQL_SUCCESS;
  if (what == SqlTransaction::begin) {
    if (!conn->in_transaction)
      r = a.set_connect_attr(conn->dbc, SQL_ATTR_AUTOCOMMIT, reinterpret_cast<SQLPOINTER>(SQL_AUTOCOMMIT_OFF), 0);
    if (odbc_ok(r)) conn->in_transaction = true;
  } else if (conn->in_transaction) {
    r = a.end_tran(SQL_HANDLE_DBC, conn->dbc, what == SqlTransaction::commit ? SQL_COMMIT : SQL_ROLLBACK);
    if (!odbc_ok(r)) {
      err += "Error executing SQL.\n";
      sql_report_connection_diag(err, conn, r);
      // A commit that failed leaves nothing to keep.
      a.end_tran(SQL_HANDLE_DBC, conn->dbc, SQL_ROLLBACK);
    }
    a.set_connect_attr(conn->dbc, SQL_ATTR_AUTOCOMMIT, reinterpret_cast<SQLPOINTER>(SQL_AUTOCOMMIT_ON), 0);
    conn->in_transaction = false;
    return odbc_ok(r);
  }
  if (odbc_ok(r)) return true;
  err += "Error executing SQL.\n";
  sql_report_connection_diag(err, conn, r);
  return false;
}

void session_end(SqlConnection* conn) {
  if (!conn || !conn->in_transaction || !conn->open) return;
  const OdbcApi& a = odbc_api(conn->env);
  a.end_tran(SQL_HANDLE_DBC, conn->dbc, SQL_ROLLBACK);
  a.set_connect_attr(conn->dbc, SQL_ATTR_AUTOCOMMIT, reinterpret_cast<SQLPOINTER>(SQL_AUTOCOMMIT_ON), 0);
  conn->in_transaction = false;
}
