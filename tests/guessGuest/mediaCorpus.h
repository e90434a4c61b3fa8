// The detection corpus: small trees under tests/data/media/, mastered at
// test time into the kind of image real media of that system are, and the
// record each must give (tests/data/media/expected.tsv). Header-only apart
// from ImageFor, so bench/detect.cc reads the same rows.
#ifndef GUESTPREP_TESTS_MEDIACORPUS_H
#define GUESTPREP_TESTS_MEDIACORPUS_H

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "guestprep/guess.h"

namespace media_corpus {

enum class Medium {
  RockJoliet,  // xorriso: ISO 9660 with Rock Ridge and Joliet (Linux, BSD media)
  Plain,       // xorriso -iso-level 1: upper-case 8.3 names, no extensions
  PlainLong,   // xorriso -iso-level 3 without Rock Ridge or Joliet (volume-id readers)
  Udf,         // genisoimage -udf: UDF with its ISO 9660 bridge (Vista and newer)
};

inline constexpr const char *kMediumNames[] = {"rr", "plain", "plainlong", "udf"};

inline const char *MediumName(Medium medium) {
  return kMediumNames[static_cast<int>(medium)];
}

// The mastering command for a source directory as the given medium.
inline std::vector<std::string> MasterArgv(const std::string &source, const std::string &image,
                                           Medium medium, const std::string &volid = "CORPUS") {
  if (medium == Medium::Udf) {
    return {"genisoimage", "-quiet",         "-udf",  "-J", "-joliet-long", "-V",
            volid,         "-input-charset", "utf-8", "-o", image,          source};
  }
  std::vector<std::string> argv = {"xorriso", "-as", "mkisofs", "-quiet"};
  if (medium == Medium::RockJoliet) {
    argv.insert(argv.end(), {"-R", "-J", "-joliet-long"});
  } else {
    argv.insert(argv.end(), {"-iso-level", medium == Medium::Plain ? "1" : "3"});
  }
  argv.insert(argv.end(), {"-V", volid, "-o", image, source});
  return argv;
}

// One row of expected.tsv: a tree, how it is mastered, the record expected.
struct Row {
  std::string tree;
  Medium medium = Medium::RockJoliet;
  GuessResult result = GUESS_NOT_RECOGNIZED;
  std::string osKey, osKey64;  // empty: none
  GuessVersion version = GUESS_VERSION_UNKNOWN;
  bool noIsolinuxCfg = false;
  std::string versionText, language, languages, editions, displayName;
  std::string volumeId = "CORPUS";
};

// The rows of tests/data/media/expected.tsv (dataDir is tests/data). A line
// that does not parse is reported in *error and skipped.
inline std::vector<Row> ReadExpected(const std::string &dataDir, std::string *error) {
  std::vector<Row> rows;
  std::ifstream in(dataDir + "/media/expected.tsv");
  if (!in) {
    *error += "cannot read " + dataDir + "/media/expected.tsv\n";
  }
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    if (line.empty() || line[0] == '#') {
      continue;
    }
    std::vector<std::string> f;
    std::stringstream cells(line);
    for (std::string cell; std::getline(cells, cell, '\t');) {
      bool quoted = cell.size() >= 2 && cell.front() == '"' && cell.back() == '"';
      f.push_back(quoted ? cell.substr(1, cell.size() - 2) : cell);
    }
    // "-" keeps the default; the language default is what the Vista-and-newer
    // detector, third in line, leaves on every medium without its setup files.
    auto value = [&f](size_t i, const char *def = "") { return f[i] == "-" ? def : f[i]; };
    bool ok = f.size() == 13 && (f[2] == "yes" || f[2] == "no");
    int medium = 0;
    while (ok && medium < 4 && f[1] != kMediumNames[medium]) {
      ++medium;
    }
    GuessVersion version = 0;
    while (ok && f[4] != "-" && version < GUESS_VERSION_DUMMY_LAST && f[4] != SUB_NAMES[version]) {
      ++version;
    }
    if (!ok || medium == 4 || version == GUESS_VERSION_DUMMY_LAST) {
      *error += "expected.tsv:" + std::to_string(number) + ": bad row\n";
      continue;
    }
    rows.push_back({f[0], static_cast<Medium>(medium),
                    f[2] == "yes" ? GUESS_RECOGNIZED : GUESS_NOT_RECOGNIZED, value(3), value(6),
                    version, f[5] == "yes", value(7), value(8, "en-US"), value(9), value(10),
                    value(11), value(12, "CORPUS")});
  }
  return rows;
}

// Masters tests/data/media/<tree> as the given medium (once per test
// process; later calls reuse the image) and returns the image path. An
// empty string means the mastering tool failed; its output is in *error.
std::string ImageFor(const std::string &tree, Medium medium, std::string *error,
                     const std::string &volumeId = "CORPUS");

}  // namespace media_corpus

#endif
