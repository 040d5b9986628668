// CVFILE: the run's open-file table and the tag's open, remove and
// handle operations.
#include "functions/cvfile.h"

#include <cstdio>
#include <limits>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "runtime/run.h"
#include "runtime/output.h"
#include "runtime/report.h"
#include "values/decimal.h"
#include "runtime/expression.h"
#include "runtime/level4.h"
#include "base/nocase.h"
#include "runtime/run.h"
#include "runtime/output.h"
#include "runtime/report.h"
#include "runtime/level4.h"
#include "base/nocase.h"
#include "runtime/option_number.h"

namespace {

constexpr std::string_view kWebProtocol =
    "CVFILE does not recognize web protocols or absolute paths based at the root of the drive.";
constexpr std::string_view kNotObtained =
    "An error occurred in obtaining the CVFILE variable.  See the diagnostic message above for details.";
constexpr std::string_view kOpenFailed =
    "Error opening the file for reading/writing.  An internal error occurred in Corvane.\n";
constexpr std::string_view kNoAction =
    "CVFILE requires either the 'openfile' or 'removefile' option to be used with the 'filename' option.  "
    "See the Corvane documentaton for details.";
constexpr std::string_view kBadHandle =
    "CVFILE requires the 'filevar' option to contain a valid indirect reference to an open file.";
constexpr std::string_view kSeekNotNumber = "CVFILE requires the 'seek' option to be either a blank string or a number.";
constexpr std::string_view kBadPosition =
    "CVFILE requires the 'position' option to be 'start', 'current', or 'end'.  See the Corvane documenation for "
    "details.";
constexpr std::string_view kReadNeedsVar =
    "CVFILE requires the 'var' option to be used with the 'read' option.  See the Corvane documentation for details.";
constexpr std::string_view kReadNotNumber = "CVFILE requires the 'read' option to be either a blank string or a number.";
constexpr std::string_view kReadNegative =
    "CVFILE requires the 'read' option to be a positive integer or zero (0).  See the Corvane documentation for "
    "details.";
constexpr std::string_view kInternal = "An internal error occurred in Corvane.";

// Lines are read in pieces of this many bytes at most.
constexpr size_t kLinePiece = 49;

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// A slot is empty when its stream is null.  Slots are never reused, so a
// handle names one file for the whole run.
struct OpenFile {
  std::string path;
  FilePtr stream;
};

// The run's open files; those still open are closed when the run ends.
struct FileTable : RunState {
  std::vector<OpenFile> files;
};

std::vector<OpenFile>& open_files(Run& run) { return run_state<FileTable>(run, STATE_FILES).files; }


// The variable a required option names, or null after reporting.
Value* obtain(Run& run, const ParsedTag& tag, std::string_view option, std::string_view missing_message = {}) {
  const std::string* reference = tag_option(tag, option);
  if (!reference) {
    report_error(run, tag, missing_message.empty() ? option_required_message("CVFILE", option) : missing_message);
    return nullptr;
  }
  Value* v = level4_resolve(run, *reference);
  if (!v) report_error(run, tag, kNotObtained);
  return v;
}

// Positions and sizes are integers while they fit one.
ValuePtr offset_value(int64_t n) {
  if (n >= std::numeric_limits<int32_t>::min() && n <= std::numeric_limits<int32_t>::max())
    return value_from_integer(static_cast<int32_t>(n));
  return value_from_number(static_cast<double>(n));
}

void store(Value* dest, ValuePtr v) { value_assign(dest, v.get()); }

int64_t file_size(std::FILE* f) {
  off_t here = ftello(f);
  fseeko(f, 0, SEEK_END);
  off_t size = ftello(f);
  fseeko(f, here, SEEK_SET);
  return size < 0 ? 0 : size;
}

// Opens `path` for reading and writing, creating it when it does not exist
// (never truncating one that does); null unless it is a regular file.  A
// device, FIFO or socket, named directly or through a link, is refused
// before anything is read from it: /dev/zero would be read for ever, and
// opening a FIFO would wait for a writer.
FilePtr open_regular_file(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0 && errno != ENXIO) fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NONBLOCK | O_CLOEXEC, 0666);
  if (fd < 0) return nullptr;
  struct stat info;
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || ::fcntl(fd, F_SETFL, 0) != 0) {
    ::close(fd);
    return nullptr;
  }
  FilePtr f(::fdopen(fd, "r+b"));
  if (!f) ::close(fd);
  return f;
}

