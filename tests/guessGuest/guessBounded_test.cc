// Detection on images built to cost far more than any image should, and on
// broken copies of a real one: every run reads a bounded number of bytes,
// logs nothing, and hands at most one report to a caller who asks.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ostream>
#include <span>
#include <string>

#include "guessGuest/mediaCorpus.h"
#include "guestprep/guess.h"
#include "lib/guessGuest/guessDetect.h"
#include "platform/image/imageReader.h"
#include "support/isoWriter.h"
#include "support/testSupport.h"

namespace {

using namespace testing_support::attacks;
using testing_support::LogCapture;
using testing_support::TempDir;

struct Attack {
  const char *label;
  std::string (*build)();
  GuessResult result;  // the verdict once the damage is skipped
  uint64_t maxBytes;   // bytes detection may read
  uint64_t reports;    // reports the caller gets (0 or 1)
};
// Printed as its label, so test names hold no addresses.
void PrintTo(const Attack &attack, std::ostream *os) {
  *os << attack.label;
}

class GuessBounded : public testing::TestWithParam<Attack> {};

TEST_P(GuessBounded, ReadsLittleAndLogsNothing) {
  const Attack &attack = GetParam();
  const std::string image = attack.build();
  gp::CountingImageReader counter(gp::MakeMemoryImageReader(
      std::span(reinterpret_cast<const uint8_t *>(image.data()), image.size())));
  gp::FirstDamageReporter damage;
  LogCapture log;
  GuessInfo info;
  EXPECT_EQ(attack.result, guess::DetectImage(counter, &info, &damage));
  if (attack.result == GUESS_RECOGNIZED) {
    EXPECT_STREQ(kAttackKey, info.osKey);
  }
  EXPECT_LE(counter.bytes(), attack.maxBytes) << "image of " << image.size() << " bytes";
  EXPECT_EQ(attack.reports, damage.count()) << damage.first();
  EXPECT_TRUE(log.lines().empty()) << log.all();
}

constexpr uint64_t kMiB = 1u << 20;
INSTANTIATE_TEST_SUITE_P(
    Attacks, GuessBounded,
    testing::Values(Attack{"AliasedParts", AliasedParts, GUESS_NOT_RECOGNIZED, 1 * kMiB, 1},
                    Attack{"WideRoot", WideRoot, GUESS_RECOGNIZED, 12 * kMiB, 0},
                    Attack{"DamagedFirst", DamagedFirst, GUESS_RECOGNIZED, 1 * kMiB, 1}),
    [](const auto &info) { return std::string(info.param.label); });

// A real image cut short, zeroed or replaced by noise: no log line from the
// library, at most one report, and the documented result.
TEST(GuessBroken, RealImageDamagedAnyWay) {
  std::string error;
  const std::string good =
      media_corpus::ImageFor("centos7", media_corpus::Medium::RockJoliet, &error);
  ASSERT_FALSE(good.empty()) << error;
  const std::string bytes = testing_support::ReadFile(good);
  TempDir dir;
  struct Broken {
    std::string name;
    std::string bytes;
  };
  std::vector<Broken> cases;
  for (size_t cut : {size_t{57139}, bytes.size() / 3, bytes.size() / 2, bytes.size() - 4096}) {
    cases.push_back({"cut" + std::to_string(cut), bytes.substr(0, cut)});
  }
  cases.push_back({"zeros", std::string(bytes.size(), '\0')});
  std::string noise(bytes.size(), '\0');
  for (size_t i = 0; i < noise.size(); ++i) {
    noise[i] = static_cast<char>((i * 2654435761u) >> 13);
  }
  cases.push_back({"noise", noise});
  for (const Broken &c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = (dir / c.name).string();
    testing_support::WriteFile(path, c.bytes);
    LogCapture log;
    GuessInfo info;
    GuessResult plain = Guess_Guest(path.c_str(), nullptr, &info);
    gp::FirstDamageReporter damage;
    EXPECT_EQ(plain, guess::Detect(path.c_str(), nullptr, &info, &damage));
    EXPECT_TRUE(log.lines().empty()) << log.all();
    EXPECT_LE(damage.count(), 1u);
    if (plain != GUESS_RECOGNIZED) {
      EXPECT_EQ(1u, damage.count()) << "an unreadable image says why";
    }
  }
}

// A FIFO is refused at once instead of waiting for a writer.
TEST(GuessBroken, FifoIsNotAnImage) {
  TempDir dir;
  const std::string fifo = (dir / "fifo").string();
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  GuessInfo info;
  gp::FirstDamageReporter damage;
  EXPECT_EQ(GUESS_OPEN_FAILED, guess::Detect(fifo.c_str(), nullptr, &info, &damage));
  EXPECT_EQ("not a regular file", damage.first());
}

}  // namespace
