#include "platform/dictionary/dictionary.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "platform/file/fileIO.h"
#include "support/signFixtures.h"
#include "support/testSupport.h"

namespace {

using testing_support::DataDir;
using testing_support::LogCapture;
using testing_support::ReadFile;
using testing_support::RunCommand;
using testing_support::TempDir;
using testing_support::TsvRow;
using testing_support::Unescape;
using testing_support::WriteFile;
using Entries = std::vector<std::pair<std::string, std::string>>;

// A dictionary and a message list freed on scope exit.
struct Dict {
  Dictionary *d = Dictionary_Create();
  ~Dict() { Dictionary_Free(d); }
  operator Dictionary *() const { return d; }
};
struct Msgs {
  MsgList *m = nullptr;
  ~Msgs() { MsgList_Free(m); }
  operator MsgList *() const { return m; }
};

Entries All(Dictionary *d) {
  Entries out;
  Dictionary_Iterate(
      d,
      [](const char *n, const char *v, void *ctx) {
        static_cast<Entries *>(ctx)->emplace_back(n, v);
        return true;
      },
      &out);
  return out;
}

std::string English(MsgList *m) {
  return testing_support::Take(MsgList_ToEnglishString(m));
}

class DictionaryLoad : public ::testing::TestWithParam<TsvRow> {};

// A malformed line fails the whole load, names its line and changes nothing.
TEST_P(DictionaryLoad, LoadsOrNamesTheBadLine) {
  const auto &c = GetParam().cells;
  const std::string text = testing_support::Replace(Unescape(c[1]), "<max-line>",
                                                    std::string(DICTIONARY_MAX_LINE_LENGTH, 'x'));
  Dict d;
  Msgs msgs;
  if (c[2] == "ok") {
    EXPECT_TRUE(Dictionary_LoadFromBufferEx(d, text.data(), text.size(), &msgs.m));
    EXPECT_EQ(nullptr, msgs.m) << English(msgs);
    Entries want;
    for (const std::string &entry : testing_support::Split(c[3], " ; ")) {
      const size_t eq = entry.find('=');
      want.emplace_back(entry.substr(0, eq), Unescape(entry.substr(eq + 1)));
    }
    EXPECT_EQ(want, All(d));
    return;
  }
  ASSERT_TRUE(Dict_SetString(d, "kept", "before"));
  EXPECT_FALSE(Dictionary_LoadFromBufferEx(d, text.data(), text.size(), &msgs.m));
  ASSERT_EQ(1u, MsgList_Count(msgs));
  EXPECT_NE(std::string::npos, English(msgs).find("in buffer at " + c[2] + ":")) << English(msgs);
  EXPECT_EQ((Entries{{"before", "kept"}}), All(d));  // all-or-nothing
}

INSTANTIATE_TEST_SUITE_P(Table, DictionaryLoad,
                         ::testing::ValuesIn(testing_support::ReadTsv("dictionary/load.tsv", 4)),
                         testing_support::TsvRowNamer());

TEST(Dictionary, LoadWithoutListPostsToPendingMessages) {
  MsgList_Free(Msg_GetMessagesAndReset());
  Dict d;
  EXPECT_FALSE(Dictionary_LoadFromBuffer(d, "oops\n", 5));
  MsgList *pending = Msg_GetMessagesAndReset();
  ASSERT_EQ(1u, MsgList_Count(pending));
  EXPECT_STREQ("msg.dictionary.syntaxError", pending->id);
  EXPECT_EQ("Error in buffer at line 1: missing \"=\"", English(pending));
  MsgList_Free(pending);
}

TEST(Dictionary, LoadsRealConfigFiles) {
  Dict d;
  Msgs msgs;
  ASSERT_TRUE(Dictionary_LoadEx(d, (DataDir() / "dictionary/vm.brx").c_str(), &msgs.m))
      << English(msgs);
  ASSERT_TRUE(Dictionary_LoadEx(d, (DataDir() / "dictionary/manifest.txt").c_str(), &msgs.m))
      << English(msgs);
  EXPECT_EQ(14 + 5, Dictionary_NumberOfEntries(d));
  char *name = Dict_GetString(d, nullptr, "%s", "displayname");
  EXPECT_STREQ("Build \"agent\" | rhel8", name);
  free(name);
  char *note = Dict_GetString(d, nullptr, "annotation");
  EXPECT_STREQ("First line\nSecond line", note);
  free(note);
  EXPECT_FALSE(Dict_GetBool(d, true, "ethernet0.present"));  // the later duplicate wins
  EXPECT_STREQ("12.3.5",
               static_cast<const char *>(Dictionary_Get(d, "", DICT_STRING, "gh.version")));
  EXPECT_FALSE(Dict_GetBool(d, true, "hgfs.installed"));
  EXPECT_EQ(4096, *static_cast<const int32_t *>(Dictionary_Get(d, nullptr, DICT_INT, "memsize")));
}

TEST(Dictionary, FileProblemsGiveFalseAndAMessage) {
  TempDir tmp;
  std::filesystem::path big = tmp / "big.cfg";
  WriteFile(big, "");
  std::filesystem::resize_file(big, DICTIONARY_MAX_FILE_SIZE + 1);  // sparse: cheap
  std::string fifo = (tmp / "fifo").string();
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  std::string bad = (tmp / "m.txt").string();
  WriteFile(bad, "a = \"1\"\nb = \"2\n");
  const struct {
    std::string path, want;
  } cases[] = {
      {(tmp / "missing.cfg").string(), "No such file or directory"},
      {tmp.str(), "not a regular file"},
      {fifo, "not a regular file"},  // must not block waiting for a writer
      {big.string(), "larger than"},
      {"/proc/self/mem", "Cannot read file"},  // read() fails even for root
      {bad, ("Error in file \"" + bad + "\" at line 2: unterminated quoted value")},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.path);
    Dict d;
    Msgs msgs;
    EXPECT_FALSE(Dictionary_LoadEx(d, c.path.c_str(), &msgs.m));
    std::string text = English(msgs);
    EXPECT_NE(std::string::npos, text.find(c.path)) << text;
    EXPECT_NE(std::string::npos, text.find(c.want)) << text;
    EXPECT_EQ(0, Dictionary_NumberOfEntries(d));
  }
}

