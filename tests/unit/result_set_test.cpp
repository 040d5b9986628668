// Tests of result sets: packed rows, cell conversion by cell type and the
// row hash.
#include "values/result_set.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

template <typename T>
std::string slot(T v) {
  std::string s(sizeof v, '\0');
  std::memcpy(s.data(), &v, sizeof v);
  return s;
}

std::string slot16(std::initializer_list<uint16_t> parts) {
  std::string s;
  for (uint16_t p : parts) s += slot(p);
  return s;
}

ResultCell cell(const std::string& data) { return ResultCell{false, data}; }

std::string text_of(int type, const ResultCell& c) { return value_text(*result_cell_to_value(type, c)); }

TEST(ResultSetTest, DateAndTimeCellsBecomeTimestampLiterals) {
  EXPECT_EQ("{ts '2024-03-07 00:00:00'}", text_of(91, cell(slot16({2024, 3, 7}))));
  EXPECT_EQ("{ts '1899-12-30 09:05:01'}", text_of(92, cell(slot16({9, 5, 1}))));
  std::string stamp = slot16({1999, 12, 31, 23, 59, 58}) + slot(uint32_t{123456});
  EXPECT_EQ("{ts '1999-12-31 23:59:58'}", text_of(93, cell(stamp)));
}

TEST(ResultSetTest, NumericCellsKeepTheirKindAndSign) {
  ValuePtr d = result_cell_to_value(8, cell(slot(2.5)));
  EXPECT_EQ(VT_NUMBER, d->type);
  EXPECT_EQ("2.500000000000000", value_text(*d));
  EXPECT_EQ("0.250000000000000", text_of(7, cell(slot(0.25f))));
  ValuePtr i = result_cell_to_value(-16, cell(slot(int32_t{-42})));
  EXPECT_EQ(VT_INTEGER, i->type);
  EXPECT_EQ("-42", value_text(*i));
  // Each width is read with its own sign.
  EXPECT_EQ("-7", text_of(-15, cell(slot(int16_t{-7}))));
  EXPECT_EQ("65529", text_of(-17, cell(slot(uint16_t{65529}))));
  EXPECT_EQ("-5", text_of(-26, cell(slot(int8_t{-5}))));
  EXPECT_EQ("251", text_of(-28, cell(slot(uint8_t{251}))));
  // An unsigned 32-bit cell is widened, never read as negative.
  EXPECT_EQ("4294967295.000000000000000", text_of(-18, cell(slot(uint32_t{0xFFFFFFFFu}))));
  EXPECT_EQ("1", text_of(-7, cell(std::string("\x01", 1))));
}

TEST(ResultSetTest, BigIntegersBecomeIntegersDoublesOrText) {
  ValuePtr small = result_cell_to_value(-25, cell(slot(int64_t{-2147483648})));
  EXPECT_EQ(VT_INTEGER, small->type);
  EXPECT_EQ("-2147483648", value_text(*small));
  ValuePtr wide = result_cell_to_value(-25, cell(slot(int64_t{2147483648})));
  EXPECT_EQ(VT_NUMBER, wide->type);
  EXPECT_EQ("2147483648.000000000000000", value_text(*wide));
  EXPECT_EQ("9007199254740992.000000000000000", text_of(-25, cell(slot(int64_t{9007199254740992}))));
  // 2^53 + 1 has no double: its digits are kept.
  ValuePtr exact = result_cell_to_value(-25, cell(slot(int64_t{9007199254740993})));
  EXPECT_EQ(VT_STRING, exact->type);
  EXPECT_EQ("9007199254740993", value_text(*exact));
  EXPECT_EQ("-9223372036854775808.000000000000000", text_of(-25, cell(slot(INT64_MIN))));
  EXPECT_EQ("9223372036854775807", text_of(-25, cell(slot(INT64_MAX))));
  EXPECT_EQ("18446744073709551615", text_of(-27, cell(slot(UINT64_MAX))));
  EXPECT_EQ("7", text_of(-27, cell(slot(uint64_t{7}))));
}

TEST(ResultSetTest, TextCellsKeepEveryByte) {
  std::string bytes("a\0b", 3);
  ValuePtr s = result_cell_to_value(-2, cell(bytes));
  EXPECT_EQ(VT_STRING, s->type);
  EXPECT_EQ(std::string("a\0b", 3), value_text(*s));
  EXPECT_EQ("12.50", text_of(2, cell("12.50")));
}

TEST(ResultSetTest, NullShortAndUnknownCellsAreEmpty) {
  EXPECT_EQ(VT_EMPTY, result_cell_to_value(1, ResultCell{true, "x"})->type);
  EXPECT_EQ(VT_EMPTY, result_cell_to_value(8, cell("abc"))->type);  // shorter than a double
  EXPECT_EQ(VT_EMPTY, result_cell_to_value(93, cell(slot16({2000, 1})))->type);
  EXPECT_EQ(VT_EMPTY, result_cell_to_value(-8, cell("ab"))->type);
}

