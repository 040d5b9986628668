// The ODBC layer: entry points looked up in the driver manager at run time,
// connections, statements and whole result sets read into memory.
#include "db/odbc.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "db/odbc_api.h"
#include "db/odbc_session.h"
#include "runtime/run.h"

namespace {

// ---------------------------------------------------------------------------
// Entry points

// One set per driver-set index; only set 0 is ever filled.
OdbcApi api_sets[1];

OdbcApi& api_of(const SqlEnv* env) { return api_sets[env ? env->driver_set : 0]; }

template <typename Fn>
bool find_entry(void* library, const char* name, Fn* out) {
  void* symbol = dlsym(library, name);
  *out = reinterpret_cast<Fn>(symbol);
  return symbol != nullptr;
}

bool load_entry_points(OdbcApi& a) {
  void* l = a.library;
  return find_entry(l, "SQLAllocHandle", &a.alloc_handle) &&
         find_entry(l, "SQLSetConnectAttr", &a.set_connect_attr) &&
         find_entry(l, "SQLConnect", &a.connect) && find_entry(l, "SQLGetInfo", &a.get_info) &&
         find_entry(l, "SQLFreeHandle", &a.free_handle) && find_entry(l, "SQLPrepare", &a.prepare) &&
         find_entry(l, "SQLExecute", &a.execute) &&
         find_entry(l, "SQLNumResultCols", &a.num_result_cols) &&
         find_entry(l, "SQLColAttribute", &a.col_attribute) &&
         find_entry(l, "SQLBindCol", &a.bind_col) && find_entry(l, "SQLFetch", &a.fetch) &&
         find_entry(l, "SQLGetData", &a.get_data) &&
         find_entry(l, "SQLCloseCursor", &a.close_cursor) &&
         find_entry(l, "SQLDisconnect", &a.disconnect) &&
         find_entry(l, "SQLDataSources", &a.data_sources) &&
         find_entry(l, "SQLSetEnvAttr", &a.set_env_attr) &&
         find_entry(l, "SQLGetDiagRec", &a.get_diag_rec);
}

void load_optional_entry_points(OdbcApi& a) {
  find_entry(a.library, "SQLDriverConnect", &a.driver_connect);
  find_entry(a.library, "SQLSetStmtAttr", &a.set_stmt_attr);
  find_entry(a.library, "SQLEndTran", &a.end_tran);
}

bool ok(SQLRETURN r) { return odbc_ok(r); }

const OdbcApi& api_of(const SqlConnection* conn) { return api_of(conn ? conn->env : nullptr); }

// The text arguments of ODBC calls are not const in its declarations.
SQLCHAR* sql_text(std::string& s) { return reinterpret_cast<SQLCHAR*>(s.data()); }

void report_diag(std::string& err, const OdbcApi& a, SQLSMALLINT handle_type, SQLHANDLE handle,
                 const char* header, SQLRETURN code) {
  sql_report_return_code(err, code);
  if (!a.loaded || !handle) return;
  for (SQLSMALLINT record = 1;; record++) {
    SQLCHAR state[6] = {};
    SQLINTEGER native = 0;
    SQLCHAR message[512];
    SQLSMALLINT length = 0;
    SQLRETURN r = a.get_diag_rec(handle_type, handle, record, state, &native, message, sizeof message, &length);
    if (r == SQL_NO_DATA) break;
    // Any return but "no more records" is read as another record, but a
    // handle that keeps failing must not loop for ever.
    if (!ok(r) && record > 64) break;
    size_t n = length < 0 ? 0 : std::min<size_t>(static_cast<size_t>(length), sizeof message - 1);
    char line[160];
    std::snprintf(line, sizeof line, header, record, reinterpret_cast<const char*>(state),
                  static_cast<int>(native));
    err += line;
    err.append(reinterpret_cast<const char*>(message), ok(r) ? n : 0);
    err += '\n';
  }
}

// ---------------------------------------------------------------------------
// Result sets

bool is_long_type(SQLSMALLINT sql_type) {
  return sql_type == SQL_LONGVARCHAR || sql_type == SQL_WLONGVARCHAR || sql_type == SQL_LONGVARBINARY;
}

bool is_text_c_type(SQLSMALLINT c_type) { return c_type == SQL_C_CHAR || c_type == SQL_C_BINARY; }

// The bytes a value of a fixed-size C type occupies.
size_t fixed_size(SQLSMALLINT c_type) {
  switch (c_type) {
    case SQL_C_STINYINT: case SQL_C_UTINYINT: case SQL_C_BIT:
      return 1;
    case SQL_C_SSHORT: case SQL_C_USHORT:
      return 2;
    case SQL_C_SLONG: case SQL_C_ULONG: case SQL_C_FLOAT:
      return 4;
    case SQL_C_SBIGINT: case SQL_C_UBIGINT: case SQL_C_DOUBLE:
      return 8;
    case SQL_C_TYPE_DATE: case SQL_C_TYPE_TIME:
      return 6;
    case SQL_C_TYPE_TIMESTAMP:
      return 16;
    default:
      return 0;
  }
}

// How one column is read while fetching.
struct ColumnPlan {
  SQLSMALLINT c_type = -1;    // the type handed to the driver
  uint32_t slot = 0;          // 0: read piecewise
  uint32_t offset = 0;        // in the row image
};

// Packs a fetched slot as the row's next cell.  False when a text value
// did not fit its slot (the driver announced a shorter one).
bool pack_slot(const ColumnPlan& plan, const char* slot, SQLLEN indicator, std::string& row) {
  if (indicator == SQL_NULL_DATA) {
    result_pack_null(row);
    return true;
  }
  if (!is_text_c_type(plan.c_type)) {
    result_pack_cell(row, std::string_view(slot, fixed_size(plan.c_type)));
    return true;
  }
  size_t room = plan.c_type == SQL_C_CHAR ? plan.slot - 1 : plan.slot;
  if (indicator < 0 || static_cast<size_t>(indicator) > room) return false;
  result_pack_cell(row, std::string_view(slot, static_cast<size_t>(indicator)));
  return true;
}

// Reads a value through a 4,097-byte buffer, piece by piece, and packs it
// as the row's next cell.
bool read_pieces(std::string& err, SqlQuery* q, SQLUSMALLINT column, SQLSMALLINT c_type, std::string& row,
                 std::string& value) {
  const OdbcApi& a = api_of(q->connection);
  char buffer[4097];
  SQLLEN indicator = 0;
  SQLRETURN r = a.get_data(q->stmt, column, c_type, buffer, sizeof buffer, &indicator);
  if (ok(r) && indicator == SQL_NULL_DATA) {
    result_pack_null(row);
    return true;
  }
  value.clear();
  while (ok(r)) {
    sql_append_piece(value, buffer, indicator, c_type);
    r = a.get_data(q->stmt, column, c_type, buffer, sizeof buffer, &indicator);
  }
  if (r == SQL_NO_DATA) {
    result_pack_cell(row, value);
    return true;
  }
  err += "Error fetching data.\n";
  sql_report_statement_diag(err, q, r);
  return false;
}

// Column descriptions, slot layout and bindings; false after a bind failure.
bool describe_columns(std::string& err, SqlQuery* q, SQLSMALLINT count, std::vector<ColumnPlan>& plans,
                      std::vector<char>& image, std::vector<SQLLEN>& indicators, int* first_unbound) {
  const OdbcApi& a = api_of(q->connection);
  ResultSet& rs = *q->result;
  uint16_t name_length = q->connection->max_column_name;
  *first_unbound = count;
  uint32_t offset = 0;
  for (SQLSMALLINT i = 0; i < count; i++) {
    SQLUSMALLINT column = static_cast<SQLUSMALLINT>(i + 1);
    SQLLEN sql_type = 0, is_unsigned = 0, display = 0, octets = 0;
    a.col_attribute(q->stmt, column, SQL_COLUMN_TYPE, nullptr, 0, nullptr, &sql_type);
    a.col_attribute(q->stmt, column, SQL_COLUMN_UNSIGNED, nullptr, 0, nullptr, &is_unsigned);
    a.col_attribute(q->stmt, column, SQL_COLUMN_DISPLAY_SIZE, nullptr, 0, nullptr, &display);
    a.col_attribute(q->stmt, column, SQL_DESC_OCTET_LENGTH, nullptr, 0, nullptr, &octets);
    std::string name(name_length + 1u, '\0');
    SQLSMALLINT got = 0;
    a.col_attribute(q->stmt, column, SQL_DESC_NAME, name.data(), static_cast<SQLSMALLINT>(name_length + 1),
                    &got, nullptr);
    name.resize(strnlen(name.data(), name.size()));

    SQLSMALLINT type = static_cast<SQLSMALLINT>(sql_type);
    ColumnPlan plan;
    plan.c_type = sql_c_type(type, is_unsigned == SQL_TRUE);
    ResultColumn rc{name, plan.c_type};
    // Numeric values are read as their text rather than as the raw numeric
    // structure; the column keeps its numeric code, which reads as text.
    if (plan.c_type == SQL_C_NUMERIC) plan.c_type = SQL_C_CHAR;
    plan.slot = sql_slot_size(type, plan.c_type, display, octets);
    if (plan.slot == 0 && i < *first_unbound) *first_unbound = i;
    plan.offset = offset;
    offset += plan.slot;
    plans.push_back(plan);
    rs.columns.push_back(std::move(rc));
  }
  // After the first column read piecewise every text column is read so, as
  // it costs a call per value either way and never cuts one short.
  for (int i = *first_unbound; i < count; i++)
    if (is_text_c_type(plans[i].c_type)) plans[i].slot = 0;
  image.assign(offset, '\0');
  indicators.assign(static_cast<size_t>(count), 0);
  // A column of a type with no C type fails here, bound or not, rather
  // than reaching the driver with an invalid type.
  for (int i = 0; i < count; i++) {
    if (i >= *first_unbound && plans[i].c_type != -1) continue;
    SQLRETURN r = plans[i].c_type == -1
                      ? SQL_ERROR
                      : a.bind_col(q->stmt, static_cast<SQLUSMALLINT>(i + 1), plans[i].c_type,
                                   image.data() + plans[i].offset, plans[i].slot, &indicators[i]);
    if (!ok(r)) {
      err += "Error binding columns.\n";
      sql_report_statement_diag(err, q, r);
      return false;
    }
  }
  return true;
}

// Reads the fetched row into `row`, packed: bound columns from the row
// image, the others with SQLGetData in column order.
bool read_row(std::string& err, SqlQuery* q, const std::vector<ColumnPlan>& plans, std::vector<char>& image,
              std::vector<SQLLEN>& indicators, int first_unbound, std::string& row, std::string& value) {
  const OdbcApi& a = api_of(q->connection);
  const ResultSet& rs = *q->result;
  row.clear();
  for (size_t i = 0; i < plans.size(); i++) {
    const ColumnPlan& p = plans[i];
    SQLUSMALLINT column = static_cast<SQLUSMALLINT>(i + 1);
    char* slot = image.data() + p.offset;
    if (static_cast<int>(i) < first_unbound) {
      if (pack_slot(p, slot, indicators[i], row)) continue;
      // Longer than the driver announced: read it whole again.
      if (!q->connection->getdata_bound) {
        err += "Error fetching data.\n";
        err += "The value in column '" + rs.columns[i].name + "' is longer than its driver announced.\n";
        return false;
      }
      if (!read_pieces(err, q, column, p.c_type, row, value)) return false;
      continue;
    }
    if (p.slot == 0) {
      if (!read_pieces(err, q, column, p.c_type, row, value)) return false;
      continue;
    }
    SQLRETURN g = a.get_data(q->stmt, column, p.c_type, slot, p.slot, &indicators[i]);
    if (!ok(g)) {
      err += "Error fetching data.\n";
      sql_report_statement_diag(err, q, g);
      return false;
    }
    pack_slot(p, slot, indicators[i], row);
  }
  return true;
}

bool create_statement(std::string& err, SqlQuery* q) {
  const OdbcApi& a = api_of(q->connection);
  SQLRETURN r = a.alloc_handle(SQL_HANDLE_STMT, q->connection->dbc, &q->stmt);
  if (ok(r)) {
    session_statement_timeout(q->connection, q->stmt);
    return true;
  }
  err += "Error creating statement.\n";
  sql_report_statement_diag(err, q, r);
  if (r == SQL_ERROR && q->stmt) {
    SQLRETURN f = a.free_handle(SQL_HANDLE_STMT, q->stmt);
    if (!ok(f)) {
      err += "Error ending statement.\n";
      sql_report_statement_diag(err, q, f);
    }
  }
  q->stmt = nullptr;
  return false;
}

}  // namespace

