// CV-API: the function table and the four system functions.
//
// The attribute flags map to POSIX as follows.  read-only: no write bit for
// anyone; clearing it gives the owner read and write.  hidden: others may
// not read the entry (no o+r).  directory: the entry is a directory.  system
// and archive have no POSIX meaning: they always show "-" and setting them
// changes nothing.
#include "functions/cvapi.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>

#include "runtime/run.h"
#include "runtime/report.h"
#include "functions/cvfile.h"
#include "values/decimal.h"
#include "runtime/expression.h"
#include "runtime/level4.h"
#include "base/nocase.h"
#include "runtime/level4.h"
#include "base/nocase.h"
#include "runtime/option_number.h"

namespace {

enum Function : int { F_CHMOD = 0, F_DIRINFO = 1, F_SLEEP = 2, F_UPTIME = 3 };

struct FunctionRow {
  std::string_view name;
  int code;
};

// Sorted by name; searched by halving.
constexpr FunctionRow kFunctions[] = {{"chmod", F_CHMOD}, {"dirinfo", F_DIRINFO}, {"sleep", F_SLEEP}, {"uptime", F_UPTIME}};

constexpr std::string_view kNotValid =
    "The specified CV-API function is not valid or not supported.  See the Corvane documentation for details.";
constexpr std::string_view kBadAttrib =
    "CV-API requires a valid 'attrib' option to be used with the 'chmod' function.  See the Corvane documentation "
    "for details.";
constexpr std::string_view kWebProtocol =
    "CV-API does not recognize web protocols or absolute paths based at the root of the drive.";
constexpr std::string_view kNotFound =
    "CV-API was unable to locate the directory/file.  An internal error occurred in Corvane.";
constexpr std::string_view kNotObtained =
    "An error occurred in obtaining the CV-API variable.  See the diagnostic message above for details.";
constexpr std::string_view kBadSleep =
    "CV-API requires the 'value' option to be either a blank string, zero (0), or a positive number.";

// A page may pause at most this long: a request has to end while the web
// server still waits for it.
constexpr int64_t kMaxSleepMs = 60000;

constexpr const char* kDayNames[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};

std::string with_function_message(std::string_view option, std::string_view function) {
  return "CV-API requires the '" + std::string(option) + "' option to be used with the '" + std::string(function) +
         "' function.  See the Corvane documentation for details.";
}

int compare_folded(std::string_view a, std::string_view b) {
  size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; i++) {
    int x = fold_upper(static_cast<unsigned char>(a[i])), y = fold_upper(static_cast<unsigned char>(b[i]));
    if (x != y) return x - y;
  }
  return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

// ---------------------------------------------------------------------------
// chmod

mode_t apply_attributes(mode_t mode, std::string_view attrib) {
  char hidden = attrib[0], read_write = attrib[2], fourth = attrib[3];
  if (hidden == 'h' || hidden == 'H') mode &= ~S_IROTH;
  else if (hidden == '-') mode |= S_IROTH;
  if (read_write == 'r' || read_write == 'R') mode |= S_IRUSR | S_IWUSR;
  else if (read_write == '-') mode &= ~(S_IWUSR | S_IWGRP | S_IWOTH);
  // The fourth letter sets the hidden flag; its "-" clears the archive
  // flag, which has nothing to clear here.
  if (fourth == 'a' || fourth == 'A') mode &= ~S_IROTH;
  return mode;
}

ValuePtr run_chmod(Run& run, const ParsedTag& tag) {
  const std::string* file = tag_option(tag, "file");
  if (!file) return report_failure(run, tag, with_function_message("file", "chmod"));
  const std::string* attrib = tag_option(tag, "attrib");
  if (!attrib || attrib->size() != 4) return report_failure(run, tag, kBadAttrib);
  std::string path;
  if (!web_space_path(run, *file, "", &path)) return report_failure(run, tag, kWebProtocol);
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) return report_failure(run, tag, kNotFound);
  mode_t mode = info.st_mode & 07777;
  mode_t changed = apply_attributes(mode, *attrib);
  if (changed != mode) ::chmod(path.c_str(), changed);
  return value_new();
}

// ---------------------------------------------------------------------------
// dirinfo

