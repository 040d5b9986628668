// The ODBC layer: the driver manager loaded at run time, one environment,
// connections, and statements whose complete result sets are read into memory.
//
// Every operation appends its failures, with the driver's diagnostic records,
// to the error text passed first; none prints anything.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <sql.h>

#include "values/result_set.h"

// The driver manager's library name on this platform.
constexpr std::string_view kOdbcLibrary = "libodbc.so.2";

// Time-outs in seconds; 0 means none.
constexpr uint32_t kDefaultLoginTimeout = 5;
constexpr uint32_t kDefaultQueryTimeout = 30;

struct SqlEnv {
  uint8_t driver_set = 0;  // index into the loaded entry-point sets; always 0
  SQLHENV env = nullptr;
  uint32_t login_timeout = kDefaultLoginTimeout;
  uint32_t query_timeout = kDefaultQueryTimeout;
};

struct SqlConnection {
  std::string datasource, username, password;
  bool open = false;
  SqlEnv* env = nullptr;  // not owned
  uint64_t connect_ms = 0;
  SQLHDBC dbc = nullptr;
  uint16_t max_column_name = 256;
  std::string dbms;              // the server's product name, as its driver reports it
  bool getdata_bound = false;    // the driver reads bound columns again with SQLGetData
  bool server_timeout = false;   // the server enforces the query time-out itself
  bool in_transaction = false;   // a page's BEGIN switched to manual commit
};

// One statement and, once it has run, its complete result set.
struct SqlQuery {
  SqlConnection* connection = nullptr;  // not owned
  std::string text;
  SQLHSTMT stmt = nullptr;
  bool sent = false;
  uint64_t start_ms = 0, end_ms = 0;
  std::shared_ptr<ResultSet> result;  // filled by sql_query_execute
};

// Loads the driver manager and makes the environment; null on failure.
std::unique_ptr<SqlEnv> sql_init(std::string& err);
// Frees the environment; on failure the record is handed back in `env`.
bool sql_shutdown(std::string& err, std::unique_ptr<SqlEnv>& env);

// Opens a data source; null on failure (a null environment fails silently).
std::unique_ptr<SqlConnection> sql_connect(SqlEnv* env, std::string& err, std::string_view datasource,
                                           std::string_view username, std::string_view password);
// Closes and frees the connection; on failure it is handed back in `conn`.
bool sql_disconnect(std::string& err, std::unique_ptr<SqlConnection>& conn);

std::unique_ptr<SqlQuery> sql_query_new(std::string& err, SqlConnection* conn);
bool sql_query_set_text(std::string& err, SqlQuery* query, std::string_view text);
// Runs the statement and reads every row; true when all of that succeeded.
// A failed fetch keeps the rows read before it.
bool sql_query_execute(std::string& err, SqlQuery* query);
bool sql_query_end_statement(std::string& err, SqlQuery* query);
void sql_query_free_results(std::string& err, SqlQuery* query, bool end_statement);
bool sql_query_free(std::string& err, std::unique_ptr<SqlQuery> query);

// "Error type:  " and the explanation of an ODBC return code.
void sql_report_return_code(std::string& err, SQLRETURN code);
// The return code's explanation and every diagnostic record of the handle.
void sql_report_statement_diag(std::string& err, const SqlQuery* query, SQLRETURN code);
void sql_report_connection_diag(std::string& err, const SqlConnection* conn, SQLRETURN code);
void sql_report_environment_diag(std::string& err, const SqlEnv* env, SQLRETURN code);

// The C type a column of `sql_type` is read as; -1 when there is none.
// Where the plain mapping would lose data the value is read exactly: FLOAT
// as a double, a GUID as its text, integers at their own width and sign.
SQLSMALLINT sql_c_type(SQLSMALLINT sql_type, bool is_unsigned);
// Size of a bound column's slot for C type `c_type`: the C type's own size
// for numbers, dates and times; for text the larger of the display size in
// characters at 4 UTF-8 bytes each and the byte length, plus the
// terminating zero, rounded up to a multiple of 4; 0 for a column read
// piecewise (long types, or text without a usable size or longer than
// 65,536 bytes).
uint32_t sql_slot_size(SQLSMALLINT sql_type, SQLSMALLINT c_type, SQLLEN display_size, SQLLEN octet_length);
// Appends one long value's piece: what a 4,097-byte buffer holds after a
// read that reported `indicator` (text leaves room for its terminating
// zero, binary data fills the buffer).
void sql_append_piece(std::string& out, const char* buffer, SQLLEN indicator, SQLSMALLINT c_type);
