// guestprep tools image and tools verify, run as a user runs them: images
// signed with "tools hashdata" by the test hierarchy's maker leaf, changed
// after signing, checked locally and from lighttpd.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/httpServer.h"
#include "support/signFixtures.h"
#include "support/testSupport.h"
#include "toolsiso/hashFixtures.h"

namespace fs = std::filesystem;
using testing_support::ReadFile;
using testing_support::ReadTsv;
using testing_support::RunCommand;
using testing_support::Split;
using testing_support::TempDir;
using testing_support::TsvRow;
using testing_support::TsvRowNamer;
using testing_support::WriteFile;

namespace {

nlohmann::json Record(const testing_support::CommandResult &r) {
  std::string last =
      r.output.substr(r.output.rfind('{') == std::string::npos ? 0 : r.output.rfind('{'));
  return nlohmann::json::parse(last, nullptr, false);
}

class ToolsVerifyCli : public ::testing::TestWithParam<TsvRow> {};

TEST_P(ToolsVerifyCli, ExitAndRecord) {
  SKIP_WITHOUT_CERT_DIR();
  const auto &c = GetParam().cells;
  TempDir dir;
  const fs::path image = dir / "linux.iso";
  WriteFile(image, testing_support::Pattern(300000, 7));
  hash_fixtures::Publish(image, hash_fixtures::MakerSigner(dir.path()), {"--embed"});

  std::string bytes = ReadFile(image);
  const std::string change = c[2];
  if (change.rfind("flip:", 0) == 0) {
    bytes[std::stoul(change.substr(5))] ^= 0x20;
  } else if (change.rfind("cut:", 0) == 0) {
    bytes.resize(std::stoul(change.substr(4)));
  } else if (change.rfind("grow:", 0) == 0) {
    bytes += std::string(std::stoul(change.substr(5)), 'x');
  } else if (change == "nosha") {
    fs::remove(dir / "linux.iso.sha");
  }
  WriteFile(image, bytes);

  testing_support::CertDirLease lease("std");
  std::unique_ptr<testing_support::HttpServer> server;
  std::string target = image.string();
  if (c[1] == "http") {
    server = std::make_unique<testing_support::HttpServer>(
        testing_support::HttpServerKind::kLighttpd, dir.path());
    ASSERT_TRUE(server->ok()) << server->error();
    target = server->Url("/linux.iso");
  }
  std::vector<std::string> argv = {GUESTPREP_CLI, "tools", "verify", "--json", target};
  if (c[3] != "-") {
    argv.push_back(c[3]);
  }
  auto r = RunCommand(argv, 120);
  EXPECT_EQ(r.exitCode, std::stoi(c[4])) << r.output;
  if (c[5] == "-") {
    return;
  }
  nlohmann::json j = Record(r);
  ASSERT_TRUE(j.is_object()) << r.output;
  for (const std::string &field : Split(c[5], ";")) {
    size_t eq = field.find('=');
    const nlohmann::json &got = j[field.substr(0, eq)];
    std::string shown = got.is_string() ? got.get<std::string>() : got.dump();
    EXPECT_EQ(shown, field.substr(eq + 1)) << field << "\n" << r.output;
  }
}

INSTANTIATE_TEST_SUITE_P(Table, ToolsVerifyCli,
                         ::testing::ValuesIn(ReadTsv("toolsiso-cli/verify.tsv", 6)), TsvRowNamer());

// Without an image map the built-in table answers; a guest it does not
// serve is exit 1 with the reason.
TEST(ToolsImageCli, NamesTheImageFromTheTable) {
  TempDir lib;
  fs::create_directories(lib / "isoimages");
  WriteFile(lib / "isoimages" / "windows.iso", "x");
  struct {
    const char *key;
    int exit;
    const char *image, *kind, *present;
  } cases[] = {
      {"windows9-64", 0, "windows.iso", "2", "true"},
      {"rhel7-64", 0, "linux.iso", "4", "false"},
      {"rhel8-64", 1, "", "", ""},  // served by the distribution's packages
      {"no-such-guest", 1, "", "", ""},
  };
  for (const auto &k : cases) {
    SCOPED_TRACE(k.key);
    auto r = RunCommand(
        {GUESTPREP_CLI, "tools", "image", "--json", "--guest-os", k.key, "--libdir", lib.str()});
    ASSERT_EQ(r.exitCode, k.exit) << r.output;
    if (k.exit == 0) {
      nlohmann::json j = Record(r);
      EXPECT_EQ(j["image"], (lib / "isoimages" / k.image).string());
      EXPECT_EQ(j["kind"].dump(), k.kind);
      EXPECT_EQ(j["present"].dump(), k.present);
    }
  }
}

}  // namespace
