// Whole-file reading and writing, safe replacement, number files and record lookups.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "runtime/files.h"
#include "runtime/text.h"
#include "test_support.h"

using namespace ota;

TEST(Files, ReadCutsAtCapacity) {
  ScratchDir dir;
  std::string content(2000, 'x');
  for (size_t i = 0; i < content.size(); i++) content[i] = static_cast<char>('a' + i % 26);
  put_file(dir.path("f"), content);
  char buf[1023];
  EXPECT_EQ(read_file(dir.path("f").c_str(), buf, sizeof buf), 1023);
  EXPECT_EQ(std::string(buf, 1023), content.substr(0, 1023));
}

TEST(Files, ReadMissingAndEmpty) {
  ScratchDir dir;
  char buf[8];
  EXPECT_EQ(read_file(dir.path("missing").c_str(), buf, sizeof buf), -1);
  put_file(dir.path("empty"), "");
  EXPECT_EQ(read_file(dir.path("empty").c_str(), buf, sizeof buf), 0);
}

TEST(Files, ReadOfADirectoryOpensButReadsNothing) {
  ScratchDir dir;
  char buf[8];
  EXPECT_EQ(read_file(dir.path().c_str(), buf, sizeof buf), 0);
}

TEST(Files, WriteFileCreatesAndTruncates) {
  ScratchDir dir;
  std::string p = dir.path("w");
  put_file(p, "a much longer old content");
  EXPECT_TRUE(write_file(p.c_str(), "new", 3));
  EXPECT_EQ(get_file(p), "new");
  EXPECT_FALSE(write_file(dir.path("no/such/dir").c_str(), "x", 1));
}

TEST(Files, ReplaceFileLeavesNoTemporaryBehind) {
  ScratchDir dir;
  std::string p = dir.path("record");
  put_file(p, "old");
  EXPECT_TRUE(replace_file(p.c_str(), "phase=ruhe\n", 11));
  EXPECT_EQ(get_file(p), "phase=ruhe\n");
  EXPECT_FALSE(file_there(p + ".nw"));
}

TEST(Files, ReplaceFileWithALongPathWritesDirectly) {
  ScratchDir dir;
  std::string p = dir.path();
  p += "/" + std::string(191 - p.size() - 1, 'n');
  ASSERT_EQ(p.size(), 191u);
  EXPECT_TRUE(replace_file(p.c_str(), "abc", 3));
  EXPECT_EQ(get_file(p), "abc");
  std::string shorter = p.substr(0, 190);
  EXPECT_TRUE(replace_file(shorter.c_str(), "de", 2));
  EXPECT_EQ(get_file(shorter), "de");
}

TEST(Files, ReplaceFileKeepsTheOldFileWhenTheTemporaryCannotBeWritten) {
  ScratchDir dir;
  std::string sub = dir.path("ro");
  mkdir(sub.c_str(), 0755);
  std::string p = sub + "/record";
  put_file(p, "keep");
  // The temporary is a directory that cannot be removed or opened for writing.
  mkdir((p + ".nw").c_str(), 0755);
  put_file(p + ".nw/blocker", "x");
  EXPECT_FALSE(replace_file(p.c_str(), "new", 3));
  EXPECT_EQ(get_file(p), "keep");
}

TEST(Files, ReadReplacedFileFinishesAReplacementCutBeforeItsRename) {
  // replace_file removes the old file before it renames the temporary one into place; a
  // reader that finds only the temporary file finishes that rename.
  ScratchDir dir;
  std::string p = dir.path("record");
  put_file(p + ".nw", "kanal=dev\n");
  char buf[32];
  EXPECT_EQ(read_replaced_file(p.c_str(), buf, sizeof buf), 10);
  EXPECT_EQ(std::string(buf, 10), "kanal=dev\n");
  EXPECT_EQ(get_file(p), "kanal=dev\n");
  EXPECT_FALSE(file_there(p + ".nw"));
}

TEST(Files, ReadReplacedFileLeavesAFileThatIsThereAsItIs) {
  // A temporary file beside the file itself is one the replacement had not yet put in
  // place: the file stays what is read, and the next replacement removes the temporary.
  ScratchDir dir;
  std::string p = dir.path("record");
  put_file(p, "old\n");
  put_file(p + ".nw", "new\n");
  char buf[32];
  EXPECT_EQ(read_replaced_file(p.c_str(), buf, sizeof buf), 4);
  EXPECT_EQ(std::string(buf, 4), "old\n");
  EXPECT_EQ(get_file(p + ".nw"), "new\n");
  // Neither file: missing, as read_file says.
  EXPECT_EQ(read_replaced_file(dir.path("missing").c_str(), buf, sizeof buf), -1);
  EXPECT_FALSE(file_there(dir.path("missing")));
}

TEST(Files, OverwriteInPlaceNeverShortens) {
  ScratchDir dir;
  std::string p = dir.path("n");
  put_file(p, "00001234\nTAIL");
  EXPECT_TRUE(overwrite_in_place(p.c_str(), "77", 2));
  EXPECT_EQ(get_file(p), "77001234\nTAIL");
  std::string created = dir.path("created");
  EXPECT_TRUE(overwrite_in_place(created.c_str(), "abc", 3));
  EXPECT_EQ(get_file(created), "abc");
}