// ---------------------------------------------------------------------------
// With a file name

ValuePtr open_file(Run& run, const ParsedTag& tag, const std::string& path) {
  Value* var = obtain(run, tag, "filevar");
  if (!var) return value_new();
  std::vector<OpenFile>& table = open_files(run);
  table.push_back(OpenFile{path, nullptr});
  FilePtr f = open_regular_file(path);
  if (!f) {
    table.back().path.clear();
    return report_failure(run, tag, kOpenFailed);
  }
  table.back().stream = std::move(f);
  store(var, value_from_integer(static_cast<int32_t>(table.size() - 1)));
  return value_new();
}

// ---------------------------------------------------------------------------
// With a handle

ValuePtr seek_file(Run& run, const ParsedTag& tag, std::FILE* f, const std::string& seek) {
  int64_t target = 0;
  bool number = evaluate_whole_option(run, seek, &target);
  if (run.stop) return value_new();
  if (!number) return report_failure(run, tag, kSeekNotNumber);
  int64_t size = file_size(f);
  const std::string* position = tag_option(tag, "position");
  if (!position || keyword_is(*position, "start")) {
  } else if (keyword_is(*position, "current")) {
    target += ftello(f);
  } else if (keyword_is(*position, "end")) {
    target += size;
  } else {
    return report_failure(run, tag, kBadPosition);
  }
  fseeko(f, target < 0 ? 0 : target > size ? size : target, SEEK_SET);
  return value_new();
}

std::string read_line(std::FILE* f) {
  std::string line;
  // Read piece by piece as the stream allows; a line ends at its line feed.
  for (;;) {
    char piece[kLinePiece];
    size_t n = 0;
    int c = 0;
    while (n < kLinePiece && (c = std::getc(f)) != EOF) {
      piece[n++] = static_cast<char>(c);
      if (c == '\n') break;
    }
    line.append(piece, n);
    if (c == EOF || (n > 0 && piece[n - 1] == '\n')) break;
  }
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
  return line;
}

ValuePtr read_file(Run& run, const ParsedTag& tag, std::FILE* f, const std::string& how) {
  Value* var = obtain(run, tag, "var", kReadNeedsVar);
  if (!var) return value_new();
  fseeko(f, 0, SEEK_CUR);  // reading may follow writing
  std::string bytes;
  bool got = false;
  if (keyword_is(how, "all")) {
    // The bytes left, asked for at once: a doubling string would hold half
    // as much again while it grows.  Memory is the run's budget.
    int64_t left = file_size(f) - ftello(f);
    if (left > 0) bytes.reserve(static_cast<size_t>(left));
    char buffer[8192];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, f)) > 0;) bytes.append(buffer, n);
    got = !bytes.empty();
  } else if (keyword_is(how, "line")) {
    int c = std::getc(f);
    got = c != EOF;
    if (got) {
      std::ungetc(c, f);
      bytes = read_line(f);
    }
  } else {
    int64_t count = 0;
    bool number = evaluate_whole_option(run, how, &count);
    if (run.stop) return value_new();
    if (!number) return report_failure(run, tag, kReadNotNumber);
    if (count < 0) return report_failure(run, tag, kReadNegative);
    int64_t left = file_size(f) - ftello(f);
    size_t want = static_cast<size_t>(std::max<int64_t>(0, std::min(count, left)));
    bytes.resize(want);
    bytes.resize(std::fread(bytes.data(), 1, want, f));
    got = !bytes.empty();
  }
  // The variable may have moved while the count was evaluated.
  if (!(var = level4_resolve(run, *tag_option(tag, "var")))) return report_failure(run, tag, kNotObtained);
  store(var, got ? value_from_string(std::move(bytes)) : value_new());
  return value_new();
}

