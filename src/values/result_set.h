// Result sets of executed queries: the columns and rows a query value reads.
//
// The database layer fills a ResultSet once, when the statement has run and
// every row has been fetched; afterwards it is only read.  Query values share
// it (QueryPayload::result).  Cells keep the value as the data source gave it
// and are turned into Values only when a row is looked at, by the column's
// cell type.
//
// Rows are packed to keep a large result close to the size of its data: a
// row is its cells one after another, each a length prefix (0 for NULL, else
// the byte count + 1, seven bits to a byte, low bits first) followed by the
// bytes.  Rows are kept in groups of kRowsPerGroup, one allocation a group;
// a row is found by walking its group from the start.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "values/value.h"

// The current-row marker of a query value that stands on no row.
constexpr uint32_t kNoRow = 0xFFFFFFFFu;
constexpr uint32_t kRowsPerGroup = 64;

// Cell types: the C type code the value was read as, which fixes the bytes
// a cell holds, all in host byte order:
//   1, 2 (text, numeric text), -2 (binary): the bytes themselves;
//   8: a double; 7: a float;
//   -26 / -28: a signed / unsigned byte; -15 / -17: a signed / unsigned
//   16-bit integer; -16 / -18: a signed / unsigned 32-bit integer;
//   -25 / -27: a signed / unsigned 64-bit integer; -7: one byte (a bit);
//   91: year (int16), month, day (uint16);
//   92: hour, minute, second (uint16);
//   93: year (int16), month, day, hour, minute, second (uint16), fraction (uint32).
struct ResultColumn {
  std::string name;
  int16_t type = 1;
};

// One cell of a row, pointing into the result set.
struct ResultCell {
  bool is_null = false;
  std::string_view data;
};

struct ResultSet {
  bool executed = false;
  std::string sql;  // the statement text, for reports
  std::vector<ResultColumn> columns;  // empty for a statement without result columns
  std::vector<std::string> groups;    // packed rows, kRowsPerGroup to a group
  uint32_t rows = 0;
  // Where the row after the last one read starts in its group, so that
  // reading the rows in order does not walk each group from its start.
  mutable uint32_t next_row = 0;
  mutable size_t next_row_at = 0;
};

// Appends one cell to a packed row being built.
void result_pack_cell(std::string& row, std::string_view data);
void result_pack_null(std::string& row);
// Adds a packed row of one cell per column.  A full group is trimmed to its
// size; result_finish trims the last one.
void result_add_row(ResultSet& rs, std::string_view packed);
void result_finish(ResultSet& rs);
// The cells of a row in column order; empty for a row outside the rows.
std::vector<ResultCell> result_row_cells(const ResultSet& rs, uint32_t row);
// Bytes held for the rows (the packed groups as allocated).
size_t result_bytes(const ResultSet& rs);

// Counts as pages see them: both 0 for a statement without result columns.
uint32_t result_column_count(const ResultSet& rs);
uint32_t result_row_count(const ResultSet& rs);
// Position of the column in statement order, case-insensitively; -1 if none.
int result_column_index(const ResultSet& rs, std::string_view name);

// A cell converted by its cell type; an empty value for a NULL cell, a cell
// too short for its type, or a type without a conversion.  A 64-bit integer
// becomes an integer when it fits in 32 bits, a floating-point number when
// one holds it exactly, and its decimal text otherwise.
ValuePtr result_cell_to_value(int type, const ResultCell& cell);

// The row as a hash of column name to cell value, sorted by name.  For a row
// outside the rows the names are paired with empty values.
ValuePtr result_row_hash(const ResultSet& rs, uint32_t row);
// Brings the query's row hash up to date with its current row: rebuilt when
// the row differs from the one it was built for or no hash is held yet.
void query_refresh_row(QueryPayload& query);