TEST(Dictionary, TypedReads) {
  Dict d;
  const char *text =
      "dec = \"42\"\nneg = \" -7 \"\nhex = \"0x1F\"\nbig = \"2147483648\"\n"
      "junk = \"12abc\"\nbare0x = \"0x\"\nyes = \"Yes\"\nmaybe = \"maybe\"\n";
  ASSERT_TRUE(Dictionary_LoadFromBuffer(d, text, strlen(text)));
  const int32_t def = -1;
  const struct {
    const char *name;
    bool converts;
    int32_t value;
  } ints[] = {{"dec", true, 42},  {"neg", true, -7},    {"hex", true, 31},    {"big", false, 0},
              {"junk", false, 0}, {"bare0x", false, 0}, {"missing", false, 0}};
  LogCapture log;
  for (const auto &c : ints) {
    SCOPED_TRACE(c.name);
    const void *p = Dictionary_Get(d, &def, DICT_INT, c.name);
    EXPECT_EQ(c.converts, p != &def);
    EXPECT_EQ(c.converts ? c.value : def, *static_cast<const int32_t *>(p));
  }
  EXPECT_EQ(3u, log.lines().size());  // one per unconvertible value, none for the missing one
  const int64_t def64 = 0;
  EXPECT_EQ(2147483648LL,
            *static_cast<const int64_t *>(Dictionary_Get(d, &def64, DICT_INT64, "big")));
  const bool f = false;
  EXPECT_TRUE(*static_cast<const bool *>(Dictionary_Get(d, &f, DICT_BOOL, "yes")));
  EXPECT_EQ(&f, Dictionary_Get(d, &f, DICT_BOOL, "maybe"));
}

TEST(Dictionary, StringToBoolTable) {
  const struct {
    const char *text;
    bool def;
    bool want;
  } cases[] = {{"TRUE", false, true}, {"true", false, true},  {" yes ", false, true},
               {"On", false, true},   {"1", false, true},     {"FALSE", true, false},
               {"no", true, false},   {"off", true, false},   {"0", true, false},
               {"2", true, true},     {"2", false, false},    {"", true, true},
               {nullptr, true, true}, {"truex", false, false}};
  for (const auto &c : cases) {
    EXPECT_EQ(c.want, Dictionary_StringToBool(c.text, c.def)) << (c.text ? c.text : "(null)");
  }
}

TEST(Dictionary, SetAndGetFormattedNames) {
  Dict d;
  EXPECT_TRUE(Dict_SetString(d, "1.2.3", "%s.version", "gh"));
  EXPECT_TRUE(Dict_SetBool(d, true, "%s.installed", "gh"));
  EXPECT_TRUE(Dict_SetString(d, "1.2.4", "GH.VERSION"));
  EXPECT_EQ((Entries{{"gh.version", "1.2.4"}, {"gh.installed", "TRUE"}}), All(d));
  char *missing = Dict_GetString(d, "dflt", "%s", "nope");
  EXPECT_STREQ("dflt", missing);
  free(missing);
  EXPECT_EQ(nullptr, Dict_GetString(d, nullptr, "nope"));
  LogCapture log;
  for (const char *bad : {"", "a=b", "a\"b", "#a", " a", "a\n", "\xEF\xBB\xBFname"}) {
    EXPECT_FALSE(Dict_SetString(d, "v", "%s", bad)) << bad;
  }
  EXPECT_FALSE(Dict_SetString(d, nullptr, "x"));
  EXPECT_EQ(8u, log.lines().size());
  EXPECT_EQ(2, Dictionary_NumberOfEntries(d));
}

