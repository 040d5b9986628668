// Tests of CV-CONVERT and CV-LIST effects that a page cannot print, because
// the error that follows them ends the page.
#include "tags/convert_list.h"

#include <gtest/gtest.h>

#include <string>

#include "runtime/run.h"
#include "runtime/level4.h"

namespace {

class ConvertListTest : public ::testing::Test {
 protected:
  void SetUp() override {
    set_number_mode(&run.numbers);
    tag_table_init(run);
  }
  void TearDown() override { set_number_mode(nullptr); }

  // Runs one tag through its handler; true when it reported an error.
  bool run_tag(std::string_view text, ValuePtr (*handler)(::Run&, const ParsedTag&)) {
    run.stop = false;
    Page page = tokenize_page(text, 1);
    EXPECT_TRUE(page.size() > 0 && page.nodes[0].is_tag);
    ParsedTag tag;
    node_as_tag(page, 0, tag);
    handler(run, tag);
    return run.stop;
  }
  ::Run run;
  Value* var(std::string_view name) { return level4_resolve(run, name); }
};

TEST_F(ConvertListTest, UnknownTypeLeavesTheVariableAlone) {
  ValuePtr text = value_from_string("abc");
  value_assign(var("v"), text.get());
  EXPECT_TRUE(run_tag("<CV-CONVERT var=v type=Stack>", cvconvert_handler));
  EXPECT_TRUE(run_tag("<CV-CONVERT var=v type=queue>", cvconvert_handler));
  EXPECT_EQ(VT_STRING, var("v")->type);
  EXPECT_EQ("abc", value_text(*var("v")));
  EXPECT_FALSE(run_tag("<CV-CONVERT var=v type=list>", cvconvert_handler));
  EXPECT_EQ(VT_LIST, var("v")->type);
}

TEST_F(ConvertListTest, ListConversionSurvivesLaterErrors) {
  ValuePtr text = value_from_string("solo");
  value_assign(var("s"), text.get());
  EXPECT_TRUE(run_tag("<CV-LIST operation=push listvar=s location=first>", cvlist_handler));
  ASSERT_EQ(VT_LIST, var("s")->type);
  ASSERT_EQ(1u, var("s")->list.size());
  EXPECT_EQ("solo", value_text(*var("s")->list[0]));

  value_assign(var("t"), text.get());
  EXPECT_TRUE(run_tag("<CV-LIST operation=insert listvar=t>", cvlist_handler));
  EXPECT_EQ(VT_LIST, var("t")->type);
}

TEST_F(ConvertListTest, ListOverARangeBecomesAWholeList) {
  ValuePtr text = value_from_string("Hello");
  value_assign(var("r"), text.get());
  EXPECT_FALSE(run_tag("<CV-LIST operation=insert listvar=\"r strstartpos=1 strendpos=3\" location=last>",
                   cvlist_handler));
  ASSERT_EQ(VT_LIST, var("r")->type);
  EXPECT_EQ(2u, var("r")->list.size());
}

TEST_F(ConvertListTest, PositionBound) {
  EXPECT_FALSE(run_tag("<CV-LIST operation=insert listvar=L location=element element=1000000>", cvlist_handler));
  EXPECT_EQ(1000001u, var("L")->list.size());
  // "last" is now position 1000001, past the bound, even for a removal.
  EXPECT_TRUE(run_tag("<CV-LIST operation=remove listvar=L location=last>", cvlist_handler));
  EXPECT_FALSE(run_tag("<CV-LIST operation=remove listvar=L location=first>", cvlist_handler));
  EXPECT_FALSE(run_tag("<CV-LIST operation=remove listvar=L location=last>", cvlist_handler));
  EXPECT_EQ(999999u, var("L")->list.size());
  // -0.5 truncates towards zero: the first position, not a negative one.
  EXPECT_FALSE(run_tag("<CV-LIST operation=insert listvar=L location=element element=\"0-0.5\">", cvlist_handler));
  EXPECT_EQ(1000000u, var("L")->list.size());
}

}  // namespace
