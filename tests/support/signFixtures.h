// Signature fixtures: the test certificate hierarchy, signatures made with
// the openssl program, and the certificate directory the library was built
// to read.
//
// Every test process sees one certificate directory (fixed at build time),
// while ctest runs tests in parallel, each in its own process. A test that
// needs particular bundles or revocation lists takes a CertDirLease: an
// exclusive lock on a file beside the directory, held while it fills the
// directory and verifies; the next lease starts from an empty directory.
#ifndef GUESTPREP_TESTS_SIGNFIXTURES_H
#define GUESTPREP_TESTS_SIGNFIXTURES_H

#include <filesystem>
#include <string>

namespace testing_support {

// The hierarchy tests/scripts/make_pki.sh makes (its header lists the
// names), made once per build tree and script version and shared by every
// test process after that.
const std::filesystem::path &TestPki();

// A PEM signature over data by the named signers ("maker-leaf", or several
// joined by "+"), each with its shipped intermediates. how is the openssl
// command and its options: "smime -binary", "cms -nodetach -noattr"...
// "cms" output is relabelled as the PKCS7 it is; "cms-pem" keeps openssl's
// "CMS" label. A failing openssl run fails the test and gives "".
std::string OpensslSign(const std::string &signers, const std::string &how,
                        const std::string &data);

// A signature table cell: "text:" and the escaped text itself, or the
// signers and the openssl command that sign data, as OpensslSign takes them.
std::string SignatureCell(const std::string &cell, const std::string &data);

// Backslash escapes of table cells: \n, \r, \t, \0, \\ and \xHH.
std::string Unescape(const std::string &cell);

// Whether the library reads a certificate directory the tests may fill
// (never the system's).
bool CertDirUsable();

#define SKIP_WITHOUT_CERT_DIR()                                                        \
  if (!testing_support::CertDirUsable()) {                                             \
    GTEST_SKIP() << "the library reads the system's certificate directory; configure " \
                    "GUESTPREP_CERT_DIR to a scratch directory to run this";           \
  }

class CertDirLease {
 public:
  // Locks the directory, empties it and fills it as contents says: comma-separated
  // "NAME<PKIFILE" (a copy of a hierarchy file) or "NAME=TEXT" (TEXT
  // unescaped, possibly empty); "std" stands for the maker and partner
  // roots as "brimle.cert" and "brmpartner.cert"; "-" for nothing.
  explicit CertDirLease(const std::string &contents);
  ~CertDirLease();
  CertDirLease(const CertDirLease &) = delete;
  CertDirLease &operator=(const CertDirLease &) = delete;

  // Empties the directory and fills it as other contents say, keeping the lock.
  void Refill(const std::string &contents);

 private:
  int lockFd_ = -1;
};

}  // namespace testing_support

#endif
