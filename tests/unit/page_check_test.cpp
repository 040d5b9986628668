// Tests for the page checker behind `cvml --check`.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "program/page_check.h"

namespace {

// Findings as "line: message" lines.
std::string checked(std::string_view page, const std::string& doc_root = "", const std::string& dir = "/") {
  std::string out;
  for (const CheckFinding& f : check_page_text(page, doc_root, dir))
    out += std::to_string(f.line) + ": " + f.message + "\n";
  return out;
}

TEST(PageCheck, CleanPagesHaveNoFindings) {
  EXPECT_EQ("", checked("<html><body><p>Plain text, a < b, <br> and <table border=1></table></p>"));
  EXPECT_EQ("", checked("<CVIF condition=\"<x> > 1\">a<CVELSEIF condition=\"<x>\">b<CVELSE>c</CVIF>\n"
                        "<cvfor var=\"i\" initial=\"1\" condition=\"<i> <= 3\" increment=\"2\"><i></cvfor>\n"
                        "<CVWHILE condition=\"<CV-ROWSEEK var=q next>\"><q column=\"a\"></CVWHILE>\n"
                        "<CVVAR var=\"s\" value=\"some text\"><CV-STR function=\"UpperCase\" var=\"s\">\n"
                        "<CV-MATH operation=\"pi\"><CV-MATH operation=\"sqrt\" value=\"16\">\n"
                        "<CVFILE filevar=\"f\" read=\"all\" var=\"t\"><CV-TIME>\n"
                        "<CVDEBUG type=\" O n \"><CVHEADER type=\"cookie\" name=\"n\" value=\"v\" encode=\"URL\">\n"
                        "<CVDIRECT var=\"d\"><CVIF>as written, never run</CVDIRECT>"));
}

TEST(PageCheck, Blocks) {
  EXPECT_EQ("1: <CVIF> is never closed: no </CVIF> follows\n", checked("<CVIF condition=1>\nopen"));
  EXPECT_EQ("2: </CVFOR> closes nothing: no <CVFOR> is open\n", checked("text\n</CVFOR>"));
  EXPECT_EQ("1: <CVIF> is not closed before the </CVWHILE> of line 2\n"
            "3: </CVIF> closes nothing: no <CVIF> is open\n",
            checked("<CVWHILE condition=1><CVIF condition=1>\n</CVWHILE>\n</CVIF>"));
  EXPECT_EQ("2: <CVELSE> is outside any <CVIF> block\n", checked("x\n<CVELSE>"));
  EXPECT_EQ("1: <CVELSEIF> comes while <CVFOR> (line 1) is still open\n"
            "1: <CVFOR> is not closed before the </CVIF> of line 1\n",
            checked("<CVIF condition=1><CVFOR var=i condition=0><CVELSEIF condition=1></CVIF>"));
  EXPECT_EQ("3: <CVELSEIF> after the <CVELSE> of line 2 is never reached\n",
            checked("<CVIF condition=0>\n<CVELSE>\n<CVELSEIF condition=1>\n</CVIF>"));
  EXPECT_EQ("1: </CVVAR> is not needed: <CVVAR> has no closing tag\n", checked("</cvvar>"));
  // A CVDIRECT without processtags holds data: only nested CVDIRECT count.
  EXPECT_EQ("", checked("<CVDIRECT var=d><CVDIRECT var=e></CVFOR></CVDIRECT></CVDIRECT>"));
  EXPECT_EQ("1: <CVDIRECT> is never closed: no </CVDIRECT> follows\n", checked("<CVDIRECT var=d><CVDIRECT var=e>"));
  EXPECT_EQ("1: </CVFOR> closes nothing: no <CVFOR> is open\n",
            checked("<CVDIRECT var=d processtags></CVFOR></CVDIRECT>"));
}

TEST(PageCheck, NamesAndOptions) {
  EXPECT_EQ("1: unknown tag <CVVARS> (no tag of that name, and no variable can start with \"CV\")\n"
            "2: unknown tag </cvx> (no tag of that name, and no variable can start with \"CV\")\n",
            checked("<CVVARS var=x>\n</cvx>"));
  EXPECT_EQ("1: CVVAR has no option 'vaule'\n1: CVVAR requires the 'var' option\n", checked("<CVVAR vaule=3>"));
  EXPECT_EQ("1: CVFOR requires the 'var' option\n1: CVFOR requires the 'condition' option\n"
            "1: <CVFOR> is never closed: no </CVFOR> follows\n",
            checked("<CVFOR>"));
  // An inner tag used as a whole option may produce any option.
  EXPECT_EQ("", checked("<CVVAR <opts>>"));
  EXPECT_EQ("1: CVINCLUDE requires exactly one of the 'file' and 'var' options\n", checked("<CVINCLUDE>"));
  // A variable named like an HTML element the page writes as markup.
  EXPECT_EQ("1: CVVAR names the variable 'title', which turns the page's <title> tags into that variable\n",
            checked("<CVVAR var=\"title\" value=\"Home\"><CVVAR var=\"page_title\"><title>x</title>"));
  EXPECT_EQ("1: CVFOR names the variable 'b', which turns the page's <b> tags into that variable\n",
            checked("<CVFOR var=\"b element='[1]'\" condition=0><b>bold</b></CVFOR>"));
  // A loop counter "i" that the page never uses for italics is fine.
  EXPECT_EQ("", checked("<CVFOR var=\"i\" condition=0><i></CVFOR>"));
}

TEST(PageCheck, KeywordValues) {
  EXPECT_EQ("1: CVMLMODE option 'type' cannot be ' normal' (one of 'normal', 'binary', 'off')\n",
            checked("<CVMLMODE type=\" normal\">"));
  EXPECT_EQ("1: CV-STR option 'function' cannot be 'finds'\n", checked("<CV-STR function=finds var=x>"));
  EXPECT_EQ("1: CV-STR requires the 'findvar' option when 'function' is 'find'\n",
            checked("<CV-STR function=find var=x>"));
  EXPECT_EQ("1: CV-MATH requires the 'value' option when 'operation' is 'sqrt'\n"
            "2: CV-MATH requires the 'Yvalue' option when 'operation' is 'pow'\n",
            checked("<CV-MATH operation=sqrt>\n<CV-MATH operation=pow Xvalue=2>"));
  EXPECT_EQ("1: CVWEB requires the 'page' option when 'http' is 'GET'\n",
            checked("<CVWEB socketvar=s http=GET var=r>"));
  EXPECT_EQ("1: CVFILE requires the 'openfile' or the 'removefile' option with 'filename'\n"
            "2: CV-TIME requires the 'format' option with 'var' or 'value'\n",
            checked("<CVFILE filename=a.txt>\n<CV-TIME value=1>"));
  // A value made by a tag is known only when the page runs.
  EXPECT_EQ("", checked("<CV-STR function=\"<f>\" var=x><CVDEBUG type=\"<t>\">"));
}

TEST(PageCheck, Arithmetic) {
  EXPECT_EQ("1: CVIF option 'condition' has an operator without a number on each side: 1 <\n",
            checked("<CVIF condition=\"1 <\"></CVIF>"));
  EXPECT_EQ("1: CVVAR option 'value' has an opening parenthesis without its closing one: (2*3\n",
            checked("<CVVAR var=x value=\"(2*3\">"));
  EXPECT_EQ("1: CVVAR option 'value' divides by zero: 1/0\n", checked("<CVVAR var=x value=\"1/0\">"));
  EXPECT_EQ("1: CV-LIST option 'element' has a '?' without its ':': 1?2\n",
            checked("<CV-LIST operation=insert listvar=l location=element element=\"1?2\">"));
  EXPECT_EQ("1: CVWHILE option 'condition' is not arithmetic: a variable inside an expression is written as a "
            "tag, <count>: count > 3\n",
            checked("<CVWHILE condition=\"count > 3\"></CVWHILE>"));
  // A word is a variable or text; text with tags is known only at run time.
  EXPECT_EQ("", checked("<CVVAR var=x value=\"hello world\"><CVIF condition=\"flag\"></CVIF>"
                        "<CVIF condition=\"<a> +\"></CVIF><CVFILE filevar=f read=\" line \" var=v>"));
}

TEST(PageCheck, TagsInsideOptionValues) {
  EXPECT_EQ("3: CVVAR requires the 'var' option\n",
            checked("a\nb\n<CVVAR var=\"x\" value=\"<CVVAR value=1>\">"));
  EXPECT_EQ("1: unknown tag <CVNOPE> (no tag of that name, and no variable can start with \"CV\")\n",
            checked("<p title=\"<CVNOPE>\">"));
}

TEST(PageCheck, IncludeTargets) {
  char name[] = "/tmp/cvml-check-test.XXXXXX";
  ASSERT_NE(nullptr, ::mkdtemp(name));
  std::string root = name;
  ::mkdir((root + "/sub").c_str(), 0755);
  std::ofstream(root + "/sub/part.inc") << "x";
  std::ofstream(root + "/sub/index.cvm") << "x";
  std::ofstream(root + "/top.inc") << "x";
  EXPECT_EQ("", checked("<CVINCLUDE file=part.inc><CVINCLUDE file=\"../top.inc\"><CVINCLUDE file=\"/top.inc\">"
                        "<CVINCLUDE file=\"./\"><CVINCLUDE file=\"<name>.inc\"><CVINCLUDE var=v>",
                        root, "/sub/"));
  EXPECT_EQ("1: CVINCLUDE file 'nope.inc' does not exist (looked for " + root + "/sub/nope.inc)\n"
            "2: CVINCLUDE file '/part.inc' does not exist (looked for " + root + "/part.inc)\n"
            "3: CVINCLUDE option 'file' is a web address; CVINCLUDE reads files only: http://x/y.inc\n"
            "4: CVINCLUDE file '../' does not exist (looked for " + root + "/index.cvm)\n",
            checked("<CVINCLUDE file=nope.inc>\n<CVINCLUDE file=/part.inc>\n<CVINCLUDE file=\"http://x/y.inc\">\n"
                    "<CVINCLUDE file=\"../\">",
                    root, "/sub/"));
  ::unlink((root + "/sub/part.inc").c_str());
  ::unlink((root + "/sub/index.cvm").c_str());
  ::unlink((root + "/top.inc").c_str());
  ::rmdir((root + "/sub").c_str());
  ::rmdir(root.c_str());
}

}  // namespace
