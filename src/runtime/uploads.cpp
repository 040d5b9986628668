// File uploads: the body limit, temporary copies and the HTTPFILES hash.
#include "runtime/uploads.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "runtime/multipart.h"
#include "runtime/report.h"
#include "runtime/run.h"

namespace {

// Paths of the temporary copies made in this run, removed when it ends.
struct Uploads : RunState {
  std::vector<std::string> files;
  ~Uploads() override {
    for (const std::string& path : files) ::unlink(path.c_str());
  }
};

std::vector<std::string>& temporary_files(Run& run) { return run_state<Uploads>(run, STATE_UPLOADS).files; }

bool write_all(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

// A temporary copy of `data`; false, with the reason, when it cannot be made.
bool store_copy(Run& run, std::string_view data, std::string* path, std::string* reason) {
  std::string name = upload_directory() + "/cvml-upload-XXXXXX";
  int fd = ::mkstemp(name.data());
  if (fd < 0) {
    *reason = std::strerror(errno);
    return false;
  }
  temporary_files(run).push_back(name);
  bool written = write_all(fd, data);
  if (!written) *reason = errno ? std::strerror(errno) : "short write";
  if (::close(fd) != 0 && written) {
    written = false;
    *reason = std::strerror(errno);
  }
  if (!written) {
    ::unlink(name.c_str());
    temporary_files(run).pop_back();
    return false;
  }
  *path = std::move(name);
  return true;
}

void set_entry(Value* hash, std::string_view key, ValuePtr value) {
  Value* slot = hash_add_key(hash, key);
  if (slot) *slot = std::move(*value);
}

ValuePtr new_hash() {
  ValuePtr hash = value_new();
  value_set_type(*hash, VT_HASH);
  hash->columns = 2;
  return hash;
}

}  // namespace

size_t upload_limit() {
  const char* text = std::getenv("CVML_MAX_UPLOAD");
  if (!text || !*text) return kDefaultMaxUpload;
  char* end = nullptr;
  errno = 0;
  unsigned long long n = std::strtoull(text, &end, 10);
  if (errno || end == text || *text == '-') return kDefaultMaxUpload;
  int shift = 0;
  switch (*end) {
    case 'k': case 'K': shift = 10; ++end; break;
    case 'm': case 'M': shift = 20; ++end; break;
    case 'g': case 'G': shift = 30; ++end; break;
    default: break;
  }
  if (*end != '\0' || n > (SIZE_MAX >> shift)) return kDefaultMaxUpload;
  return static_cast<size_t>(n) << shift;
}

std::string upload_directory() {
  for (const char* name : {"CVML_UPLOAD_DIR", "TMPDIR"}) {
    const char* dir = std::getenv(name);
    if (dir && *dir) {
      std::string path(dir);
      while (path.size() > 1 && path.back() == '/') path.pop_back();
      return path;
    }
  }
  return "/tmp";
}

ValuePtr multipart_request(Run& run, std::string_view body, std::string_view content_type,
                           std::vector<RequestPair>* fields) {
  std::string boundary = multipart_boundary(content_type);
  if (boundary.empty()) {
    report_diagnostic(run, "Warning:  The multipart POST body has no valid boundary in its Content-Type; "
                      "none of its fields were read.\n");
    return nullptr;
  }
  MultipartForm form = parse_multipart(body, boundary, kMaxRequestPairs);
  switch (form.status) {
    case MULTIPART_OK:
      break;
    case MULTIPART_TRUNCATED:
      report_diagnostic(run, "Warning:  The multipart POST body ended before its closing boundary; the part cut "
                        "short was dropped (complete parts kept: " + std::to_string(form.parts.size()) + ").\n");
      break;
    case MULTIPART_MALFORMED:
      report_diagnostic(run, "Warning:  The multipart POST body has a part whose headers cannot be read; the "
                        "rest of the body was dropped (complete parts kept: " + std::to_string(form.parts.size()) +
                        ").\n");
      break;
    case MULTIPART_TOO_MANY:
      report_diagnostic(run, "Warning:  The multipart POST body holds more than " + std::to_string(kMaxRequestPairs) +
                        " parts; only the first " + std::to_string(kMaxRequestPairs) + " were kept.\n");
      break;
  }

  ValuePtr files;
  size_t file_count = 0;
  for (const MultipartPart& part : form.parts) {
    if (!part.is_file) {
      fields->push_back({part.name, std::string(part.data)});
      continue;
    }
    // A file field left empty: the browser sends no name and no bytes.
    if (part.filename.empty() && part.data.empty()) continue;
    if (file_count == kMaxUploadFiles) {
      report_diagnostic(run, "Warning:  The multipart POST body holds more than " + std::to_string(kMaxUploadFiles) +
                        " files; only the first " + std::to_string(kMaxUploadFiles) + " were kept.\n");
      ++file_count;
      continue;
    }
    if (file_count > kMaxUploadFiles) continue;
    std::string path, reason;
    if (!store_copy(run, part.data, &path, &reason)) {
      report_diagnostic(run, "Warning:  An uploaded file could not be stored in " + upload_directory() + " (" + reason +
                        "); it was left out.\n");
      continue;
    }
    ++file_count;
    ValuePtr entry = new_hash();
    set_entry(entry.get(), "name", value_from_string(part.filename));
    set_entry(entry.get(), "type",
              value_from_string(part.content_type.empty() ? "application/octet-stream" : part.content_type));
    set_entry(entry.get(), "size",
              part.data.size() <= INT32_MAX ? value_from_integer(static_cast<int32_t>(part.data.size()))
                                            : value_from_number(static_cast<double>(part.data.size())));
    set_entry(entry.get(), "path", value_from_string(path));
    if (!files) files = new_hash();
    set_entry(files.get(), part.name, std::move(entry));
  }
  return files;
}

