// CVQUERY, /CVQUERY and CV-ROWSEEK: the SQL body of a query block run through
// the ODBC layer into a query variable, and moves of its current row.
#include "db/cvquery.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "db/odbc.h"
#include "values/result_set.h"
#include "runtime/run.h"
#include "runtime/output.h"
#include "runtime/report.h"
#include "runtime/expression.h"
#include "runtime/level4.h"
#include "base/nocase.h"
#include "values/result_set.h"
#include "runtime/run.h"
#include "runtime/output.h"
#include "runtime/report.h"
#include "runtime/level4.h"
#include "base/nocase.h"
#include "runtime/option_number.h"

namespace {

constexpr std::string_view kNotClosed =
    "CVQUERY requires a matching closing tag (/CVQUERY) to be contained within the local source code.  "
    "See the Corvane documentation for details.";
constexpr std::string_view kNotOnStack =
    "CVQUERY is not the immediate open tag on the stack.  The most likely cause is either a </CVQUERY> "
    "tag with no matching opening tag OR another tag pair was opened after a valid <CVQUERY> but a "
    "closing tag was not encountered.  See the stack dump for details.";
constexpr std::string_view kNotObtained =
    "An error occurred in obtaining the CVQUERY variable.  See the diagnostic message above for details.";
constexpr std::string_view kRowseekNotObtained =
    "An error occurred in obtaining the CV-ROWSEEK variable.  See the diagnostic message above for details.";
constexpr std::string_view kRowseekNotQuery =
    "CV-ROWSEEK requires the 'var' option to name a query variable.  See the Corvane documentation for "
    "details.";

// The environment is made on the first query of a run, so pages without
// queries never load the driver manager.  A failed start-up keeps its text,
// which then explains every failed connection.
struct Database : RunState {
  bool init_tried = false;
  std::unique_ptr<SqlEnv> env;
  std::string init_error;
  // Newest first; searched by data source name.
  std::vector<std::unique_ptr<SqlConnection>> connections;
  // The run's connections are closed and the driver manager let go when
  // the run ends.
  ~Database() override {
    std::string ignored;  // the page has been sent; there is nowhere to show it
    for (auto& c : connections) sql_disconnect(ignored, c);
    connections.clear();
    if (env) sql_shutdown(ignored, env);
  }
};

Database& database(Run& run) { return run_state<Database>(run, STATE_DATABASE); }

// A time-out in seconds from the environment: whole seconds up to a day, 0
// for none; anything else leaves the default.
uint32_t timeout_setting(const char* name, uint32_t fallback) {
  const char* text = std::getenv(name);
  if (!text || !*text || std::strlen(text) > 5) return fallback;
  uint32_t n = 0;
  for (const char* p = text; *p; p++) {
    if (*p < '0' || *p > '9') return fallback;
    n = n * 10 + static_cast<uint32_t>(*p - '0');
  }
  return n <= 86400 ? n : fallback;
}

SqlConnection* cached_connection(Run& run, std::string_view datasource) {
  for (const auto& c : database(run).connections)
    if (equals_nocase(c->datasource, datasource)) return c.get();
  return nullptr;
}

// Runs one node of the current context into the capturing body buffer,
// starting the buffer afresh when the node restarted the output.
void capture_node(Run& run) {
  std::string out;
  if (!process_current_node(run, out)) {
    report_internal_error(run);
    run.stop = true;
    return;
  }
  const PageContext* ctx = current_context(run);
  if (!run.abandon && !run.body_discard && ctx && ctx->output_mode == OUTPUT_NORMAL) body_append(run, out);
  if (run.abandon || run.header_discard) run.header = dyn_new();
  if (run.abandon || run.body_discard) run.body = dyn_new();
  run.abandon = run.body_discard = run.header_discard = false;
}

// The processed body up to the matching </CVQUERY>, whose handler ends the
// walk by replacing this tag's stack entry.  False when the block is not
// closed in this context.
bool collect_body(Run& run, std::string* sql) { return run_block_captured(run, capture_node, sql); }

// Reports a failure of the ODBC layer: its text above the report.  The
// body has been walked by then, so the report is pointed back at the
// CVQUERY tag for its line and original form.
void report_layer_error(Run& run, uint32_t self, const ParsedTag& tag, const std::string& err,
                        std::string_view message) {
  PageContext* ctx = current_context(run);
  uint32_t after = ctx->current;
  ctx->current = self;
  report_diagnostic(run, err);
  report_error(run, tag, message);
  ctx->current = after;
}

// The statement stands in for the tag in reports about running it.
ParsedTag sql_node(const std::string& sql) {
  ParsedTag node;
  node.text = sql;
  return node;
}

void write_sql_statistics(Run& run, const SqlQuery& q) {
  const PageContext* ctx = current_context(run);
  if (!ctx || ctx->debug != DEBUG_ON) return;
  if (!run.sql_stats) run.sql_stats = dyn_new();
  DynString* out = run.sql_stats.get();
  if (out->data.empty()) dyn_puts(out, "\n\nSQL Statistics:\n\n");
  uint32_t rows = q.result ? result_row_count(*q.result) : 0;
  uint32_t columns = q.result ? result_column_count(*q.result) : 0;
  dyn_printf(out, "Time = %lums\n", static_cast<unsigned long>(q.end_ms - q.start_ms));
  dyn_printf(out, "%u row%s", rows, rows == 1 ? "" : "s");
  dyn_printf(out, ", %u column%s returned.\n", columns, columns == 1 ? "" : "s");
  dyn_puts(out, "  ");
  dyn_puts(out, q.text);
  dyn_puts(out, "\n\n");
}

}  // namespace

