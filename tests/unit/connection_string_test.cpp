// Connection strings: pairs read as drivers read them, pairs added so that
// they read back the same, and the drivers the engine recognises.
#include "db/connection_string.h"

#include <gtest/gtest.h>

namespace {

TEST(ConnectionString, PairsBracesAndStrayText) {
  auto pairs = connection_string_parse(" Driver = {MariaDB Unicode} ;Server=127.0.0.1;;junk;PWD={a;b}}c};Port=3306");
  ASSERT_EQ(4u, pairs.size());
  EXPECT_EQ("Driver", pairs[0].key);
  EXPECT_EQ("MariaDB Unicode", pairs[0].value);
  EXPECT_EQ("127.0.0.1", *connection_string_find(pairs, "SERVER"));
  EXPECT_EQ("a;b}c", *connection_string_find(pairs, "pwd"));
  EXPECT_EQ("3306", *connection_string_find(pairs, "Port"));
  EXPECT_EQ(nullptr, connection_string_find(pairs, "UID"));
  // An unclosed brace runs to the end.
  EXPECT_EQ("x;y", connection_string_parse("PWD={x;y")[0].value);
  EXPECT_TRUE(connection_string_parse("").empty());
  EXPECT_TRUE(is_connection_string("Driver=x"));
  EXPECT_FALSE(is_connection_string("sales"));
}

TEST(ConnectionString, AddedValuesReadBackUnchanged) {
  std::string text = "DSN=sales;";
  const char* values[] = {"plain", "semi;colon", "brace}s{", " padded", ""};
  for (const char* v : values) connection_string_add(text, "K", v);
  EXPECT_EQ("DSN=sales;K=plain;K={semi;colon};K={brace}}s{};K={ padded};K=", text);
  auto pairs = connection_string_parse(text);
  ASSERT_EQ(6u, pairs.size());
  for (size_t i = 0; i < 5; i++) EXPECT_EQ(values[i], pairs[i + 1].value);
  std::string empty;
  connection_string_add(empty, "UID", "ann");
  EXPECT_EQ("UID=ann", empty);
}

TEST(ConnectionString, DriverFamilies) {
  EXPECT_EQ(DriverFamily::mariadb, driver_family("MariaDB Unicode"));
  EXPECT_EQ(DriverFamily::mariadb, driver_family("/usr/lib/x86_64-linux-gnu/odbc/libmaodbc.so"));
  EXPECT_EQ(DriverFamily::mariadb, driver_family("MySQL ODBC 8.0 Driver"));
  EXPECT_EQ(DriverFamily::postgresql, driver_family("PostgreSQL Unicode"));
  EXPECT_EQ(DriverFamily::postgresql, driver_family("psqlodbcw.so"));
  EXPECT_EQ(DriverFamily::other, driver_family("SQLite3"));
  EXPECT_EQ(DriverFamily::other, driver_family(""));
}

}  // namespace
