// Signature checks against signatures the openssl program makes at test
// time over a hierarchy tests/scripts/make_pki.sh makes: every expectation
// is a row of tests/data/sign/*.tsv. Rows that need particular bundles or
// revocation lists hold the certificate directory's lock while they fill it
// and verify (see support/signFixtures.h); they skip when the library was
// built to read the system's directory.
#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs7.h>
#include <openssl/x509_vfy.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "guestprep/tavsign.h"
#include "guestprep/toolsiso.h"
#include "lib/sign/tavSignInternal.h"
#include "support/signFixtures.h"
#include "support/testSupport.h"

namespace {

namespace fs = std::filesystem;
using testing_support::CertDirLease;
using testing_support::LogCapture;
using testing_support::OpensslSign;
using testing_support::ReadTsv;
using testing_support::SignatureCell;
using testing_support::TempDir;
using testing_support::TestPki;
using testing_support::TsvRow;
using testing_support::TsvRowNamer;
using testing_support::Unescape;
using testing_support::WriteFile;

// What the rows sign unless they say otherwise.
constexpr char kData[] = "windows.iso linux.iso solaris.iso\n";

struct Pkcs7Deleter {
  void operator()(PKCS7 *p) const { PKCS7_free(p); }
};
using Pkcs7 = std::unique_ptr<PKCS7, Pkcs7Deleter>;
struct StoreDeleter {
  void operator()(X509_STORE *s) const { X509_STORE_free(s); }
};
using Store = std::unique_ptr<X509_STORE, StoreDeleter>;
struct BioDeleter {
  void operator()(BIO *b) const { BIO_free(b); }
};
using Bio = std::unique_ptr<BIO, BioDeleter>;

std::string StatusName(TavSignStatus status) {
  static const char *const kNames[] = {"ERROR",    "BRM_SIGNED",     "PARTNER_SIGNED",
                                       "UNSIGNED", "INVALID_DIGEST", "INVALID_CERT"};
  return status < std::size(kNames) ? kNames[status] : "?" + std::to_string(status);
}

// A text the library allocated, freed; "" for none. An allocated empty text
// would be a bug, so it shows.
std::string TakeText(char *text) {
  std::string out = text == nullptr ? "" : (*text == '\0' ? "<empty>" : text);
  free(text);
  return out;
}

bool IsDetached(const std::string &signatureCell) {
  return signatureCell.find("-nodetach") == std::string::npos;
}

Pkcs7 Load(const std::string &pem) {
  return Pkcs7(
      TavSign_GetPKCS7FromRawBuffer(pem.data(), static_cast<uint32_t>(pem.size()), nullptr));
}

// The signature with one byte of the content it carries changed.
std::string TamperContent(const std::string &pem, const std::string &content) {
  Bio in(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  char *name = nullptr;
  char *header = nullptr;
  unsigned char *der = nullptr;
  long length = 0;
  if (PEM_read_bio(in.get(), &name, &header, &der, &length) != 1) {
    ADD_FAILURE() << "not PEM: " << pem;
    return pem;
  }
  std::string bytes(reinterpret_cast<char *>(der), static_cast<size_t>(length));
  const size_t at = bytes.find(content.substr(0, 8));
  if (at == std::string::npos) {
    ADD_FAILURE() << "content not found in the structure";
  } else {
    bytes[at] ^= 0x20;
  }
  Bio out(BIO_new(BIO_s_mem()));
  PEM_write_bio(out.get(), name, header, reinterpret_cast<unsigned char *>(bytes.data()), length);
  OPENSSL_free(name);
  OPENSSL_free(header);
  OPENSSL_free(der);
  char *text = nullptr;
  long size = BIO_get_mem_data(out.get(), &text);
  return std::string(text, static_cast<size_t>(size));
}

// The chain error OpenSSL queued for the first failed chain check, "none"
// when no chain check failed.
std::string FirstVerifyError() {
  const char *data = nullptr;
  int flags = 0;
  std::string found = "none";
  while (unsigned long code = ERR_get_error_all(nullptr, nullptr, nullptr, &data, &flags)) {
    (void)code;
    constexpr char kPrefix[] = "Verify error:";
    if (found == "none" && (flags & ERR_TXT_STRING) && data != nullptr &&
        strncmp(data, kPrefix, strlen(kPrefix)) == 0) {
      found = data + strlen(kPrefix);
      found.erase(0, found.find_first_not_of(' '));
    }
  }
  return found;
}

// The maker cell: "-" for the default bundle, "path:FILE" for a bundle path
// (a hierarchy file unless absolute), "store:FILE" for a caller's store
// trusting a hierarchy file.
struct Maker {
  explicit Maker(const std::string &cell) {
    if (cell.rfind("path:", 0) == 0) {
      const std::string file = cell.substr(5);
      path = file[0] == '/' ? file : (TestPki() / file).string();
    } else if (cell.rfind("store:", 0) == 0) {
      storeFile = (TestPki() / cell.substr(6)).string();
    } else if (cell != "-") {
      ADD_FAILURE() << "bad maker cell " << cell;
    }
  }
  const char *Path() const { return path.empty() ? nullptr : path.c_str(); }
  // A fresh store for every call: the verification changes it.
  Store NewStore() const {
    if (storeFile.empty()) {
      return nullptr;
    }
    Store store(X509_STORE_new());
    EXPECT_EQ(X509_STORE_load_file(store.get(), storeFile.c_str()), 1);
    return store;
  }

  std::string path;
  std::string storeFile;
};

// verify.tsv: name, signature, certificate directory, maker, change
// ("-", "data": the data or the content changed, "empty": data length 0),
// the verification run's status, IsSignatureValid and its error text,
// IsBrmSignatureValid and its error text, the first chain error queued
// ("-": not checked).
class SignVerifyTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(SignVerifyTest, Verifies) {
  SKIP_WITHOUT_CERT_DIR();
  const auto &c = GetParam().cells;
  std::string signature = SignatureCell(c[1], kData);
  ASSERT_FALSE(signature.empty());
  const bool detached = IsDetached(c[1]);
  std::string data = kData;
  if (c[4] == "data") {
    if (detached) {
      data[0] ^= 0x20;
    } else {
      signature = TamperContent(signature, data);
    }
  }
  const size_t dataLength = c[4] == "empty" ? 0 : data.size();
  Pkcs7 pkcs7 = Load(signature);
  ASSERT_TRUE(pkcs7) << signature;
  const Maker maker(c[3]);

  CertDirLease lease(c[2]);
  {
    ERR_clear_error();
    Store store = maker.NewStore();
    Bio source(detached ? BIO_new_mem_buf(data.data(), static_cast<int>(dataLength)) : nullptr);
    std::string error;
    TavSignResult result =
        TavSignVerify(pkcs7.get(), source.get(), maker.Path(), store.get(), error);
    EXPECT_EQ(StatusName(result.status), c[5]);
    if (c[10] != "-") {
      EXPECT_EQ(FirstVerifyError(), c[10]);
    }
  }

  char *error = reinterpret_cast<char *>(1);  // a slot the call must set
  EXPECT_EQ(TavSign_IsSignatureValid(pkcs7.get(), &error), c[6] == "1");
  EXPECT_EQ(TakeText(error), Unescape(c[7]));

  Store store = maker.NewStore();
  error = reinterpret_cast<char *>(1);
  EXPECT_EQ(TavSign_IsBrmSignatureValid(pkcs7.get(), data.data(), dataLength, maker.Path(),
                                        store.get(), &error),
            c[8] == "1");
  EXPECT_EQ(TakeText(error), Unescape(c[9]));
}

INSTANTIATE_TEST_SUITE_P(Table, SignVerifyTest, ::testing::ValuesIn(ReadTsv("sign/verify.tsv", 11)),
                         TsvRowNamer());

// digest.tsv: name, signature, data signed, change ("-", "content"),
// whether the content comes out, the content or the error text.
class SignDigestTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(SignDigestTest, Extracts) {
  const auto &c = GetParam().cells;
  const std::string data = Unescape(c[2]);
  std::string signature = SignatureCell(c[1], data);
  ASSERT_FALSE(signature.empty());
  if (c[3] == "content") {
    signature = TamperContent(signature, data);
  }
  Pkcs7 pkcs7 = Load(signature);
  ASSERT_TRUE(pkcs7);

  uint8_t *content = reinterpret_cast<uint8_t *>(1);
  uint32_t length = 12345;
  char *error = reinterpret_cast<char *>(1);
  const bool ok = TavSign_GetDigestFromPKCS7(pkcs7.get(), &content, &length, &error);
  EXPECT_EQ(ok, c[4] == "1");
  if (ok) {
    ASSERT_NE(content, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(content), length), Unescape(c[5]));
    EXPECT_EQ(content[length], 0);
    EXPECT_EQ(TakeText(error), "");
  } else {
    EXPECT_EQ(content, nullptr);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(TakeText(error), Unescape(c[5]));
  }
  free(content);
}

INSTANTIATE_TEST_SUITE_P(Table, SignDigestTest, ::testing::ValuesIn(ReadTsv("sign/digest.tsv", 6)),
                         TsvRowNamer());

// load.tsv: name, "buffer" or "file", input (a signature cell, "<null>":
// a null buffer of 16 bytes, "<missing>": a file that is not there,
// "<dir>": a directory), whether a structure comes out, the error text.
class SignLoadTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(SignLoadTest, Loads) {
  const auto &c = GetParam().cells;
  TempDir dir;
  char *error = reinterpret_cast<char *>(1);
  Pkcs7 pkcs7;
  if (c[1] == "buffer") {
    if (c[2] == "<null>") {
      pkcs7.reset(TavSign_GetPKCS7FromRawBuffer(nullptr, 16, &error));
    } else {
      const std::string input = SignatureCell(c[2], kData);
      pkcs7.reset(
          TavSign_GetPKCS7FromRawBuffer(input.data(), static_cast<uint32_t>(input.size()), &error));
    }
  } else {
    fs::path path = dir / "signature.pem";
    if (c[2] == "<missing>") {
      path = dir / "missing.pem";
    } else if (c[2] == "<dir>") {
      path = dir.path();
    } else {
      WriteFile(path, SignatureCell(c[2], kData));
    }
    pkcs7.reset(TavSign_GetPKCS7FromFile(path.c_str(), &error));
  }
  EXPECT_EQ(pkcs7 != nullptr, c[3] == "1");
  EXPECT_EQ(TakeText(error), Unescape(c[4]));
  ERR_clear_error();
}

INSTANTIATE_TEST_SUITE_P(Table, SignLoadTest, ::testing::ValuesIn(ReadTsv("sign/load.tsv", 5)),
                         TsvRowNamer());

// toolsiso.tsv: name, signature, certificate directory, certificate path
// ("-" for none, a hierarchy file unless absolute), change ("-", "data",
// "empty"), the answer, the log line ("" for none).
class ToolsIsoSignatureTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(ToolsIsoSignatureTest, VerifiesAndLogs) {
  SKIP_WITHOUT_CERT_DIR();
  const auto &c = GetParam().cells;
  const std::string signature = SignatureCell(c[1], kData);
  std::string data = kData;
  if (c[4] == "data") {
    data[0] ^= 0x20;
  }
  const size_t dataLength = c[4] == "empty" ? 0 : data.size();
  std::string certPath;
  if (c[3] != "-") {
    certPath = c[3][0] == '/' ? c[3] : (TestPki() / c[3]).string();
  }

