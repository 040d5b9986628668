// Growable in-memory byte stream: the one text buffer of the engine.
//
// A DynString behaves like a file opened on memory: a mode string fixes the
// access, a cursor moves over the bytes, reads past the end set `at_end`.
// Content is binary (zero bytes are data) and `data.size()` is always the
// exact content length.  Text is taken out with dyn_take().
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

enum DynMode : uint8_t {
  DYN_WRITE = 1,
  DYN_APPEND = 2,
  DYN_UPDATE = 4,
  DYN_BINARY = 8,
};

struct DynString {
  std::string data;
  uint32_t pos = 0;
  uint8_t mode = 0;
  uint8_t at_end = 0;
  uint8_t forward = 1;  // 0: reads and writes move towards the start
};

using DynStringPtr = std::unique_ptr<DynString>;

// Opens a buffer on `data` with a mode such as "r+b" or "wb".  Returns null
// when the mode holds none of "r", "w", "a".  "w" drops the given data;
// "a" puts the cursor at the end.
DynStringPtr dyn_open(std::string_view mode, std::string data = {});
// The usual empty scratch buffer, mode "r+b".
DynStringPtr dyn_new();

bool dyn_can_read(const DynString* d);
bool dyn_can_write(const DynString* d);

int dyn_getc(DynString* d);                 // 0..255, or -1
int dyn_putc(int byte, DynString* d);       // the byte, or -1
int dyn_eof(const DynString* d);            // 1 for a null buffer
int dyn_printf(DynString* d, const char* format, ...) __attribute__((format(printf, 2, 3)));
size_t dyn_write(const void* src, size_t item_size, size_t count, DynString* d);
size_t dyn_read(void* dst, size_t item_size, size_t count, DynString* d);
// Appends (or, in reverse direction, prepends) bytes; the common case of dyn_write.
size_t dyn_puts(DynString* d, std::string_view bytes);
uint32_t dyn_tell(const DynString* d);
int dyn_seek(DynString* d, int64_t offset, int origin);  // 0 on success
// Ends the buffer's life without touching data already taken; -1 for null.
int dyn_close(DynStringPtr d);
// The next line without its line feed and trailing carriage returns.
std::string dyn_getline(DynString* d);
// The whole file in a "r+b" buffer, or null when it cannot be opened.
DynStringPtr dyn_load_file(const std::string& path);
DynStringPtr dyn_clone(const DynString* d);
// The take idiom: hands the content over and ends the buffer.
std::string dyn_take(DynStringPtr d);
