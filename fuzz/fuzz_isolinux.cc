// Reads the input as an isolinux configuration.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "lib/guestInstall/autoinstallRemaster.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  autoinstall::IsolinuxEntry entry;
  std::string_view text(reinterpret_cast<const char *>(data), size);
  if (autoinstall::parseIsolinuxConfig(text, &entry) && entry.append.has_value()) {
    autoinstall::removeAskMethod(&*entry.append);
  }
  return 0;
}
