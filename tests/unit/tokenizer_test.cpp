// Tests for the page tokenizer: node cutting, options, quoting, lines, awkward input.
#include "page/tokenizer.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace {

using namespace std::literals;

VarTable plain_table() {
  VarTable table;
  table.tag_start = default_tag_start_class();
  return table;
}

Chain cut(std::string_view text, uint32_t first_line = 1) {
  return tokenize_text(plain_table(), text, first_line);
}

// The value of option `name` of the first node, "(absent)" when missing.
std::string option_of(const Chain& chain, std::string_view name) {
  const std::string* value = tag_option(*chain.head(), name);
  return value ? *value : "(absent)";
}

std::string reprint(std::string_view text) { return print_chain(nullptr, cut(text).head()); }

TEST(Tokenizer, LessThanNotStartingATagStaysText) {
  Chain chain = cut("a < b");
  ASSERT_EQ(chain.nodes.size(), 3u);
  EXPECT_EQ(chain.nodes[1]->text, "< ");
  EXPECT_FALSE(chain.nodes[1]->is_tag);
  EXPECT_EQ(reprint("a < b"), "a < b");
  EXPECT_EQ(reprint("<1>x<"), "<1>x<");
  // The byte after "<" is taken with it, even when it is another "<".
  Chain twice = cut("<<b>");
  ASSERT_EQ(twice.nodes.size(), 2u);
  EXPECT_EQ(twice.nodes[0]->text, "<<");
  EXPECT_EQ(twice.nodes[1]->text, "b>");
}

TEST(Tokenizer, PrintsTagsInNormalForm) {
  EXPECT_EQ(reprint("<table border=1>"), "<table border=\"1\">");
  EXPECT_EQ(reprint("<br>"), "<br>");
  EXPECT_EQ(reprint("<input  checked\ttype='x'>"), "<input checked type=\"'x'\">");
  VarTable table = plain_table();
  vartable_set(table, "CVVAR", TagHandler{});
  Chain chain = cut("<cvvar var=x><other>");
  EXPECT_EQ(print_chain(&table, chain.head()), "<CVVAR var=\"x\"><other>");
}

TEST(Tokenizer, OptionLookup) {
  Chain chain = cut("<CVVAR var=x value=abc checked Var=y>");
  EXPECT_EQ(chain.head()->name, "CVVAR");
  EXPECT_EQ(option_of(chain, "VALUE"), "abc");
  EXPECT_EQ(option_of(chain, "var"), "x");  // the first of two
  EXPECT_EQ(option_of(chain, "checked"), "");
  EXPECT_EQ(option_of(chain, "missing"), "(absent)");
}

TEST(Tokenizer, UnquotedValues) {
  Chain chain = cut("<x a='b c' d=e<f> g = h>");
  ASSERT_EQ(chain.head()->options.size(), 5u);
  EXPECT_EQ(option_of(chain, "a"), "'b");
  EXPECT_EQ(chain.head()->options[1].name, "c'");
  EXPECT_EQ(option_of(chain, "d"), "e");
  EXPECT_EQ(chain.head()->options[3].name, "<f>");
  EXPECT_EQ(option_of(chain, "g"), "h");
}

TEST(Tokenizer, DoubleQuotedValues) {
  EXPECT_EQ(option_of(cut("<x a=\"it's\">"), "a"), "it\"s");
  EXPECT_EQ(option_of(cut("<x a=\"it\\'s \\\"q\\\" \\z\">"), "a"), "it's \"q\" z");
  EXPECT_EQ(option_of(cut("<x a=\"1\r\n2\">"), "a"), "1  2");
  EXPECT_EQ(option_of(cut("<x a=\"1 <2 <\">"), "a"), "1 <2 <");
  EXPECT_EQ(option_of(cut("<x a=\"> <\n\">"), "a"), "> < ");
}

TEST(Tokenizer, InnerTagsInValues) {
  EXPECT_EQ(option_of(cut("<CVIF condition=\"<count> > 3\">"), "condition"), "<count> > 3");
  // Quotes alternate one level down, so the stored value reads as page text.
  Chain chain = cut("<x a=\"<y b='<z c=\"d\">'>\">");
  EXPECT_EQ(option_of(chain, "a"), "<y b=\"<z c='d'>\">");
  EXPECT_EQ(option_of(cut(option_of(chain, "a")), "b"), "<z c=\"d\">");
  EXPECT_EQ(option_of(cut("<x a=\"<y b=\"c\">\">"), "a"), "<y b=\"c\">");
  EXPECT_EQ(option_of(cut("<x a=\"<y b=\\q '\\''>\">"), "a"), "<y b=\\q \"'\">");
  // Inner tags around "=" are dropped; without "=" they stay options.
  EXPECT_EQ(option_of(cut("<x a <y> = <z> \"v\">"), "a"), "v");
  EXPECT_EQ(cut("<x a <y>>").head()->options.at(1).name, "<y>");
}

TEST(Tokenizer, InnerTagAsWholeOption) {
  Chain chain = cut("<x <y a=\"b\">>");
  ASSERT_EQ(chain.nodes.size(), 1u);
  ASSERT_EQ(chain.head()->options.size(), 1u);
  EXPECT_EQ(chain.head()->options[0].name, "<y a=\"b\">");
  EXPECT_EQ(chain.head()->options[0].value, "");
  EXPECT_EQ(print_chain(nullptr, chain.head()), "<x <y a=\"b\">>");
  EXPECT_EQ(cut("<x <y a=\"<z b='c'>\">>").head()->options[0].name, "<y a=\"<z b='c'>\">");
  EXPECT_EQ(cut("<x <y a=\"it's\\\"\\\\\\q\">>").head()->options[0].name, "<y a=\"it\"s\"\\\\q\">");
  EXPECT_EQ(cut("<x <y\na>>").head()->options[0].name, "<y a>");
}

