// Broken images through the whole detection path: never a crash, only
// GUESS_OPEN_FAILED or GUESS_NOT_RECOGNIZED (run under ASan too).
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "guessGuest/mediaCorpus.h"
#include "guestprep/guess.h"
#include "support/testSupport.h"

namespace {

using media_corpus::Medium;
using testing_support::ReadFile;
using testing_support::TempDir;
using testing_support::WriteFile;

struct BadImage {
  const char *name;
  std::string (*make)(const std::string &iso, const std::string &udf);
  GuessResult expected;
};

std::string Truncated(const std::string &image, size_t size) {
  return image.substr(0, size);
}

std::string CorruptAnchors(std::string udf) {
  // The anchor descriptor pointer sits at sector 256 and at the last
  // sector; zero both so no UDF volume can be found, leaving the bridge.
  for (size_t at : {size_t{256} * 2048, udf.size() - 2048}) {
    if (at + 2048 <= udf.size()) {
      memset(&udf[at], 0, 16);
    }
  }
  return udf;
}

const BadImage kBadImages[] = {
    {"empty", [](const std::string &, const std::string &) { return std::string(); },
     GUESS_OPEN_FAILED},
    {"zeros", [](const std::string &, const std::string &) { return std::string(1 << 20, '\0'); },
     GUESS_OPEN_FAILED},
    {"random",
     [](const std::string &, const std::string &) {
       std::mt19937 rng(7);
       std::string s(1 << 20, '\0');
       for (char &c : s) {
         c = static_cast<char>(rng());
       }
       return s;
     },
     GUESS_OPEN_FAILED},
    {"descriptors only",
     [](const std::string &iso, const std::string &) { return Truncated(iso, 17 * 2048); },
     GUESS_OPEN_FAILED},
    {"truncated mid-directory",
     [](const std::string &iso, const std::string &) { return Truncated(iso, 20 * 2048 + 100); },
     GUESS_NOT_RECOGNIZED},
    {"corrupt UDF anchors",
     [](const std::string &, const std::string &udf) { return CorruptAnchors(udf); },
     GUESS_RECOGNIZED},  // read through its ISO 9660 bridge instead
    {"UDF truncated after the anchor",
     [](const std::string &, const std::string &udf) { return Truncated(udf, 257 * 2048); },
     GUESS_NOT_RECOGNIZED},
};

TEST(GuessBadImages, CleanResults) {
  std::string error;
  const std::string iso = ReadFile(media_corpus::ImageFor("centos7", Medium::RockJoliet, &error));
  const std::string udf = ReadFile(media_corpus::ImageFor("centos7", Medium::Udf, &error));
  ASSERT_FALSE(iso.empty() || udf.empty()) << error;
  TempDir tmp;
  for (const BadImage &bad : kBadImages) {
    const std::string path = (tmp / "bad.iso").string();
    WriteFile(path, bad.make(iso, udf));
    GuessInfo info;
    GuessResult result = Guess_Guest(path.c_str(), nullptr, &info);
    if (bad.expected == GUESS_NOT_RECOGNIZED) {
      EXPECT_NE(GUESS_RECOGNIZED, result) << bad.name;  // either failure is clean
    } else {
      EXPECT_EQ(bad.expected, result) << bad.name;
    }
    if (result != GUESS_RECOGNIZED) {
      EXPECT_EQ(nullptr, info.osKey) << bad.name;
    }
  }
}

}  // namespace
