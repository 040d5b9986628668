// Growable strings: modes, cursor, growth, lines, reverse direction.
#include "values/dynstring.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

TEST(DynString, OpenModes) {
  EXPECT_EQ(nullptr, dyn_open("+"));
  EXPECT_EQ(nullptr, dyn_open(""));
  EXPECT_EQ(nullptr, dyn_open("bt+"));

  auto w = dyn_open("w", "old data");
  ASSERT_TRUE(w);
  EXPECT_EQ(0u, w->data.size());  // "w" drops what it was given
  EXPECT_EQ(-1, dyn_getc(w.get()));  // write-only

  auto r = dyn_open("r");
  ASSERT_TRUE(r);
  EXPECT_EQ(0u, r->data.size());
  EXPECT_EQ(-1, dyn_putc('x', r.get()));  // read-only
  EXPECT_EQ(-1, dyn_printf(r.get(), "x"));

  auto scratch = dyn_open("r+b");
  ASSERT_TRUE(scratch);
  EXPECT_EQ('x', dyn_putc('x', scratch.get()));
  EXPECT_EQ(DYN_UPDATE | DYN_BINARY, scratch->mode);

  auto a = dyn_open("a+", "abc");
  EXPECT_EQ(3u, a->pos);
  dyn_puts(a.get(), "d");
  EXPECT_EQ("abcd", a->data);
}

TEST(DynString, NullBufferFailsQuietly) {
  EXPECT_EQ(-1, dyn_getc(nullptr));
  EXPECT_EQ(-1, dyn_putc('a', nullptr));
  EXPECT_EQ(1, dyn_eof(nullptr));
  EXPECT_EQ(0u, dyn_tell(nullptr));
  EXPECT_EQ(1, dyn_seek(nullptr, 0, 0));
  EXPECT_EQ(-1, dyn_close(nullptr));
  EXPECT_EQ("", dyn_getline(nullptr));
  EXPECT_EQ(0u, dyn_write("ab", 1, 2, nullptr));
}

TEST(DynString, OverwriteAndSeek) {
  auto d = dyn_new();
  dyn_puts(d.get(), "abc");
  ASSERT_EQ(0, dyn_seek(d.get(), 1, 0));
  dyn_putc('Z', d.get());
  EXPECT_EQ("aZc", d->data);
  EXPECT_EQ(3u, d->data.size());

  EXPECT_EQ(0, dyn_seek(d.get(), 10, 0));
  EXPECT_EQ(3u, dyn_tell(d.get()));
  EXPECT_EQ(0, dyn_seek(d.get(), -5, 2));
  EXPECT_EQ(0u, dyn_tell(d.get()));
  EXPECT_EQ(0, dyn_seek(d.get(), 7, 2));
  EXPECT_EQ(3u, dyn_tell(d.get()));
  EXPECT_EQ(0, dyn_seek(d.get(), -2, 1));
  EXPECT_EQ(1u, dyn_tell(d.get()));
  EXPECT_EQ(1, dyn_seek(d.get(), 0, 3));
  EXPECT_EQ(1u, dyn_tell(d.get()));

  // Overwriting the last byte, then appending.
  dyn_seek(d.get(), -1, 2);
  dyn_putc('!', d.get());
  dyn_seek(d.get(), 0, 2);
  dyn_puts(d.get(), "?");
  EXPECT_EQ("aZ!?", d->data);
}

TEST(DynString, ZeroBytesAreData) {
  auto d = dyn_new();
  dyn_write("a\0b", 1, 3, d.get());
  dyn_putc(0, d.get());
  EXPECT_EQ(std::string("a\0b\0", 4), d->data);
  dyn_seek(d.get(), 0, 0);
  EXPECT_EQ('a', dyn_getc(d.get()));
  EXPECT_EQ(0, dyn_getc(d.get()));
  EXPECT_EQ(std::string("a\0b\0", 4), dyn_take(std::move(d)));
}