TEST(Tokenizer, PlaceholderModeSkipsInnerTags) {
  auto options = [](std::string text) {
    DynStringPtr source = dyn_open("r+b", text);
    Chain chain = tokenize(plain_table(), *source, false, true, 1);
    std::string names;
    for (const TagOption& option : chain.head()->options) names += "[" + option.name + "]";
    return names;
  };
  EXPECT_EQ(options("<x <y a=\"b>\"> c=1>"), "[<][c]");
  EXPECT_EQ(options("<x <=3 <1>"), "[<=][3][<][1]");
}

TEST(Tokenizer, LineNumbers) {
  Chain chain = cut("a\n<x v=\"1\n2\"\nw=3>\nb<y>< \n<z>", 7);
  ASSERT_EQ(chain.nodes.size(), 7u);
  uint32_t lines[] = {7, 8, 10, 11, 11, 11, 12};
  for (size_t i = 0; i < 7; ++i) EXPECT_EQ(chain.nodes[i]->line, lines[i]) << i;
  EXPECT_EQ(option_of(chain, "v"), "(absent)");  // the head is text
  EXPECT_EQ(*tag_option(*chain.nodes[1], "v"), "1 2");
  // Looking past a name for "=" must not count the same line feed twice.
  EXPECT_EQ(cut("<x a\n b>\n<z>").nodes.at(2)->line, 3u);
}

TEST(Tokenizer, ZeroBytes) {
  Chain chain = cut("a\0b<x\0c=\"p\0q\"\0d=1\0>"sv);
  ASSERT_EQ(chain.nodes.size(), 2u);
  EXPECT_EQ(chain.nodes[0]->text, "a\0b"sv);
  EXPECT_EQ(option_of(cut("<x\0c=\"p\0q\">"sv), "c"), "p q");
  EXPECT_EQ(*tag_option(*chain.nodes[1], "d"), "1\0"sv);
}

TEST(Tokenizer, EndOfInputEndsTheOpenConstruct) {
  Chain open_tag = cut("t<x a=1 b=\"unterminated");
  ASSERT_EQ(open_tag.nodes.size(), 2u);
  EXPECT_EQ(*tag_option(*open_tag.nodes[1], "b"), "unterminated");
  EXPECT_EQ(cut("<x <y a=\"b").head()->options[0].name, "<y a=\"b");
  EXPECT_EQ(option_of(cut("<x a=\"<y b='c"), "a"), "<y b=\"c");
  EXPECT_EQ(cut("<x a").head()->options[0].name, "a");
}

TEST(Tokenizer, SourcesAndHelpers) {
  DynStringPtr source = dyn_open("r+b", "skip<b>");
  source->pos = 4;
  Chain chain = tokenize(plain_table(), *source, true, true, 1);
  ASSERT_EQ(chain.nodes.size(), 1u);
  EXPECT_EQ(chain.head()->name, "b");
  EXPECT_EQ(source->pos, 7u);
  EXPECT_TRUE(dyn_eof(source.get()));

  std::string path = testing::TempDir() + "tokenizer_test_page.cvm";
  FILE* file = std::fopen(path.c_str(), "wb");
  ASSERT_TRUE(file);
  std::fputs("x\n<y>", file);
  std::fclose(file);
  Chain from_file;
  ASSERT_TRUE(tokenize_file(plain_table(), path, &from_file));
  EXPECT_EQ(from_file.nodes.at(1)->line, 2u);
  std::remove(path.c_str());
  EXPECT_FALSE(tokenize_file(plain_table(), path, &from_file));

  VarTable table = plain_table();
  EXPECT_FALSE(has_tag_start(table, "a < b <1 <"));
  EXPECT_TRUE(has_tag_start(table, "a <_b"));
}

// Awkward input must end in a sane chain: linked in order, no empty nodes,
// and printing then cutting again terminates.
TEST(Tokenizer, AwkwardInputKeepsASaneChain) {
  std::string deep_option = "<x ";
  std::string deep_value = "<x v=\"";
  for (int i = 0; i < 10000; ++i) {
    deep_option += "<a \"";
    deep_value += i % 2 ? "<a b=\"" : "<a b='";
  }
  std::vector<std::string> inputs = {
      "<", "<x", "<x ", "<x a=", "<x a=\"", "<x a=\"\\", "<x <", "<x <y", "<x <y \"", "<x <y \"\\",
      "<x a=\"<y", "<x a=\"<y '", "<x a=\"<y \\", "< \n<", std::string("<\0<\0"sv), "<x =>",
      "<x ==\"\"=>", "<x a=\"<\">", "<x <=\"> <\"<a>", deep_option, deep_option + std::string(20000, '>'),
      deep_value, "<x " + std::string(10000, '<') + "a",
  };
  for (const std::string& input : inputs) {
    Chain chain = cut(input);
    for (size_t i = 0; i < chain.nodes.size(); ++i) {
      const ParsedTag& node = *chain.nodes[i];
      EXPECT_EQ(node.next, i + 1 < chain.nodes.size() ? chain.nodes[i + 1].get() : nullptr);
      EXPECT_FALSE(node.is_tag ? node.name.empty() : node.text.empty());
    }
    EXPECT_EQ(chain.head() != nullptr, !input.empty());
    std::string printed = print_chain(nullptr, chain.head());
    EXPECT_EQ(cut(printed).nodes.empty(), printed.empty());
  }
  EXPECT_EQ(cut(deep_option).head()->options.at(0).name.size(), deep_option.size() - 3);
}

}  // namespace