TEST(Files, NumberFiles) {
  ScratchDir dir;
  std::string p = dir.path("num");
  put_file(p, "1234567");
  EXPECT_EQ(read_number_file(p.c_str()), 0u);
  put_file(p, "00000042\n");
  EXPECT_EQ(read_number_file(p.c_str()), 42u);
  put_file(p, "0000004x\n");
  EXPECT_EQ(read_number_file(p.c_str()), 0u);
  put_file(p, "12345678\n");
  EXPECT_EQ(read_number_file(p.c_str()), 12345678u);
  put_file(p, "1234a678\n");
  EXPECT_EQ(read_number_file(p.c_str()), 0u);
  put_file(p, "00000042abcdefghijklmnop");
  EXPECT_EQ(read_number_file(p.c_str()), 42u);
  EXPECT_EQ(read_number_file(dir.path("missing").c_str()), 0u);
  std::string w = dir.path("written");
  EXPECT_TRUE(write_number_file(w.c_str(), 123456789));
  EXPECT_EQ(get_file(w), "23456789\n");
  put_file(w, "99999999\nold tail");
  EXPECT_TRUE(write_number_file(w.c_str(), 5));
  EXPECT_EQ(get_file(w), "00000005\nold tail");
  EXPECT_EQ(read_number_file(w.c_str()), 5u);
}

TEST(Files, NumberFilesOfEveryShortLength) {
  ScratchDir dir;
  std::string p = dir.path("num");
  for (size_t len = 0; len <= 20; len++) {
    std::string content = std::string("0000004200000000000000").substr(0, len);
    put_file(p, content);
    EXPECT_EQ(read_number_file(p.c_str()), len >= 8 ? 42u : 0u) << len;
  }
}

TEST(Files, SizeAndWorkPath) {
  ScratchDir dir;
  put_file(dir.path("s"), std::string(12345, 'q'));
  EXPECT_EQ(file_size(dir.path("s").c_str()), 12345u);
  EXPECT_EQ(file_size(dir.path("missing").c_str()), 0u);
  char path[64];
  work_path(path, "VERZEICHNIS");
  EXPECT_STREQ(path, "/tmp/ota/VERZEICHNIS");
}

TEST(Records, FindLineOnlyAtLineStarts) {
  const char text[] = "xquelle=a\nquelle=b\n";
  const char* at = find_line(text, sizeof text - 1, "quelle=");
  ASSERT_NE(at, nullptr);
  EXPECT_EQ(at - text, 10);
  EXPECT_EQ(find_line(text, 0, "quelle="), nullptr);
  EXPECT_EQ(find_line(text, sizeof text - 1, "kanal="), nullptr);
}

TEST(Records, ValueOfFirstLineStartWins) {
  const char text[] = "xquelle=a\nquelle=b\nquelle=c\n";
  char out[32];
  EXPECT_TRUE(value_of(text, sizeof text - 1, "quelle=", out, sizeof out));
  EXPECT_STREQ(out, "b");
}

TEST(Records, ValueOfAtTheEndOrEmptyIsMissing) {
  char out[32] = "untouched";
  const char end[] = "a=1\nquelle=";
  EXPECT_FALSE(value_of(end, sizeof end - 1, "quelle=", out, sizeof out));
  EXPECT_STREQ(out, "");
  strcpy(out, "untouched");
  const char empty[] = "quelle=\nx=1\n";
  EXPECT_FALSE(value_of(empty, sizeof empty - 1, "quelle=", out, sizeof out));
  EXPECT_STREQ(out, "");
  strcpy(out, "untouched");
  EXPECT_FALSE(value_of(empty, 0, "quelle=", out, sizeof out));
  EXPECT_STREQ(out, "untouched");
  EXPECT_FALSE(value_of(empty, sizeof empty - 1, "name=", out, sizeof out));
  EXPECT_STREQ(out, "untouched");
}

TEST(Records, ValueOfStopsAtCarriageReturnAndCutsAtCapacity) {
  char out[20];
  const char crlf[] = "kanal=stable\r\n";
  EXPECT_TRUE(value_of(crlf, sizeof crlf - 1, "kanal=", out, sizeof out));
  EXPECT_STREQ(out, "stable");
  std::string long_value = "name=" + std::string(30, 'v') + "\n";
  EXPECT_TRUE(value_of(long_value.c_str(), long_value.size(), "name=", out, sizeof out));
  EXPECT_EQ(std::string(out), std::string(19, 'v'));
}

TEST(Records, NoSpacesAreTrimmed) {
  char out[20];
  const char text[] = "quelle = x\n";
  EXPECT_FALSE(value_of(text, sizeof text - 1, "quelle=", out, sizeof out));
}

TEST(Records, NumberOfFallsBackOnlyWhenMissing) {
  const char text[] = "abstand=abc\nfrist=300\ngesund=\n";
  usize n = sizeof text - 1;
  EXPECT_EQ(number_of(text, n, "abstand=", 3600), 0u);
  EXPECT_EQ(number_of(text, n, "frist=", 120), 300u);
  EXPECT_EQ(number_of(text, n, "gesund=", 60), 60u);
  EXPECT_EQ(number_of(text, n, "start=", 180), 180u);
}
