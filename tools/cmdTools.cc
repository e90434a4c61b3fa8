// guestprep tools: the publisher's and the checker's side of guest tools
// images. Each subcommand of the group is one Command in kToolsSubcommands.
//
// tools image: where the tools image for a guest is.
// tools verify IMAGE: every block of an image against its signed hashes.
// tools hashdata IMAGE: the image's hash-data file (a header, one SHA-256
// hash per block, a detached PEM PKCS#7 signature embedded at its end or
// in a file of its own), exactly as the library's loader reads it.
// tools status, tools save: in cmdToolsVersion.cc.
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "cli.h"
#include "guestprep/toolsiso.h"
#include "lib/toolsiso/toolsIsoHash.h"
#include "lib/toolsiso/toolsIsoHttpReader.h"
#include "platform/crypto/cryptoHash.h"
#include "platform/file/fileIO.h"
#include "platform/util/str.h"

namespace {

// ---- tools hashdata ----

struct HashDataOptions {
  std::string image;
  std::string key;
  std::string cert;
  std::string out;
  std::string sigOut;
  bool embed = false;
  uint32_t blockSize = 4096;
  bool json = false;
} gHash;

constexpr uint32_t kMetadataLength = gp::kToolsIsoMinMetadataLength;
// With the signature after the hashes the file holds more than the table,
// so the loader's exact-count rule (kept for hashFileBlockSize 0) cannot
// hold; a non-zero hashFileBlockSize switches it off.
constexpr uint32_t kEmbeddedHashFileBlockSize = 4096;
// ToolsISO_ReadFile reads at most this much.
constexpr uint64_t kMaxHashDataSize = 0x10000000;

template <typename T, void (*Free)(T *)>
struct OsslDeleter {
  void operator()(T *p) const { Free(p); }
};
using UniqueBio = std::unique_ptr<BIO, OsslDeleter<BIO, BIO_free_all>>;
using UniqueKey = std::unique_ptr<EVP_PKEY, OsslDeleter<EVP_PKEY, EVP_PKEY_free>>;
using UniqueX509 = std::unique_ptr<X509, OsslDeleter<X509, X509_free>>;
using UniquePkcs7 = std::unique_ptr<PKCS7, OsslDeleter<PKCS7, PKCS7_free>>;
void FreeCertStack(STACK_OF(X509) * certs) {
  sk_X509_pop_free(certs, X509_free);
}
using UniqueCerts = std::unique_ptr<STACK_OF(X509), OsslDeleter<STACK_OF(X509), FreeCertStack>>;

// The reason OpenSSL queued last, for a one-line failure; the queue is
// emptied so the next failure does not show this one.
std::string OsslReason() {
  unsigned long e = ERR_get_error();
  const char *reason = e != 0 ? ERR_reason_error_string(e) : nullptr;
  ERR_clear_error();
  return reason != nullptr ? reason : "unknown OpenSSL error";
}

// The signer: its key, its certificate (the first in the file) and any
// certificates after it, which go into the signature as its chain.
struct Signer {
  UniqueKey key;
  UniqueX509 cert;
  UniqueCerts chain{sk_X509_new_null()};

  bool Load(const std::string &keyPath, const std::string &certPath) {
    UniqueBio keyBio(BIO_new_file(keyPath.c_str(), "r"));
    if (keyBio) {
      key.reset(PEM_read_bio_PrivateKey(keyBio.get(), nullptr, nullptr, nullptr));
    }
    if (!key) {
      cli::Fail("cannot read the private key " + keyPath + ": " + OsslReason());
      return false;
    }
    UniqueBio certBio(BIO_new_file(certPath.c_str(), "r"));
    if (certBio) {
      cert.reset(PEM_read_bio_X509(certBio.get(), nullptr, nullptr, nullptr));
    }
    if (!cert) {
      cli::Fail("cannot read the certificate " + certPath + ": " + OsslReason());
      return false;
    }
    while (X509 *extra = PEM_read_bio_X509(certBio.get(), nullptr, nullptr, nullptr)) {
      sk_X509_push(chain.get(), extra);
    }
    ERR_clear_error();  // the end of the file
    if (X509_check_private_key(cert.get(), key.get()) != 1) {
      ERR_clear_error();
      cli::Fail("the key " + keyPath + " does not belong to the certificate " + certPath);
      return false;
    }
    return true;
  }

