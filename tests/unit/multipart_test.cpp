// Tests for multipart/form-data parsing and the temporary copies of uploads.
#include <dirent.h>
#include <gtest/gtest.h>

#include "runtime/run.h"
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "runtime/multipart.h"
#include "runtime/uploads.h"

using namespace std::string_literals;

namespace {

// The parts as "name=data" (files as "name:filename(type)=data"), "|"-joined,
// then "#" and the status.
std::string parsed(std::string_view body, std::string_view boundary = "XyZ", size_t max_parts = 100) {
  MultipartForm form = parse_multipart(body, boundary, max_parts);
  std::string out;
  for (const MultipartPart& p : form.parts) {
    if (!out.empty()) out += '|';
    out += p.name;
    if (p.is_file) out += ":" + p.filename + "(" + p.content_type + ")";
    out += "=" + std::string(p.data);
  }
  const char* status[] = {"ok", "truncated", "malformed", "too many"};
  return out + "#" + status[form.status];
}

TEST(MultipartBoundary, FromContentType) {
  EXPECT_TRUE(is_multipart_form("multipart/form-data; boundary=x"));
  EXPECT_TRUE(is_multipart_form(" Multipart/Form-Data"));
  EXPECT_FALSE(is_multipart_form("multipart/mixed; boundary=x"));
  EXPECT_FALSE(is_multipart_form("application/x-www-form-urlencoded"));

  EXPECT_EQ("abc", multipart_boundary("multipart/form-data; boundary=abc"));
  EXPECT_EQ("a b;c", multipart_boundary("multipart/form-data; charset=x; BOUNDARY=\"a b;c\""));
  EXPECT_EQ("abc", multipart_boundary("multipart/form-data;boundary=abc ; charset=utf-8"));
  EXPECT_EQ("", multipart_boundary("multipart/form-data"));
  EXPECT_EQ("", multipart_boundary("multipart/form-data; boundary="));
  EXPECT_EQ("", multipart_boundary("multipart/form-data; boundary=" + std::string(71, 'b')));
  EXPECT_EQ(std::string(70, 'b'), multipart_boundary("multipart/form-data; boundary=" + std::string(70, 'b')));
}

TEST(MultipartParse, FieldsAndFiles) {
  const std::string body =
      "--XyZ\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\none\r\n"
      "--XyZ\r\ncontent-disposition: FORM-DATA; filename=\"C:\\dir\\f.txt\"; name=f\r\n"
      "Content-Type: text/plain\r\n\r\nline\r\n--XyZ-not-yet\r\n\r\n"
      "--XyZ\r\nContent-Disposition: form-data; name=\"e\"\r\n\r\n\r\n"
      "--XyZ--\r\n";
  EXPECT_EQ("a=one|f:f.txt(text/plain)=line\r\n--XyZ-not-yet\r\n|e=#ok", parsed(body));
  // A preamble and an epilogue are ignored; LF alone ends lines too.
  EXPECT_EQ("a=1|b=2#ok", parsed("junk\n--XyZ\nContent-Disposition: form-data; name=a\n\n1\n"
                                 "--XyZ  \nContent-Disposition: form-data; name=b\n\n2\n--XyZ--junk"));
  // The delimiter counts only at the start of a line.
  EXPECT_EQ("a=x--XyZ y#ok", parsed("--XyZ\r\nContent-Disposition: form-data; name=a\r\n\r\nx--XyZ y\r\n--XyZ--"));
  // Binary data, NUL bytes included, comes through unchanged.
  std::string binary = "\0\r\n\xff-"s;
  EXPECT_EQ("b=" + binary + "#ok",
            parsed("--XyZ\r\nContent-Disposition: form-data; name=b\r\n\r\n" + binary + "\r\n--XyZ--"));
}

TEST(MultipartParse, PartsThatAreSkipped) {
  // No Content-Disposition, another disposition, or no name: skipped, and the
  // parts around them kept.
  EXPECT_EQ("a=1|c=3#ok", parsed("--XyZ\r\nContent-Disposition: form-data; name=a\r\n\r\n1\r\n"
                                 "--XyZ\r\nContent-Type: text/plain\r\n\r\nx\r\n"
                                 "--XyZ\r\nContent-Disposition: attachment; name=b\r\n\r\n2\r\n"
                                 "--XyZ\r\nContent-Disposition: form-data; filename=f\r\n\r\n2\r\n"
                                 "--XyZ\r\nContent-Disposition: form-data; name=c\r\n\r\n3\r\n--XyZ--"));
}

TEST(MultipartParse, BodiesCutShortOrBroken) {
  const std::string first = "--XyZ\r\nContent-Disposition: form-data; name=a\r\n\r\n1\r\n";
  // Cut inside the data, inside the headers, right after a delimiter, and
  // without any closing delimiter: the complete parts stay.
  EXPECT_EQ("a=1#truncated", parsed(first + "--XyZ\r\nContent-Disposition: form-data; name=b\r\n\r\npartial"));
  EXPECT_EQ("a=1#truncated", parsed(first + "--XyZ\r\nContent-Disposition: form-da"));
  EXPECT_EQ("a=1#truncated", parsed(first + "--XyZ"));
  EXPECT_EQ("#truncated", parsed("--XyZ\r\nContent-Disposition: form-data; name=a\r\n\r\n1"));
  EXPECT_EQ("#truncated", parsed(""));
  EXPECT_EQ("#truncated", parsed("no delimiter at all"));
  // A line that only begins with the delimiter is data, so the part never
  // ends; a header block that never ends within its bound is malformed.
  EXPECT_EQ("#truncated", parsed(first + "--XyZ?\r\n"));
  EXPECT_EQ("#malformed", parsed("--XyZ\r\nX-Long: " + std::string(20000, 'h') + "\r\n\r\nx\r\n--XyZ--"));
  EXPECT_EQ("#malformed", parsed(first, ""));
  EXPECT_EQ("a=1#too many", parsed(first + first + "--XyZ--", "XyZ", 1));
}

// Names of the entries in `dir`.
std::vector<std::string> entries(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = ::opendir(dir.c_str())) {
    while (dirent* e = ::readdir(d)) {
      std::string name = e->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    ::closedir(d);
  }
  return names;
}

std::string file_text(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

class Uploads : public ::testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/cvml-uploads-test.XXXXXX";
    ASSERT_NE(nullptr, ::mkdtemp(name));
    dir_ = name;
    ::setenv("CVML_UPLOAD_DIR", dir_.c_str(), 1);
  }
  void TearDown() override {
    run_.reset();  // a run removes its copies when it ends
    for (const std::string& e : entries(dir_)) ::unlink((dir_ + "/" + e).c_str());
    ::rmdir(dir_.c_str());
    ::unsetenv("CVML_UPLOAD_DIR");
  }
  std::string dir_;
  std::unique_ptr<::Run> run_ = std::make_unique<::Run>();
};

