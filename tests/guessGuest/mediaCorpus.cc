#include "guessGuest/mediaCorpus.h"

#include <map>
#include <tuple>

#include "support/testSupport.h"

namespace media_corpus {

std::string ImageFor(const std::string &tree, Medium medium, std::string *error,
                     const std::string &volumeId) {
  static testing_support::TempDir scratch;  // removed at exit with every image
  static std::map<std::tuple<std::string, Medium, std::string>, std::string> cache;
  auto key = std::make_tuple(tree, medium, volumeId);
  if (auto it = cache.find(key); it != cache.end()) {
    return it->second;
  }
  const std::string image =
      (scratch / (tree + "." + MediumName(medium) + "." + std::to_string(cache.size()) + ".iso"))
          .string();
  const std::string source = (testing_support::DataDir() / "media" / tree).string();
  auto r = testing_support::RunMasteringTool(MasterArgv(source, image, medium, volumeId));
  if (r.exitCode != 0) {
    *error = r.output;
    return std::string();
  }
  return cache[key] = image;
}

}  // namespace media_corpus
