// Level 4 references to query values: the current row's columns and the
// result set's counts and column names.
#include <string>

#include "values/result_set.h"
#include "runtime/level4_query.h"
#include "runtime/run.h"

namespace {

constexpr std::string_view kNotSent =
    "SQL query hasn't been sent yet.\nAn internal error occurred in Corvane.\n";
constexpr std::string_view kNoCurrentRow =
    "The current row pointer does not point to any row within the query.  Use CV-ROWSEEK to jump "
    "to a row in the query.  See the Corvane documentation for details.\n";
constexpr std::string_view kNoRecords =
    "The query returned no records, therefore the column name does not exist.  See the Corvane "
    "documentation for details.\n";
constexpr std::string_view kBadColumnNumber =
    "Corvane requires the 'columnnamefromnum' option to be either a blank string or a number.\n";

Value* unknown_column(Run& run, std::string_view name) {
  return level4_fail(run, "The column name '" + std::string(name) + "' does not exist in the query.\n");
}


}  // namespace

// Options are tried in a fixed order and the first one present decides.
// "column" and "columnnum" address the row hash, whose entries are sorted by
// column name: column positions count in that order, not the statement's.
Value* level4_query_select(Run& run, Value& query, const ParsedTag& tag) {
  QueryPayload* payload = query.query.get();
  if (!payload || !payload->result || !payload->result->executed) return level4_fail(run, kNotSent);
  const ResultSet& rs = *payload->result;
  query_refresh_row(*payload);
  uint32_t columns = result_column_count(rs);
  uint32_t rows = result_row_count(rs);
  Value* row = payload->row.get();

  // A statement without result columns has no row to read from.
  if (const std::string* name = tag_option(tag, "column"); name && columns > 0) {
    if (payload->current_row >= rows) return level4_fail(run, kNoCurrentRow);
    Value* cell = row ? hash_find(row, *name) : nullptr;
    return cell ? cell : unknown_column(run, *name);
  }
  if (tag_option(tag, "numcolumns")) return keep_property(run, value_from_integer(static_cast<int32_t>(columns)));
  if (tag_option(tag, "numrows")) return keep_property(run, value_from_integer(static_cast<int32_t>(rows)));
  if (tag_option(tag, "currentrow"))
    return keep_property(run, value_from_integer(static_cast<int32_t>(payload->current_row)));
  if (const std::string* number = tag_option(tag, "columnnamefromnum")) {
    int64_t n;
    if (!level4_option_integer(run, *number, &n)) return level4_fail(run, kBadColumnNumber);
    if (columns == 0 || n < 0 || n >= columns || !row || static_cast<size_t>(n) >= row->rows.size()) {
      return level4_fail(run, "The query either returned no records or the column number '" +
                         std::to_string(static_cast<uint32_t>(n)) + "' does not exist.\n");
    }
    const ValueRow& entry = row->rows[static_cast<size_t>(n)];
    return keep_property(run, value_from_string(entry.empty() || !entry[0] ? "" : value_text(*entry[0])));
  }
  if (const std::string* name = tag_option(tag, "columnnum")) {
    if (columns == 0) return level4_fail(run, kNoRecords);
    int position = row ? level4_hash_position(*row, hash_find(row, *name)) : -1;
    if (position < 0) return unknown_column(run, *name);
    return keep_property(run, value_from_integer(position));
  }
  return &query;
}
