// Tables of every tag option that reads a number, each row run as a page:
// which kinds of value the option accepts, and what a decimal value gives when
// it is read while decimal mode is off.
//
// A row's page runs in this process from start-up to its last tag, with its
// files in a scratch directory and, for network rows, a scripted peer on
// 127.0.0.1.  Its output or the message it ended with is compared.
#include "runtime/option_number.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <string>

#include "db/cvquery.h"
#include "values/result_set.h"
#include "runtime/run.h"
#include "program/startup.h"
#include "fake_peer.h"
#include "functions/cvfile.h"
#include "net/cvweb.h"
#include "values/vartable.h"

namespace {

enum class Peer { kNone, kRaw, kPop3 };

struct Row {
  const char* tag;
  const char* option;
  const char* kind;      // the kind of the option's evaluated value
  const char* page;      // "@PORT@" stands for the peer's port
  const char* expected;  // the page's output; with `refused`, the message its report holds
  bool refused = false;
  Peer peer = Peer::kNone;
};

struct Outcome {
  std::string body, errors;
  bool stopped = false;
};

// The pages' web root: a scratch directory holding data.txt ("0123456789"),
// made for the suite and removed after it.
std::string g_root;

class PageRows : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    char dir[] = "/tmp/cvml_option_number_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    g_root = dir;
    FILE* f = std::fopen((g_root + "/data.txt").c_str(), "wb");
    ASSERT_NE(nullptr, f);
    std::fputs("0123456789", f);
    std::fclose(f);
  }
  static void TearDownTestSuite() {
    ::unlink((g_root + "/data.txt").c_str());
    ::rmdir(g_root.c_str());
  }
};

// The query variable "q": columns Name, age, City (sorted by name: age, City,
// Name) and two rows, standing on no row.
void add_query_variable(Run& run) {
  vartable_set(*run.names, "q", make_variable_entry());
  Value* q = vartable_find(*run.names, "q")->variable.get();
  value_set_type(*q, VT_QUERY);
  q->query = std::make_unique<QueryPayload>();
  q->query->current_row = kNoRow;
  auto rs = std::make_shared<ResultSet>();
  rs->executed = true;
  rs->columns = {{"Name", 1}, {"age", 1}, {"City", 1}};
  for (const char* row : {"Ann 31 Oslo", "Bob 45 Rome"}) {
    std::string text(row), packed;
    size_t at = 0;
    for (int c = 0; c < 3; c++) {
      size_t end = text.find(' ', at);
      if (end == std::string::npos) end = text.size();
      result_pack_cell(packed, std::string_view(text).substr(at, end - at));
      at = end + 1;
    }
    result_add_row(*rs, packed);
  }
  result_finish(*rs);
  q->query->result = rs;
}

// No row runs more tags than this; a loop that never ends stops the page.
constexpr uint32_t kTagLimit = 1000;

// Runs `page` as the program runs a page file, and ends the run as it does.
Outcome run_page(const std::string& page) {
  ::Run run;
  set_number_mode(&run.numbers);
  EXPECT_TRUE(engine_init(run));
  run.tag_limit = kTagLimit;  // a row whose condition never turns false ends
  run.settings.doc_root = g_root;
  run.settings.page_dir = "/";
  run.settings.page_file = "row.cvm";
  add_query_variable(run);
  context_push(run);
  PageContext* ctx = current_context(run);
  ctx->directory = "/";
  ctx->file_name = "row.cvm";
  ctx->full_path = g_root + "/row.cvm";
  ctx->debug = DEBUG_ERRORS;  // reports and diagnostics, no statistics
  install_page(run, ctx, compile_page(page, 1));
  run_pages(run);
  Outcome out{run.body ? run.body->data : "", run.errors ? run.errors->data : "", run.stop};
  set_number_mode(nullptr);
  return out;
}

std::string replace_all(std::string text, std::string_view from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
  return text;
}