TEST(Dictionary, IterateCountsOnlyEntriesThatContinue) {
  Dict d;
  ASSERT_TRUE(Dictionary_LoadFromBuffer(d, "a=1\nb=2\nc=3\n", 12));
  int stopAt = 3;  // stop on the last entry: the count must still show the failure
  EXPECT_EQ(
      2,
      Dictionary_Iterate(
          d, [](const char *, const char *, void *ctx) { return --*static_cast<int *>(ctx) > 0; },
          &stopAt));
  EXPECT_EQ(3, Dictionary_NumberOfEntries(d));
}

// Manifests keep every line: the reader sees a repeated name again, in
// file order, while a lookup still finds the first.
TEST(Dictionary, KeepRepeatsVisitsEveryLine) {
  gp::UniqueDictionary d(Dictionary_CreateEx(DICTIONARY_KEEP_REPEATS));
  const char text[] = "a=1\nB=2\nA=3\nb=4\n";
  ASSERT_TRUE(Dictionary_LoadFromBuffer(d.get(), text, sizeof text - 1));
  ASSERT_TRUE(Dictionary_LoadFromBuffer(d.get(), "a=5\n", 4));
  std::string seen;
  Dictionary_Iterate(
      d.get(),
      [](const char *name, const char *value, void *ctx) {
        *static_cast<std::string *>(ctx) += std::string(name) + "=" + value + " ";
        return true;
      },
      &seen);
  EXPECT_EQ("a=1 B=2 A=3 b=4 a=5 ", seen);
  EXPECT_STREQ("1", static_cast<const char *>(Dictionary_Get(d.get(), "", DICT_STRING, "A")));
}

TEST(Dictionary, WriteRoundTripsEveryByteAndReplacesAtomically) {
  TempDir tmp;
  std::filesystem::path path = tmp / "vm.brx";
  WriteFile(path, "old = \"content\"\n");
  ASSERT_EQ(0, chmod(path.c_str(), 0640));

  Dict d;
  std::string every;
  for (int c = 1; c < 256; ++c) {
    every.push_back(static_cast<char>(c));
  }
  ASSERT_TRUE(Dict_SetString(d, every.c_str(), "all.bytes"));
  ASSERT_TRUE(Dict_SetString(d, "  padded  ", "Mixed.Case"));
  ASSERT_TRUE(Dict_SetString(d, "", "empty"));
  ASSERT_TRUE(Dictionary_Write(d, path.c_str()));

  // Every written line has the plain shape, checked by a tool that is not ours.
  auto grep = RunCommand(
      {"env", "LC_ALL=C", "grep", "-a", "-c", "-v", "-E", "^[^=\"]+ = \"[^\"]*\"$", path.string()});
  EXPECT_EQ("0\n", grep.output);
  EXPECT_EQ(std::filesystem::perms(0640), std::filesystem::status(path).permissions());
  size_t files = 0;
  for ([[maybe_unused]] const auto &e : std::filesystem::directory_iterator(tmp.path())) {
    ++files;
  }
  EXPECT_EQ(1u, files);  // no temporary left behind

  Dict back;
  Msgs msgs;
  ASSERT_TRUE(Dictionary_LoadEx(back, path.c_str(), &msgs.m)) << English(msgs);
  EXPECT_EQ(All(d), All(back));

  LogCapture log;
  EXPECT_FALSE(Dictionary_Write(d, (tmp / "no/such/dir/x.cfg").c_str()));
  EXPECT_EQ(1u, log.lines().size());
}

// What a crash just before the rename would leave on disk.
std::string gAtCommitTarget, gAtCommitTemp;

TEST(Dictionary, TargetHoldsOldContentsUntilTheRename) {
  TempDir tmp;
  std::filesystem::path path = tmp / "vm.brx";
  WriteFile(path, "old = \"1\"\n");
  Dict d;
  ASSERT_TRUE(Dict_SetString(d, "2", "new"));
  FileIO_SetAtomicCommitHook([](const char *temp, const char *final) {
    gAtCommitTemp = ReadFile(temp);
    gAtCommitTarget = ReadFile(final);
  });
  bool ok = Dictionary_Write(d, path.c_str());
  FileIO_SetAtomicCommitHook(nullptr);
  EXPECT_TRUE(ok);
  EXPECT_EQ("old = \"1\"\n", gAtCommitTarget);
  EXPECT_EQ("new = \"2\"\n", gAtCommitTemp);
  EXPECT_EQ("new = \"2\"\n", ReadFile(path));
}

}  // namespace
