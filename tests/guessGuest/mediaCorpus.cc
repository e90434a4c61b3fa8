#include "guessGuest/mediaCorpus.h"

#include <map>
#include <memory>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>

#include <cctype>
#include <cstring>

#include "support/testSupport.h"

namespace media_corpus {
namespace {

using testing_support::CommandResult;
using testing_support::RunMasteringTool;
using testing_support::TempDir;

// One scratch directory for every image of the test process.
TempDir &Scratch() {
  static auto *dir = new TempDir();  // removed by the OS temp cleaner if the run aborts
  return *dir;
}

}  // namespace

const char *MediumName(Medium medium) {
  switch (medium) {
    case Medium::RockJoliet:
      return "rr";
    case Medium::Plain:
      return "plain";
    case Medium::PlainLong:
      return "plainlong";
    case Medium::Udf:
      return "udf";
  }
  return "?";
}

CommandResult Master(const std::string &source, const std::string &image, Medium medium,
                     const std::string &volid) {
  switch (medium) {
    case Medium::RockJoliet:
      return RunMasteringTool({"xorriso", "-as", "mkisofs", "-quiet", "-R", "-J", "-joliet-long",
                               "-V", volid, "-o", image, source});
    case Medium::Plain:
      return RunMasteringTool({"xorriso", "-as", "mkisofs", "-quiet", "-iso-level", "1", "-V",
                               volid, "-o", image, source});
    case Medium::PlainLong:
      return RunMasteringTool({"xorriso", "-as", "mkisofs", "-quiet", "-iso-level", "3", "-V",
                               volid, "-o", image, source});
    case Medium::Udf:
      return RunMasteringTool({"genisoimage", "-quiet", "-udf", "-J", "-joliet-long", "-V", volid,
                               "-input-charset", "utf-8", "-o", image, source});
  }
  return CommandResult{};
}

std::string ImageFor(const std::string &tree, Medium medium, std::string *error,
                     const char *volumeId) {
  static std::map<std::tuple<std::string, Medium, std::string>, std::string> cache;
  const std::string volid = volumeId != nullptr ? volumeId : "CORPUS";
  auto key = std::make_tuple(tree, medium, volid);
  if (auto it = cache.find(key); it != cache.end()) {
    return it->second;
  }
  const std::string source = (testing_support::DataDir() / "media" / tree).string();
  std::string name = tree + "." + MediumName(medium);
  if (volumeId != nullptr) {
    name += "." + std::to_string(cache.size());  // one tree, several volume ids
  }
  const std::string image = (Scratch().path() / (name + ".iso")).string();
  CommandResult r = Master(source, image, medium, volid);
  if (r.exitCode != 0) {
    if (error != nullptr) {
      *error = r.output;
    }
    return std::string();
  }
  cache[key] = image;
  return image;
}

void CheckCase(const Case &c) {
  std::string error;
  std::string image = ImageFor(c.tree, c.medium, &error, c.volumeId);
  ASSERT_FALSE(image.empty()) << error;

  GuessInfo info;
  memset(&info, 0xA5, sizeof info);  // the driver must clear every field
  GuessResult result = Guess_Guest(image.c_str(), nullptr, &info);
  ASSERT_EQ(c.result, result);
  if (c.osKey == nullptr) {
    EXPECT_EQ(nullptr, info.osKey);
    return;
  }
  ASSERT_NE(nullptr, info.osKey);
  EXPECT_STREQ(c.osKey, info.osKey);
  if (c.osKey64 == nullptr) {
    EXPECT_EQ(nullptr, info.osKey64);
  } else {
    ASSERT_NE(nullptr, info.osKey64);
    EXPECT_STREQ(c.osKey64, info.osKey64);
  }
  EXPECT_EQ(c.version, info.version) << Guess_GetSubString(info.version);
  EXPECT_EQ(c.noIsolinuxCfg, info.noIsolinuxCfg);
  EXPECT_STREQ(c.versionText, info.versionText);
  EXPECT_STREQ(c.language, info.language);
  EXPECT_STREQ(c.languages, info.languages);
  EXPECT_STREQ(c.editions, info.editions);
  EXPECT_STREQ(c.displayName, info.displayName);
}

std::string CaseName(const Case &c) {
  std::string name = std::string(c.tree) + "_" + MediumName(c.medium);
  for (char &ch : name) {
    if (!isalnum(static_cast<unsigned char>(ch))) {
      ch = '_';
    }
  }
  return name;
}

}  // namespace media_corpus
