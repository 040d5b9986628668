// Growable in-memory byte stream.
#include "base/dynstring.h"

#include <sys/stat.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

DynStringPtr dyn_open(std::string_view mode, std::string data) {
  uint8_t flags = 0;
  bool access = false, update = false, kind = false;
  for (char c : mode) {
    if (!access && (c == 'r' || c == 'w' || c == 'a')) {
      access = true;
      if (c == 'w') flags |= DYN_WRITE;
      if (c == 'a') flags |= DYN_APPEND;
    } else if (!update && c == '+') {
      update = true;
      flags |= DYN_UPDATE;
    } else if (!kind && (c == 't' || c == 'b')) {
      kind = true;
      if (c == 'b') flags |= DYN_BINARY;
    }
  }
  if (!access) return nullptr;
  auto d = std::make_unique<DynString>();
  d->mode = flags;
  if (!(flags & DYN_WRITE)) d->data = std::move(data);
  if (flags & DYN_APPEND) d->pos = static_cast<uint32_t>(d->data.size());
  return d;
}

DynStringPtr dyn_new() { return dyn_open("r+b"); }

bool dyn_can_read(const DynString* d) {
  return d && (!(d->mode & (DYN_WRITE | DYN_APPEND)) || (d->mode & DYN_UPDATE));
}

bool dyn_can_write(const DynString* d) {
  return d && (d->mode & (DYN_WRITE | DYN_APPEND | DYN_UPDATE));
}

namespace {

uint32_t size_of(const DynString* d) { return static_cast<uint32_t>(d->data.size()); }

// Writes bytes at the cursor in the buffer's direction, overwriting what is
// there and growing where the write passes an end.
void put_bytes(DynString* d, const char* src, size_t n) {
  if (n == 0) return;
  if (d->forward) {
    size_t end = d->pos + n;
    if (end > d->data.size()) d->data.resize(end);
    std::memcpy(&d->data[d->pos], src, n);
    d->pos = static_cast<uint32_t>(end);
  } else {
    // Reverse: bytes go before the cursor, last byte of `src` first.
    // Where there is no room below the cursor the content is shifted up.
    if (n > d->pos) {
      size_t grow = n - d->pos;
      d->data.insert(0, grow, '\0');
      d->pos += static_cast<uint32_t>(grow);
    }
    for (size_t i = 0; i < n; ++i) d->data[--d->pos] = src[i];
  }
  d->at_end = 0;
}

}  // namespace

int dyn_getc(DynString* d) {
  if (!dyn_can_read(d)) return -1;
  if (d->forward) {
    if (d->pos >= size_of(d)) {
      d->at_end = 1;
      return -1;
    }
    d->at_end = 0;
    return static_cast<unsigned char>(d->data[d->pos++]);
  }
  if (d->pos == 0) {
    d->at_end = 1;
    return -1;
  }
  d->at_end = 0;
  return static_cast<unsigned char>(d->data[--d->pos]);
}

int dyn_putc(int byte, DynString* d) {
  if (!dyn_can_write(d)) return -1;
  char c = static_cast<char>(byte);
  put_bytes(d, &c, 1);
  return static_cast<unsigned char>(c);
}

int dyn_eof(const DynString* d) { return d ? d->at_end : 1; }

int dyn_printf(DynString* d, const char* format, ...) {
  if (!dyn_can_write(d)) return -1;
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  int length = std::vsnprintf(nullptr, 0, format, args);
  va_end(args);
  if (length <= 0) {
    va_end(again);
    return length < 0 ? -1 : 0;
  }
  std::vector<char> text(static_cast<size_t>(length) + 1);
  std::vsnprintf(text.data(), text.size(), format, again);
  va_end(again);
  put_bytes(d, text.data(), static_cast<size_t>(length));
  return length;
}

size_t dyn_write(const void* src, size_t item_size, size_t count, DynString* d) {
  if (!dyn_can_write(d) || !src) return 0;
  put_bytes(d, static_cast<const char*>(src), item_size * count);
  return count;
}

size_t dyn_puts(DynString* d, std::string_view bytes) {
  if (!dyn_can_write(d)) return 0;
  put_bytes(d, bytes.data(), bytes.size());
  return bytes.size();
}

size_t dyn_read(void* dst, size_t item_size, size_t count, DynString* d) {
  if (!dyn_can_read(d) || !dst || item_size == 0) return 0;
  char* out = static_cast<char*>(dst);
  size_t done = 0;
  while (done < count) {
    if (d->forward) {
      if (d->pos + item_size > d->data.size()) break;
      std::memcpy(out + done * item_size, &d->data[d->pos], item_size);
      d->pos += static_cast<uint32_t>(item_size);
    } else {
      if (item_size > d->pos) break;
      for (size_t i = 0; i < item_size; ++i) out[done * item_size + i] = d->data[--d->pos];
    }
    ++done;
  }
  d->at_end = done < count ? 1 : 0;
  return done;
}

uint32_t dyn_tell(const DynString* d) {
  if (!d) return 0;
  return d->forward ? d->pos : size_of(d) - d->pos;
}

int dyn_seek(DynString* d, int64_t offset, int origin) {
  if (!d) return 1;
  int64_t size = size_of(d);
  int64_t from_start;
  switch (origin) {
    case 0: from_start = offset; break;
    case 1: from_start = (d->forward ? d->pos : size - d->pos) + offset; break;
    case 2: from_start = offset > 0 ? size : size + offset; break;
    default: return 1;
  }
  if (from_start < 0) from_start = 0;
  if (from_start > size) from_start = size;
  // In reverse direction positions count from the other end.
  d->pos = static_cast<uint32_t>(d->forward ? from_start : size - from_start);
  d->at_end = 0;
  return 0;
}

int dyn_close(DynStringPtr d) { return d ? 0 : -1; }

std::string dyn_getline(DynString* d) {
  if (!d || d->at_end) return {};
  uint32_t size = size_of(d);
  if (d->pos >= size) {
    d->at_end = 1;
    return {};
  }
  size_t feed = d->data.find('\n', d->pos);
  size_t stop = feed == std::string::npos ? size : feed;
  size_t end = stop;
  while (end > d->pos && d->data[end - 1] == '\r') --end;
  std::string line = d->data.substr(d->pos, end - d->pos);
  d->pos = static_cast<uint32_t>(feed == std::string::npos ? size : feed + 1);
  d->at_end = 0;
  return line;
}

DynStringPtr dyn_load_file(const std::string& path) {
  // Only regular files: a device such as /dev/zero would be read for ever.
  struct stat info;
  if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return nullptr;
  FILE* file = std::fopen(path.c_str(), "rb");
  if (!file) return nullptr;
  std::string bytes;
  char chunk[65536];
  size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, file)) > 0) bytes.append(chunk, n);
  bool failed = std::ferror(file);
  std::fclose(file);
  if (failed) return nullptr;
  return dyn_open("r+b", std::move(bytes));
}

DynStringPtr dyn_clone(const DynString* d) {
  if (!d) return nullptr;
  return std::make_unique<DynString>(*d);
}

std::string dyn_take(DynStringPtr d) {
  if (!d) return {};
  return std::move(d->data);
}