const OdbcApi& odbc_api(const SqlEnv* env) { return api_of(env); }

// ---------------------------------------------------------------------------
// Environment and connections

std::unique_ptr<SqlEnv> sql_init(std::string& err) {
  OdbcApi& a = api_sets[0];
  a = OdbcApi{};
  std::string library(kOdbcLibrary);
  a.library = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!a.library || !load_entry_points(a)) {
    if (a.library) dlclose(a.library);
    a = OdbcApi{};
    err += "Error loading " + library + " into memory.";
    return nullptr;
  }
  a.loaded = true;
  load_optional_entry_points(a);
  // The driver manager loads its configuration library for each connection
  // and unloads it again; holding it open for the run saves the reloads and
  // keeps its allocations attributable to it in leak reports.  Its absence
  // is not an error: the driver manager reports that itself.  It also
  // reads data sources' settings.
  static void* const installer = dlopen("libodbcinst.so.2", RTLD_NOW | RTLD_NODELETE);
  if (installer) find_entry(installer, "SQLGetPrivateProfileString", &a.get_profile_string);
  auto env = std::make_unique<SqlEnv>();
  SQLRETURN r = a.alloc_handle(SQL_HANDLE_ENV, SQL_NULL_HANDLE, &env->env);
  if (ok(r)) {
    r = a.set_env_attr(env->env, SQL_ATTR_ODBC_VERSION, reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0);
    if (ok(r)) return env;
    a.free_handle(SQL_HANDLE_ENV, env->env);
  }
  err += "Error initializing SQL.\n";
  return nullptr;
}