TEST_F(Uploads, CopiesLiveUntilTheRequestEnds) {
  const std::string body =
      "--b\r\nContent-Disposition: form-data; name=t\r\n\r\ntext\r\n"
      "--b\r\nContent-Disposition: form-data; name=f; filename=x.bin\r\n\r\n\0data\r\n"
      "--b\r\nContent-Disposition: form-data; name=none; filename=\"\"\r\n\r\n\r\n"
      "--b--"s;
  std::vector<RequestPair> fields;
  ValuePtr files = multipart_request(*run_, body, "multipart/form-data; boundary=b", &fields);
  ASSERT_EQ(1u, fields.size());
  EXPECT_EQ("t", fields[0].key);
  EXPECT_EQ("text", fields[0].value);
  ASSERT_TRUE(files);
  ASSERT_EQ(1u, files->rows.size());  // the empty file field is left out
  Value* entry = hash_find(files.get(), "f");
  ASSERT_TRUE(entry);
  EXPECT_EQ("x.bin", hash_find(entry, "name")->bytes);
  EXPECT_EQ("application/octet-stream", hash_find(entry, "type")->bytes);
  EXPECT_EQ(5, hash_find(entry, "size")->integer);
  std::string path = hash_find(entry, "path")->bytes;
  EXPECT_EQ(dir_ + "/", path.substr(0, dir_.size() + 1));
  EXPECT_EQ("\0data"s, file_text(path));
  struct stat st;
  ASSERT_EQ(0, ::stat(path.c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 0777);

  run_ = std::make_unique<::Run>();  // the old run removes its copies
  EXPECT_TRUE(entries(dir_).empty());
}

TEST_F(Uploads, NothingLeftWhenStoringFailsOrTheBodyIsCut) {
  const std::string complete = "--b\r\nContent-Disposition: form-data; name=f; filename=a\r\n\r\nabc\r\n";
  std::vector<RequestPair> fields;
  // Cut inside the second file: the first is stored, the second never is.
  ValuePtr files = multipart_request(*run_, complete + complete.substr(0, complete.size() - 4),
                                     "multipart/form-data; boundary=b", &fields);
  ASSERT_TRUE(files);
  EXPECT_EQ(1u, files->rows.size());
  EXPECT_EQ(1u, entries(dir_).size());
  run_ = std::make_unique<::Run>();  // the old run removes its copies
  EXPECT_TRUE(entries(dir_).empty());

  ::setenv("CVML_UPLOAD_DIR", (dir_ + "/missing").c_str(), 1);
  files = multipart_request(*run_, complete + "--b--", "multipart/form-data; boundary=b", &fields);
  EXPECT_FALSE(files);
  EXPECT_TRUE(entries(dir_).empty());
}

TEST(UploadLimit, FromTheEnvironment) {
  ::unsetenv("CVML_MAX_UPLOAD");
  EXPECT_EQ(kDefaultMaxUpload, upload_limit());
  const std::pair<const char*, size_t> cases[] = {
      {"1000", 1000},      {"0", 0},           {"64K", 65536},       {"2m", size_t(2) << 20},
      {"1G", size_t(1) << 30}, {"", kDefaultMaxUpload}, {"-5", kDefaultMaxUpload}, {"12KB", kDefaultMaxUpload},
      {"lots", kDefaultMaxUpload}, {"99999999999999999999", kDefaultMaxUpload},
  };
  for (const auto& [text, limit] : cases) {
    ::setenv("CVML_MAX_UPLOAD", text, 1);
    EXPECT_EQ(limit, upload_limit()) << text;
  }
  ::unsetenv("CVML_MAX_UPLOAD");
}

}  // namespace
