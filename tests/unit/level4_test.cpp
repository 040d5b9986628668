// Tests of Level 4 references to query values and of the growth bounds,
// which pages cannot reach without a database.
#include "runtime/level4.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "values/result_set.h"
#include "runtime/run.h"

namespace {

class Level4Test : public ::testing::Test {
 protected:
  void SetUp() override {
    set_number_mode(&run.numbers);
    tag_table_init(run);
    vartable_set(*run.names, "q", make_variable_entry());
    query_ = vartable_find(*run.names, "q")->variable.get();
    value_set_type(*query_, VT_QUERY);
    query_->query = std::make_unique<QueryPayload>();
    query_->query->current_row = kNoRow;
    rs_ = std::make_shared<ResultSet>();
    rs_->executed = true;
    rs_->columns = {{"Name", 1}, {"age", -16}, {"City", 1}};
    add_row("Ann", 31, "Oslo");
    add_row("Bob", 45, "Rome");
    query_->query->result = rs_;
  }
  void TearDown() override { set_number_mode(nullptr); }
  ::Run run;

  void add_row(const char* name, int32_t age, const char* city) {
    std::string row, n(4, '\0');
    std::memcpy(n.data(), &age, 4);
    result_pack_cell(row, name);
    result_pack_cell(row, n);
    result_pack_cell(row, city);
    result_add_row(*rs_, row);
  }
  // The text a reference yields, or "null:" and the diagnostic it wrote.
  std::string ref(std::string_view text) {
    run.errors.reset();
    Value* v = level4_resolve(run, text);
    if (v) return value_text(*v);
    return "null:" + (run.errors ? run.errors->data : std::string());
  }

  Value* query_ = nullptr;
  std::shared_ptr<ResultSet> rs_;
};

TEST_F(Level4Test, CountsAndCurrentRow) {
  EXPECT_EQ("2", ref("q numrows"));
  EXPECT_EQ("3", ref("q numcolumns"));
  EXPECT_EQ("-1", ref("q currentrow"));
  query_->query->current_row = 1;
  EXPECT_EQ("1", ref("q currentrow"));
}

TEST_F(Level4Test, ColumnsOfTheCurrentRow) {
  EXPECT_EQ("null:The current row pointer does not point to any row within the query.  Use "
            "CV-ROWSEEK to jump to a row in the query.  See the Corvane documentation for details.\n",
            ref("q column=name"));
  query_->query->current_row = 0;
  EXPECT_EQ("Ann", ref("q column=NAME"));
  EXPECT_EQ("31", ref("q column=age"));
  query_->query->current_row = 1;
  EXPECT_EQ("Rome", ref("q column=city"));
  EXPECT_EQ("null:The column name 'zip' does not exist in the query.\n", ref("q column=zip"));
  // The reference without options is the query; its text is the current row.
  EXPECT_EQ(query_, level4_resolve(run, "q"));
}

TEST_F(Level4Test, ColumnPositionsFollowNameOrder) {
  EXPECT_EQ("age", ref("q columnnamefromnum=0"));
  EXPECT_EQ("Name", ref("q columnnamefromnum=1+1"));
  EXPECT_EQ("2", ref("q columnnum=NAME"));
  EXPECT_EQ("1", ref("q columnnum=city"));
  EXPECT_EQ("null:The column name 'zip' does not exist in the query.\n", ref("q columnnum=zip"));
  EXPECT_EQ("null:The query either returned no records or the column number '3' does not exist.\n",
            ref("q columnnamefromnum=3"));
  EXPECT_EQ("null:Corvane requires the 'columnnamefromnum' option to be either a blank string or a "
            "number.\n",
            ref("q columnnamefromnum=abc"));
}

TEST_F(Level4Test, StatementWithoutResultColumns) {
  rs_->columns.clear();
  rs_->groups.clear();
  rs_->rows = 0;
  EXPECT_EQ("0", ref("q numrows"));
  EXPECT_EQ("0", ref("q numcolumns"));
  EXPECT_EQ(query_, level4_resolve(run, "q column=name"));  // passed over
  EXPECT_EQ("null:The query returned no records, therefore the column name does not exist.  See "
            "the Corvane documentation for details.\n",
            ref("q columnnum=name"));
}

TEST_F(Level4Test, QueryNotExecuted) {
  rs_->executed = false;
  EXPECT_EQ("null:SQL query hasn't been sent yet.\nAn internal error occurred in Corvane.\n",
            ref("q numrows"));
}

TEST_F(Level4Test, GrowthIsBounded) {
  const std::string out_of_range = "> contains an element value that is out of range.\n";
  EXPECT_EQ("null:<l element=[1000001]" + out_of_range, ref("l element=[1000001]"));
  EXPECT_EQ("null:<l element=[-1]" + out_of_range, ref("l element=[-1]"));
  // An array may not grow past a million cells, whatever its shape.
  ref("g hash=k");
  EXPECT_EQ("null:<g element=[1000][1000]" + out_of_range, ref("g element=[1000][1000]"));
  EXPECT_EQ("", ref("g element=[999][999]"));
  // Substring positions may reach only so far past the end of the string.
  ref("s strstartpos=0 strendpos=1000000");
  EXPECT_EQ(1000000u, value_text(*level4_resolve(run, "s strstartpos=0 strendpos=1000000")).size());
  EXPECT_EQ("null:Corvane requires the 'strendpos' option to be either a blank string or a number.\n",
            ref("s strendpos=1000001"));
  EXPECT_EQ("null:Corvane requires the 'strstartpos' option to be either a blank string or a number.\n",
            ref("s strstartpos=-1"));
}

TEST_F(Level4Test, ResolveSkipsLeadingSpaceAndNamesTheFirstWord) {
  EXPECT_NE(nullptr, level4_resolve(run, " \r\n\tTotal"));
  EXPECT_NE(nullptr, vartable_find(*run.names, "total"));
  EXPECT_EQ("null:Corvane does not permit Level 4 tags to contain illegal characters.  More than "
            "likely a tag was supposed to be used and a value was used instead.  See the Corvane "
            "documentation for details.\nParse failed at:  <=\n",
            ref("=x"));
  ParsedTag unnamed;
  unnamed.is_tag = true;
  run.errors.reset();
  EXPECT_EQ(nullptr, level4_resolve_tag(run, unnamed));
  EXPECT_EQ("Corvane does not allow Level 4 tags to have no name.\n", run.errors->data);
}

}  // namespace