bool sql_shutdown(std::string& err, std::unique_ptr<SqlEnv>& env) {
  if (!env) return false;
  SQLRETURN r = api_of(env.get()).free_handle(SQL_HANDLE_ENV, env->env);
  if (r == SQL_SUCCESS) {
    env.reset();
    return true;
  }
  err += "Error shutting down SQL.\n";
  sql_report_environment_diag(err, env.get(), r);
  return false;
}

std::unique_ptr<SqlConnection> sql_connect(SqlEnv* env, std::string& err, std::string_view datasource,
                                           std::string_view username, std::string_view password) {
  if (!env) return nullptr;
  const OdbcApi& a = api_of(env);
  auto conn = std::make_unique<SqlConnection>();
  conn->datasource = datasource;
  conn->username = username;
  conn->password = password;
  conn->env = env;
  conn->connect_ms = now_ms();

  SQLRETURN r = a.alloc_handle(SQL_HANDLE_DBC, env->env, &conn->dbc);
  if (ok(r))
    r = a.set_connect_attr(conn->dbc, SQL_ATTR_LOGIN_TIMEOUT,
                           reinterpret_cast<SQLPOINTER>(uintptr_t{env->login_timeout}), 0);
  ConnectPlan plan = session_connect_plan(*env, conn->datasource, conn->username, conn->password);
  // Names are passed with their lengths, so a zero byte inside one cannot
  // make the driver read a different name than the page gave.
  bool fits = conn->datasource.size() <= 32767 && conn->username.size() <= 32767 &&
              conn->password.size() <= 32767 && plan.text.size() <= 32767;
  if (ok(r) && (!fits || (plan.use_string && !a.driver_connect))) r = SQL_ERROR;
  if (ok(r) && plan.use_string) {
    SQLCHAR completed[1024];
    SQLSMALLINT completed_length = 0;
    r = a.driver_connect(conn->dbc, nullptr, sql_text(plan.text), static_cast<SQLSMALLINT>(plan.text.size()),
                         completed, sizeof completed, &completed_length, SQL_DRIVER_NOPROMPT);
  } else if (ok(r)) {
    r = a.connect(conn->dbc, sql_text(conn->datasource), static_cast<SQLSMALLINT>(conn->datasource.size()),
                  sql_text(conn->username), static_cast<SQLSMALLINT>(conn->username.size()),
                  sql_text(conn->password), static_cast<SQLSMALLINT>(conn->password.size()));
  }
  if (!ok(r)) {
    err += "Error connecting to " + conn->datasource + ".\n";
    sql_report_connection_diag(err, conn.get(), r);
    if (conn->dbc) {
      SQLRETURN f = a.free_handle(SQL_HANDLE_DBC, conn->dbc);
      if (f != SQL_SUCCESS) {
        err += "Error disconnecting from " + conn->datasource + ".\n";
        sql_report_connection_diag(err, conn.get(), f);
      }
    }
    return nullptr;
  }
  conn->open = true;
  SQLUSMALLINT length = 0;
  r = a.get_info(conn->dbc, SQL_MAX_COLUMN_NAME_LEN, &length, sizeof length, nullptr);
  if (ok(r) && length > 0) {
    conn->max_column_name = length;
  } else {
    // A driver that sets no limit (0) is given the same fallback.
    if (!ok(r)) {
      err += "Error obtaining the maximum size for column names.\n";
      sql_report_connection_diag(err, conn.get(), r);
      err += "\nAssuming maximum size is 256 bytes.\n";
    }
    conn->max_column_name = 256;
  }
  if (!session_prepare(err, conn.get())) {
    std::string ignored;
    sql_disconnect(ignored, conn);
    return nullptr;
  }
  return conn;
}

