// A host library directory as the tools status reads it, built at test
// time from real tools: "isoimages/linux.iso" mastered by xorriso from a
// tree holding "manifest.txt", its hash data written and signed by
// "guestprep tools hashdata" with the test hierarchy's maker leaf, and the
// AVR manifest beside it signed by the openssl program.
//
// Reading it needs the maker's bundle in the certificate directory: hold a
// CertDirLease("std") while the library reads (and SKIP_WITHOUT_CERT_DIR).
#ifndef GUESTPREP_TESTS_TOOLSLIBRARY_H
#define GUESTPREP_TESTS_TOOLSLIBRARY_H

#include <filesystem>
#include <optional>
#include <string>

namespace testing_support {

struct ToolsLibraryContents {
  // manifest.txt in the image; none: the image has no such file.
  std::optional<std::string> hostManifest;
  // linux_avr_manifest.txt beside the image; none: no AVR manifest.
  std::optional<std::string> avrManifest;
  // How its ".sig" is made: "maker" (the maker leaf, detached), "partner"
  // (a partner leaf: not the maker's), "garbage" (not PEM), "none" (no file).
  std::string avrSignature = "maker";
  // "signed" (hash data by the maker leaf), "none" (no hash data), or
  // "tampered" (a byte of the image changed after signing).
  std::string hashData = "signed";
};

class ToolsLibrary {
 public:
  // Builds the library below root (which must exist). A failing tool fails
  // the test; ok() then says false.
  ToolsLibrary(const std::filesystem::path &root, const ToolsLibraryContents &contents);

  bool ok() const { return ok_; }
  // The host library directory (a configuration's "libdir").
  const std::filesystem::path &libdir() const { return libdir_; }
  // Its "isoimages/linux.iso".
  std::filesystem::path image() const { return libdir_ / "isoimages" / "linux.iso"; }
  std::filesystem::path avrManifest() const {
    return libdir_ / "isoimages" / "linux_avr_manifest.txt";
  }

 private:
  void Build(const std::filesystem::path &root, const ToolsLibraryContents &contents);

  std::filesystem::path libdir_;
  bool ok_ = false;
};

}  // namespace testing_support

#endif
