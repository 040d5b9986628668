// Connections as real servers need them: how a data source is reached (a
// name or a connection string), the log-in and query time-outs, the session
// settings a server needs for the engine's quoting to be safe, and
// transactions that span several statements.
#pragma once

#include <string>
#include <string_view>

#include "db/odbc.h"

// A statement that is only a transaction keyword: "BEGIN", "BEGIN WORK",
// "BEGIN TRANSACTION", "START TRANSACTION"; "COMMIT", "END" (each also with
// "WORK" or "TRANSACTION"); "ROLLBACK" (the same).  A trailing ";" and white
// space around the words are allowed; anything more is an ordinary statement.
enum class SqlTransaction { none, begin, commit, rollback };
SqlTransaction sql_transaction_statement(std::string_view text);

// How sql_connect reaches the data source: SQLConnect with the name, or
// SQLDriverConnect with `text`.  A MariaDB data source is always reached by
// a connection string, which carries its time-outs (CONN_TIMEOUT,
// READ_TIMEOUT, WRITE_TIMEOUT) unless the string or the data source's own
// entry sets them.
struct ConnectPlan {
  bool use_string = false;
  std::string text;
};
ConnectPlan session_connect_plan(const SqlEnv& env, std::string_view datasource, std::string_view username,
                                 std::string_view password);

// After log-in: reads what the driver and server are, and sets up the
// session (MariaDB and MySQL: NO_BACKSLASH_ESCAPES added to sql_mode, and on
// MariaDB the query time-out as max_statement_time unless the server has
// one).  False, with the reason appended, when the session could not be set
// up; the connection must then not be used.
bool session_prepare(std::string& err, SqlConnection* conn);
// Gives a new statement the query time-out, unless the server enforces one.
void session_statement_timeout(const SqlConnection* conn, SQLHSTMT stmt);
// Runs a transaction statement through the driver: "begin" switches the
// connection to manual commit, "commit" and "rollback" end the transaction
// and switch back.  False, with the reason appended, on failure.
bool session_transaction(std::string& err, SqlConnection* conn, SqlTransaction what);
// Before disconnecting: rolls back a transaction that was never ended.
void session_end(SqlConnection* conn);
