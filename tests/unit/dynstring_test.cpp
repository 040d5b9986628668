// Growable strings: modes, cursor, growth, lines, reverse direction.
#include "base/dynstring.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

TEST(DynString, OpenModesAndNullBuffers) {
  EXPECT_EQ(nullptr, dyn_open("+"));
  EXPECT_EQ(nullptr, dyn_open("bt+"));
  auto w = dyn_open("w", "old data");
  EXPECT_EQ(0u, w->data.size());  // "w" drops what it was given
  EXPECT_EQ(-1, dyn_getc(w.get()));  // write-only
  auto r = dyn_open("r");
  EXPECT_EQ(-1, dyn_putc('x', r.get()));  // read-only
  EXPECT_EQ(-1, dyn_printf(r.get(), "x"));
  EXPECT_EQ(DYN_UPDATE | DYN_BINARY, dyn_open("r+b")->mode);
  auto a = dyn_open("a+", "abc");
  dyn_puts(a.get(), "d");
  EXPECT_EQ("abcd", a->data);
  EXPECT_EQ(-1, dyn_getc(nullptr));
  EXPECT_EQ(1, dyn_eof(nullptr));
  EXPECT_EQ(1, dyn_seek(nullptr, 0, 0));
  EXPECT_EQ("", dyn_getline(nullptr));
  EXPECT_EQ(0u, dyn_write("ab", 1, 2, nullptr));
}

TEST(DynString, SeekOverwriteAndZeroBytes) {
  auto d = dyn_new();
  dyn_puts(d.get(), "abc");
  dyn_seek(d.get(), 1, 0);
  dyn_putc('Z', d.get());
  EXPECT_EQ("aZc", d->data);
  // Seeks clamp to the data; an unknown origin fails and leaves the cursor.
  const struct { long offset; int origin; size_t pos; } seeks[] = {{10, 0, 3}, {-5, 2, 0}, {7, 2, 3}, {-2, 1, 1}};
  for (auto s : seeks) {
    EXPECT_EQ(0, dyn_seek(d.get(), s.offset, s.origin));
    EXPECT_EQ(s.pos, dyn_tell(d.get()));
  }
  EXPECT_EQ(1, dyn_seek(d.get(), 0, 3));
  EXPECT_EQ(1u, dyn_tell(d.get()));
  dyn_seek(d.get(), 0, 2);
  dyn_write("?\0", 1, 2, d.get());
  EXPECT_EQ(std::string("aZc?\0", 5), d->data);
  dyn_seek(d.get(), 3, 0);
  EXPECT_EQ('?', dyn_getc(d.get()));
  EXPECT_EQ(0, dyn_getc(d.get()));
  EXPECT_EQ(0, dyn_eof(d.get()));
  EXPECT_EQ(-1, dyn_getc(d.get()));
  EXPECT_EQ(1, dyn_eof(d.get()));
  dyn_seek(d.get(), 0, 0);  // a successful seek clears the end mark
  EXPECT_EQ(0, dyn_eof(d.get()));
  EXPECT_EQ(std::string("aZc?\0", 5), dyn_take(std::move(d)));
}

TEST(DynString, GetlineReadAndPrintf) {
  auto d = dyn_open("r+b", "a\r\n\r\r\nb");
  EXPECT_EQ("a", dyn_getline(d.get()));
  EXPECT_EQ("", dyn_getline(d.get()));
  EXPECT_EQ("b", dyn_getline(d.get()));
  EXPECT_EQ(0, dyn_eof(d.get()));
  EXPECT_EQ("", dyn_getline(d.get()));
  EXPECT_EQ(1, dyn_eof(d.get()));
  // Reads take whole items only.
  auto r = dyn_open("r+b", "abcde");
  char out[8] = {};
  EXPECT_EQ(2u, dyn_read(out, 2, 4, r.get()));
  EXPECT_EQ(4u, dyn_tell(r.get()));
  EXPECT_EQ(0u, dyn_read(out, 2, 1, r.get()));
  auto p = dyn_new();
  EXPECT_EQ(17, dyn_printf(p.get(), "%.15lf", 2.5));
  dyn_printf(p.get(), "%li", 7L);
  EXPECT_EQ("2.5000000000000007", p->data);
}

TEST(DynString, ClonesAndReverseDirection) {
  auto d = dyn_open("r+b", "abc");
  dyn_seek(d.get(), 2, 0);
  auto c = dyn_clone(d.get());
  dyn_putc('Z', c.get());
  EXPECT_EQ("abc", d->data);
  EXPECT_EQ("abZ", c->data);
  auto f = dyn_open("r+b", "cd");
  f->pos = 0;
  f->forward = 0;
  auto r = dyn_clone(f.get());
  dyn_puts(r.get(), "ba");  // written towards the start: "a" lands first
  EXPECT_EQ("abcd", r->data);
  EXPECT_EQ(4u, dyn_tell(r.get()));  // counted from the other end
  dyn_seek(r.get(), 0, 0);  // the end, seen backwards
  EXPECT_EQ('d', dyn_getc(r.get()));
  EXPECT_EQ('c', dyn_getc(r.get()));
}

TEST(DynString, LoadFile) {
  EXPECT_EQ(nullptr, dyn_load_file("/nonexistent/file"));
  EXPECT_EQ(nullptr, dyn_load_file("/dev/zero"));  // never ends
  EXPECT_EQ(nullptr, dyn_load_file("/tmp"));
  std::string path = ::testing::TempDir() + "dyn_load.bin";
  std::ofstream(path, std::ios::binary) << std::string("x\0y\n", 4);
  auto d = dyn_load_file(path);
  ASSERT_TRUE(d);
  EXPECT_EQ(std::string("x\0y\n", 4), d->data);
  std::remove(path.c_str());
}
