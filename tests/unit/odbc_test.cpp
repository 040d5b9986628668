// Column layout, type mapping, long-value pieces and return-code texts of
// the ODBC layer (the parts that need no driver).
#include "db/odbc.h"

#include <sqlext.h>

#include <gtest/gtest.h>

TEST(OdbcLayout, SlotSizes) {
  EXPECT_EQ(0u, sql_slot_size(SQL_LONGVARCHAR, 10));
  EXPECT_EQ(0u, sql_slot_size(SQL_WLONGVARCHAR, 10));
  EXPECT_EQ(0u, sql_slot_size(SQL_LONGVARBINARY, 10));
  EXPECT_EQ(16u, sql_slot_size(SQL_TYPE_TIMESTAMP, 19));
  EXPECT_EQ(16u, sql_slot_size(SQL_TYPE_DATE, 10));
  // Display size plus the terminating zero, rounded up to a multiple of 4.
  EXPECT_EQ(24u, sql_slot_size(SQL_VARCHAR, 20));
  EXPECT_EQ(20u, sql_slot_size(SQL_VARCHAR, 19));
  EXPECT_EQ(8u, sql_slot_size(SQL_INTEGER, 1));
  // No usable size: read piecewise instead of reserving it per row.
  EXPECT_EQ(0u, sql_slot_size(SQL_VARCHAR, 0));
  EXPECT_EQ(0u, sql_slot_size(SQL_VARCHAR, 1 << 30));
}

TEST(OdbcLayout, CTypes) {
  EXPECT_EQ(SQL_C_CHAR, sql_c_type(SQL_DECIMAL, false));
  EXPECT_EQ(SQL_C_NUMERIC, sql_c_type(SQL_NUMERIC, false));
  EXPECT_EQ(SQL_C_ULONG, sql_c_type(SQL_INTEGER, true));
  EXPECT_EQ(SQL_C_SLONG, sql_c_type(SQL_INTEGER, false));
  EXPECT_EQ(SQL_C_UTINYINT, sql_c_type(SQL_TINYINT, true));
  EXPECT_EQ(SQL_C_SSHORT, sql_c_type(SQL_SMALLINT, false));
  EXPECT_EQ(SQL_C_FLOAT, sql_c_type(SQL_FLOAT, false));
  EXPECT_EQ(SQL_C_DOUBLE, sql_c_type(SQL_DOUBLE, false));
  EXPECT_EQ(SQL_C_BINARY, sql_c_type(SQL_LONGVARBINARY, false));
  EXPECT_EQ(SQL_C_WCHAR, sql_c_type(SQL_WVARCHAR, false));
  EXPECT_EQ(-1, sql_c_type(SQL_GUID, false));
}

TEST(OdbcLongValues, PiecesOf4096) {
  std::string buffer(4097, 'x');
  std::string out;
  // 10,000 bytes arrive as 4,096 + 4,096 + 1,808.
  sql_append_piece(out, buffer.data(), 10000);
  sql_append_piece(out, buffer.data(), 5904);
  sql_append_piece(out, buffer.data(), 1808);
  EXPECT_EQ(10000u, out.size());
  out.clear();
  sql_append_piece(out, buffer.data(), 4096);
  EXPECT_EQ(4096u, out.size());
  sql_append_piece(out, buffer.data(), SQL_NO_TOTAL);
  EXPECT_EQ(8192u, out.size());
  sql_append_piece(out, buffer.data(), SQL_NULL_DATA);
  EXPECT_EQ(8192u, out.size());
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