// A POP3 server with an empty mailbox that accepts every command.
void pop3_script(int fd, std::string& heard) {
  fake_peer::send_text(fd, "+OK ready\r\n");
  for (;;) {
    std::string line = fake_peer::read_until(fd, "\r\n");
    if (line.empty()) return;
    heard += line;
    fake_peer::send_text(fd, line.rfind("STAT", 0) == 0 ? "+OK 0 0\r\n" : "+OK done\r\n");
    if (line.rfind("QUIT", 0) == 0) return;
  }
}

void check_rows(const std::string& prelude, const Row* rows, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    const Row& row = rows[i];
    std::string page = prelude + row.page;
    fake_peer::Server peer;
    if (row.peer == Peer::kRaw) {
      peer.start([](int fd, std::string& heard) { heard = fake_peer::read_all(fd); });
    } else if (row.peer == Peer::kPop3) {
      peer.start(pop3_script);
    }
    if (row.peer != Peer::kNone) {
      ASSERT_GT(peer.port, 0);
      page = replace_all(page, "@PORT@", std::to_string(peer.port));
    }
    Outcome out = run_page(page);
    peer.finish();
    std::string where = std::string(row.tag) + " " + row.option + " (" + row.kind + "): " + row.page;
    if (row.refused) {
      EXPECT_TRUE(out.stopped) << where;
      EXPECT_NE(std::string::npos, out.errors.find(row.expected)) << where << "\nreport:\n" << out.errors;
    } else {
      EXPECT_FALSE(out.stopped) << where << "\nreport:\n" << out.errors;
      EXPECT_EQ(row.expected, out.body) << where;
    }
  }
}

// ---------------------------------------------------------------------------
// Which kinds count as numbers

// s holds a string; n and z hold the integers 4 and 0 that "getsize" gives;
// f, g and h hold the floating-point numbers 4, 0 and 65.
constexpr const char* kKindsPrelude =
    R"(<CVVAR var="s" value="abcd"><CVVAR var="n" value="s getsize"><CVVAR var="e" value="">)"
    R"(<CVVAR var="z" value="e getsize"><CVVAR var="f" value="4"><CVVAR var="g" value="0">)"
    R"(<CVVAR var="h" value="65">)";

