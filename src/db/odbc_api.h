// The driver manager's entry points, looked up at run time (for the files of
// the ODBC layer only).
#pragma once

#include <sql.h>
#include <sqlext.h>

struct SqlEnv;

// The types come from the declarations in <sql.h>; nothing is linked.  The
// first 17 are required; the rest are used when present.
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
  // Optional: connection strings, statement time-outs, transactions.
  decltype(&::SQLDriverConnect) driver_connect = nullptr;
  decltype(&::SQLSetStmtAttr) set_stmt_attr = nullptr;
  decltype(&::SQLEndTran) end_tran = nullptr;
  // From the driver manager's configuration library, when it is there:
  // reads a data source's settings.
  int (*get_profile_string)(const char* section, const char* entry, const char* fallback, char* out,
                            int size, const char* file) = nullptr;
};

// The entry-point set of the environment (set 0 for a null one).
const OdbcApi& odbc_api(const SqlEnv* env);

inline bool odbc_ok(SQLRETURN r) { return r == SQL_SUCCESS || r == SQL_SUCCESS_WITH_INFO; }
