// Page files: read and compiled when a run needs them, and kept compiled
// for the runs after it while the file stays as it was.
#include "runtime/page_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <functional>
#include <list>
#include <unordered_map>

#include "runtime/run.h"

namespace {

// How old a file's time stamps must be before they alone vouch for its
// content: a change within the same clock tick leaves them as they were.
constexpr int64_t kSettleNs = 2'000'000'000;

struct FileIdentity {
  dev_t dev = 0;
  ino_t ino = 0;
  off_t size = 0;
  int64_t mtime_ns = 0;
  int64_t ctime_ns = 0;
  bool operator==(const FileIdentity&) const = default;
};

int64_t ns_of(const timespec& t) { return static_cast<int64_t>(t.tv_sec) * 1'000'000'000 + t.tv_nsec; }

FileIdentity identity_of(const struct stat& st) {
  return {st.st_dev, st.st_ino, st.st_size, ns_of(st.st_mtim), ns_of(st.st_ctim)};
}

int64_t wall_ns() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return ns_of(now);
}

bool settled(const FileIdentity& id) {
  int64_t now = wall_ns();
  return now - id.mtime_ns > kSettleNs && now - id.ctime_ns > kSettleNs;
}

struct Entry {
  std::string path;
  FileIdentity id;
  size_t content_hash = 0;
  bool settled = false;  // the time stamps alone vouch for the content
  size_t bytes = 0;
  PagePtr page;
};

struct PageCache {
  std::list<Entry> entries;  // most recently used first
  std::unordered_map<std::string, std::list<Entry>::iterator> by_path;
  size_t limit = 32 << 20;
  size_t bytes = 0;
  uint64_t hits = 0, compiles = 0;

  void drop(std::list<Entry>::iterator it) {
    bytes -= it->bytes;
    by_path.erase(it->path);
    entries.erase(it);
  }
  void trim() {
    while (bytes > limit && !entries.empty()) drop(std::prev(entries.end()));
  }
};

PageCache& cache() {
  static PageCache c;
  return c;
}

// The bytes of the regular file `path`, with its identity; false when it
// cannot be read.  Opened without waiting, so that a FIFO put in the
// page's place cannot hold the run.
bool read_page_file(const std::string& path, std::string* bytes, FileIdentity* id) {
  int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    return false;
  }
  *id = identity_of(st);
  bytes->clear();
  bytes->reserve(static_cast<size_t>(st.st_size));
  char chunk[65536];
  for (;;) {
    ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n > 0) {
      bytes->append(chunk, static_cast<size_t>(n));
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      ::close(fd);
      return false;
    }
  }
  ::close(fd);
  return true;
}

size_t hash_of(const std::string& bytes) { return std::hash<std::string_view>{}(bytes); }

// What a compiled page holds, roughly: its text, nodes, options and names.
size_t estimated_size(const Page& page, const std::string& path) {
  size_t n = sizeof(Page) + sizeof(Entry) + path.size() * 2 + page.bytes.capacity();
  n += static_cast<size_t>(page.size()) * sizeof(PageNode);
  n += page.options.capacity() * sizeof(PageOption);
  n += page.lookups.capacity() * sizeof(NameLookup);
  for (const std::string& name : page.names) n += sizeof(std::string) + name.capacity();
  return n;
}

}  // namespace

PagePtr load_page(const std::string& path) {
  PageCache& c = cache();
  auto found = c.by_path.find(path);
  if (found != c.by_path.end()) {
    auto it = found->second;
    struct stat st;
    if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
      c.drop(it);
      return nullptr;
    }
    if (identity_of(st) == it->id) {
      if (!it->settled) {
        // Compared by content until the time stamps are old enough.
        std::string bytes;
        FileIdentity id;
        if (!read_page_file(path, &bytes, &id)) {
          c.drop(it);
          return nullptr;
        }
        if (!(id == it->id) || hash_of(bytes) != it->content_hash) {
          c.drop(it);
          return load_page(path);
        }
        it->settled = settled(id);
      }
      c.entries.splice(c.entries.begin(), c.entries, it);
      c.hits++;
      return it->page;
    }
    c.drop(it);
  }

  std::string bytes;
  FileIdentity id;
  if (!read_page_file(path, &bytes, &id)) return nullptr;
  size_t content_hash = c.limit ? hash_of(bytes) : 0;
  PagePtr page = compile_page_bytes(std::move(bytes), 1);
  c.compiles++;
  if (!page || c.limit == 0) return page;
  size_t size = estimated_size(*page, path);
  if (size > c.limit) return page;
  c.entries.push_front(Entry{path, id, content_hash, settled(id), size, page});
  c.by_path[path] = c.entries.begin();
  c.bytes += size;
  c.trim();
  return page;
}

void set_page_cache_bytes(size_t bytes) {
  cache().limit = bytes;
  cache().trim();
}

PageCacheCounts page_cache_counts() {
  const PageCache& c = cache();
  return {c.hits, c.compiles, c.entries.size(), c.bytes};
}

void page_cache_clear() {
  PageCache& c = cache();
  c.entries.clear();
  c.by_path.clear();
  c.bytes = 0;
}