const Row kKindRows[] = {
    {"(prelude)", "-", "integer", "[<n type>][<n>][<z type>][<z>][<f type>]", "[1][4][1][0][5]"},

    {"CVIF", "condition", "integer", R"(<CVIF condition="n">yes</CVIF>)",
     "CVIF requires the 'condition' option to be either a blank string or a number.", true},
    {"CVIF", "condition", "floating point", R"(<CVIF condition="f">yes</CVIF>)", "yes"},
    {"CVELSEIF", "condition", "integer", R"(<CVIF condition="0">a<CVELSEIF condition="n">b</CVIF>)",
     "CVELSEIF requires the 'condition' option to be either a blank string or a number.", true},
    {"CVELSEIF", "condition", "floating point", R"(<CVIF condition="0">a<CVELSEIF condition="f">b</CVIF>)", "b"},
    {"CVWHILE", "condition", "integer", R"(<CVWHILE condition="z">x</CVWHILE>)",
     "CVWHILE requires the 'condition' option to be either a blank string or a number.", true},
    {"CVWHILE", "condition", "floating point", R"(<CVWHILE condition="g">x</CVWHILE>end)", "end"},
    {"CVFOR", "condition", "integer", R"(<CVFOR var="i" initial="0" condition="n">x</CVFOR>)",
     "CVFOR requires the 'condition' option to be either a blank string or a number.", true},
    {"CVFOR", "condition", "floating point", R"(<CVFOR var="i" initial="0" condition="g">x</CVFOR>end)", "end"},
    {"CVFOR", "initial", "integer", R"(<CVFOR var="i" initial="n" condition="0"></CVFOR>)",
     "CVFOR requires the 'initial' option to be either a blank string or a number.", true},
    {"CVFOR", "initial", "floating point", R"(<CVFOR var="i" initial="f" condition="0"></CVFOR><i>)",
     "4.000000000000000"},
    {"CVFOR", "increment", "integer", R"(<CVFOR var="i" initial="0" condition="<i> < 9" increment="n">x</CVFOR>)",
     "CVFOR requires the 'increment' option to be either a blank string or a number.", true},
    {"CVFOR", "increment", "floating point",
     R"(<CVFOR var="i" initial="0" condition="<i> < 9" increment="f">[<i>]</CVFOR>)",
     "[0.000000000000000][4.000000000000000][8.000000000000000]"},
    // The loop variable itself is taken in its number form, which an integer has.
    {"CVFOR", "var", "integer", R"(<CVVAR var="i" value="z"><CVFOR var="i" condition="<i> < 2">[<i>]</CVFOR>)",
     "[0.000000000000000][1.000000000000000]"},

    {"Level 4", "element", "integer", R"(<CVVAR var="list"><list element="[n]">)",
     "<list element=\"[n]\"> contains an element value that is not a number.\n", true},
    {"Level 4", "element", "floating point", R"(<CVVAR var="list"><list element="[f]"><list getsizex>)", "5"},
    {"Level 4", "strstartpos", "integer", R"(<s strstartpos="z">)",
     "Corvane requires the 'strstartpos' option to be either a blank string or a number.\n", true},
    {"Level 4", "strstartpos", "floating point", R"(<CVVAR var="t" value="abcdefgh"><t strstartpos="f">)", "efgh"},
    {"Level 4", "strendpos", "integer", R"(<s strendpos="n">)",
     "Corvane requires the 'strendpos' option to be either a blank string or a number.\n", true},
    {"Level 4", "strendpos", "floating point", R"(<CVVAR var="t" value="abcdefgh"><t strendpos="f">)", "abcd"},
    {"Level 4", "columnnamefromnum", "integer", R"(<q columnnamefromnum="z">)",
     "Corvane requires the 'columnnamefromnum' option to be either a blank string or a number.\n", true},
    {"Level 4", "columnnamefromnum", "floating point", R"(<q columnnamefromnum="g">)", "age"},

    {"CV-LIST", "element", "integer", R"(<CV-LIST operation="insert" listvar="l" location="element" element="n">)",
     "CV-LIST requires the 'element' option to be either a blank string or a number.", true},
    {"CV-LIST", "element", "floating point",
     R"(<CV-LIST operation="insert" listvar="l" location="element" element="f"><l getsizex>)", "5"},

    {"CV-STR", "value (chr)", "integer", R"(<CV-STR function="chr" destvar="c" value="n">)",
     "CV-STR requires the 'value' option to be either a blank string or a number.", true},
    {"CV-STR", "value (chr)", "floating point", R"(<CV-STR function="chr" destvar="c" value="h"><c>)", "A"},
    {"CV-STR", "Nvalue (compare)", "integer", R"(<CV-STR function="compare" var1="s" var2="s" Nvalue="n">)",
     "CV-STR requires the 'Nvalue' option to be either a blank string or a number.", true},
    {"CV-STR", "Nvalue (compare)", "floating point",
     R"(<CVVAR var="s2" value="abxx"><CV-STR function="compare" var1="s" var2="s2" Nvalue="g">)",
     "0.000000000000000"},

    {"CV-MATH", "value", "integer", R"(<CV-MATH operation="sqrt" value="n">)",
     "CV-MATH requires the 'value' option to be either a blank string or a number.", true},
    {"CV-MATH", "value", "floating point", R"(<CV-MATH operation="sqrt" value="f">)", "2.000000000000000"},
    {"CV-MATH", "value (decimal mode)", "integer",
     R"(<CV-MATH operation="enable"><CV-MATH operation="factorial" value="n">)",
     "CV-MATH requires the 'value' option to be either a blank string or a number.", true},
    {"CV-MATH", "value (decimal mode)", "floating point, read as decimal",
     R"(<CV-MATH operation="enable"><CV-MATH operation="factorial" value="f">)", "24"},
    {"CV-MATH", "Xvalue (pow)", "integer", R"(<CV-MATH operation="pow" Xvalue="n" Yvalue="2">)",
     "CV-MATH requires the 'value' option to be either a blank string or a number.", true},
    {"CV-MATH", "Yvalue (pow)", "integer", R"(<CV-MATH operation="pow" Xvalue="2" Yvalue="n">)",
     "CV-MATH requires the 'value' option to be either a blank string or a number.", true},
    {"CV-MATH", "Yvalue (pow)", "floating point", R"(<CV-MATH operation="pow" Xvalue="2" Yvalue="f">)",
     "16.000000000000000"},
    {"CV-MATH", "Yvalue (ldexp)", "integer", R"(<CV-MATH operation="ldexp" Xvalue="1" Yvalue="n">)",
     "CV-MATH requires the 'value' option to be either a blank string or a number.", true},
    {"CV-MATH", "Yvalue (arctan2)", "integer", R"(<CV-MATH operation="arctan2" Yvalue="n" Xvalue="1">)",
     "CV-MATH requires the 'value' option to be either a blank string or a number.", true},
    {"CV-MATH", "Xvalue (arctan2)", "integer", R"(<CV-MATH operation="arctan2" Yvalue="1" Xvalue="n">)",
     "CV-MATH requires the 'value' option to be either a blank string or a number.", true},
    {"CV-MATH", "Nvalue (logn)", "integer", R"(<CV-MATH operation="logn" value="8" Nvalue="n">)",
     "CV-MATH requires the 'value' option to be either a blank string or a number.", true},
    {"CV-MATH", "Nvalue (logn)", "floating point", R"(<CV-MATH operation="logn" value="16" Nvalue="f">)",
     "2.000000000000000"},
    {"CV-MATH", "places (round)", "integer", R"(<CV-MATH operation="round" places="n" value="1.23456">)",
     "CV-MATH requires the 'value' option to be either a blank string or a number.", true},
    {"CV-MATH", "places (round)", "floating point", R"(<CV-MATH operation="round" places="f" value="1.23456">)",
     "1.234600000000000"},
    {"CV-MATH", "Nvalue (ncr)", "integer",
     R"(<CV-MATH operation="enable"><CV-MATH operation="ncr" Nvalue="n" Rvalue="2">)",
     "CV-MATH requires the 'value' option to be either a blank string or a number.", true},
    {"CV-MATH", "Rvalue (npr)", "integer",
     R"(<CV-MATH operation="enable"><CV-MATH operation="npr" Nvalue="5" Rvalue="n">)",
     "CV-MATH requires the 'value' option to be either a blank string or a number.", true},
    {"CV-MATH", "Rvalue (ncr)", "floating point, read as decimal",
     R"(<CV-MATH operation="enable"><CV-MATH operation="ncr" Nvalue="5" Rvalue="f">)", "5"},
    {"CV-MATH", "Radius (polar2rect)", "integer",
     R"(<CV-MATH operation="enable"><CV-MATH operation="polar2rect" var="p" Radius="n" Angle="0">)",
     "CV-MATH requires the 'value' option to be either a blank string or a number.", true},
    {"CV-MATH", "Angle (polar2rect)", "integer",
     R"(<CV-MATH operation="enable"><CV-MATH operation="polar2rect" var="p" Radius="1" Angle="z">)",
     "CV-MATH requires the 'value' option to be either a blank string or a number.", true},
    {"CV-MATH", "Xvalue (rect2polar)", "integer",
     R"(<CV-MATH operation="enable"><CV-MATH operation="rect2polar" var="p" Xvalue="n" Yvalue="0">)",
     "CV-MATH requires the 'value' option to be either a blank string or a number.", true},
    {"CV-MATH", "Yvalue (rect2polar)", "integer",
     R"(<CV-MATH operation="enable"><CV-MATH operation="rect2polar" var="p" Xvalue="1" Yvalue="z">)",
     "CV-MATH requires the 'value' option to be either a blank string or a number.", true},
    {"CV-MATH", "from (baseconvert)", "integer",
     R"(<CV-MATH operation="enable"><CV-MATH operation="baseconvert" from="n" value="11">)",
     "CV-MATH requires the 'value' option to be either a blank string or a number.", true},
    {"CV-MATH", "to (baseconvert)", "integer",
     R"(<CV-MATH operation="enable"><CV-MATH operation="baseconvert" to="n" value="11">)",
     "CV-MATH requires the 'value' option to be either a blank string or a number.", true},
    {"CV-MATH", "from (baseconvert)", "floating point, read as decimal",
     R"(<CV-MATH operation="enable"><CV-MATH operation="baseconvert" from="f" value="11">)", "5"},
    {"CV-MATH", "value (setprecision)", "integer",
     R"(<CV-MATH operation="enable"><CV-MATH operation="setprecision" value="n">)",
     "CV-MATH requires the 'value' option to be either a blank string or a number.", true},
    {"CV-MATH", "value (setprecision)", "floating point, read as decimal",
     R"(<CV-MATH operation="enable"><CV-MATH operation="setprecision" value="f"><CVVAR var="x" value="1/3"><x>)",
     "0.3333"},

    {"CV-TIME", "value", "integer", R"(<CV-TIME value="n" format="%Y">)",
     "CV-TIME requires the 'value' option to be either a blank string or a number.", true},
    {"CV-TIME", "value", "floating point",
     R"(<CVVAR var="day" value="25569"><CV-TIME value="day" format="%Y-%n-%d">)", "1970-01-01"},

    {"CV-API", "value (sleep)", "integer", R"(<CV-API function="sleep" value="z">)",
     "CV-API requires the 'value' option to be either a blank string, zero (0), or a positive number.", true},
    {"CV-API", "value (sleep)", "floating point", R"(<CV-API function="sleep" value="g">slept)", "slept"},

    {"CVFILE", "seek", "integer", R"(<CVFILE filename="data.txt" openfile filevar="fh"><CVFILE filevar="fh" seek="z">)",
     "CVFILE requires the 'seek' option to be either a blank string or a number.", true},
    {"CVFILE", "seek", "floating point",
     R"(<CVFILE filename="data.txt" openfile filevar="fh"><CVFILE filevar="fh" seek="f">)"
     R"(<CVFILE filevar="fh" read="all" var="r"><r>)",
     "456789"},
    {"CVFILE", "read", "integer",
     R"(<CVFILE filename="data.txt" openfile filevar="fh"><CVFILE filevar="fh" read="n" var="r">)",
     "CVFILE requires the 'read' option to be either a blank string or a number.", true},
    {"CVFILE", "read", "floating point",
     R"(<CVFILE filename="data.txt" openfile filevar="fh"><CVFILE filevar="fh" read="f" var="r"><r>)", "0123"},
    // The handle openfile stores is an integer; it is always taken back.
    {"CVFILE", "filevar", "integer (as stored)",
     R"(<CVFILE filename="data.txt" openfile filevar="fh">[<fh type>]<CVFILE filevar="fh" read="all" var="r">[<r>])",
     "[1][0123456789]"},
    {"CVFILE", "filevar", "floating point",
     R"(<CVFILE filename="data.txt" openfile filevar="fh"><CVVAR var="copy" value="<fh>">)"
     R"([<copy type>]<CVFILE filevar="copy" read="all" var="r">[<r>])",
     "[5][0123456789]"},
    {"CVFILE", "filevar", "decimal",
     R"(<CVFILE filename="data.txt" openfile filevar="fh"><CV-MATH operation="enable"><CVVAR var="copy" value="<fh>">)"
     R"([<copy type>]<CVFILE filevar="copy" read="all" var="r">[<r>])",
     "[2][0123456789]"},
    {"CVFILE", "filevar", "string",
     R"(<CVFILE filename="data.txt" openfile filevar="fh"><CVVAR var="copy" value="<fh>">)"
     R"(<CV-CONVERT var="copy" type="string"><CVFILE filevar="copy" read="all" var="r">)",
     "CVFILE requires the 'filevar' option to contain a valid indirect reference to an open file.", true},

    {"CV-ROWSEEK", "seek", "integer", R"(<CV-ROWSEEK var="q" seek="z">)",
     "CV-ROWSEEK requires the 'seek' option to be a number.", true},
    {"CV-ROWSEEK", "seek", "floating point", R"(<CV-ROWSEEK var="q" seek="g"><q column="City">)", "1Oslo"},
    {"CV-ROWSEEK", "increment", "integer", R"(<CV-ROWSEEK var="q" next><CV-ROWSEEK var="q" increment="z">)",
     "CV-ROWSEEK requires the 'increment' option to be a number.", true},
    {"CV-ROWSEEK", "increment", "floating point",
     R"(<CVVAR var="one" value="1"><CV-ROWSEEK var="q" next><CV-ROWSEEK var="q" increment="one">)", "11"},

    {"CVWEB", "port", "integer", R"(<CVWEB socketvar="sock" server="127.0.0.1" port="n">)",
     "CVWEB requires the 'port' option to be either a blank string, zero (0), or a positive number.", true},
    {"CVWEB", "port", "floating point",
     R"(<CVVAR var="p" value="@PORT@"><CVWEB socketvar="sock" server="127.0.0.1" port="p">[<sock>])", "[0]", false,
     Peer::kRaw},
    {"CVWEB", "setproxyport", "integer",
     R"(<CVWEB socketvar="sock" server="127.0.0.1" protocol="http" port="80" setproxy="127.0.0.1" setproxyport="n">)",
     "CVWEB requires the 'port' option to be either a blank string, zero (0), or a positive number.", true},
    {"CVWEB", "basedataport", "integer",
     R"(<CVWEB socketvar="sock" server="127.0.0.1" protocol="ftp" port="21" basedataport="n">)",
     "CVWEB requires the 'basedataport' option to be either a blank string, zero (0), or a positive number.", true},
    {"CVWEB", "timeout", "integer", R"(<CVWEB socketvar="sock" server="127.0.0.1" port="@PORT@">)"
                                    R"(<CVWEB socketvar="sock" raw="RecvCheck" var="r" timeout="z">)",
     "CVWEB requires the 'timeout' option to be either a blank string, zero (0), or a positive number.", true,
     Peer::kRaw},
    {"CVWEB", "timeout", "floating point", R"(<CVWEB socketvar="sock" server="127.0.0.1" port="@PORT@">)"
                                           R"(<CVWEB socketvar="sock" raw="RecvCheck" var="r" timeout="g">[<r>])",
     "[0]", false, Peer::kRaw},
    {"CVWEB", "messagenum", "integer",
     R"(<CVWEB socketvar="sock" server="127.0.0.1" protocol="pop3" port="@PORT@" username="u" password="p">)"
     R"(<CVWEB socketvar="sock" pop3="DeleteMessage" messagenum="z">)",
     "CVWEB requires the 'messagenum' option to be either a blank string, zero (0), or a positive number.", true,
     Peer::kPop3},
    // The socket number is stored as an integer; it is always taken back.
    {"CVWEB", "socketvar", "integer (as stored)",
     R"(<CVWEB socketvar="sock" server="127.0.0.1" port="@PORT@">[<sock type>])"
     R"(<CVWEB socketvar="sock" raw="SendCheck" var="r" timeout="1">[<r>])",
     "[1][1]", false, Peer::kRaw},
    {"CVWEB", "socketvar", "floating point",
     R"(<CVWEB socketvar="sock" server="127.0.0.1" port="@PORT@"><CVVAR var="copy" value="<sock>">[<copy type>])"
     R"(<CVWEB socketvar="copy" raw="SendCheck" var="r" timeout="1">[<r>])",
     "[5][1]", false, Peer::kRaw},
    {"CVWEB", "socketvar", "decimal",
     R"(<CVWEB socketvar="sock" server="127.0.0.1" port="@PORT@"><CV-MATH operation="enable">)"
     R"(<CVVAR var="copy" value="<sock>">[<copy type>])"
     R"(<CVWEB socketvar="copy" raw="SendCheck" var="r" timeout="1">[<r>])",
     "[2][1]", false, Peer::kRaw},
    {"CVWEB", "socketvar", "string",
     R"(<CVWEB socketvar="sock" server="127.0.0.1" port="@PORT@"><CVVAR var="copy" value="<sock>">)"
     R"(<CV-CONVERT var="copy" type="string"><CVWEB socketvar="copy" raw="SendCheck" var="r">)",
     "CVWEB requires the 'socketvar' option to contain a valid indirect reference to an open socket.", true,
     Peer::kRaw},
};