// <CVQUERY var=reference datasource=name [username=...] [password=...]>
//   SQL text </CVQUERY>
ValuePtr cvquery_handler(Run& run, const ParsedTag& tag) {
  const std::string* var = tag_option(tag, "var");
  if (!var) {
    report_error(run, tag, option_required_message("CVQUERY", "var"));
    return value_new();
  }
  const std::string* datasource = tag_option(tag, "datasource");
  if (!datasource) {
    report_error(run, tag, option_required_message("CVQUERY", "datasource"));
    return value_new();
  }
  const std::string* username = tag_option(tag, "username");
  const std::string* password = tag_option(tag, "password");
  if (!level4_resolve(run, *var)) {
    report_error(run, tag, kNotObtained);
    return value_new();
  }
  if (!current_context(run) || current_context(run)->current == kNoNode) {
    report_error(run, tag, kNotClosed);
    return value_new();
  }
  uint32_t self = current_context(run)->current;
  std::string sql;
  if (!collect_body(run, &sql)) {
    report_error(run, tag, kNotClosed);
    return value_new();
  }
  if (run.stop) return value_new();

  std::string err;
  SqlConnection* conn = cached_connection(run, *datasource);
  if (!conn) {
    if (!database(run).init_tried) {
      database(run).init_tried = true;
      database(run).env = sql_init(database(run).init_error);
      if (database(run).env) {
        database(run).env->login_timeout = timeout_setting("CVML_DB_LOGIN_TIMEOUT", kDefaultLoginTimeout);
        database(run).env->query_timeout = timeout_setting("CVML_DB_QUERY_TIMEOUT", kDefaultQueryTimeout);
      }
    }
    // A password means nothing without a user name.
    std::string_view user = username ? std::string_view(*username) : std::string_view();
    std::string_view pass = username && password ? std::string_view(*password) : std::string_view();
    std::unique_ptr<SqlConnection> made = sql_connect(database(run).env.get(), err, *datasource, user, pass);
    if (!database(run).env) err += database(run).init_error;
    if (!made || !err.empty()) {
      report_layer_error(run, self, tag, err, "Error connecting to the datasource.  See the message above for details.");
      return value_new();
    }
    conn = made.get();
    database(run).connections.insert(database(run).connections.begin(), std::move(made));
  }

  std::unique_ptr<SqlQuery> query = sql_query_new(err, conn);
  if (!query || !err.empty()) {
    report_layer_error(run, self, tag, err, "Error allocating space for the SQL statement.  See the message above for details.");
    return value_new();
  }
  if (!sql_query_set_text(err, query.get(), sql) || !err.empty()) {
    report_layer_error(run, self, sql_node(sql), err, "Error copying the SQL statement.  See the message above for details.");
    return value_new();
  }
  if (!sql_query_execute(err, query.get()) || !err.empty()) {
    report_layer_error(run, self, sql_node(sql), err, "Error executing the SQL statement.  See the message above for details.");
    sql_query_free(err, std::move(query));
    return value_new();
  }
  write_sql_statistics(run, *query);

  ValuePtr result = value_new();
  value_set_type(*result, VT_QUERY);
  result->query = std::make_unique<QueryPayload>();
  result->query->result = query->result;
  result->query->current_row = kNoRow;
  result->query->built_row = 0;
  result->query->row = value_new();
  // The statement is done with: every row is in the result set.
  std::string ignored;
  sql_query_free(ignored, std::move(query));

  // An included page in the body may have replaced the name table, so the
  // variable is looked up afresh.
  Value* v = level4_resolve(run, *var);
  if (!v) {
    report_error(run, tag, kNotObtained);
    return value_new();
  }
  value_assign(v, result.get());
  return value_new();
}

