// The maker's own systems: the bare-metal hypervisor installer (Kalo), its
// embedded edition (Kaloi) and the maker's Linux distribution (Tarvex).
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "guestprep/guess.h"
#include "lib/guessGuest/guessInternal.h"

namespace {

using guess::CaselessStartsWith;
using guess::Medium;
using guess::MediumFile;

// A real "packages.xml" is a few kilobytes; a larger one is not the
// installer's manifest and is not handed to the parser at all.
constexpr size_t kMaxPackagesXmlBytes = 256u << 10;

// The manifest comes from an untrusted image: no network access, no DTD
// loading, and no entity substitution (XML_PARSE_NOENT stays off, so an
// entity bomb stays a handful of unexpanded reference nodes, and libxml2's
// own amplification check refuses the rest). Errors are not printed:
// detectors never log.
constexpr int kPackagesXmlOptions = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;

struct XmlDocDeleter {
  void operator()(xmlDoc *doc) const { xmlFreeDoc(doc); }
};
using XmlDoc = std::unique_ptr<xmlDoc, XmlDocDeleter>;

bool IsElement(const xmlNode *node, const char *name) {
  return node->type == XML_ELEMENT_NODE &&
         xmlStrEqual(node->name, reinterpret_cast<const xmlChar *>(name));
}

// An element's text: its first child's content when that child is a text
// node; nothing when the element is empty or starts with markup.
std::optional<std::string> ElementText(const xmlNode *element) {
  const xmlNode *child = element->children;
  if (child == nullptr || child->type != XML_TEXT_NODE) {
    return std::nullopt;
  }
  if (child->content == nullptr) {
    return std::string();
  }
  return std::string(reinterpret_cast<const char *>(child->content));
}

// True when the manifest names the hypervisor installer, release 4.
bool IsKaloManifest(std::string_view xml) {
  if (xml.empty() || xml.size() > kMaxPackagesXmlBytes) {
    return false;
  }
  XmlDoc doc(xmlReadMemory(xml.data(), static_cast<int>(xml.size()), "packages.xml", nullptr,
                           kPackagesXmlOptions));
  if (!doc) {
    return false;
  }
  const xmlNode *root = xmlDocGetRootElement(doc.get());
  if (root == nullptr || !IsElement(root, "iso_build")) {
    return false;
  }
  const xmlNode *product = nullptr;
  for (const xmlNode *node = root->children; node != nullptr; node = node->next) {
    if (IsElement(node, "product")) {
      product = node;
      break;
    }
  }
  if (product == nullptr) {
    return false;
  }
  // A later element replaces an earlier one until both are known.
  std::optional<std::string> name;
  std::optional<std::string> version;
  for (const xmlNode *node = product->children; node != nullptr && !(name && version);
       node = node->next) {
    if (IsElement(node, "name")) {
      name = ElementText(node);
    } else if (IsElement(node, "kalo_version")) {
      version = ElementText(node);
    }
  }
  return name && version && CaselessStartsWith(*name, "Brimle Kalo") &&
         CaselessStartsWith(*version, "4.");
}

// Menu titles of the embedded edition's boot menu, tested in this order:
// "Kaloi-6.0" must be seen before the "Kaloi-6" of the 6.5 and later menus.
struct KaloiTitle {
  std::array<const char *, 2> texts;
  const char *key;
  bool x86Only;  // releases that also ship an Arm-only medium
};
constexpr std::array<KaloiTitle, 7> kKaloiTitles{{
    {{"menu title Brimle Sundrel", nullptr}, "tavkernel", false},
    {{"MENU TITLE Kaloi-5", nullptr}, "tavkernel5", false},
    {{"MENU TITLE Kaloi-6.0", "MENU TITLE Skelvane-6.0"}, "tavkernel6", false},
    {{"MENU TITLE Kaloi-6", "MENU TITLE Skelvane-6"}, "tavkernel65", false},
    {{"MENU TITLE Kaloi-7.0", "MENU TITLE Skelvane-7.0"}, "tavkernel7", true},
    {{"MENU TITLE Kaloi-8.0", "MENU TITLE Skelvane-8.0"}, "tavkernel8", true},
    {{"MENU TITLE Kaloi-9.", "MENU TITLE Skelvane-9."}, "tavkernel9", true},
}};

// An Arm-only medium has the Arm boot loader and not the x86 one.
bool ArmOnly(const Medium &medium) {
  return medium.Exists("EFI/BOOT", "BOOTAA64.EFI") && !medium.Exists("EFI/BOOT", "BOOTX64.EFI");
}

bool Recognize(GuessInfo *info, const char *key) {
  info->osKey = key;
  info->version = GUESS_VERSION_UNKNOWN;
  return true;
}

}  // namespace

extern "C" {

bool Guess_Kalo(GuessMedium *raw, GuessInfo *info) {
  if (raw == nullptr || info == nullptr) {
    return false;
  }
  // One byte past the limit tells a manifest that is too large.
  MediumFile manifest = Medium(raw).Read("packages.xml", kMaxPackagesXmlBytes + 1);
  if (manifest && IsKaloManifest(manifest.view())) {
    return Recognize(info, "tavkernel");
  }
  return info->osKey != nullptr;
}

bool Guess_Kaloi(GuessMedium *raw, GuessInfo *info) {
  if (raw == nullptr || info == nullptr) {
    return false;
  }
  const Medium medium(raw);
  MediumFile cfg = medium.Read("isolinux.cfg");
  if (!cfg) {
    return info->osKey != nullptr;
  }
  for (const KaloiTitle &title : kKaloiTitles) {
    bool found = false;
    for (const char *text : title.texts) {
      found = found || (text != nullptr && cfg.contains(text));
    }
    if (!found) {
      continue;
    }
    if (title.x86Only && ArmOnly(medium)) {
      break;
    }
    return Recognize(info, title.key);
  }
  return info->osKey != nullptr;
}

bool Guess_Tarvex(GuessMedium *raw, GuessInfo *info) {
  if (raw == nullptr || info == nullptr) {
    return false;
  }
  const Medium medium(raw);
  if (!medium.Exists("", "TARVEX_BRIMLE_CD")) {
    return info->osKey != nullptr;
  }
  info->version = GUESS_VERSION_UNKNOWN;
  info->noIsolinuxCfg = false;
  // One architecture's package tree, not both.
  const bool x86_64 = medium.DirExists("RPMS/x86_64");
  const bool arm64 = medium.DirExists("RPMS/aarch64");
  if (x86_64 == arm64) {
    return info->osKey != nullptr;
  }
  info->osKey = x86_64 ? "brimle-tarvex-64" : "arm-brimle-tarvex-64";
  return true;
}

}  // extern "C"