  CertDirLease lease(c[2]);
  LogCapture log;
  ERR_clear_error();
  const bool ok =
      ToolsISO_VerifySignature(certPath.empty() ? nullptr : certPath.c_str(), signature.data(),
                               signature.size(), data.data(), dataLength);
  EXPECT_EQ(ok, c[5] == "1");
  const std::string expected = Unescape(c[6]);
  EXPECT_EQ(log.lines().size(), expected.empty() ? 0u : 1u) << log.all();
  if (!expected.empty() && !log.lines().empty()) {
    EXPECT_EQ(log.lines()[0], testing_support::Replace(expected, "$PKI", TestPki().string()));
  }
  if (!ok) {
    EXPECT_EQ(ERR_peek_error(), 0u) << "OpenSSL errors left queued";
  }
}

INSTANTIATE_TEST_SUITE_P(Table, ToolsIsoSignatureTest,
                         ::testing::ValuesIn(ReadTsv("sign/toolsiso.tsv", 7)), TsvRowNamer());

// status.tsv: value, text.
class SignStatusTextTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(SignStatusTextTest, Names) {
  const auto &c = GetParam().cells;
  EXPECT_STREQ(TavSign_StatusToString(static_cast<TavSignStatus>(std::stoul(c[0], nullptr, 0))),
               c[1].c_str());
}

INSTANTIATE_TEST_SUITE_P(Table, SignStatusTextTest,
                         ::testing::ValuesIn(ReadTsv("sign/status.tsv", 2)), TsvRowNamer());

// The bundles are read at every verification: replacing one changes the
// next answer.
TEST(SignCertDir, ReadsBundlesAtEveryCall) {
  SKIP_WITHOUT_CERT_DIR();
  const std::string signature = OpensslSign("maker-leaf", "smime -binary", kData);
  Pkcs7 pkcs7 = Load(signature);
  ASSERT_TRUE(pkcs7);
  auto brm = [&] {
    char *error = nullptr;
    bool ok =
        TavSign_IsBrmSignatureValid(pkcs7.get(), kData, strlen(kData), nullptr, nullptr, &error);
    EXPECT_EQ(TakeText(error), "");
    return ok;
  };

  CertDirLease lease("std");
  EXPECT_TRUE(brm());
  lease.Refill("brimle.cert<partner-root.pem,brmpartner.cert<maker-root.pem");
  EXPECT_FALSE(brm());
  lease.Refill("std,brimle.crl<maker-ca.crl");
  EXPECT_TRUE(brm());
  lease.Refill("std,brimle.crl=\\n");  // no PEM block: an empty list
  EXPECT_TRUE(brm());
}

// Missing structures, buffers and outputs are refused with a reason.
TEST(SignArguments, RefusesNulls) {
  SKIP_WITHOUT_CERT_DIR();
  CertDirLease lease("std");
  char *error = nullptr;
  EXPECT_FALSE(TavSign_IsSignatureValid(nullptr, &error));
  EXPECT_EQ(TakeText(error), "");
  EXPECT_FALSE(
      TavSign_IsBrmSignatureValid(nullptr, kData, strlen(kData), nullptr, nullptr, &error));
  EXPECT_EQ(TakeText(error), "");

  Pkcs7 pkcs7 = Load(OpensslSign("maker-leaf", "smime -binary -nodetach", kData));
  ASSERT_TRUE(pkcs7);
  EXPECT_FALSE(TavSign_IsBrmSignatureValid(pkcs7.get(), nullptr, 5, nullptr, nullptr, &error));
  EXPECT_EQ(TakeText(error), "passed a null parameter");

  uint8_t *content = nullptr;
  uint32_t length = 0;
  EXPECT_FALSE(TavSign_GetDigestFromPKCS7(nullptr, &content, &length, &error));
  EXPECT_EQ(TakeText(error), "invalid null pointer");
  EXPECT_FALSE(TavSign_GetDigestFromPKCS7(pkcs7.get(), nullptr, &length, &error));
  EXPECT_EQ(TakeText(error), "Invalid argument.");
  EXPECT_FALSE(TavSign_GetDigestFromPKCS7(pkcs7.get(), &content, nullptr, nullptr));
  EXPECT_EQ(TavSign_GetPKCS7FromFile(nullptr, &error), nullptr);
  EXPECT_EQ(TakeText(error), "Unable to load PKCS7 certificate.");
}

}  // namespace