// </CVQUERY>: ends the collection of the innermost CVQUERY body.
ValuePtr cvquery_close_handler(Run& run, const ParsedTag& tag) {
  PageContext* ctx = current_context(run);
  if (!ctx || ctx->tag_stack.empty() || !node_is(*ctx, ctx->tag_stack.back(), TAG_CVQUERY)) {
    report_error(run, tag, kNotOnStack);
    return value_new();
  }
  ctx->tag_stack.back() = ctx->current;
  return value_new();
}

// <CV-ROWSEEK var=reference next | prev | previous | increment=n | seek=n>
// Yields 1 when the new current row is a row of the result, else 0 and the
// pointer goes back to "no row".
ValuePtr cvrowseek_handler(Run& run, const ParsedTag& tag) {
  const std::string* var = tag_option(tag, "var");
  if (!var) {
    report_error(run, tag, option_required_message("CV-ROWSEEK", "var"));
    return value_new();
  }
  Value* v = level4_resolve(run, *var);
  if (!v) {
    report_error(run, tag, kRowseekNotObtained);
    return value_new();
  }
  if (v->type != VT_QUERY || !v->query || !v->query->result) {
    report_error(run, tag, kRowseekNotQuery);
    return value_new();
  }
  QueryPayload& q = *v->query;
  const ResultSet& rs = *q.result;
  bool has_columns = !rs.columns.empty();
  uint32_t rows = result_row_count(rs);

  auto number_of = [&](const char* option, const std::string& text, int64_t* n) {
    if (evaluate_whole_option(run, text, n)) return true;
    report_error(run, tag, "CV-ROWSEEK requires the '" + std::string(option) +
                          "' option to be a number.  See the Corvane documentation for details.");
    return false;
  };
  // Positions wrap as unsigned 32-bit numbers: any negative one is past
  // the end.
  if (tag_option(tag, "next")) {
    q.current_row += 1;
  } else if (tag_option(tag, "prev") || tag_option(tag, "previous")) {
    if (has_columns && q.current_row == kNoRow) q.current_row = rows;
    q.current_row -= 1;
  } else if (const std::string* text = tag_option(tag, "increment")) {
    int64_t n;
    if (!number_of("increment", *text, &n)) return value_new();
    q.current_row += static_cast<uint32_t>(n);
  } else if (const std::string* text = tag_option(tag, "seek")) {
    int64_t n;
    if (!number_of("seek", *text, &n)) return value_new();
    q.current_row = static_cast<uint32_t>(n);
  }
  if (has_columns && q.current_row < rows) return value_from_integer(1);
  q.current_row = kNoRow;
  return value_from_integer(0);
}

