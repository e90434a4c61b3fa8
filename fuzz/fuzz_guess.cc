// Detection over an arbitrary image held in memory, as Guess_Guest runs it
// on a file: opened once, UDF first, then ISO 9660 with every name set.
#include <cstddef>
#include <cstdint>
#include <span>

#include "guestprep/guess.h"
#include "lib/guessGuest/guessDetect.h"
#include "platform/image/imageReader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::unique_ptr<gp::ImageReader> image = gp::MakeMemoryImageReader(std::span(data, size));
  gp::FirstDamageReporter damage;
  GuessInfo info;
  guess::DetectImage(*image, &info, &damage);
  return 0;
}
