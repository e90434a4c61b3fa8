// Detection over an arbitrary image held in memory: opened as UDF first,
// then as ISO 9660 with every name set, as Guess_Guest does with a file.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "guestprep/guess.h"
#include "lib/guessGuest/guessInternal.h"
#include "platform/iso9660/iso9660.h"
#include "platform/udf/udf.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::span<const uint8_t> bytes(data, size);
  GuessMedium medium{};
  medium.udf = UDF_OpenReader(gp::MakeMemoryImageReader(bytes));
  if (medium.udf != nullptr) {
    medium.type = GUESS_MEDIUM_UDF;
  } else if (Iso9660_OpenReader(
                 gp::MakeMemoryImageReader(bytes),
                 ISO9660_FORMAT_ISO | ISO9660_FORMAT_JOLIET | ISO9660_FORMAT_ROCKRIDGE,
                 &medium.iso) == ISO9660_OK) {
    medium.type = GUESS_MEDIUM_ISO9660;
  } else {
    return 0;
  }
  GuessInfo info;
  memset(&info, 0, sizeof info);
  guess::RunDetectors(&medium, &info);
  Guess_MacOS(&medium, &info);
  if (medium.type == GUESS_MEDIUM_UDF) {
    UDF_Close(medium.udf);
  } else {
    Iso9660_Close(medium.iso);
  }
  return 0;
}
