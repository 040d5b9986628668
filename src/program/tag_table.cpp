// The built-in rows of the name table.
#include "db/cvquery.h"
#include "runtime/execute.h"
#include "runtime/run.h"
#include "runtime/output.h"
#include "runtime/report.h"
#include "functions/cvapi.h"
#include "functions/cvfile.h"
#include "functions/cvmath.h"
#include "functions/cvstr.h"
#include "functions/cvtime.h"
#include "net/cvweb.h"
#include "tags/composition.h"
#include "tags/conditionals.h"
#include "tags/loops.h"
#include "tags/variable_tags.h"
#include "tags/convert_list.h"

namespace {

struct BuiltinRow {
  const char* name;
  uint8_t tag_class;
  TagHandlerFn handler;
};

// One row per built-in tag whose handler exists.  The closing tags with no
// block to close share the warning handler.
const BuiltinRow kBuiltinRows[] = {
    {"/CVBINARY", CLASS_STATEMENT, unneeded_tag_handler},
    {"/CVDEBUG", CLASS_STATEMENT, unneeded_tag_handler},
    {"/CVDIRECT", CLASS_STATEMENT, cvdirect_close_handler},
    {"/CVELSE", CLASS_STATEMENT, unneeded_tag_handler},
    {"/CVELSEIF", CLASS_STATEMENT, unneeded_tag_handler},
    {"/CVEXIT", CLASS_STATEMENT, unneeded_tag_handler},
    {"/CVFILE", CLASS_STATEMENT, unneeded_tag_handler},
    {"/CVFLUSH", CLASS_STATEMENT, unneeded_tag_handler},
    {"/CVFOR", CLASS_STATEMENT, cvfor_close_handler},
    {"/CVHEADER", CLASS_STATEMENT, unneeded_tag_handler},
    {"/CVIF", CLASS_STATEMENT, cvif_close_handler},
    {"/CVINCLUDE", CLASS_STATEMENT, unneeded_tag_handler},
    {"/CVLOCATION", CLASS_STATEMENT, unneeded_tag_handler},
    {"/CVMLMODE", CLASS_STATEMENT, unneeded_tag_handler},
    {"/CVQUERY", CLASS_STATEMENT, cvquery_close_handler},
    {"/CVRESTART", CLASS_STATEMENT, unneeded_tag_handler},
    {"/CVUNVAR", CLASS_STATEMENT, unneeded_tag_handler},
    {"/CVVAR", CLASS_STATEMENT, unneeded_tag_handler},
    {"/CVWEB", CLASS_STATEMENT, unneeded_tag_handler},
    {"/CVWHILE", CLASS_STATEMENT, cvwhile_close_handler},
    {"CV-API", CLASS_FUNCTION, cvapi_handler},
    {"CV-CONVERT", CLASS_FUNCTION, cvconvert_handler},
    {"CV-LIST", CLASS_FUNCTION, cvlist_handler},
    {"CV-MATH", CLASS_FUNCTION, cvmath_handler},
    {"CV-ROWSEEK", CLASS_FUNCTION, cvrowseek_handler},
    {"CV-STR", CLASS_FUNCTION, cvstr_handler},
    {"CV-TIME", CLASS_FUNCTION, cvtime_handler},
    {"CVBINARY", CLASS_STATEMENT, cvbinary_handler},
    {"CVDEBUG", CLASS_STATEMENT, cvdebug_handler},
    {"CVDIRECT", CLASS_STATEMENT, cvdirect_handler},
    {"CVELSE", CLASS_STATEMENT, cvelse_handler},
    {"CVELSEIF", CLASS_STATEMENT, cvelseif_handler},
    {"CVEXIT", CLASS_STATEMENT, cvexit_handler},
    {"CVFILE", CLASS_STATEMENT, cvfile_handler},
    {"CVFLUSH", CLASS_STATEMENT, cvflush_handler},
    {"CVFOR", CLASS_STATEMENT, cvfor_handler},
    {"CVHEADER", CLASS_STATEMENT, cvheader_handler},
    {"CVIF", CLASS_STATEMENT, cvif_handler},
    {"CVINCLUDE", CLASS_STATEMENT, cvinclude_handler},
    {"CVLOCATION", CLASS_STATEMENT, cvlocation_handler},
    {"CVMLMODE", CLASS_STATEMENT, cvmlmode_handler},
    {"CVQUERY", CLASS_STATEMENT, cvquery_handler},
    {"CVRESTART", CLASS_STATEMENT, cvrestart_handler},
    {"CVUNVAR", CLASS_STATEMENT, cvunvar_handler},
    {"CVVAR", CLASS_STATEMENT, cvvar_handler},
    {"CVWEB", CLASS_STATEMENT, cvweb_handler},
    {"CVWHILE", CLASS_STATEMENT, cvwhile_handler},
};

struct FastRow {
  uint8_t tag;
  FastHandlerFn fast;
};

// Built-in tags with a fast handler beside their handler.
const FastRow kFastRows[] = {
    {TAG_CVIF, cvif_fast},         {TAG_CVELSEIF, cvelseif_fast},       {TAG_CVELSE, cvelse_fast},
    {TAG_CLOSE_CVIF, cvif_close_fast}, {TAG_CVFOR, cvfor_fast},         {TAG_CLOSE_CVFOR, cvfor_close_fast},
    {TAG_CVWHILE, cvwhile_fast},   {TAG_CLOSE_CVWHILE, cvwhile_close_fast}, {TAG_CVVAR, cvvar_fast},
};

// The 47 rows are the same for every run: they are made once per process
// (with the built-in and fast handlers the engine dispatches by id) and
// each run's table starts as a copy of them.
const VarTable& builtin_table() {
  static const VarTablePtr table = [] {
    VarTablePtr t = vartable_new(default_tag_start_class());
    t->entries.reserve(std::size(kBuiltinRows));
    for (const BuiltinRow& row : kBuiltinRows) {
      TagHandler entry;
      entry.kind = KIND_BUILTIN;
      entry.tag_class = row.tag_class;
      entry.handler = row.handler;
      set_builtin_entry(tag_id_of(row.name), entry);
      vartable_set(*t, row.name, std::move(entry));
    }
    for (const FastRow& row : kFastRows) set_fast_handler(row.tag, row.fast);
    return t;
  }();
  return *table;
}

}  // namespace

bool tag_table_init(Run& run) {
  run.names = vartable_copy(builtin_table());
  if (!run.names) return false;
  run.names->entries.reserve(std::size(kBuiltinRows) + 16);
  return true;
}
