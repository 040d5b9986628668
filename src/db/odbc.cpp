// The ODBC layer: entry points looked up in the driver manager at run time,
// connections, statements and whole result sets read into memory.
#include "db/odbc.h"

#include <dlfcn.h>
#include <sqlext.h>

#include <cstring>
#include <vector>

#include "runtime/run.h"

namespace {

// ---------------------------------------------------------------------------
// Entry points

// The types come from the declarations in <sql.h>; nothing is linked.
struct OdbcApi {
  bool loaded = false;
  void* library = nullptr;
  decltype(&::SQLAllocHandle) alloc_handle = nullptr;
  decltype(&::SQLSetConnectAttr) set_connect_attr = nullptr;
  decltype(&::SQLConnect) connect = nullptr;
  decltype(&::SQLGetInfo) get_info = nullptr;
  decltype(&::SQLFreeHandle) free_handle = nullptr;
  decltype(&::SQLPrepare) prepare = nullptr;
  decltype(&::SQLExecute) execute = nullptr;
  decltype(&::SQLNumResultCols) num_result_cols = nullptr;
  decltype(&::SQLColAttribute) col_attribute = nullptr;
  decltype(&::SQLBindCol) bind_col = nullptr;
  decltype(&::SQLFetch) fetch = nullptr;
  decltype(&::SQLGetData) get_data = nullptr;
  decltype(&::SQLCloseCursor) close_cursor = nullptr;
  decltype(&::SQLDisconnect) disconnect = nullptr;
  decltype(&::SQLDataSources) data_sources = nullptr;
  decltype(&::SQLSetEnvAttr) set_env_attr = nullptr;
  decltype(&::SQLGetDiagRec) get_diag_rec = nullptr;
};

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

bool ok(SQLRETURN r) { return r == SQL_SUCCESS || r == SQL_SUCCESS_WITH_INFO; }

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

// How one column is read while fetching.
struct ColumnPlan {
  SQLSMALLINT c_type = -1;    // the type handed to the driver
  uint32_t slot = 0;          // 0: read piecewise as a long value
  uint32_t offset = 0;        // in the row image
};

// The cell of a fetched slot: character data up to its length (never past
// the terminating zero the driver wrote), binary data up to its length,
// fixed-size types as the whole slot.
ResultCell slot_cell(const ColumnPlan& plan, const char* slot, SQLLEN indicator) {
  ResultCell cell;
  if (indicator == SQL_NULL_DATA) {
    cell.is_null = true;
    return cell;
  }
  size_t size = plan.slot;
  if (plan.c_type == SQL_C_CHAR) {
    size_t limit = size ? size - 1 : 0;
    size = indicator < 0 ? strnlen(slot, limit) : std::min<size_t>(static_cast<size_t>(indicator), limit);
  } else if (plan.c_type == SQL_C_BINARY) {
    if (indicator >= 0) size = std::min<size_t>(static_cast<size_t>(indicator), size);
  }
  cell.data.assign(slot, size);
  return cell;
}

bool read_long(std::string& err, SqlQuery* q, SQLUSMALLINT column, SQLSMALLINT c_type, ResultCell* cell) {
  const OdbcApi& a = api_of(q->connection);
  char buffer[4097];
  SQLLEN indicator = 0;
  SQLRETURN r = a.get_data(q->stmt, column, c_type, buffer, sizeof buffer, &indicator);
  if (ok(r) && indicator == SQL_NULL_DATA) {
    cell->is_null = true;
    return true;
  }
  while (ok(r)) {
    sql_append_piece(cell->data, buffer, indicator);
    r = a.get_data(q->stmt, column, c_type, buffer, sizeof buffer, &indicator);
  }
  if (r == SQL_NO_DATA) return true;
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
    SQLLEN sql_type = 0, is_unsigned = 0, display = 0;
    a.col_attribute(q->stmt, column, SQL_COLUMN_TYPE, nullptr, 0, nullptr, &sql_type);
    a.col_attribute(q->stmt, column, SQL_COLUMN_UNSIGNED, nullptr, 0, nullptr, &is_unsigned);
    a.col_attribute(q->stmt, column, SQL_COLUMN_DISPLAY_SIZE, nullptr, 0, nullptr, &display);
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
    // Long wide text is read narrowed by the driver manager, as text.
    if (type == SQL_WLONGVARCHAR) rc.type = plan.c_type = SQL_C_CHAR;
    plan.slot = sql_slot_size(type, display);
    if (plan.slot == 0 && i < *first_unbound) *first_unbound = i;
    plan.offset = offset;
    offset += plan.slot;
    plans.push_back(plan);
    rs.columns.push_back(std::move(rc));
  }
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

bool create_statement(std::string& err, SqlQuery* q) {
  const OdbcApi& a = api_of(q->connection);
  SQLRETURN r = a.alloc_handle(SQL_HANDLE_STMT, q->connection->dbc, &q->stmt);
  if (ok(r)) return true;
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
  // The driver manager loads its configuration library for each connection
  // and unloads it again; holding it open for the run saves the reloads and
  // keeps its allocations attributable to it in leak reports.  Its absence
  // is not an error: the driver manager reports that itself.
  static void* const installer = dlopen("libodbcinst.so.2", RTLD_NOW | RTLD_NODELETE);
  (void)installer;
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
  if (ok(r)) r = a.set_connect_attr(conn->dbc, SQL_ATTR_LOGIN_TIMEOUT, reinterpret_cast<SQLPOINTER>(5), 0);
  // Names are passed with their lengths, so a zero byte inside one cannot
  // make the driver read a different name than the page gave.
  bool fits = conn->datasource.size() <= 32767 && conn->username.size() <= 32767 && conn->password.size() <= 32767;
  if (ok(r) && !fits) r = SQL_ERROR;
  if (ok(r))
    r = a.connect(conn->dbc, sql_text(conn->datasource), static_cast<SQLSMALLINT>(conn->datasource.size()),
                  sql_text(conn->username), static_cast<SQLSMALLINT>(conn->username.size()),
                  sql_text(conn->password), static_cast<SQLSMALLINT>(conn->password.size()));
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
  return conn;
}

bool sql_disconnect(std::string& err, std::unique_ptr<SqlConnection>& conn) {
  if (!conn) {
    err += "Error:  Invalid database structure.\n";
    return false;
  }
  if (!conn->open) err += "Datasource not open.  Freeing structure anyway.\n";
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
  while (ok(r = a.fetch(q->stmt))) {
    std::vector<ResultCell> row(static_cast<size_t>(count));
    for (int i = first_unbound; i < count; i++) {
      SQLUSMALLINT column = static_cast<SQLUSMALLINT>(i + 1);
      const ColumnPlan& p = plans[i];
      if (p.slot == 0) {
        if (!read_long(err, q, column, p.c_type, &row[i])) return false;
        continue;
      }
      SQLRETURN g = a.get_data(q->stmt, column, p.c_type, image.data() + p.offset, p.slot, &indicators[i]);
      if (!ok(g)) {
        err += "Error fetching data.\n";
        sql_report_statement_diag(err, q, g);
        return false;
      }
    }
    for (int i = 0; i < count; i++)
      if (plans[i].slot) row[i] = slot_cell(plans[i], image.data() + plans[i].offset, indicators[i]);
    rs.rows.push_back(std::move(row));
  }
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

uint32_t sql_slot_size(SQLSMALLINT sql_type, SQLLEN display_size) {
  if (is_long_type(sql_type)) return 0;
  if (sql_type == SQL_TYPE_DATE || sql_type == SQL_TYPE_TIME || sql_type == SQL_TYPE_TIMESTAMP) return 16;
  // A column without a usable size is read piecewise like a long one, so
  // a driver's huge or missing display size cannot cost memory per row.
  if (display_size <= 0 || display_size > 65536) return 0;
  uint64_t size = static_cast<uint64_t>(display_size) + 1;  // the driver's terminating zero
  size = (size + 3) & ~uint64_t{3};
  return static_cast<uint32_t>(size < 8 ? 8 : size);
}

SQLSMALLINT sql_c_type(SQLSMALLINT sql_type, bool is_unsigned) {
  switch (sql_type) {
    case SQL_CHAR: case SQL_VARCHAR: case SQL_LONGVARCHAR: case SQL_DECIMAL:
      return SQL_C_CHAR;
    case SQL_WCHAR: case SQL_WVARCHAR: case SQL_WLONGVARCHAR:
      return SQL_C_WCHAR;
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
    case SQL_BIGINT:
      return is_unsigned ? SQL_C_UBIGINT : SQL_C_SBIGINT;
    // Single precision for FLOAT too, as pages have always seen it.
    case SQL_REAL: case SQL_FLOAT:
      return SQL_C_FLOAT;
    case SQL_DOUBLE:
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

// A full piece counts 4,096 bytes, which for binary data drops the last of
// the 4,097 the driver delivered; pages have always received it that way.
void sql_append_piece(std::string& out, const char* buffer, SQLLEN indicator) {
  size_t n = (indicator > 4096 || indicator == SQL_NO_TOTAL) ? 4096 : indicator < 0 ? 0 : static_cast<size_t>(indicator);
  out.append(buffer, n);
}