TEST_F(PageRows, EveryNumericOptionTakesOnlyDecimalAndFloatingPoint) {
  check_rows(kKindsPrelude, kKindRows, std::size(kKindRows));
}

// ---------------------------------------------------------------------------
// A decimal read while decimal mode is off keeps only its integer part

// half, d, serial and code hold the decimals 0.5, 2.75, 25569.75 and 65.75,
// made in decimal mode, which is then switched off.
constexpr const char* kDecimalPrelude =
    R"(<CV-MATH operation="enable"><CVVAR var="half" value="0.5"><CVVAR var="d" value="2.75">)"
    R"(<CVVAR var="serial" value="25569.75"><CVVAR var="code" value="65.75"><CV-MATH operation="disable">)";

const Row kDecimalRows[] = {
    // Printing a decimal is not reading it as a number.
    {"(prelude)", "-", "decimal", "[<d type>][<d>]", "[2][2.75]"},
    {"CVVAR", "value", "decimal", R"(<CVVAR var="x" value="d">[<x type>][<x>])", "[5][2.000000000000000]"},
    {"CVIF", "condition", "decimal", R"(<CVIF condition="half">T<CVELSE>F</CVIF>)", "F"},
    // The printed text of the value is arithmetic, read as written.
    {"CVIF", "condition", "decimal, printed into the text", R"(<CVIF condition="<half>">T<CVELSE>F</CVIF>)", "T"},
    {"CVELSEIF", "condition", "decimal", R"(<CVIF condition="0">a<CVELSEIF condition="half">b<CVELSE>c</CVIF>)", "c"},
    {"CVWHILE", "condition", "decimal", R"(<CVWHILE condition="half">loop</CVWHILE>end)", "end"},
    {"CVFOR", "condition", "decimal", R"(<CVFOR var="i" initial="0" condition="half">x</CVFOR>end)", "end"},
    {"CVFOR", "initial", "decimal", R"(<CVFOR var="i" initial="d" condition="0"></CVFOR><i>)", "2.000000000000000"},
    {"CVFOR", "increment", "decimal", R"(<CVFOR var="i" initial="0" condition="<i> < 5" increment="d">[<i>]</CVFOR>)",
     "[0.000000000000000][2.000000000000000][4.000000000000000]"},
    {"CVFOR", "var", "decimal", R"(<CVFOR var="d" condition="<d> < 4">[<d>]</CVFOR>)",
     "[2.000000000000000][3.000000000000000]"},
    // A decimal is already a number: "number" leaves it as it is.
    {"CV-CONVERT", "type=number", "decimal", R"(<CV-CONVERT var="d" type="number">[<d type>][<d>])", "[2][2.75]"},
    {"CV-CONVERT", "type=number", "list of a decimal",
     R"(<CV-LIST operation="insert" listvar="l" location="first" var="d"><CV-CONVERT var="l" type="number"><l>)",
     "2.000000000000000"},
    {"Level 4", "element", "decimal", R"(<CVVAR var="l"><l element="[d]"><l getsizex>)", "3"},
    {"Level 4", "strstartpos", "decimal", R"(<CVVAR var="t" value="abcdefgh"><t strstartpos="d">)", "cdefgh"},
    {"Level 4", "columnnamefromnum", "decimal", R"(<q columnnamefromnum="d">)", "Name"},
    {"CV-LIST", "element", "decimal",
     R"(<CV-LIST operation="insert" listvar="l" location="element" element="d"><l getsizex>)", "3"},
    {"CV-STR", "value (chr)", "decimal", R"(<CV-STR function="chr" destvar="c" value="code"><c>)", "A"},
    {"CV-STR", "Nvalue (compare)", "decimal",
     R"(<CVVAR var="a" value="abcd"><CVVAR var="b" value="abxx">)"
     R"(<CV-STR function="compare" var1="a" var2="b" Nvalue="d">)",
     "0.000000000000000"},
    {"CV-MATH", "value", "decimal", R"(<CV-MATH operation="sqrt" value="d">)", "1.414213562373095"},
    {"CV-MATH", "Xvalue (pow)", "decimal", R"(<CV-MATH operation="pow" Xvalue="d" Yvalue="2">)", "4.000000000000000"},
    {"CV-TIME", "value", "decimal", R"(<CV-TIME value="serial" format="%Y-%n-%d %h:%m">)", "1970-01-01 00:00"},
    // In decimal mode the decimal is read through its text, fraction and all.
    {"CV-TIME", "value (decimal mode)", "decimal",
     R"(<CV-MATH operation="enable"><CV-TIME value="serial" format="%Y-%n-%d %h:%m">)", "1970-01-01 18:00"},
    {"CV-API", "value (sleep)", "decimal", R"(<CV-API function="sleep" value="d">slept)", "slept"},
    {"CVFILE", "seek", "decimal",
     R"(<CVFILE filename="data.txt" openfile filevar="fh"><CVFILE filevar="fh" seek="d">)"
     R"(<CVFILE filevar="fh" read="all" var="r"><r>)",
     "23456789"},
    {"CVFILE", "read", "decimal",
     R"(<CVFILE filename="data.txt" openfile filevar="fh"><CVFILE filevar="fh" read="d" var="r"><r>)",
     "01"},
    {"CV-ROWSEEK", "seek", "decimal", R"(<CV-ROWSEEK var="q" seek="half"><q column="Name">)", "1Ann"},
};

