// Inside the unattended install: an open floppy image's root directory,
// shared by the Linux and the Windows floppy builders.
#ifndef GUESTPREP_LIB_AUTOINSTALL_FLOPPY_H
#define GUESTPREP_LIB_AUTOINSTALL_FLOPPY_H

#include "platform/fat/fat.h"

namespace autoinstall {

// A floppy volume and its root directory, closed (directory first) when it
// goes out of scope on every path the builders take.
struct OpenFloppy {
  FATVolume *volume = nullptr;
  FATDirectory *root = nullptr;

  OpenFloppy() = default;
  OpenFloppy(const OpenFloppy &) = delete;
  OpenFloppy &operator=(const OpenFloppy &) = delete;
  ~OpenFloppy() {
    if (root != nullptr) {
      FAT_CloseDirectory(root);
    }
    if (volume != nullptr) {
      FAT_CloseVolume(volume);
    }
  }
};

}  // namespace autoinstall

#endif
