// Tests for the page tokenizer: node cutting, options, quoting, lines, awkward input.
#include <gtest/gtest.h>

#include "page/page.h"
#include "page/tag.h"

namespace {

using namespace std::literals;

// A tokenized page with its nodes as tags, for looking at.
struct Cut {
  Page page;
  std::vector<ParsedTag> nodes;
  const ParsedTag* head() const { return nodes.empty() ? nullptr : &nodes[0]; }
};

Cut cut(std::string_view text, uint32_t first_line = 1, bool keep_option_tags = true) {
  Cut c{tokenize_page(text, first_line, keep_option_tags), {}};
  c.nodes.resize(c.page.size());
  for (uint32_t i = 0; i < c.page.size(); i++) node_as_tag(c.page, i, c.nodes[i]);
  return c;
}

std::string print_all(const Cut& c, const std::string* stored_cvvar = nullptr) {
  std::string out;
  for (uint32_t i = 0; i < c.page.size(); i++)
    print_page_node(c.page, i, c.page.nodes[i].is_tag && c.nodes[i].name == "cvvar" ? stored_cvvar : nullptr, out);
  return out;
}

// The value of option `name` of the first node, "(absent)" when missing.
std::string option_of(const Cut& chain, std::string_view name) {
  const std::string* value = tag_option(*chain.head(), name);
  return value ? *value : "(absent)";
}

std::string reprint(std::string_view text) { return print_all(cut(text)); }

TEST(Tokenizer, LessThanNotStartingATagStaysText) {
  Cut chain = cut("a < b");
  ASSERT_EQ(chain.nodes.size(), 3u);
  EXPECT_EQ(chain.nodes[1].text, "< ");
  EXPECT_FALSE(chain.nodes[1].is_tag);
  EXPECT_EQ(reprint("a < b"), "a < b");
  EXPECT_EQ(reprint("<1>x<"), "<1>x<");
  // The byte after "<" is taken with it, even when it is another "<".
  Cut twice = cut("<<b>");
  ASSERT_EQ(twice.nodes.size(), 2u);
  EXPECT_EQ(twice.nodes[0].text, "<<");
  EXPECT_EQ(twice.nodes[1].text, "b>");
}

TEST(Tokenizer, PrintsTagsInNormalForm) {
  EXPECT_EQ(reprint("<table border=1>"), "<table border=\"1\">");
  EXPECT_EQ(reprint("<br>"), "<br>");
  EXPECT_EQ(reprint("<input  checked\ttype='x'>"), "<input checked type=\"'x'\">");
  const std::string stored = "CVVAR";
  EXPECT_EQ(print_all(cut("<cvvar var=x><other>"), &stored), "<CVVAR var=\"x\"><other>");
}

TEST(Tokenizer, OptionLookup) {
  Cut chain = cut("<CVVAR var=x value=abc checked Var=y>");
  EXPECT_EQ(chain.head()->name, "CVVAR");
  EXPECT_EQ(option_of(chain, "VALUE"), "abc");
  EXPECT_EQ(option_of(chain, "var"), "x");  // the first of two
  EXPECT_EQ(option_of(chain, "checked"), "");
  EXPECT_EQ(option_of(chain, "missing"), "(absent)");
}

TEST(Tokenizer, UnquotedValues) {
  Cut chain = cut("<x a='b c' d=e<f> g = h>");
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
  Cut chain = cut("<x a=\"<y b='<z c=\"d\">'>\">");
  EXPECT_EQ(option_of(chain, "a"), "<y b=\"<z c='d'>\">");
  EXPECT_EQ(option_of(cut(option_of(chain, "a")), "b"), "<z c=\"d\">");
  EXPECT_EQ(option_of(cut("<x a=\"<y b=\"c\">\">"), "a"), "<y b=\"c\">");
  EXPECT_EQ(option_of(cut("<x a=\"<y b=\\q '\\''>\">"), "a"), "<y b=\\q \"'\">");
  // Inner tags around "=" are dropped; without "=" they stay options.
  EXPECT_EQ(option_of(cut("<x a <y> = <z> \"v\">"), "a"), "v");
  EXPECT_EQ(cut("<x a <y>>").head()->options.at(1).name, "<y>");
}

TEST(Tokenizer, InnerTagAsWholeOption) {
  Cut chain = cut("<x <y a=\"b\">>");
  ASSERT_EQ(chain.nodes.size(), 1u);
  ASSERT_EQ(chain.head()->options.size(), 1u);
  EXPECT_EQ(chain.head()->options[0].name, "<y a=\"b\">");
  EXPECT_EQ(chain.head()->options[0].value, "");
  EXPECT_EQ(print_all(chain), "<x <y a=\"b\">>");
  EXPECT_EQ(cut("<x <y a=\"<z b='c'>\">>").head()->options[0].name, "<y a=\"<z b='c'>\">");
  EXPECT_EQ(cut("<x <y a=\"it's\\\"\\\\\\q\">>").head()->options[0].name, "<y a=\"it\"s\"\\\\q\">");
  EXPECT_EQ(cut("<x <y\na>>").head()->options[0].name, "<y a>");
}

TEST(Tokenizer, PlaceholderModeSkipsInnerTags) {
  auto options = [](std::string text) {
    Cut chain = cut(text, 1, false);
    std::string names;
    for (const TagOption& option : chain.head()->options) names += "[" + option.name + "]";
    return names;
  };
  EXPECT_EQ(options("<x <y a=\"b>\"> c=1>"), "[<][c]");
  EXPECT_EQ(options("<x <=3 <1>"), "[<=][3][<][1]");
}

TEST(Tokenizer, LineNumbers) {
  Cut chain = cut("a\n<x v=\"1\n2\"\nw=3>\nb<y>< \n<z>", 7);
  ASSERT_EQ(chain.nodes.size(), 7u);
  uint32_t lines[] = {7, 8, 10, 11, 11, 11, 12};
  for (size_t i = 0; i < 7; ++i) EXPECT_EQ(chain.nodes[i].line, lines[i]) << i;
  EXPECT_EQ(option_of(chain, "v"), "(absent)");  // the head is text
  EXPECT_EQ(*tag_option(chain.nodes[1], "v"), "1 2");
  // Looking past a name for "=" must not count the same line feed twice.
  EXPECT_EQ(cut("<x a\n b>\n<z>").nodes.at(2).line, 3u);
}

TEST(Tokenizer, ZeroBytes) {
  Cut chain = cut("a\0b<x\0c=\"p\0q\"\0d=1\0>"sv);
  ASSERT_EQ(chain.nodes.size(), 2u);
  EXPECT_EQ(chain.nodes[0].text, "a\0b"sv);
  EXPECT_EQ(option_of(cut("<x\0c=\"p\0q\">"sv), "c"), "p q");
  EXPECT_EQ(*tag_option(chain.nodes[1], "d"), "1\0"sv);
}

TEST(Tokenizer, EndOfInputEndsTheOpenConstruct) {
  Cut open_tag = cut("t<x a=1 b=\"unterminated");
  ASSERT_EQ(open_tag.nodes.size(), 2u);
  EXPECT_EQ(*tag_option(open_tag.nodes[1], "b"), "unterminated");
  EXPECT_EQ(cut("<x <y a=\"b").head()->options[0].name, "<y a=\"b");
  EXPECT_EQ(option_of(cut("<x a=\"<y b='c"), "a"), "<y b=\"c");
  EXPECT_EQ(cut("<x a").head()->options[0].name, "a");
}

TEST(Tokenizer, TagStartTest) {
  EXPECT_FALSE(has_tag_start("a < b <1 <"));
  EXPECT_TRUE(has_tag_start("a <_b"));
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
    Cut chain = cut(input);
    for (size_t i = 0; i < chain.nodes.size(); ++i) {
      const ParsedTag& node = chain.nodes[i];
      EXPECT_FALSE(node.is_tag ? node.name.empty() : node.text.empty());
    }
    EXPECT_EQ(chain.head() != nullptr, !input.empty());
    std::string printed = print_all(chain);
    EXPECT_EQ(cut(printed).nodes.empty(), printed.empty());
  }
  EXPECT_EQ(cut(deep_option).head()->options.at(0).name.size(), deep_option.size() - 3);
}

}  // namespace
