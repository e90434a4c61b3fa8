// Inside the boot-medium remastering: the isolinux configuration reader and
// the append-line cleanup, reached by the tests.
#ifndef GUESTPREP_LIB_AUTOINSTALL_REMASTER_H
#define GUESTPREP_LIB_AUTOINSTALL_REMASTER_H

#include <optional>
#include <string>
#include <string_view>

namespace autoinstall {

// The boot entry a configuration names. append holds the entry's append
// arguments without "initrd=", each followed by one blank.
struct IsolinuxEntry {
  std::optional<std::string> kernel;
  std::optional<std::string> initrd;
  std::optional<std::string> append;
};

// Reads the first entry of an isolinux configuration (text up to its first
// NUL) that has a kernel line and an append line. True only when that
// entry's append line also names the initrd; a false result may still
// leave kernel and append set, and the caller then tries another file.
bool parseIsolinuxConfig(std::string_view text, IsolinuxEntry *entry);

// Drops every argument that is exactly "askmethod" (the Red Hat installer
// would stop to ask for the install source), keeping the others each
// followed by one blank.
void removeAskMethod(std::string *append);

}  // namespace autoinstall

#endif