TEST_F(PageRows, DecimalReadInFloatingPointModeKeepsOnlyItsIntegerPart) {
  check_rows(kDecimalPrelude, kDecimalRows, std::size(kDecimalRows));
}

// ---------------------------------------------------------------------------
// The readers themselves

TEST(OptionNumber, HandlesAreTakenBackInEveryNumericKind) {
  int64_t n = -1;
  EXPECT_TRUE(stored_handle(*value_from_integer(3), &n));
  EXPECT_EQ(3, n);
  EXPECT_TRUE(stored_handle(*value_from_number(2.9), &n));
  EXPECT_EQ(2, n);
  EXPECT_TRUE(stored_handle(*value_from_decimal(decimal_from_text("1.99")), &n));
  EXPECT_EQ(1, n);
  EXPECT_FALSE(stored_handle(*value_from_number(std::nan("")), &n));
  EXPECT_FALSE(stored_handle(*value_from_string("0"), &n));
  EXPECT_FALSE(stored_handle(*value_new(), &n));
  EXPECT_FALSE(is_option_number(*value_from_integer(1)));
  EXPECT_TRUE(is_option_number(*value_from_number(1)));
  EXPECT_TRUE(is_option_number(*value_from_decimal(decimal_from_int(1))));
}

}  // namespace