  // A detached PEM PKCS#7 signature over data. No signed attributes: the
  // signature is then a function of the key and the bytes alone (RSA), so
  // a file signed twice is the same file, and the loader's PKCS7_verify
  // (PKCS7_BINARY, detached data) accepts it.
  bool Sign(const std::vector<uint8_t> &data, std::string *pem) const {
    UniqueBio in(BIO_new_mem_buf(data.data(), static_cast<int>(data.size())));
    UniquePkcs7 p7(in ? PKCS7_sign(cert.get(), key.get(), chain.get(), in.get(),
                                   PKCS7_BINARY | PKCS7_DETACHED | PKCS7_NOATTR)
                      : nullptr);
    UniqueBio out(BIO_new(BIO_s_mem()));
    if (!p7 || !out || PEM_write_bio_PKCS7(out.get(), p7.get()) != 1) {
      cli::Fail("cannot sign the hash data: " + OsslReason());
      return false;
    }
    char *text = nullptr;
    long length = BIO_get_mem_data(out.get(), &text);
    pem->assign(text, static_cast<size_t>(length));
    return true;
  }
};

// The image's block hashes, in order.
bool HashImage(const std::string &path, uint32_t blockSize, std::vector<uint8_t> *hashes,
               uint64_t *imageSize) {
  gp::ScopedFileIO file;
  FileIOResult r = FileIO_Open(&file.fd, path.c_str(), FILEIO_OPEN_ACCESS_READ, FILEIO_OPEN);
  if (r != FILEIO_SUCCESS) {
    cli::Fail("cannot open " + path + ": " + FileIO_ErrorEnglish(r));
    return false;
  }
  const uint64_t size = FileIO_GetSize(&file.fd);
  if (size == kFileIOInvalidSize) {
    cli::Fail("cannot get the size of " + path);
    return false;
  }
  if (size == 0) {
    // The loader refuses a table without hashes: an empty image has no
    // hash data that it would accept.
    cli::Fail(path + " is empty: there is nothing to hash");
    return false;
  }
  const uint64_t count = size / blockSize + (size % blockSize != 0);
  if (count > (kMaxHashDataSize - kMetadataLength) / kCryptoHashSHA256Size) {
    cli::Fail(path + " is too big for hash data of at most 256 MiB at --block-size " +
              std::to_string(blockSize));
    return false;
  }
  const CryptoHashImpl *impl = nullptr;
  if (CryptoHash_FromString(gp::kToolsIsoHashAlgo, &impl) != CRYPTO_ERROR_SUCCESS) {
    cli::Fail("no SHA-256 implementation");
    return false;
  }
  hashes->resize(static_cast<size_t>(count) * kCryptoHashSHA256Size);
  // Whole blocks per read, about 1 MiB.
  std::vector<uint8_t> chunk(static_cast<size_t>((1u << 20) / blockSize) * blockSize);
  uint8_t *hash = hashes->data();
  for (uint64_t offset = 0; offset < size;) {
    const size_t want = size - offset < chunk.size() ? size - offset : chunk.size();
    r = FileIO_Pread(&file.fd, chunk.data(), want, offset);
    if (r != FILEIO_SUCCESS) {
      cli::Fail("cannot read " + path + ": " + FileIO_ErrorEnglish(r));
      return false;
    }
    for (size_t done = 0; done < want; done += blockSize, hash += kCryptoHashSHA256Size) {
      const size_t piece = want - done < blockSize ? want - done : blockSize;
      if (CryptoHash_Compute(impl, chunk.data() + done, piece, hash, kCryptoHashSHA256Size) !=
          CRYPTO_ERROR_SUCCESS) {
        cli::Fail("cannot hash " + path);
        return false;
      }
    }
    offset += want;
  }
  *imageSize = size;
  return true;
}

// The file up to its signature: header, zeros to metadataLength, hashes.
std::vector<uint8_t> HashDataBody(const ToolsIsoHashHeader &header,
                                  const std::vector<uint8_t> &hashes) {
  std::vector<uint8_t> file(kMetadataLength, 0);
  gp::EncodeToolsIsoHashHeader(header, file.data());
  file.insert(file.end(), hashes.begin(), hashes.end());
  return file;
}

// Signs the file with the signature at its end: the header names the
// signature's offset and size, and the signature covers the header, so its
// size is guessed, signed with, and the guess corrected until it holds. A
// signature shorter than announced (a DSA or ECDSA signature varies by a
// byte or two) is padded with line feeds, which a PEM reader skips.
bool EmbedSignature(const Signer &signer, ToolsIsoHashHeader header,
                    const std::vector<uint8_t> &hashes, std::vector<uint8_t> *file) {
  std::string pem;
  uint64_t announced = 0;
  header.signatureOffset = kMetadataLength + hashes.size();
  for (int attempt = 0; attempt < 8; ++attempt) {
    header.signatureSize = announced;
    *file = HashDataBody(header, hashes);
    if (!signer.Sign(*file, &pem)) {
      return false;
    }
    if (announced != 0 && pem.size() <= announced) {
      pem.append(static_cast<size_t>(announced) - pem.size(), '\n');
      file->insert(file->end(), pem.begin(), pem.end());
      return true;
    }
    announced = pem.size();
  }
  cli::Fail("cannot sign the hash data: the signature's size does not settle");
  return false;
}

bool WriteAtomically(const std::string &path, const void *data, size_t size) {
  FileIOAtomicWriter writer;
  FileIOResult r = FileIO_AtomicBegin(&writer, path.c_str(), 0644, true);
  if (r == FILEIO_SUCCESS) {
    r = FileIO_Write(&writer.fd, data, size, nullptr);
    if (r == FILEIO_SUCCESS) {
      r = FileIO_AtomicCommit(&writer);
    } else {
      FileIO_AtomicAbort(&writer);
    }
  }
  if (r != FILEIO_SUCCESS) {
    cli::Fail("cannot write " + path + ": " + FileIO_ErrorEnglish(r));
    return false;
  }
  return true;
}

int RunHashData() {
  if (gHash.out.empty()) {
    gHash.out = gHash.image + ".sha";
  }
  if (gHash.sigOut.empty()) {
    gHash.sigOut = gHash.image + ".sig";
  }
  Signer signer;
  if (!signer.Load(gHash.key, gHash.cert)) {
    return cli::kExitFailure;
  }
  std::vector<uint8_t> hashes;
  uint64_t imageSize = 0;
  if (!HashImage(gHash.image, gHash.blockSize, &hashes, &imageSize)) {
    return cli::kExitFailure;
  }

  ToolsIsoHashHeader header = {};
  memcpy(header.magic, TOOLSISO_HASH_MAGIC, sizeof header.magic);
  header.metadataLength = kMetadataLength;
  header.blockSize = gHash.blockSize;
  header.hashSize = kCryptoHashSHA256Size;
  header.hashFileBlockSize = gHash.embed ? kEmbeddedHashFileBlockSize : 0;
  header.firstHashOffset = kMetadataLength;
  header.hashCount = hashes.size() / kCryptoHashSHA256Size;
  memcpy(header.hashAlgo, gp::kToolsIsoHashAlgo, sizeof header.hashAlgo);

  std::vector<uint8_t> file;
  std::string separate;
  if (gHash.embed) {
    if (!EmbedSignature(signer, header, hashes, &file)) {
      return cli::kExitFailure;
    }
  } else {
    file = HashDataBody(header, hashes);
    if (!signer.Sign(file, &separate)) {
      return cli::kExitFailure;
    }
  }

  // What the loader would refuse is not written: the size rules it applies
  // beside the file, then the file itself through the loader's own checks.
  if (file.size() >= imageSize) {
    cli::Fail("the hash data (" + std::to_string(file.size()) +
              " bytes) would not be smaller than " + gHash.image + " (" +
              std::to_string(imageSize) + " bytes); the library refuses it");
    return cli::kExitFailure;
  }
  if (!gHash.embed && separate.size() >= file.size()) {
    cli::Fail("the signature (" + std::to_string(separate.size()) +
              " bytes) would not be smaller than the hash data (" + std::to_string(file.size()) +
              " bytes); the library refuses it: use --embed or a smaller --block-size");
    return cli::kExitFailure;
  }
  auto *copy = static_cast<uint8_t *>(malloc(file.size()));
  if (copy == nullptr) {
    cli::Fail("out of memory");
    return cli::kExitFailure;
  }
  memcpy(copy, file.data(), file.size());
  ToolsIsoHashInfo *parsed = ToolsISO_ParseHashData(copy, file.size());
  if (parsed == nullptr) {
    free(copy);
    cli::Fail(cli::FailedStep("the hash data for " + gHash.image + " does not load"));
    return cli::kExitFailure;
  }
  ToolsISO_FreeHashInfo(parsed);

  // The signature first: until the hash data follows, the pair fails its
  // check instead of passing with stale hashes.
  if (!gHash.embed && !WriteAtomically(gHash.sigOut, separate.data(), separate.size())) {
    return cli::kExitFailure;
  }
  if (!WriteAtomically(gHash.out, file.data(), file.size())) {
    return cli::kExitFailure;
  }
  nlohmann::ordered_json j;
  j["image"] = gHash.image;
  j["imageSize"] = imageSize;
  j["hashData"] = gHash.out;
  j["hashDataSize"] = file.size();
  j["signature"] = gHash.embed ? std::string("embedded") : gHash.sigOut;
  j["blockSize"] = gHash.blockSize;
  j["hashCount"] = header.hashCount;
  cli::PrintRecord(j, gHash.json);
  return cli::kExitOk;
}

CLI::App *AddHashData(CLI::App &tools) {
  CLI::App *cmd = tools.add_subcommand(
      "hashdata",
      "Write the signed hash-data file of a tools image: a header, one SHA-256 hash per block "
      "and a detached PEM PKCS#7 signature, embedded at its end (--embed) or written to its "
      "own file. Files are replaced atomically. Exit 0 when written, 1 on failure.");
  cmd->add_option("IMAGE", gHash.image, "The tools image")->required();
  cmd->add_option("--key", gHash.key, "Signer's private key (PEM)")->required()->type_name("KEY");
  cmd->add_option("--cert", gHash.cert,
                  "Signer's certificate (PEM); certificates after it go into the signature as "
                  "its chain")
      ->required()
      ->type_name("CERT");
  cmd->add_flag("--embed", gHash.embed, "Embed the signature at the end of the hash data");
  cmd->add_option("--block-size", gHash.blockSize, "Image bytes per hash (512 to 4096)")
      ->check(CLI::Range(gp::kToolsIsoMinBlockSize, gp::kToolsIsoMaxBlockSize))
      ->type_name("N")
      ->capture_default_str();
  cmd->add_option("--out", gHash.out, "Hash-data file (default: IMAGE.sha)")->type_name("FILE");
  cmd->add_option("--sig-out", gHash.sigOut,
                  "Separate signature file, without --embed (default: IMAGE.sig)")
      ->type_name("FILE");
  cmd->add_flag("--json", gHash.json, "One JSON object instead of text");
  return cmd;
}

const cli::Command kHashDataCommand{AddHashData, RunHashData};

// ---- tools image ----

struct ImageOptions {
  std::string guestOS;
  std::string libDir;
  std::string hint;
  bool signatureRequired = false;
  bool json = false;
} gImage;

int RunImage() {
  char *path = nullptr;
  char *baseName = nullptr;
  uint32_t kind = 0;
  bool found = ToolsISO_GetImagePath(gImage.libDir.c_str(), gImage.guestOS.c_str(),
                                     gImage.hint.empty() ? nullptr : gImage.hint.c_str(),
                                     gImage.signatureRequired, &path, &baseName, &kind);
  gp::UniqueText ownedPath(path), ownedBase(baseName);
  if (!found) {
    cli::Fail(cli::FailedStep("no tools image for " + gImage.guestOS));
    return cli::kExitFailure;
  }
  nlohmann::ordered_json j;
  j["guestOS"] = gImage.guestOS;
  j["image"] = path;
  j["baseName"] = baseName != nullptr ? baseName : "";
  j["kind"] = kind;
  j["present"] = FileIO_GetSizeByPath(path) != UINT64_MAX;
  cli::PrintRecord(j, gImage.json);
  return cli::kExitOk;
}

CLI::App *AddImage(CLI::App &tools) {
  CLI::App *cmd = tools.add_subcommand(
      "image",
      "Name and locate the tools image for a guest: DIR/isoimages/NAME, from the signed image "
      "map \"isoimages_manifest.txt\" there, else the built-in table. Prints the path, the base "
      "name, the kind (2 Windows, 4 other) and whether the image is present. Exit 0 when an "
      "image serves the guest, 1 when none does.");
  cmd->add_option("--guest-os", gImage.guestOS, "Guest OS key, such as windows9-64")
      ->required()
      ->type_name("KEY");
  cmd->add_option("--libdir", gImage.libDir, "The host's library directory")
      ->required()
      ->type_name("DIR");
  cmd->add_option("--hint", gImage.hint, "Image name the virtual machine asks for")
      ->type_name("NAME");
  cmd->add_flag("--signature-required", gImage.signatureRequired,
                "Refuse an image map without its signature");
  cmd->add_flag("--json", gImage.json, "One JSON object instead of text");
  return cmd;
}

const cli::Command kImageCommand{AddImage, RunImage};

// ---- tools verify ----

struct VerifyOptions {
  std::string image;
  bool optional = false;
  bool json = false;
} gVerify;

// Verified reads of one image, local or on a web server.
class VerifiedImage {
 public:
  virtual ~VerifiedImage() = default;
  virtual uint64_t Size() const = 0;
  virtual const ToolsIsoHashInfo *Hashes() const = 0;
  // True when length bytes at offset were read and match their hashes.
  virtual bool Read(uint64_t offset, uint8_t *buffer, size_t length) = 0;
};

class LocalImage : public VerifiedImage {
 public:
  ~LocalImage() override {
    ToolsISO_FreeHashInfo(hashes_);
    if (FileIO_IsValid(&fd_)) {
      FileIO_Close(&fd_);
    }
  }
  bool Open(const std::string &path, bool required) {
    FileIO_Invalidate(&fd_);
    FileIOResult r = FileIO_Open(&fd_, path.c_str(), FILEIO_OPEN_ACCESS_READ, FILEIO_OPEN);
    if (r != FILEIO_SUCCESS) {
      cli::Fail("cannot open " + path + ": " + FileIO_ErrorEnglish(r));
      return false;
    }
    size_ = FileIO_GetSize(&fd_);
    if (size_ == UINT64_MAX ||
        !ToolsISO_GetLocalFileHashInfo(path.c_str(), size_, required, &hashes_)) {
      cli::Fail(cli::FailedStep(path + ": the hash data or its signature was refused"));
      return false;
    }
    return true;
  }
  uint64_t Size() const override { return size_; }
  const ToolsIsoHashInfo *Hashes() const override { return hashes_; }
  bool Read(uint64_t offset, uint8_t *buffer, size_t length) override {
    return FileIO_Pread(&fd_, buffer, length, offset) == FILEIO_SUCCESS &&
           (hashes_ == nullptr || ToolsISO_VerifyHashes(hashes_, offset, buffer, length, false));
  }

