// SHA256_crypt against the system's libcrypt crypt_r() on the same keys,
// salts and round counts: microseconds per hash for each (median of
// several passes) and their ratio. The goal: a ratio of 0.5 or less, so
// hashing both answer-file passwords stays far below anything a user
// notices, even at raised round counts.
//
// Then the cost of one round-sized SHA-256 (48 bytes) through the host
// context, the unit the rounds are made of.
//
// usage: bench_crypt [passes]
#include <crypt.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "guestprep/autoinstall.h"
#include "platform/crypto/cryptoHash.h"

namespace {

struct Case {
  const char *key;
  const char *setting;
};
// Passwords of the lengths people type and beyond one digest block, with
// the generated 16-character salts, a short salt and raised round counts.
const Case kCases[] = {
    {"", "$5$Q9tWfmhJqk2y3B0a"},
    {"secret", "$5$Q9tWfmhJqk2y3B0a"},
    {"correct horse battery", "$5$aZ0./pLmn3KdeR7s"},
    {"Tr0ub4dor&3!Tr0ub4dor&3!Tr0ub4dor&3!xy", "$5$x/yz"},
    {"a password longer than one sixty-four byte block of the digest...", "$5$Mm4kT2vQ8wXr1nLp"},
    {"secret", "$5$rounds=1000$Q9tWfmhJqk2y3B0a"},
    {"correct horse battery", "$5$rounds=50000$aZ0./pLmn3KdeR7s"},
};

using Clock = std::chrono::steady_clock;

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// Nanoseconds per 48-byte digest, each digest feeding the next as a round
// does; median of passes.
template <typename HashFn>
double NsPerDigest(int passes, HashFn hash) {
  constexpr int kDigests = 200000;
  uint8_t message[48] = {1, 2, 3};
  std::vector<double> ns;
  for (int p = 0; p < passes; ++p) {
    auto t0 = Clock::now();
    for (int i = 0; i < kDigests; ++i) {
      hash(message);  // writes its digest over the first 32 bytes
    }
    ns.push_back(std::chrono::duration<double, std::nano>(Clock::now() - t0).count() / kDigests);
  }
  return Median(ns);
}

void CompareDigestLayers(int passes) {
  CryptoHashContext ctx;
  const double host = NsPerDigest(passes, [&ctx](uint8_t *m) {
    CryptoHash_InitSHA256(&ctx);
    CryptoHash_UpdateSHA256(&ctx, m, 48);
    CryptoHash_FinalSHA256(&ctx, m);
  });
  printf("one 48-byte SHA-256: %.0f ns\n", host);
}

}  // namespace

int main(int argc, char **argv) {
  const int passes = argc > 1 ? std::max(1, atoi(argv[1])) : 7;
  auto data = std::make_unique<crypt_data>();
  char ours[128];

  printf("%-10s %-8s %12s %12s %8s\n", "key bytes", "rounds", "ours us", "libcrypt us", "ratio");
  double sumOurs = 0, sumTheirs = 0;
  for (const Case &c : kCases) {
    memset(data.get(), 0, sizeof *data);
    const char *expected = crypt_r(c.key, c.setting, data.get());
    const char *got = SHA256_crypt(c.key, c.setting, ours, sizeof ours);
    if (expected == nullptr || got == nullptr || strcmp(expected, got) != 0) {
      fprintf(stderr, "mismatch for setting %s: %s vs %s\n", c.setting, got ? got : "(null)",
              expected ? expected : "(null)");
      return 1;
    }
    const bool longRun = strstr(c.setting, "rounds=50000") != nullptr;
    const int reps = longRun ? 4 : 40;
    std::vector<double> oursUs, theirsUs;
    for (int p = 0; p < passes; ++p) {
      auto t0 = Clock::now();
      for (int r = 0; r < reps; ++r) {
        SHA256_crypt(c.key, c.setting, ours, sizeof ours);
      }
      auto t1 = Clock::now();
      for (int r = 0; r < reps; ++r) {
        crypt_r(c.key, c.setting, data.get());
      }
      auto t2 = Clock::now();
      oursUs.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count() / reps);
      theirsUs.push_back(std::chrono::duration<double, std::micro>(t2 - t1).count() / reps);
    }
    const double o = Median(oursUs), t = Median(theirsUs);
    sumOurs += o;
    sumTheirs += t;
    const char *rounds = strstr(c.setting, "rounds=");
    printf("%-10zu %-8s %12.1f %12.1f %8.2f\n", strlen(c.key),
           rounds ? std::string(rounds + 7, strchr(rounds, '$')).c_str() : "5000", o, t, o / t);
  }
  printf("overall ratio (sum of medians): %.2f  (goal: 0.50 or less)\n", sumOurs / sumTheirs);
  CompareDigestLayers(passes);
  return 0;
}
