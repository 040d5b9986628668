// Column layout, type mapping, long-value pieces and return-code texts of
// the ODBC layer (the parts that need no driver).
#include "db/odbc.h"
#include "db/odbc_session.h"

#include <sqlext.h>

#include <gtest/gtest.h>

TEST(OdbcLayout, SlotSizes) {
  EXPECT_EQ(0u, sql_slot_size(SQL_LONGVARCHAR, SQL_C_CHAR, 10, 10));
  EXPECT_EQ(0u, sql_slot_size(SQL_WLONGVARCHAR, SQL_C_CHAR, 10, 10));
  EXPECT_EQ(0u, sql_slot_size(SQL_LONGVARBINARY, SQL_C_BINARY, 10, 10));
  EXPECT_EQ(16u, sql_slot_size(SQL_TYPE_TIMESTAMP, SQL_C_TYPE_TIMESTAMP, 19, 16));
  EXPECT_EQ(16u, sql_slot_size(SQL_TYPE_DATE, SQL_C_TYPE_DATE, 10, 6));
  EXPECT_EQ(8u, sql_slot_size(SQL_INTEGER, SQL_C_SLONG, 11, 4));
  EXPECT_EQ(8u, sql_slot_size(SQL_BIGINT, SQL_C_SBIGINT, 20, 8));
  // Text: 4 bytes a character or the byte length, whichever is larger,
  // plus the terminating zero, rounded up to a multiple of 4.
  EXPECT_EQ(24u, sql_slot_size(SQL_VARCHAR, SQL_C_CHAR, 5, 20));
  EXPECT_EQ(84u, sql_slot_size(SQL_VARCHAR, SQL_C_CHAR, 20, 20));
  EXPECT_EQ(104u, sql_slot_size(SQL_CHAR, SQL_C_CHAR, 3, 101));
  // Binary data needs no terminating zero.
  EXPECT_EQ(20u, sql_slot_size(SQL_VARBINARY, SQL_C_BINARY, 20, 10));
  // No usable size, or too large to bind: read piecewise.
  EXPECT_EQ(0u, sql_slot_size(SQL_VARCHAR, SQL_C_CHAR, 0, 0));
  EXPECT_EQ(0u, sql_slot_size(SQL_VARCHAR, SQL_C_CHAR, 1 << 30, 1 << 30));
  EXPECT_EQ(0u, sql_slot_size(SQL_VARCHAR, SQL_C_CHAR, 16385, 16385));
  EXPECT_EQ(0u, sql_slot_size(SQL_VARCHAR, SQL_C_CHAR, 65535, 262140));
}

TEST(OdbcLayout, CTypesReadValuesExactly) {
  EXPECT_EQ(SQL_C_CHAR, sql_c_type(SQL_DECIMAL, false));
  EXPECT_EQ(SQL_C_NUMERIC, sql_c_type(SQL_NUMERIC, false));
  EXPECT_EQ(SQL_C_ULONG, sql_c_type(SQL_INTEGER, true));
  EXPECT_EQ(SQL_C_SLONG, sql_c_type(SQL_INTEGER, false));
  EXPECT_EQ(SQL_C_UTINYINT, sql_c_type(SQL_TINYINT, true));
  EXPECT_EQ(SQL_C_STINYINT, sql_c_type(SQL_TINYINT, false));
  EXPECT_EQ(SQL_C_SSHORT, sql_c_type(SQL_SMALLINT, false));
  EXPECT_EQ(SQL_C_SBIGINT, sql_c_type(SQL_BIGINT, false));
  EXPECT_EQ(SQL_C_UBIGINT, sql_c_type(SQL_BIGINT, true));
  EXPECT_EQ(SQL_C_FLOAT, sql_c_type(SQL_REAL, false));
  EXPECT_EQ(SQL_C_DOUBLE, sql_c_type(SQL_FLOAT, false));
  EXPECT_EQ(SQL_C_DOUBLE, sql_c_type(SQL_DOUBLE, false));
  EXPECT_EQ(SQL_C_BINARY, sql_c_type(SQL_LONGVARBINARY, false));
  EXPECT_EQ(SQL_C_CHAR, sql_c_type(SQL_WVARCHAR, false));
  EXPECT_EQ(SQL_C_CHAR, sql_c_type(SQL_GUID, false));
  EXPECT_EQ(-1, sql_c_type(SQL_INTERVAL_DAY, false));
}

TEST(OdbcLongValues, TextPiecesOf4096) {
  std::string buffer(4097, 'x');
  std::string out;
  // 10,000 bytes arrive as 4,096 + 4,096 + 1,808.
  sql_append_piece(out, buffer.data(), 10000, SQL_C_CHAR);
  sql_append_piece(out, buffer.data(), 5904, SQL_C_CHAR);
  sql_append_piece(out, buffer.data(), 1808, SQL_C_CHAR);
  EXPECT_EQ(10000u, out.size());
  out.clear();
  sql_append_piece(out, buffer.data(), 4096, SQL_C_CHAR);
  EXPECT_EQ(4096u, out.size());
  sql_append_piece(out, buffer.data(), SQL_NO_TOTAL, SQL_C_CHAR);
  EXPECT_EQ(8192u, out.size());
  sql_append_piece(out, buffer.data(), SQL_NULL_DATA, SQL_C_CHAR);
  EXPECT_EQ(8192u, out.size());
}