bool sql_disconnect(std::string& err, std::unique_ptr<SqlConnection>& conn) {
  if (!conn) {
    err += "Error:  Invalid database structure.\n";
    return false;
  }
  if (!conn->open) err += "Datasource not open.  Freeing structure anyway.\n";
  session_end(conn.get());
  const OdbcApi& a = api_of(conn.get());
  SQLRETURN r = a.disconnect(conn->dbc);
  if (ok(r)) {
    conn->open = false;
    r = a.free_handle(SQL_HANDLE_DBC, conn->dbc);
    if (r == SQL_SUCCESS) {
      conn.reset();
      return true;
    }
  }
  err += "Error disconnecting from " + conn->datasource + ".\n";
  sql_report_connection_diag(err, conn.get(), r);
  return false;
}

// ---------------------------------------------------------------------------
// Statements

std::unique_ptr<SqlQuery> sql_query_new(std::string& err, SqlConnection* conn) {
  if (!conn) {
    err += "Error:  Invalid database structure.\n";
    return nullptr;
  }
  if (!conn->open) {
    err += "Error:  Datasource is not open.\n";
    return nullptr;
  }
  auto q = std::make_unique<SqlQuery>();
  q->connection = conn;
  return q;
}

bool sql_query_set_text(std::string& err, SqlQuery* query, std::string_view text) {
  if (!query) {
    err += "Error:  Invalid SQL Query structure.\n";
    return false;
  }
  if (query->sent) {
    err += "Error:  SQL query has already been sent.\n";
    return false;
  }
  query->text.assign(text);
  return true;
}