 private:
  FileIODescriptor fd_;
  uint64_t size_ = 0;
  ToolsIsoHashInfo *hashes_ = nullptr;
};

class HttpImage : public VerifiedImage {
 public:
  ~HttpImage() override { ToolsISO_HttpReaderCloseCB(reader_); }
  bool Open(const std::string &url, bool required) {
    uint32_t r = ToolsISO_HttpReaderOpen(url.c_str(), required, &reader_);
    if (r != TOOLSISO_OPEN_OK) {
      reader_ = nullptr;
      cli::Fail(cli::FailedStep(url + (r == TOOLSISO_OPEN_BAD_HASHES
                                           ? ": the hash data or its signature was refused"
                                           : ": cannot be fetched")));
      return false;
    }
    return true;
  }
  uint64_t Size() const override { return ToolsISO_HttpReaderSize(reader_); }
  const ToolsIsoHashInfo *Hashes() const override { return ToolsISO_HttpReaderHashInfo(reader_); }
  bool Read(uint64_t offset, uint8_t *buffer, size_t length) override {
    return ToolsISO_HttpReaderReadCB(reader_, buffer, length, offset, nullptr);
  }
  ToolsIsoHttpReaderStats Stats() const {
    ToolsIsoHttpReaderStats stats = {};
    ToolsISO_HttpReaderGetStats(reader_, &stats);
    return stats;
  }

