// Tests for the name table: ordering, case-insensitive lookup, copies.
#include "values/vartable.h"

#include <gtest/gtest.h>

#include "runtime/level4.h"

namespace {

ValuePtr dummy_handler(Run&, const ParsedTag&) { return value_new(); }

TagHandler builtin(uint8_t tag_class) {
  TagHandler entry;
  entry.kind = KIND_BUILTIN;
  entry.tag_class = tag_class;
  entry.handler = dummy_handler;
  return entry;
}

std::string names_of(const VarTable& table) {
  std::string out;
  for (const TableEntry& e : table.entries) out += e.name + ",";
  return out;
}

TEST(VarTable, TagStartClass) {
  const CharClass& cls = default_tag_start_class();
  EXPECT_TRUE(cls['/'] && cls['_'] && cls['A'] && cls['Z'] && cls['a'] && cls['z']);
  EXPECT_FALSE(cls['0'] || cls['9'] || cls['-'] || cls[' '] || cls['<'] || cls[0xC0]);
  VarTablePtr table = vartable_new(cls);
  EXPECT_EQ(cls, table->tag_start);
}

TEST(VarTable, InsertKeepsSortedCaseInsensitively) {
  VarTablePtr table = vartable_new(default_tag_start_class());
  vartable_set(*table, "CVVAR", builtin(CLASS_STATEMENT));
  vartable_set(*table, "counter", make_variable_entry());
  vartable_set(*table, "/CVIF", builtin(CLASS_STATEMENT));
  vartable_set(*table, "CV-STR", builtin(CLASS_FUNCTION));
  vartable_set(*table, "Apple", make_variable_entry());
  vartable_set(*table, "_x", make_variable_entry());
  // Upper-cased: "/" < "A" < "C" ...; "-" (45) < "V"; "_" (95) after letters.
  EXPECT_EQ("/CVIF,Apple,counter,CV-STR,CVVAR,_x,", names_of(*table));

  TagHandler* found = vartable_find(*table, "COUNTER");
  ASSERT_NE(nullptr, found);
  EXPECT_EQ(KIND_VARIABLE, found->kind);
  ASSERT_NE(nullptr, found->variable);
  EXPECT_EQ(VT_EMPTY, found->variable->type);
  EXPECT_EQ(found, vartable_find(*table, "Counter"));

  const VarTable& frozen = *table;
  ASSERT_NE(nullptr, vartable_find(frozen, "cv-str"));
  EXPECT_EQ(CLASS_FUNCTION, vartable_find(frozen, "cv-str")->tag_class);
  EXPECT_EQ(nullptr, vartable_find(frozen, "count"));
  EXPECT_EQ(nullptr, vartable_find(frozen, "counters"));
  EXPECT_EQ(nullptr, vartable_find(frozen, ""));
  ASSERT_NE(nullptr, vartable_stored_name(frozen, "APPLE"));
  EXPECT_EQ("Apple", *vartable_stored_name(frozen, "APPLE"));
  EXPECT_EQ(nullptr, vartable_stored_name(frozen, "pear"));
}

TEST(VarTable, ReplaceKeepsFirstSpellingAndRemove) {
  VarTablePtr table = vartable_new(default_tag_start_class());
  vartable_set(*table, "Name", make_variable_entry());
  value_assign(vartable_find(*table, "name")->variable.get(), value_from_integer(1).get());

  TagHandler replacement = make_variable_entry();
  value_assign(replacement.variable.get(), value_from_integer(2).get());
  vartable_set(*table, "NAME", std::move(replacement));
  ASSERT_EQ(1u, table->entries.size());
  EXPECT_EQ("Name", table->entries[0].name);
  EXPECT_EQ(2, vartable_find(*table, "name")->variable->integer);

  vartable_set(*table, "other", make_variable_entry());
  vartable_remove(*table, "nobody");  // ignored
  EXPECT_EQ(2u, table->entries.size());
  vartable_remove(*table, "NAME");
  EXPECT_EQ("other,", names_of(*table));
  EXPECT_EQ(nullptr, vartable_find(*table, "name"));
  vartable_remove(*table, "other");
  EXPECT_TRUE(table->entries.empty());
}

TEST(VarTable, CopyIsDeep) {
  VarTablePtr table = vartable_new(default_tag_start_class());
  vartable_set(*table, "CVIF", builtin(CLASS_STATEMENT));
  vartable_set(*table, "greeting", make_variable_entry());
  value_assign(vartable_find(*table, "greeting")->variable.get(), value_from_string("hi").get());

  VarTablePtr copy = vartable_copy(*table);
  EXPECT_EQ(names_of(*table), names_of(*copy));
  TagHandler* copied_if = vartable_find(*copy, "cvif");
  ASSERT_NE(nullptr, copied_if);
  EXPECT_EQ(dummy_handler, copied_if->handler);
  EXPECT_EQ(nullptr, copied_if->variable);

  Value* inner = vartable_find(*copy, "greeting")->variable.get();
  value_assign(inner, value_from_string("bye").get());
  vartable_set(*copy, "extra", make_variable_entry());
  EXPECT_EQ("hi", value_text(*vartable_find(*table, "greeting")->variable));
  EXPECT_EQ("bye", value_text(*inner));
  EXPECT_EQ(nullptr, vartable_find(*table, "extra"));
}

TEST(VarTable, ManyNamesStayFindable) {
  VarTablePtr table = vartable_new(default_tag_start_class());
  for (int i = 999; i >= 0; i--) vartable_set(*table, "v" + std::to_string(i * 7919 % 1000), make_variable_entry());
  ASSERT_EQ(1000u, table->entries.size());
  for (size_t i = 1; i < table->entries.size(); i++)
    EXPECT_LT(compare_bytes_nocase(table->entries[i - 1].name, table->entries[i].name), 0);
  for (int i = 0; i < 1000; i++) EXPECT_NE(nullptr, vartable_find(*table, "V" + std::to_string(i)));
}

}  // namespace
