// Tests for the request budget: the counting allocator, the sizes the
// CVML_MAX_* variables take, and the report log's lines.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "base/memory_budget.h"
#include "runtime/budget.h"
#include "runtime/report_log.h"
#include "values/decimal.h"

namespace {

TEST(MemoryBudget, CountsWhatIsHeldAndRefusesGrowthPastTheLimit) {
  MemoryBudget budget;
  budget.limit = 1 << 20;
  {
    MemoryBudgetScope in_force(&budget);
    auto block = std::make_unique<char[]>(100000);
    EXPECT_GE(budget.held, 100000);
    EXPECT_FALSE(budget.exceeded);
    // Many small blocks add up: the bound is on their sum.
    std::vector<std::unique_ptr<std::string>> strings;
    EXPECT_THROW(
        for (int i = 0; i < 100000; ++i) strings.push_back(std::make_unique<std::string>(100, 'x')), std::bad_alloc);
    EXPECT_TRUE(budget.exceeded);
    EXPECT_LE(budget.peak, budget.limit);
    strings.clear();
    strings.shrink_to_fit();
    block.reset();
    EXPECT_LT(budget.held, 1024);  // all given back
  }
  EXPECT_EQ(nullptr, memory_budget_in_force());
}

TEST(MemoryBudget, NothrowFormsAnswerNullAndReleaseScopesAreNeverRefused) {
  MemoryBudget budget;
  budget.limit = 4096;
  MemoryBudgetScope in_force(&budget);
  char* none = new (std::nothrow) char[1 << 20];
  EXPECT_EQ(nullptr, none);
  EXPECT_FALSE(budget.exceeded);  // the caller can do without
  {
    MemoryReleaseScope releasing;
    auto freeing_needs = std::make_unique<char[]>(1 << 20);
    EXPECT_GT(budget.held, budget.limit);
  }
  EXPECT_LT(budget.held, 4096);
}

TEST(MemoryBudget, GmpNumbersAreCountedAndTheirGrowthRefusedBeforeItStarts) {
  MemoryBudget budget;
  budget.limit = 1 << 20;
  MemoryBudgetScope in_force(&budget);
  // Squaring doubles the digits: 3^(2^k) outgrows a megabyte by k = 23.
  // The multiplication is refused before GMP starts it, so nothing of GMP's
  // is left half done (LeakSanitizer would see its work space).
  Decimal d = decimal_from_int(3);
  EXPECT_THROW(
      for (int i = 0; i < 40; ++i) d = decimal_mul(d, d), std::bad_alloc);
  EXPECT_TRUE(budget.exceeded);
  // GMP's own blocks are never refused, so its work space may pass the
  // limit a little while a product is made.
  EXPECT_LE(budget.peak, budget.limit + budget.limit / 2);
  EXPECT_GT(budget.held, budget.limit / 8);  // the number itself is counted
}

TEST(ParseSize, BytesWithOptionalUnit) {
  const std::pair<const char*, uint64_t> good[] = {
      {"0", 0}, {"1000", 1000}, {"64K", 65536}, {"2m", uint64_t{2} << 20}, {"1G", uint64_t{1} << 30},
  };
  for (const auto& [text, bytes] : good) {
    uint64_t n = 7;
    EXPECT_TRUE(parse_size(text, &n)) << text;
    EXPECT_EQ(bytes, n) << text;
  }
  for (const char* bad : {"", "-5", "12KB", "lots", " 5", "5 ", "99999999999999999999", "20000000000G"}) {
    uint64_t n = 7;
    EXPECT_FALSE(parse_size(bad, &n)) << bad;
    EXPECT_EQ(7u, n) << bad;
  }
  EXPECT_FALSE(parse_size(nullptr, nullptr));
}

TEST(LimitsFromEnvironment, DefaultsAndOverrides) {
  for (const char* name : {"CVML_MAX_MEMORY", "CVML_MAX_OUTPUT", "CVML_MAX_PAGE", "CVML_MAX_UPLOAD"})
    ::unsetenv(name);
  RunLimits limits = limits_from_environment();
  EXPECT_EQ(kDefaultMaxMemory, limits.memory_bytes);
  EXPECT_EQ(kDefaultMaxOutput, limits.output_bytes);
  EXPECT_EQ(kDefaultMaxPage, limits.page_bytes);
  EXPECT_EQ(uint64_t{32} << 20, limits.post_bytes);
  EXPECT_EQ(0u, limits.time_ms);
  ::setenv("CVML_MAX_MEMORY", "64M", 1);
  ::setenv("CVML_MAX_OUTPUT", "0", 1);      // no bound
  ::setenv("CVML_MAX_PAGE", "huge", 1);     // not a size: the default stays
  ::setenv("CVML_MAX_UPLOAD", "1K", 1);
  limits = limits_from_environment();
  EXPECT_EQ(uint64_t{64} << 20, limits.memory_bytes);
  EXPECT_EQ(0u, limits.output_bytes);
  EXPECT_EQ(kDefaultMaxPage, limits.page_bytes);
  EXPECT_EQ(1024u, limits.post_bytes);
  for (const char* name : {"CVML_MAX_MEMORY", "CVML_MAX_OUTPUT", "CVML_MAX_PAGE", "CVML_MAX_UPLOAD"})
    ::unsetenv(name);
}

TEST(ReportLog, OneLinePerReportLineWithTimeAndUri) {
  ::Run run;
  run.env = {"REQUEST_URI=/a.cvm?x=%0d\r\nforged"};
  run.errors = dyn_new();
  run.stats = dyn_new();
  dyn_puts(run.stats.get(), "Page Statistics:\n\n/srv/a.cvm - 3ms\n");
  dyn_puts(run.errors.get(), "\n\nError in \"/srv/a.cvm\":\r\nvalue \x1b[31mred\x7f\ttab\n");
  EXPECT_EQ(
      "T cvml: /a.cvm?x=%0d\\x0d\\x0aforged: Page Statistics:\n"
      "T cvml: /a.cvm?x=%0d\\x0d\\x0aforged: /srv/a.cvm - 3ms\n"
      "T cvml: /a.cvm?x=%0d\\x0d\\x0aforged: Error in \"/srv/a.cvm\":\n"
      "T cvml: /a.cvm?x=%0d\\x0d\\x0aforged: value \\x1b[31mred\\x7f\ttab\n",
      report_log_text(run, "T"));
}

TEST(ReportLog, UriFromScriptAndQueryWithoutRequestUri) {
  ::Run run;
  run.env = {"SCRIPT_NAME=/b.cvm", "QUERY_STRING=q=1"};
  run.errors = dyn_new();
  dyn_puts(run.errors.get(), "x\n");
  EXPECT_EQ("T cvml: /b.cvm?q=1: x\n", report_log_text(run, "T"));
}

TEST(ReportLog, ModeFromTheEnvironment) {
  ::setenv("CVML_REPORTS", "log", 1);
  EXPECT_EQ(REPORTS_LOG, report_mode_from_environment());
  ::setenv("CVML_REPORTS", "page", 1);
  EXPECT_EQ(REPORTS_PAGE, report_mode_from_environment());
  ::unsetenv("CVML_REPORTS");
  EXPECT_EQ(REPORTS_PAGE, report_mode_from_environment());
}

}  // namespace