 private:
  ToolsIsoHttpReader *reader_ = nullptr;
};

// Reads the whole image in large pieces; a piece that fails is read again
// block by block to name the first bad block.
int RunVerify() {
  const bool remote =
      gVerify.image.rfind("http://", 0) == 0 || gVerify.image.rfind("https://", 0) == 0;
  std::unique_ptr<VerifiedImage> image;
  if (remote) {
    auto http = std::make_unique<HttpImage>();
    if (!http->Open(gVerify.image, !gVerify.optional)) {
      return cli::kExitFailure;
    }
    image = std::move(http);
  } else {
    auto local = std::make_unique<LocalImage>();
    if (!local->Open(gVerify.image, !gVerify.optional)) {
      return cli::kExitFailure;
    }
    image = std::move(local);
  }
  nlohmann::ordered_json j;
  j["image"] = gVerify.image;
  j["size"] = image->Size();
  const ToolsIsoHashInfo *hashes = image->Hashes();
  if (hashes == nullptr) {
    j["verified"] = false;
    j["reason"] = "no hash data (optional)";
    cli::PrintRecord(j, gVerify.json);
    return cli::kExitOk;
  }
  const uint64_t blockSize = hashes->header.blockSize;
  j["blockSize"] = blockSize;
  j["blocks"] = hashes->header.hashCount;

  // An image cut short or grown is named as such before any block is read:
  // its last block would only show up as a mismatch.
  std::string problem;
  const uint64_t blocks = (image->Size() + blockSize - 1) / blockSize;
  if (blocks != hashes->header.hashCount) {
    problem = "the image has " + std::to_string(blocks) + " blocks, its hash data " +
              std::to_string(hashes->header.hashCount);
  }
  const size_t piece =
      static_cast<size_t>(blockSize * std::max<uint64_t>(1, (1 << 20) / blockSize));
  std::vector<uint8_t> buffer(piece);
  cli::Progress("verifying " + gVerify.image);
  for (uint64_t offset = 0; offset < image->Size() && problem.empty(); offset += piece) {
    size_t length = static_cast<size_t>(std::min<uint64_t>(piece, image->Size() - offset));
    if (image->Read(offset, buffer.data(), length)) {
      continue;
    }
    for (uint64_t block = offset; block < offset + length; block += blockSize) {
      size_t n = static_cast<size_t>(std::min<uint64_t>(blockSize, image->Size() - block));
      if (!image->Read(block, buffer.data(), n)) {
        j["firstBadBlock"] = block / blockSize;
        j["firstBadOffset"] = block;
        problem = "block " + std::to_string(block / blockSize) + " (offset " +
                  std::to_string(block) + ") does not match its signed hash";
        break;
      }
    }
    if (problem.empty()) {
      problem = "the image could not be read at offset " + std::to_string(offset);
    }
  }
  j["verified"] = problem.empty();
  if (remote) {
    ToolsIsoHttpReaderStats stats = static_cast<HttpImage &>(*image).Stats();
    j["bytesFetchedPerVerifiedByte"] =
        stats.bytesVerified == 0 ? 0.0
                                 : static_cast<double>(stats.bytesFetched) / stats.bytesVerified;
  }
  if (!problem.empty()) {
    j["problem"] = problem;
  }
  cli::PrintRecord(j, gVerify.json);
  return problem.empty() ? cli::kExitOk : cli::kExitFailure;
}

CLI::App *AddVerify(CLI::App &tools) {
  CLI::App *cmd = tools.add_subcommand(
      "verify",
      "Check a tools image (a path, or an http:// or https:// URL) against its signed hash "
      "data: the signature of IMAGE.sha (embedded, or IMAGE.sig) against the maker's "
      "certificates, then every block of the image against its hash. Prints the first bad "
      "block if any. Exit 0 when every byte verifies, 1 when the signature, a block or the "
      "image's length does not.");
  cmd->add_option("IMAGE", gVerify.image, "The tools image, a path or a URL")->required();
  cmd->add_flag("--optional", gVerify.optional,
                "An image without hash data passes unchecked (the signature, when present, "
                "must still verify)");
  cmd->add_flag("--json", gVerify.json, "One JSON object instead of text");
  return cmd;
}

const cli::Command kVerifyCommand{AddVerify, RunVerify};

// ---- the group ----

// Subcommands of "tools", in the order --help lists them; each add
// registers on the group's app.
const cli::Command kToolsSubcommands[] = {
    kHashDataCommand,         kImageCommand,          kVerifyCommand,
    cli::kToolsStatusCommand, cli::kToolsSaveCommand,
};

std::vector<std::pair<CLI::App *, int (*)()>> gToolsParsed;

CLI::App *Add(CLI::App &app) {
  CLI::App *tools = app.add_subcommand(
      "tools",
      "Guest tools images: where a guest's image is, its signed hash data and checks; "
      "a virtual machine's tools status.");
  tools->require_subcommand(1);
  for (const cli::Command &command : kToolsSubcommands) {
    gToolsParsed.emplace_back(command.add(*tools), command.run);
  }
  return tools;
}

int Run() {
  for (const auto &[sub, run] : gToolsParsed) {
    if (sub->parsed()) {
      return run();
    }
  }
  return cli::kExitUsage;
}

}  // namespace

namespace cli {
const Command kToolsCommand{Add, Run};
}