std::string time_text(const struct timespec& when) {
  std::tm t{};
  std::time_t seconds = when.tv_sec;
  if (!gmtime_r(&seconds, &t)) return std::string();
  char buf[64];
  std::snprintf(buf, sizeof buf, "%s %04i-%02i-%02i %02i:%02i:%02i GMT", kDayNames[t.tm_wday % 7], t.tm_year + 1900,
                t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
  return buf;
}

std::string attribute_text(const struct stat& info) {
  std::string text = "-----";
  if (S_ISDIR(info.st_mode)) text[0] = 'd';
  if (!(info.st_mode & S_IROTH)) text[1] = 'h';
  if (info.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) text[3] = 'r';
  return text;
}

// Name, size in bytes, attributes, then the status-change, access and
// modification times (POSIX keeps no creation time).
ValueRow entry_row(std::string name, const struct stat& info) {
  ValueRow row;
  row.push_back(value_from_string(std::move(name)));
  row.push_back(value_from_string(std::to_string(static_cast<long long>(info.st_size))));
  row.push_back(value_from_string(attribute_text(info)));
  row.push_back(value_from_string(time_text(info.st_ctim)));
  row.push_back(value_from_string(time_text(info.st_atim)));
  row.push_back(value_from_string(time_text(info.st_mtim)));
  return row;
}

struct DirCloser {
  void operator()(DIR* d) const { ::closedir(d); }
};

ValuePtr run_dirinfo(Run& run, const ParsedTag& tag) {
  const std::string* dir = tag_option(tag, "dir");
  if (!dir) return report_failure(run, tag, with_function_message("dir", "dirinfo"));
  const std::string* var_name = tag_option(tag, "var");
  if (!var_name) return report_failure(run, tag, with_function_message("var", "dirinfo"));
  if (!level4_resolve(run, *var_name)) return report_failure(run, tag, kNotObtained);
  std::string path;
  if (!web_space_path(run, *dir, "", &path)) return report_failure(run, tag, kWebProtocol);
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) return report_failure(run, tag, kNotFound);

  std::string own = path;
  while (own.size() > 1 && own.back() == '/') own.pop_back();
  ValuePtr table = value_new();
  value_set_type(*table, VT_ARRAY);
  table->columns = 6;
  table->rows.push_back(entry_row(own.substr(own.rfind('/') + 1), info));

  if (S_ISDIR(info.st_mode)) {
    std::unique_ptr<DIR, DirCloser> d(::opendir(path.c_str()));
    std::vector<std::string> names;
    if (d) {
      while (const dirent* e = ::readdir(d.get())) {
        std::string_view name = e->d_name;
        if (name != "." && name != "..") names.emplace_back(name);
      }
    }
    // Listed by name, as a sorted directory index would give them.
    std::sort(names.begin(), names.end());
    std::string prefix = own == "/" ? own : own + "/";
    for (std::string& name : names) {
      struct stat entry;
      if (::lstat((prefix + name).c_str(), &entry) == 0) table->rows.push_back(entry_row(std::move(name), entry));
    }
  }
  // Resolved again: nothing above may have moved it, but the table is the
  // one place that owns variables.
  Value* var = level4_resolve(run, *var_name);
  if (!var) return report_failure(run, tag, kNotObtained);
  value_assign(var, table.get());
  return value_new();
}

// ---------------------------------------------------------------------------
// sleep and uptime

ValuePtr run_sleep(Run& run, const ParsedTag& tag) {
  const std::string* value = tag_option(tag, "value");
  if (!value) return report_failure(run, tag, with_function_message("value", "sleep"));
  ValuePtr v = evaluate_number_option(run, *value);
  if (run.stop) return value_new();
  double ms = -1;
  if (v && v->type == VT_DECIMAL && !decimal_is_negative(v->decimal))
    ms = decimal_to_double(v->decimal);
  else if (v && v->type == VT_NUMBER && v->number >= -0.000001)
    ms = v->number;
  if (ms < -0.000001 || ms != ms) return report_failure(run, tag, kBadSleep);
  int64_t whole = ms > kMaxSleepMs ? kMaxSleepMs : static_cast<int64_t>(ms);
  if (whole <= 0) return value_new();
  struct timespec wait = {static_cast<time_t>(whole / 1000), static_cast<long>(whole % 1000) * 1000000L};
  while (::nanosleep(&wait, &wait) != 0 && errno == EINTR) {
  }
  return value_new();
}

// Milliseconds since the system started, wrapping every 2^31 ms (about 24.8
// days) so that the count stays a non-negative integer.
ValuePtr run_uptime() {
  struct timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  uint64_t ms = static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
  return value_from_integer(static_cast<int32_t>(ms & 0x7FFFFFFF));
}

}  // namespace

int cvapi_function_code(std::string_view name) {
  size_t low = 0, high = std::size(kFunctions);
  while (low < high) {
    size_t mid = (low + high) / 2;
    int c = compare_folded(name, kFunctions[mid].name);
    if (c == 0) return kFunctions[mid].code;
    if (c < 0) high = mid;
    else low = mid + 1;
  }
  return -1;
}

ValuePtr cvapi_handler(Run& run, const ParsedTag& tag) {
  const std::string* function = tag_option(tag, "function");
  if (!function) return report_failure(run, tag, option_required_message("CV-API", "function"));
  std::string name;
  for (char c : *function)
    if (c != ' ' && c != '\t' && c != '\r' && c != '\n') name += c;
  switch (cvapi_function_code(name)) {
    case F_CHMOD: return run_chmod(run, tag);
    case F_DIRINFO: return run_dirinfo(run, tag);
    case F_SLEEP: return run_sleep(run, tag);
    case F_UPTIME: return run_uptime();
    default: return report_failure(run, tag, kNotValid);
  }
}