ResultSet people() {
  ResultSet rs;
  rs.executed = true;
  rs.columns = {{"Name", 1}, {"age", -16}, {"City", 1}};
  std::string row;
  result_pack_cell(row, "Ann");
  result_pack_cell(row, slot(int32_t{31}));
  result_pack_cell(row, "Oslo");
  result_add_row(rs, row);
  row.clear();
  result_pack_cell(row, "Bob");
  result_pack_cell(row, slot(int32_t{45}));
  result_pack_null(row);
  result_add_row(rs, row);
  result_finish(rs);
  return rs;
}

TEST(ResultSetTest, PackedRowsReadBackAcrossGroups) {
  ResultSet rs;
  rs.columns = {{"n", 1}, {"text", 1}};
  std::string long_text(300, 'x');  // a length prefix of two bytes
  for (int i = 0; i < 200; i++) {
    std::string row;
    result_pack_cell(row, std::to_string(i));
    if (i % 3 == 0) result_pack_null(row); else result_pack_cell(row, i % 3 == 1 ? long_text : "");
    result_add_row(rs, row);
  }
  result_finish(rs);
  EXPECT_EQ(200u, result_row_count(rs));
  EXPECT_EQ(4u, rs.groups.size());
  // Every row in order, then backwards, then scattered: a read starts
  // where the one before ended only when that is on its way.
  std::vector<uint32_t> order;
  for (uint32_t i = 0; i < 200; i++) order.push_back(i);
  for (uint32_t i = 200; i-- > 0;) order.push_back(i);
  for (uint32_t i : {5u, 130u, 6u, 64u, 63u, 64u, 66u, 65u, 127u, 128u, 199u, 0u}) order.push_back(i);
  for (uint32_t i : order) {
    SCOPED_TRACE(i);
    std::vector<ResultCell> cells = result_row_cells(rs, i);
    ASSERT_EQ(2u, cells.size());
    EXPECT_EQ(std::to_string(i), cells[0].data);
    EXPECT_EQ(i % 3 == 0, cells[1].is_null);
    EXPECT_EQ(i % 3 == 1 ? long_text : "", cells[1].data);
  }
  EXPECT_TRUE(result_row_cells(rs, 200).empty());
  EXPECT_TRUE(result_row_cells(rs, kNoRow).empty());
  // The rows cost little more than their bytes: 67 long texts, 200 short
  // numbers and empty or NULL cells, and each prefix.
  EXPECT_GE(result_bytes(rs), 67u * 302);
  EXPECT_LT(result_bytes(rs), 67u * 302 + 200 * 8 + 4 * 48);
}

TEST(ResultSetTest, CountsAndColumnLookup) {
  ResultSet rs = people();
  EXPECT_EQ(3u, result_column_count(rs));
  EXPECT_EQ(2u, result_row_count(rs));
  EXPECT_EQ(1, result_column_index(rs, "AGE"));
  EXPECT_EQ(-1, result_column_index(rs, "zip"));
  // A statement without result columns has no rows to show.
  rs.columns.clear();
  EXPECT_EQ(0u, result_row_count(rs));
}

TEST(ResultSetTest, RowHashIsSortedByColumnName) {
  ResultSet rs = people();
  ValuePtr row = result_row_hash(rs, 1);
  ASSERT_EQ(VT_HASH, row->type);
  ASSERT_EQ(3u, row->rows.size());
  EXPECT_EQ("age", value_text(*row->rows[0][0]));
  EXPECT_EQ("City", value_text(*row->rows[1][0]));
  EXPECT_EQ("Name", value_text(*row->rows[2][0]));
  EXPECT_EQ("45", value_text(*row->rows[0][1]));
  EXPECT_EQ(VT_EMPTY, row->rows[1][1]->type);
  EXPECT_EQ("Bob", value_text(*hash_find(row.get(), "NAME")));
  // Outside the rows the names stay, with empty values.
  ValuePtr none = result_row_hash(rs, kNoRow);
  ASSERT_EQ(3u, none->rows.size());
  EXPECT_EQ(VT_EMPTY, none->rows[2][1]->type);
}

TEST(ResultSetTest, RefreshFollowsTheCurrentRow) {
  QueryPayload q;
  q.result = std::make_shared<ResultSet>(people());
  q.current_row = 0;
  query_refresh_row(q);
  EXPECT_EQ("Ann", value_text(*hash_find(q.row.get(), "name")));
  Value* held = q.row.get();
  query_refresh_row(q);
  EXPECT_EQ(held, q.row.get());  // same row: nothing rebuilt
  q.current_row = 1;
  query_refresh_row(q);
  EXPECT_EQ("Bob", value_text(*hash_find(q.row.get(), "name")));
  EXPECT_EQ(1u, q.built_row);
}

}  // namespace