bool sql_query_execute(std::string& err, SqlQuery* q) {
  if (!q) {
    err += "Error:  Invalid SQL Query structure.\n";
    return false;
  }
  if (q->sent) sql_query_free_results(err, q, false);
  if (q->text.empty()) {
    err += "SQL query hasn't been built.\n";
    return false;
  }
  if (q->text.size() > 0x7FFFFFFF) {
    err += "Error executing SQL.\n";
    return false;
  }
  const OdbcApi& a = api_of(q->connection);
  q->start_ms = now_ms();
  SqlTransaction transaction = a.end_tran ? sql_transaction_statement(q->text) : SqlTransaction::none;
  if (transaction != SqlTransaction::none) {
    // Through the driver, which otherwise ends the transaction itself
    // after the next statement.
    bool done = session_transaction(err, q->connection, transaction);
    q->end_ms = now_ms();
    if (!done) return false;
    q->sent = true;
    q->result = std::make_shared<ResultSet>();
    q->result->sql = q->text;
    q->result->executed = true;
    return true;
  }
  SQLRETURN r;
  if (!q->stmt) {
    if (!create_statement(err, q)) return false;
    r = a.prepare(q->stmt, sql_text(q->text), static_cast<SQLINTEGER>(q->text.size()));
    if (ok(r)) r = a.execute(q->stmt);
  } else {
    r = a.execute(q->stmt);
  }
  q->end_ms = now_ms();
  // A searched UPDATE or DELETE that matches no row reports "no data";
  // the statement still ran.
  if (r == SQL_NO_DATA) r = SQL_SUCCESS;
  if (!ok(r)) {
    err += "Error executing SQL.\n";
    sql_report_statement_diag(err, q, r);
    return false;
  }

  q->sent = true;
  q->result = std::make_shared<ResultSet>();
  q->result->sql = q->text;
  q->result->executed = true;
  SQLSMALLINT count = 0;
  a.num_result_cols(q->stmt, &count);
  if (count <= 0) return true;

  std::vector<ColumnPlan> plans;
  std::vector<char> image;
  std::vector<SQLLEN> indicators;
  int first_unbound = count;
  if (!describe_columns(err, q, count, plans, image, indicators, &first_unbound)) return false;

  ResultSet& rs = *q->result;
  std::string row, value;
  bool done = true;
  while (ok(r = a.fetch(q->stmt))) {
    if (!read_row(err, q, plans, image, indicators, first_unbound, row, value)) {
      done = false;
      break;
    }
    result_add_row(rs, row);
  }
  result_finish(rs);
  if (!done) return false;
  if (r != SQL_NO_DATA) {
    err += "Error fetching data.\n";
    sql_report_statement_diag(err, q, r);
    return false;
  }
  a.close_cursor(q->stmt);
  q->end_ms = now_ms();
  return true;
}