TEST(DynString, GetcSetsEndAndSuccessClearsIt) {
  auto d = dyn_open("r+", "x");
  EXPECT_EQ('x', dyn_getc(d.get()));
  EXPECT_EQ(0, dyn_eof(d.get()));
  EXPECT_EQ(-1, dyn_getc(d.get()));
  EXPECT_EQ(1, dyn_eof(d.get()));
  dyn_seek(d.get(), 0, 0);
  EXPECT_EQ(0, dyn_eof(d.get()));
}

TEST(DynString, Getline) {
  auto d = dyn_open("r+b", "a\r\n\r\r\nb");
  EXPECT_EQ("a", dyn_getline(d.get()));
  EXPECT_EQ("", dyn_getline(d.get()));
  EXPECT_EQ("b", dyn_getline(d.get()));
  EXPECT_EQ(0, dyn_eof(d.get()));
  EXPECT_EQ("", dyn_getline(d.get()));
  EXPECT_EQ(1, dyn_eof(d.get()));
  EXPECT_EQ("", dyn_getline(d.get()));
}

TEST(DynString, ReadWholeItems) {
  auto d = dyn_open("r+b", "abcde");
  char out[8] = {};
  EXPECT_EQ(2u, dyn_read(out, 2, 4, d.get()));
  EXPECT_EQ(4u, dyn_tell(d.get()));
  EXPECT_EQ(1, dyn_eof(d.get()));
  EXPECT_EQ(std::string("abcd"), std::string(out, 4));
  EXPECT_EQ(0u, dyn_read(out, 2, 1, d.get()));
}

TEST(DynString, Printf) {
  auto d = dyn_new();
  EXPECT_EQ(0, dyn_printf(d.get(), "%s", ""));
  EXPECT_EQ(0u, d->data.size());
  EXPECT_EQ(17, dyn_printf(d.get(), "%.15lf", 2.5));
  EXPECT_EQ("2.500000000000000", d->data);
  dyn_printf(d.get(), "%li", 7L);
  EXPECT_EQ("2.5000000000000007", d->data);
}

TEST(DynString, ReverseDirectionPrependsAndReadsBackwards) {
  auto f = dyn_open("r+b", "cd");
  f->pos = 0;
  f->forward = 0;
  auto r = dyn_clone(f.get());
  ASSERT_TRUE(r);
  EXPECT_EQ(0, r->forward);
  dyn_puts(r.get(), "ba");  // written towards the start: "a" lands first
  EXPECT_EQ("abcd", r->data);
  EXPECT_EQ(4u, dyn_tell(r.get()));  // counted from the other end
  dyn_seek(r.get(), 0, 0);  // the end, seen backwards
  EXPECT_EQ('d', dyn_getc(r.get()));
  EXPECT_EQ('c', dyn_getc(r.get()));
}

TEST(DynString, CloneIsIndependent) {
  auto d = dyn_open("r+b", "abc");
  dyn_seek(d.get(), 2, 0);
  auto c = dyn_clone(d.get());
  EXPECT_EQ(2u, c->pos);
  dyn_putc('Z', c.get());
  EXPECT_EQ("abc", d->data);
  EXPECT_EQ("abZ", c->data);
}

TEST(DynString, LoadFile) {
  EXPECT_EQ(nullptr, dyn_load_file("/nonexistent/file"));
  EXPECT_EQ(nullptr, dyn_load_file("/dev/zero"));  // never ends
  EXPECT_EQ(nullptr, dyn_load_file("/tmp"));
  std::string path = ::testing::TempDir() + "dyn_load.bin";
  {
    std::ofstream out(path, std::ios::binary);
    out << std::string("x\0y\n", 4);
  }
  auto d = dyn_load_file(path);
  ASSERT_TRUE(d);
  EXPECT_EQ(std::string("x\0y\n", 4), d->data);
  EXPECT_EQ(0u, d->pos);
  std::remove(path.c_str());
}
