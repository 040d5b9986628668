// Result sets: packed rows, counts, column lookup and the row hash that
// query values read.
#include "values/result_set.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <type_traits>

namespace {

void pack_length(std::string& row, uint64_t n) {
  while (n >= 0x80) {
    row += static_cast<char>((n & 0x7F) | 0x80);
    n >>= 7;
  }
  row += static_cast<char>(n);
}

// Reads one cell at `pos` of a group and moves past it; false when the
// group ends first (which a group built by result_add_row never does).
bool next_cell(std::string_view group, size_t& pos, ResultCell* cell) {
  uint64_t n = 0;
  for (int shift = 0;; shift += 7) {
    if (pos >= group.size() || shift > 63) return false;
    uint8_t byte = static_cast<uint8_t>(group[pos++]);
    n |= uint64_t{byte & 0x7Fu} << shift;
    if (!(byte & 0x80)) break;
  }
  if (n == 0) {
    *cell = ResultCell{true, {}};
    return true;
  }
  if (n - 1 > group.size() - pos) return false;
  *cell = ResultCell{false, group.substr(pos, n - 1)};
  pos += n - 1;
  return true;
}

// Reads a fixed-size cell field; false when the cell is too short, so a
// truncated cell gives an empty value instead of a read past its end.
template <typename T>
bool read_field(std::string_view data, size_t offset, T* out) {
  if (data.size() < offset + sizeof(T)) return false;
  std::memcpy(out, data.data() + offset, sizeof(T));
  return true;
}

// A 64-bit integer as pages can hold it without loss: an integer in 32
// bits, else a double that equals it, else its digits.
template <typename T>
ValuePtr wide_integer(T n) {
  bool fits = n <= static_cast<T>(INT32_MAX);
  if constexpr (std::is_signed_v<T>) fits = fits && n >= static_cast<T>(INT32_MIN);
  if (fits) return value_from_integer(static_cast<int32_t>(n));
  double d = static_cast<double>(n);
  // 2^63 and 2^64 are the first doubles the types cannot hold.
  constexpr double limit = std::is_signed_v<T> ? 9223372036854775808.0 : 18446744073709551616.0;
  if (d < limit && d >= -limit && static_cast<T>(d) == n) return value_from_number(d);
  return value_from_string(std::to_string(n));
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

void result_pack_cell(std::string& row, std::string_view data) {
  pack_length(row, uint64_t{data.size()} + 1);
  row.append(data);
}

void result_pack_null(std::string& row) { pack_length(row, 0); }

void result_add_row(ResultSet& rs, std::string_view packed) {
  if (rs.rows % kRowsPerGroup == 0) {
    if (!rs.groups.empty()) rs.groups.back().shrink_to_fit();
    rs.groups.emplace_back();
  }
  rs.groups.back().append(packed);
  rs.rows++;
}

void result_finish(ResultSet& rs) {
  if (!rs.groups.empty()) rs.groups.back().shrink_to_fit();
}

std::vector<ResultCell> result_row_cells(const ResultSet& rs, uint32_t row) {
  std::vector<ResultCell> cells;
  if (row >= rs.rows || rs.columns.empty()) return cells;
  std::string_view group = rs.groups[row / kRowsPerGroup];
  size_t pos = 0;
  uint32_t at = row - row % kRowsPerGroup;  // the row that starts at pos
  if (rs.next_row / kRowsPerGroup == row / kRowsPerGroup && rs.next_row <= row && rs.next_row_at <= group.size()) {
    at = rs.next_row;
    pos = rs.next_row_at;
  }
  ResultCell skipped;
  size_t before = static_cast<size_t>(row - at) * rs.columns.size();
  for (size_t i = 0; i < before; i++)
    if (!next_cell(group, pos, &skipped)) return cells;
  cells.resize(rs.columns.size());
  bool whole = true;
  for (ResultCell& cell : cells)
    if (!next_cell(group, pos, &cell)) {
      cell = ResultCell{true, {}};
      whole = false;
    }
  if (whole) {
    rs.next_row = row + 1;
    rs.next_row_at = rs.next_row % kRowsPerGroup == 0 ? 0 : pos;  // a new group starts at its beginning
  }
  return cells;
}

size_t result_bytes(const ResultSet& rs) {
  size_t n = rs.groups.capacity() * sizeof(std::string);
  for (const std::string& g : rs.groups) n += g.capacity() + 1;
  return n;
}

uint32_t result_column_count(const ResultSet& rs) {
  return static_cast<uint32_t>(rs.columns.size());
}

uint32_t result_row_count(const ResultSet& rs) { return rs.columns.empty() ? 0 : rs.rows; }

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
      return value_from_string(std::string(cell.data));
    case -26: {
      int8_t n;
      return read_field(cell.data, 0, &n) ? value_from_integer(n) : value_new();
    }
    case -28: {
      uint8_t n;
      return read_field(cell.data, 0, &n) ? value_from_integer(n) : value_new();
    }
    case -15: {
      int16_t n;
      return read_field(cell.data, 0, &n) ? value_from_integer(n) : value_new();
    }
    case -17: {
      uint16_t n;
      return read_field(cell.data, 0, &n) ? value_from_integer(n) : value_new();
    }
    case -16: {
      int32_t n;
      return read_field(cell.data, 0, &n) ? value_from_integer(n) : value_new();
    }
    case -18: {
      uint32_t n;
      return read_field(cell.data, 0, &n) ? value_from_number(static_cast<double>(int64_t{n}))
                                          : value_new();
    }
    case -25: {
      int64_t n;
      return read_field(cell.data, 0, &n) ? wide_integer(n) : value_new();
    }
    case -27: {
      uint64_t n;
      return read_field(cell.data, 0, &n) ? wide_integer(n) : value_new();
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
  value_set_type(*hash, VT_HASH);
  hash->columns = 2;
  hash->rows.reserve(rs.columns.size());
  std::vector<ResultCell> cells = result_row_cells(rs, row);
  for (size_t c = 0; c < rs.columns.size(); c++) {
    Value* cell = hash_add_key(hash.get(), rs.columns[c].name);
    if (cell && c < cells.size()) value_assign(cell, result_cell_to_value(rs.columns[c].type, cells[c]).get());
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
