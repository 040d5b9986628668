// Result sets: counts, column lookup and the row hash that query values read.
#include "values/result_set.h"

#include <cstdio>
#include <cstring>

namespace {

// Reads a fixed-size slot field; false when the slot is too short, so a
// truncated cell gives an empty value instead of a read past its end.
template <typename T>
bool read_field(const std::string& data, size_t offset, T* out) {
  if (data.size() < offset + sizeof(T)) return false;
  std::memcpy(out, data.data() + offset, sizeof(T));
  return true;
}

ValuePtr date_text(const ResultCell& cell) {
  int16_t year;
  uint16_t month, day;
  if (!read_field(cell.data, 0, &year) || !read_field(cell.data, 2, &month) ||
      !read_field(cell.data, 4, &day))
    return value_new();
  char text[64];
  std::snprintf(text, sizeof text, "{ts '%04i-%02u-%02u 00:00:00'}", year, month, day);
  return value_from_string(text);
}

ValuePtr time_text(const ResultCell& cell) {
  uint16_t hour, minute, second;
  if (!read_field(cell.data, 0, &hour) || !read_field(cell.data, 2, &minute) ||
      !read_field(cell.data, 4, &second))
    return value_new();
  char text[64];
  std::snprintf(text, sizeof text, "{ts '1899-12-30 %02u:%02u:%02u'}", hour, minute, second);
  return value_from_string(text);
}

ValuePtr timestamp_text(const ResultCell& cell) {
  int16_t year;
  uint16_t part[5];
  if (!read_field(cell.data, 0, &year)) return value_new();
  for (int i = 0; i < 5; i++)
    if (!read_field(cell.data, 2 + 2 * i, &part[i])) return value_new();
  char text[80];
  std::snprintf(text, sizeof text, "{ts '%04i-%02u-%02u %02u:%02u:%02u'}", year, part[0], part[1],
                part[2], part[3], part[4]);
  return value_from_string(text);
}

}  // namespace

uint32_t result_column_count(const ResultSet& rs) {
  return static_cast<uint32_t>(rs.columns.size());
}

uint32_t result_row_count(const ResultSet& rs) {
  if (rs.columns.empty()) return 0;
  return static_cast<uint32_t>(rs.rows.size());
}

int result_column_index(const ResultSet& rs, std::string_view name) {
  for (size_t i = 0; i < rs.columns.size(); i++)
    if (compare_bytes_nocase(rs.columns[i].name, name) == 0) return static_cast<int>(i);
  return -1;
}

ValuePtr result_cell_to_value(int type, const ResultCell& cell) {
  if (cell.is_null) return value_new();
  switch (type) {
    case 91:
      return date_text(cell);
    case 92:
      return time_text(cell);
    case 93:
      return timestamp_text(cell);
    case 8: {
      double d;
      return read_field(cell.data, 0, &d) ? value_from_number(d) : value_new();
    }
    case 7: {
      float f;
      return read_field(cell.data, 0, &f) ? value_from_number(f) : value_new();
    }
    case 1:
    case 2:
    case -2:
      return value_from_string(cell.data);
    case -28:
    case -26:
    case -17:
    case -16:
    case -15: {
      int32_t n;
      return read_field(cell.data, 0, &n) ? value_from_integer(n) : value_new();
    }
    case -18: {
      uint32_t n;
      return read_field(cell.data, 0, &n) ? value_from_number(static_cast<double>(int64_t{n}))
                                          : value_new();
    }
    case -7: {
      uint8_t b;
      return read_field(cell.data, 0, &b) ? value_from_integer(b) : value_new();
    }
    default:
      return value_new();
  }
}

ValuePtr result_row_hash(const ResultSet& rs, uint32_t row) {
  ValuePtr hash = value_new();
  hash->type = VT_HASH;
  hash->columns = 2;
  bool have_row = row < result_row_count(rs);
  for (size_t c = 0; c < rs.columns.size(); c++) {
    Value* cell = hash_add_key(hash.get(), rs.columns[c].name);
    if (!cell || !have_row) continue;
    const std::vector<ResultCell>& cells = rs.rows[row];
    if (c < cells.size()) value_assign(cell, result_cell_to_value(rs.columns[c].type, cells[c]).get());
  }
  return hash;
}

void query_refresh_row(QueryPayload& query) {
  if (!query.result || query.result->columns.empty()) return;
  bool stale = !query.row || query.row->type != VT_HASH || query.built_row != query.current_row;
  if (!stale) return;
  query.row = result_row_hash(*query.result, query.current_row);
  query.built_row = query.current_row;
}
