// Result sets of executed queries: the columns and rows a query value reads.
//
// The database layer fills a ResultSet once, when the statement has run and
// every row has been fetched; afterwards it is only read.  Query values share
// it (QueryPayload::result).  Cells keep the data source's raw slot image and
// are turned into Values only when a row is looked at, by the column's data
// type code.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "values/value.h"

// The current-row marker of a query value that stands on no row.
constexpr uint32_t kNoRow = 0xFFFFFFFFu;

// One cell as the data source returned it.  `data` is the slot image:
//   1, 2, -2 (character, numeric text, binary): the bytes themselves;
//   8: a double; 7: a float; -28, -26, -17, -16, -15: a 32-bit integer;
//   -18: an unsigned 32-bit integer; -7: one byte;
//   91: year (int16), month, day (uint16);
//   92: hour, minute, second (uint16);
//   93: year (int16), month, day, hour, minute, second (uint16), fraction (uint32);
// all in host byte order.  A NULL cell becomes an empty value.
struct ResultCell {
  bool is_null = false;
  std::string data;
};

struct ResultColumn {
  std::string name;
  int16_t type = 1;  // data type code of the data-source interface
};

struct ResultSet {
  bool executed = false;
  std::string sql;  // the statement text, for reports
  std::vector<ResultColumn> columns;  // empty for a statement without result columns
  std::vector<std::vector<ResultCell>> rows;  // each row has one cell per column
};

// Counts as pages see them: both 0 for a statement without result columns.
uint32_t result_column_count(const ResultSet& rs);
uint32_t result_row_count(const ResultSet& rs);
// Position of the column in statement order, case-insensitively; -1 if none.
int result_column_index(const ResultSet& rs, std::string_view name);

// A cell converted by its column's data type code; an empty value for a NULL
// cell, a slot too short for its type, or a type without a conversion.
ValuePtr result_cell_to_value(int type, const ResultCell& cell);

// The row as a hash of column name to cell value, sorted by name.  For a row
// outside the rows the names are paired with empty values.
ValuePtr result_row_hash(const ResultSet& rs, uint32_t row);
// Brings the query's row hash up to date with its current row: rebuilt when
// the row differs from the one it was built for or no hash is held yet.
void query_refresh_row(QueryPayload& query);