ValuePtr write_file(Run& run, const ParsedTag& tag, std::FILE* f) {
  Value* var = obtain(run, tag, "writevar");
  if (!var) return value_new();
  ValuePtr text = value_to_string(*var);
  if (!text || text->type != VT_STRING) return report_failure(run, tag, kInternal);
  std::string bytes = value_text(*text);
  fseeko(f, 0, SEEK_CUR);  // writing may follow reading
  if (std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) return report_failure(run, tag, kInternal);
  std::fflush(f);
  return value_new();
}

ValuePtr store_into(Run& run, const ParsedTag& tag, std::string_view option, ValuePtr v) {
  Value* var = obtain(run, tag, option);
  if (var) store(var, std::move(v));
  return value_new();
}

ValuePtr handle_operation(Run& run, const ParsedTag& tag) {
  Value* handle_var = obtain(run, tag, "filevar");
  if (!handle_var) return value_new();
  // The handle openfile stored is an integer; a page may also have put it
  // there as a number of either kind.
  int64_t handle = -1;
  if (!stored_handle(*handle_var, &handle)) handle = -1;
  std::vector<OpenFile>& table = open_files(run);
  if (handle < 0 || handle >= static_cast<int64_t>(table.size()) || !table[handle].stream)
    return report_failure(run, tag, kBadHandle);
  OpenFile& slot = table[handle];
  std::FILE* f = slot.stream.get();

  if (tag_option(tag, "closefile")) {
    slot.stream.reset();
    slot.path.clear();
    return value_new();
  }
  if (const std::string* seek = tag_option(tag, "seek")) return seek_file(run, tag, f, *seek);
  if (const std::string* how = tag_option(tag, "read")) return read_file(run, tag, f, *how);
  if (tag_option(tag, "writevar")) return write_file(run, tag, f);
  if (tag_option(tag, "positionvar")) return store_into(run, tag, "positionvar", offset_value(ftello(f)));
  if (tag_option(tag, "eofvar")) return store_into(run, tag, "eofvar", value_from_integer(std::feof(f) ? 32 : 0));
  if (tag_option(tag, "filesizevar")) return store_into(run, tag, "filesizevar", offset_value(file_size(f)));
  return value_new();
}

}  // namespace

bool web_space_path(Run& run, std::string_view name, std::string_view default_name, std::string* path) {
  if (name.find('\0') != std::string_view::npos) return false;
  std::string target(name);
  // A final "." or ".." names a directory: resolve it as one, so that it
  // cannot be joined to the page directory unresolved.
  std::string_view last = last_path_part(target);
  if (last == "." || last == "..") target += '/';
  const PageContext* ctx = current_context(run);
  std::string directory;
  if (!resolve_page_directory(ctx ? ctx->directory : std::string("/"), target, &directory)) return false;
  std::string file(last_path_part(target));
  if (file.empty()) file = default_name;
  *path = run.settings.doc_root + directory + file;
  return true;
}

ValuePtr cvfile_handler(Run& run, const ParsedTag& tag) {
  const std::string* filename = tag_option(tag, "filename");
  if (!filename) return handle_operation(run, tag);
  std::string path;
  if (!web_space_path(run, *filename, "index.cvm", &path)) return report_failure(run, tag, kWebProtocol);
  if (tag_option(tag, "openfile")) return open_file(run, tag, path);
  if (tag_option(tag, "removefile")) {
    ::unlink(path.c_str());  // files only, never directories; a failure is not reported
    return value_new();
  }
  return report_failure(run, tag, kNoAction);
}