TEST(OdbcLongValues, BinaryPiecesFillTheBuffer) {
  std::string buffer(4097, 'b');
  std::string out;
  // 10,000 bytes arrive as 4,097 + 4,097 + 1,806: no byte is dropped.
  sql_append_piece(out, buffer.data(), 10000, SQL_C_BINARY);
  sql_append_piece(out, buffer.data(), 5903, SQL_C_BINARY);
  sql_append_piece(out, buffer.data(), 1806, SQL_C_BINARY);
  EXPECT_EQ(10000u, out.size());
  out.clear();
  sql_append_piece(out, buffer.data(), SQL_NO_TOTAL, SQL_C_BINARY);
  EXPECT_EQ(4097u, out.size());
}

TEST(OdbcDiagnostics, ReturnCodes) {
  std::string err;
  sql_report_return_code(err, SQL_NEED_DATA);
  sql_report_return_code(err, 12345);
  EXPECT_EQ("Error type:  SQL_NEED_DATA - The database is expecting to receive more data and didn't get it.\n"
            "Error type:  \n",
            err);
}

TEST(OdbcQueries, MisuseWithoutConnection) {
  std::string err;
  EXPECT_EQ(nullptr, sql_query_new(err, nullptr));
  SqlConnection closed;
  EXPECT_EQ(nullptr, sql_query_new(err, &closed));
  EXPECT_FALSE(sql_query_execute(err, nullptr));
  EXPECT_EQ(nullptr, sql_connect(nullptr, err, "x", "", ""));
  EXPECT_EQ("Error:  Invalid database structure.\nError:  Datasource is not open.\n"
            "Error:  Invalid SQL Query structure.\n",
            err);
  SqlQuery q;
  err.clear();
  q.sent = true;
  EXPECT_FALSE(sql_query_set_text(err, &q, "SELECT 1"));
  EXPECT_EQ("Error:  SQL query has already been sent.\n", err);
}

TEST(OdbcTransactions, OnlyBareKeywordsAreTransactionStatements) {
  struct Case {
    const char* text;
    SqlTransaction expected;
  } cases[] = {
      {"BEGIN", SqlTransaction::begin},
      {"  begin work ;\n", SqlTransaction::begin},
      {"Begin Transaction", SqlTransaction::begin},
      {"START TRANSACTION", SqlTransaction::begin},
      {"commit", SqlTransaction::commit},
      {"COMMIT WORK;", SqlTransaction::commit},
      {"END", SqlTransaction::commit},
      {"ROLLBACK", SqlTransaction::rollback},
      {"\trollback transaction", SqlTransaction::rollback},
      // Anything more is the server's business.
      {"ROLLBACK TO SAVEPOINT a", SqlTransaction::none},
      {"BEGIN ISOLATION LEVEL SERIALIZABLE", SqlTransaction::none},
      {"START", SqlTransaction::none},
      {"START WORK", SqlTransaction::none},
      {"COMMIT AND CHAIN", SqlTransaction::none},
      {"BEGINNING", SqlTransaction::none},
      {"SELECT 1; COMMIT", SqlTransaction::none},
      {";", SqlTransaction::none},
      {"", SqlTransaction::none},
  };
  for (const Case& c : cases) EXPECT_EQ(c.expected, sql_transaction_statement(c.text)) << c.text;
}

TEST(OdbcConnectPlan, SettingsAddedUnlessTheStringHasThem) {
  SqlEnv env;  // no driver manager loaded: data source entries read as absent
  env.login_timeout = 7;
  env.query_timeout = 20;
  ConnectPlan plain = session_connect_plan(env, "sales", "ann", "pw");
  EXPECT_FALSE(plain.use_string);

  ConnectPlan maria = session_connect_plan(env, "Driver=MariaDB Unicode;Server=db;READ_TIMEOUT=3", "ann", "p;w");
  EXPECT_TRUE(maria.use_string);
  EXPECT_EQ("Driver=MariaDB Unicode;Server=db;READ_TIMEOUT=3;UID=ann;PWD={p;w};CONN_TIMEOUT=7;WRITE_TIMEOUT=25",
            maria.text);

  ConnectPlan pg = session_connect_plan(env, "Driver={PostgreSQL Unicode};UID=bob;UseDeclareFetch=0", "ann", "");
  EXPECT_EQ("Driver={PostgreSQL Unicode};UID=bob;UseDeclareFetch=0;Fetch=1000;UseServerSidePrepare=0", pg.text);

  // Other drivers get the page's credentials only; no time-out of 0 is added.
  env.login_timeout = 0;
  EXPECT_EQ("Driver=SQLite3;Database=/x.db;UID=ann", session_connect_plan(env, "Driver=SQLite3;Database=/x.db", "ann", "").text);
  EXPECT_EQ("Driver=libmaodbc.so;READ_TIMEOUT=25;WRITE_TIMEOUT=25",
            session_connect_plan(env, "Driver=libmaodbc.so", "", "").text);
}
