// Tests of result-set reading: cell conversion by data type and the row hash.
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

ResultCell cell(std::string data) { return ResultCell{false, std::move(data)}; }

std::string text_of(int type, const ResultCell& c) { return value_text(*result_cell_to_value(type, c)); }

TEST(ResultSetTest, DateAndTimeCellsBecomeTimestampLiterals) {
  EXPECT_EQ("{ts '2024-03-07 00:00:00'}", text_of(91, cell(slot16({2024, 3, 7}))));
  EXPECT_EQ("{ts '1899-12-30 09:05:01'}", text_of(92, cell(slot16({9, 5, 1}))));
  std::string stamp = slot16({1999, 12, 31, 23, 59, 58}) + slot(uint32_t{123456});
  EXPECT_EQ("{ts '1999-12-31 23:59:58'}", text_of(93, cell(stamp)));
}

TEST(ResultSetTest, NumericCellsKeepTheirKind) {
  ValuePtr d = result_cell_to_value(8, cell(slot(2.5)));
  EXPECT_EQ(VT_NUMBER, d->type);
  EXPECT_EQ("2.500000000000000", value_text(*d));
  EXPECT_EQ("0.250000000000000", text_of(7, cell(slot(0.25f))));
  ValuePtr i = result_cell_to_value(-16, cell(slot(int32_t{-42})));
  EXPECT_EQ(VT_INTEGER, i->type);
  EXPECT_EQ("-42", value_text(*i));
  // An unsigned 32-bit cell is widened, never read as negative.
  EXPECT_EQ("4294967295.000000000000000", text_of(-18, cell(slot(uint32_t{0xFFFFFFFFu}))));
  EXPECT_EQ("1", text_of(-7, cell(std::string("\x01\xff", 2))));
}

TEST(ResultSetTest, TextCellsKeepEveryByte) {
  ValuePtr s = result_cell_to_value(-2, cell(std::string("a\0b", 3)));
  EXPECT_EQ(VT_STRING, s->type);
  EXPECT_EQ(std::string("a\0b", 3), value_text(*s));
  EXPECT_EQ("12.50", text_of(2, cell("12.50")));
}

TEST(ResultSetTest, NullShortAndUnknownCellsAreEmpty) {
  EXPECT_EQ(VT_EMPTY, result_cell_to_value(1, ResultCell{true, "x"})->type);
  EXPECT_EQ(VT_EMPTY, result_cell_to_value(8, cell("abc"))->type);  // shorter than a double
  EXPECT_EQ(VT_EMPTY, result_cell_to_value(93, cell(slot16({2000, 1})))->type);
  EXPECT_EQ(VT_EMPTY, result_cell_to_value(-5, cell(slot(int64_t{7})))->type);
}

ResultSet people() {
  ResultSet rs;
  rs.executed = true;
  rs.columns = {{"Name", 1}, {"age", -16}, {"City", 1}};
  rs.rows.push_back({cell("Ann"), cell(slot(int32_t{31})), cell("Oslo")});
  rs.rows.push_back({cell("Bob"), cell(slot(int32_t{45})), ResultCell{true, {}}});
  return rs;
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
