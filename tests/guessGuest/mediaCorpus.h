// The detection corpus: small trees under tests/data/media/, each mastered
// at test time into the kind of image real media of that system are.
#ifndef GUESTPREP_TESTS_MEDIACORPUS_H
#define GUESTPREP_TESTS_MEDIACORPUS_H

#include <string>
#include <vector>

#include "guestprep/guess.h"
#include "support/testSupport.h"

namespace media_corpus {

enum class Medium {
  RockJoliet,  // xorriso: ISO 9660 with Rock Ridge and Joliet (Linux, BSD media)
  Plain,       // xorriso -iso-level 1: upper-case 8.3 names, no extensions
  PlainLong,   // xorriso -iso-level 3 without Rock Ridge or Joliet (volume-id readers)
  Udf,         // genisoimage -udf: UDF with its ISO 9660 bridge (Vista and newer)
};

const char *MediumName(Medium medium);

// Masters the host directory source into image as the given medium.
testing_support::CommandResult Master(const std::string &source, const std::string &image,
                                      Medium medium, const std::string &volid = "CORPUS");

// Masters tests/data/media/<tree> as the given medium (once per test
// process; later calls reuse the image) and returns the image path. An
// empty string means the mastering tool failed; the reason is in *error.
// volumeId (optional) replaces the default volume identifier "CORPUS".
std::string ImageFor(const std::string &tree, Medium medium, std::string *error,
                     const char *volumeId = nullptr);

// One row of a family's corpus table: a tree, how it is mastered, and the
// record Guess_Guest must produce for it.
struct Case {
  const char *tree;
  Medium medium;
  GuessResult result;
  const char *osKey;  // null: not recognised
  GuessVersion version = GUESS_VERSION_UNKNOWN;
  bool noIsolinuxCfg = false;
  const char *osKey64 = nullptr;
  const char *versionText = "";
  // The Vista-and-newer detector, third in line, leaves "en-US" on every
  // medium that lacks its setup files, so later families report it too.
  const char *language = "en-US";
  const char *languages = "";
  const char *editions = "";
  const char *displayName = "";
  const char *volumeId = nullptr;  // null: "CORPUS"
};

// Masters the case's image, runs Guess_Guest and checks every field.
void CheckCase(const Case &c);

// gtest parameter name: tree and medium.
std::string CaseName(const Case &c);

// Every family's table, for the coverage checks. A family's test file
// defines its table and adds it here.
extern const std::vector<Case> kWindowsCases;
extern const std::vector<Case> kRedHatCases;
extern const std::vector<Case> kOtherCases;
extern const std::vector<Case> kDebianCases;
extern const std::vector<Case> kSUSECases;

}  // namespace media_corpus

#endif