bool sql_query_end_statement(std::string& err, SqlQuery* q) {
  if (!q) {
    err += "Error:  Invalid SQL Query structure.\n";
    return false;
  }
  SQLRETURN r = api_of(q->connection).free_handle(SQL_HANDLE_STMT, q->stmt);
  bool done = r == SQL_SUCCESS;
  if (!done) {
    err += "Error ending statement.\n";
    sql_report_statement_diag(err, q, r);
  }
  q->stmt = nullptr;
  return done;
}

// The rows live in the shared result set: values that hold it keep it.
void sql_query_free_results(std::string& err, SqlQuery* q, bool end_statement) {
  if (!q) {
    err += "Error:  Invalid SQL Query structure.\n";
    return;
  }
  if (end_statement && q->stmt) sql_query_end_statement(err, q);
  q->result.reset();
  q->sent = false;
}

bool sql_query_free(std::string& err, std::unique_ptr<SqlQuery> query) {
  if (!query) {
    err += "Error:  Invalid SQL Query structure.\n";
    return false;
  }
  query->text.clear();
  sql_query_free_results(err, query.get(), true);
  return true;
}

// ---------------------------------------------------------------------------
// Diagnostics

void sql_report_return_code(std::string& err, SQLRETURN code) {
  err += "Error type:  ";
  switch (code) {
    case SQL_ERROR:
      err += "SQL_ERROR - An internal ODBC function call failed, see the diagnosis message below for details.";
      break;
    case SQL_NO_DATA:
      err += "SQL_NO_DATA - Either no data was found or no more data was found.  There may or may not be a "
             "diagnosis message below.";
      break;
    case SQL_NEED_DATA:
      err += "SQL_NEED_DATA - The database is expecting to receive more data and didn't get it.";
      break;
    case SQL_INVALID_HANDLE:
      err += "SQL_INVALID_HANDLE - An internal error occurred.  Most likely cause is low memory.";
      break;
    case SQL_SUCCESS:
      err += "SQL_SUCCESS - The function call succeeded, an internal logic error exists.";
      break;
    case SQL_SUCCESS_WITH_INFO:
      err += "SQL_SUCCESS_WITH_INFO - The function call succeeded with additional information (generally a "
             "warning)";
      break;
    case SQL_STILL_EXECUTING:
      err += "SQL_STILL_EXECUTING - The function call is still executing and has no return value at this "
             "point.";
      break;
    default:
      break;
  }
  err += '\n';
}

void sql_report_statement_diag(std::string& err, const SqlQuery* query, SQLRETURN code) {
  if (!query || !query->connection) return;
  report_diag(err, api_of(query->connection), SQL_HANDLE_STMT, query->stmt,
              "SQL Statement Error (Record #%i)  [SQLSTATE: %s (%i)]:\n", code);
}

