#include "support/signFixtures.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "lib/sign/tavSignInternal.h"
#include "support/testSupport.h"

namespace testing_support {

namespace fs = std::filesystem;

namespace {

std::string Sha256Hex(const std::string &text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (EVP_Digest(text.data(), text.size(), digest, &size, EVP_sha256(), nullptr) != 1) {
    throw std::runtime_error("SHA-256 failed");
  }
  return Hex(std::string(reinterpret_cast<char *>(digest), size));
}

// An exclusive lock on a file, held until the descriptor is closed.
int LockFile(const fs::path &path) {
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    throw std::system_error(errno, std::generic_category(), "open " + path.string());
  }
  while (flock(fd, LOCK_EX) != 0) {
    if (errno != EINTR) {
      int err = errno;
      close(fd);
      throw std::system_error(err, std::generic_category(), "flock " + path.string());
    }
  }
  return fd;
}

struct FdCloser {
  int fd;
  ~FdCloser() { close(fd); }
};

// Beside the test program, so a fresh build tree makes its own.
fs::path MakePki() {
  const fs::path script = DataDir().parent_path() / "scripts" / "make_pki.sh";
  const std::string name = "sign-pki-" + Sha256Hex(ReadFile(script)).substr(0, 16);
  const fs::path base = fs::read_symlink("/proc/self/exe").parent_path();
  const fs::path dir = base / name;
  if (fs::exists(dir)) {
    return dir;
  }
  FdCloser lock{LockFile(base / "sign-pki.lock")};
  if (fs::exists(dir)) {
    return dir;  // another test process made it while this one waited
  }
  // Hierarchies of older script versions are of no further use.
  for (const auto &entry : fs::directory_iterator(base)) {
    if (entry.path().filename().string().rfind("sign-pki-", 0) == 0) {
      fs::remove_all(entry.path());
    }
  }
  const fs::path tmp = base / (name + ".tmp");
  CommandResult made = RunCommand({"bash", script.string(), tmp.string()}, 120);
  if (made.exitCode != 0) {
    throw std::runtime_error("make_pki.sh failed: " + made.output);
  }
  // Readers see the whole hierarchy or none of it.
  fs::rename(tmp, dir);
  return dir;
}

}  // namespace

const fs::path &TestPki() {
  static const fs::path pki = MakePki();
  return pki;
}

std::string OpensslSign(const std::string &signers, const std::string &how,
                        const std::string &data) {
  const fs::path &pki = TestPki();
  TempDir dir;
  WriteFile(dir / "data", data);
  std::vector<std::string> options = Split(how, " ");
  if (options.empty()) {
    ADD_FAILURE() << "no openssl command in \"" << how << "\"";
    return "";
  }
  const std::string tool = options[0] == "cms-pem" ? "cms" : options[0];
  std::vector<std::string> argv = {
      "openssl",  tool, "-sign", "-in", (dir / "data").string(), "-out", (dir / "sig").string(),
      "-outform", "PEM"};
  std::string chain;
  for (const std::string &signer : Split(signers, "+")) {
    argv.insert(argv.end(), {"-signer", (pki / (signer + ".pem")).string(), "-inkey",
                             (pki / (signer + ".key")).string()});
    // Signers of one hierarchy ship the same intermediates; openssl refuses
    // a certificate twice.
    const std::string own = ReadFile(pki / (signer + ".chain"));
    if (chain.find(own) == std::string::npos) {
      chain += own;
    }
  }
  if (!chain.empty()) {
    WriteFile(dir / "chain", chain);
    argv.insert(argv.end(), {"-certfile", (dir / "chain").string()});
  }
  argv.insert(argv.end(), options.begin() + 1, options.end());
  CommandResult signedRun = RunCommand(argv, 60);
  if (signedRun.exitCode != 0) {
    ADD_FAILURE() << "openssl " << how << " failed: " << signedRun.output;
    return "";
  }
  std::string signature = ReadFile(dir / "sig");
  if (options[0] == "cms") {
    // The same ContentInfo; only the PEM label differs.
    signature = Replace(Replace(signature, "-----BEGIN CMS-----", "-----BEGIN PKCS7-----"),
                        "-----END CMS-----", "-----END PKCS7-----");
  }
  return signature;
}

std::string SignatureCell(const std::string &cell, const std::string &data) {
  if (cell.rfind("text:", 0) == 0) {
    return Unescape(cell.substr(5));
  }
  const size_t space = cell.find(' ');
  return OpensslSign(cell.substr(0, space), cell.substr(space + 1), data);
}

std::string Unescape(const std::string &cell) {
  std::string out;
  for (size_t i = 0; i < cell.size(); i++) {
    if (cell[i] != '\\' || i + 1 == cell.size()) {
      out += cell[i];
      continue;
    }
    char c = cell[++i];
    switch (c) {
      case 'n':
        out += '\n';
        break;
      case 'r':
        out += '\r';
        break;
      case 't':
        out += '\t';
        break;
      case '0':
        out += '\0';
        break;
      case 'x':
        out += static_cast<char>(std::stoi(cell.substr(i + 1, 2), nullptr, 16));
        i += 2;
        break;
      default:
        out += c;
    }
  }
  return out;
}

bool CertDirUsable() {
  std::string dir = TavSignCertDir();
  while (dir.size() > 1 && dir.back() == '/') {
    dir.pop_back();
  }
  return dir != "/usr/share/certs";
}

CertDirLease::CertDirLease(const std::string &contents) {
  if (!CertDirUsable()) {
    throw std::logic_error("the library reads the system's certificate directory");
  }
  const fs::path dir = TavSignCertDir();
  fs::create_directories(dir);
  lockFd_ = LockFile(dir.string() + ".lock");
  Refill(contents);
}

CertDirLease::~CertDirLease() {
  std::error_code ec;
  for (const auto &entry : fs::directory_iterator(TavSignCertDir(), ec)) {
    fs::remove_all(entry.path(), ec);
  }
  close(lockFd_);
}

void CertDirLease::Refill(const std::string &contents) {
  const fs::path dir = TavSignCertDir();
  for (const auto &entry : fs::directory_iterator(dir)) {
    fs::remove_all(entry.path());
  }
  std::vector<std::string> items;
  for (const std::string &item : Split(contents == "-" ? "" : contents, ",")) {
    if (item == "std") {
      items.insert(items.end(), {"brimle.cert<maker-root.pem", "brmpartner.cert<partner-root.pem"});
    } else {
      items.push_back(item);
    }
  }
  for (const std::string &item : items) {
    const size_t from = item.find('<');
    const size_t equals = item.find('=');
    if (from != std::string::npos && (equals == std::string::npos || from < equals)) {
      fs::copy_file(TestPki() / item.substr(from + 1), dir / item.substr(0, from));
    } else if (equals != std::string::npos) {
      WriteFile(dir / item.substr(0, equals), Unescape(item.substr(equals + 1)));
    } else {
      throw std::invalid_argument("bad certificate directory item \"" + item + "\"");
    }
  }
}

}  // namespace testing_support