void sql_report_connection_diag(std::string& err, const SqlConnection* conn, SQLRETURN code) {
  if (!conn || !conn->env) return;
  report_diag(err, api_of(conn), SQL_HANDLE_DBC, conn->dbc,
              "SQL Database Connection Error (Record #%i)  [SQLSTATE: %s (%i)]:\n", code);
}

void sql_report_environment_diag(std::string& err, const SqlEnv* env, SQLRETURN code) {
  if (!env) return;
  report_diag(err, api_of(env), SQL_HANDLE_ENV, env->env,
              "SQL Environment Error (Record #%i)  [SQLSTATE: %s (%i)]:\n", code);
}

// ---------------------------------------------------------------------------
// Column layout

SQLSMALLINT sql_c_type(SQLSMALLINT sql_type, bool is_unsigned) {
  switch (sql_type) {
    // Wide text is read as text in the driver's character set; the wide
    // C type has no value conversion.  A GUID is read as its text.
    case SQL_CHAR: case SQL_VARCHAR: case SQL_LONGVARCHAR: case SQL_DECIMAL:
    case SQL_WCHAR: case SQL_WVARCHAR: case SQL_WLONGVARCHAR: case SQL_GUID:
      return SQL_C_CHAR;
    case SQL_NUMERIC:
      return SQL_C_NUMERIC;
    case SQL_BIT:
      return SQL_C_BIT;
    case SQL_TINYINT:
      return is_unsigned ? SQL_C_UTINYINT : SQL_C_STINYINT;
    case SQL_SMALLINT:
      return is_unsigned ? SQL_C_USHORT : SQL_C_SSHORT;
    case SQL_INTEGER:
      return is_unsigned ? SQL_C_ULONG : SQL_C_SLONG;
    // The SQLite driver reports its BIGINT columns with the C type's code.
    case SQL_BIGINT: case SQL_C_SBIGINT:
      return is_unsigned ? SQL_C_UBIGINT : SQL_C_SBIGINT;
    case SQL_REAL:
      return SQL_C_FLOAT;
    // FLOAT is double precision on the servers that report it.
    case SQL_FLOAT: case SQL_DOUBLE:
      return SQL_C_DOUBLE;
    case SQL_BINARY: case SQL_VARBINARY: case SQL_LONGVARBINARY:
      return SQL_C_BINARY;
    case SQL_TYPE_DATE:
      return SQL_C_TYPE_DATE;
    case SQL_TYPE_TIME:
      return SQL_C_TYPE_TIME;
    case SQL_TYPE_TIMESTAMP:
      return SQL_C_TYPE_TIMESTAMP;
    default:
      return -1;
  }
}

uint32_t sql_slot_size(SQLSMALLINT sql_type, SQLSMALLINT c_type, SQLLEN display_size, SQLLEN octet_length) {
  if (is_long_type(sql_type)) return 0;
  if (c_type == SQL_C_TYPE_DATE || c_type == SQL_C_TYPE_TIME || c_type == SQL_C_TYPE_TIMESTAMP) return 16;
  if (!is_text_c_type(c_type)) return 8;
  // A column without a usable size is read piecewise like a long one, so
  // a driver's huge or missing size cannot cost memory per row.
  constexpr SQLLEN kLargest = 65536;
  if (display_size > kLargest || octet_length > kLargest) return 0;
  SQLLEN bytes = std::max<SQLLEN>(display_size, 0);
  if (c_type == SQL_C_CHAR) bytes *= 4;  // a UTF-8 character takes up to 4 bytes
  bytes = std::max<SQLLEN>(bytes, octet_length);
  if (bytes <= 0) return 0;
  if (c_type == SQL_C_CHAR) bytes += 1;  // the driver's terminating zero
  if (bytes > kLargest) return 0;
  return static_cast<uint32_t>((bytes + 3) & ~SQLLEN{3});
}

// Text pieces end in the driver's terminating zero, so a full one holds
// 4,096 bytes; binary pieces fill all 4,097.
void sql_append_piece(std::string& out, const char* buffer, SQLLEN indicator, SQLSMALLINT c_type) {
  SQLLEN room = c_type == SQL_C_BINARY ? 4097 : 4096;
  SQLLEN n = (indicator > room || indicator == SQL_NO_TOTAL) ? room : indicator < 0 ? 0 : indicator;
  out.append(buffer, static_cast<size_t>(n));
}
