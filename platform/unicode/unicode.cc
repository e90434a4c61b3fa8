#include "platform/unicode/unicode.h"

#include <iconv.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <string_view>

#include "platform/util/safeAlloc.h"

namespace {

// name is what callers print and is fixed; iconvName is what the text is
// converted with. The two differ where the reader is Windows: it reads the
// answer file in its own code page (932, 936, 950), whose tables are
// supersets of the standard ones (NEC and IBM kanji, the euro sign...), so
// the Windows variant is the one that loses nothing the reader could show.
struct Encoding {
  StringEncoding id;
  const char *name;
  const char *iconvName;
  size_t terminator;  // zero bytes after the text: one code unit
};

constexpr Encoding kEncodings[] = {
    {STRING_ENCODING_UTF8, "UTF-8", "UTF-8", 1},
    {STRING_ENCODING_UTF16_LE, "UTF-16LE", "UTF-16LE", 2},
    {STRING_ENCODING_US_ASCII, "US-ASCII", "US-ASCII", 1},
    {STRING_ENCODING_ISO_8859_1, "ISO-8859-1", "ISO-8859-1", 1},
    {STRING_ENCODING_BIG5, "BIG5", "CP950", 1},
    {STRING_ENCODING_GBK, "GBK", "CP936", 1},
    {STRING_ENCODING_SHIFT_JIS, "SHIFT_JIS", "CP932", 1},
    {STRING_ENCODING_WINDOWS_1251, "WINDOWS-1251", "CP1251", 1},
    {STRING_ENCODING_WINDOWS_1252, "WINDOWS-1252", "CP1252", 1},
    {STRING_ENCODING_CP949, "CP949", "CP949", 1},
};

const Encoding *FindEncoding(StringEncoding enc) {
  for (const Encoding &e : kEncodings) {
    if (e.id == enc) {
      return &e;
    }
  }
  return nullptr;
}

// Well-formed UTF-8 as Unicode defines it: shortest form only, no
// surrogates, nothing above U+10FFFF.
bool IsValidUtf8(std::string_view text) {
  const auto *p = reinterpret_cast<const unsigned char *>(text.data());
  const auto *end = p + text.size();
  while (p < end) {
    const unsigned char c = *p;
    size_t extra;
    unsigned char lo = 0x80;
    unsigned char hi = 0xBF;
    if (c < 0x80) {
      ++p;
      continue;
    } else if (c >= 0xC2 && c <= 0xDF) {
      extra = 1;
    } else if (c >= 0xE0 && c <= 0xEF) {
      extra = 2;
      lo = (c == 0xE0) ? 0xA0 : 0x80;  // overlong below U+0800
      hi = (c == 0xED) ? 0x9F : 0xBF;  // surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
      extra = 3;
      lo = (c == 0xF0) ? 0x90 : 0x80;  // overlong below U+10000
      hi = (c == 0xF4) ? 0x8F : 0xBF;  // above U+10FFFF
    } else {
      return false;
    }
    if (static_cast<size_t>(end - p) <= extra) {
      return false;
    }
    if (p[1] < lo || p[1] > hi) {
      return false;
    }
    for (size_t i = 2; i <= extra; ++i) {
      if (p[i] < 0x80 || p[i] > 0xBF) {
        return false;
      }
    }
    p += extra + 1;
  }
  return true;
}

// One conversion descriptor, owned by one call: iconv_t keeps shift state,
// so sharing one between threads is not an option.
class Converter {
 public:
  Converter(const char *to, const char *from) : cd_(iconv_open(to, from)) {}
  ~Converter() {
    if (ok()) {
      iconv_close(cd_);
    }
  }
  Converter(const Converter &) = delete;
  Converter &operator=(const Converter &) = delete;

  bool ok() const { return cd_ != reinterpret_cast<iconv_t>(-1); }

  // The whole of in converted into *out, or false when any character cannot
  // be converted or iconv counts one as converted irreversibly. The output
  // grows as needed.
  bool Convert(std::string_view in, std::string *out) {
    if (!ok()) {
      return false;
    }
    iconv(cd_, nullptr, nullptr, nullptr, nullptr);
    out->assign(in.size() + 16, '\0');
    char *inPtr = const_cast<char *>(in.data());
    size_t inLeft = in.size();
    size_t used = 0;
    bool flushing = false;
    for (;;) {
      char *outPtr = out->data() + used;
      size_t outLeft = out->size() - used;
      const size_t rc = flushing ? iconv(cd_, nullptr, nullptr, &outPtr, &outLeft)
                                 : iconv(cd_, &inPtr, &inLeft, &outPtr, &outLeft);
      used = out->size() - outLeft;
      if (rc == static_cast<size_t>(-1)) {
        if (errno != E2BIG || out->size() > std::numeric_limits<size_t>::max() / 2) {
          return false;  // EILSEQ, EINVAL (cut short), or no room left to grow
        }
        out->resize(out->size() * 2);
        continue;
      }
      if (rc != 0) {
        return false;
      }
      if (flushing) {
        break;
      }
      flushing = true;  // back to the initial shift state
    }
    out->resize(used);
    return true;
  }

 private:
  iconv_t cd_;
};

// text in the encoding, or false. iconv's own tables map a few characters
// one way only (U+00A5 to the backslash byte and U+301C to the byte read
// back as U+FF5E in code page 932) and drop the Unicode tag characters
// everywhere, so a conversion counts only when the bytes read back as the
// very same text.
bool ConvertExactly(std::string_view text, const Encoding &encoding, std::string *bytes) {
  if (encoding.id == STRING_ENCODING_UTF8) {
    bytes->assign(text);
    return true;
  }
  Converter there(encoding.iconvName, "UTF-8");
  Converter back("UTF-8", encoding.iconvName);
  std::string readBack;
  return there.Convert(text, bytes) && back.Convert(*bytes, &readBack) && readBack == text;
}

}  // namespace

char *Unicode_GetAllocBytes(const char *utf8, StringEncoding enc) {
  const Encoding *encoding = FindEncoding(enc);
  if (utf8 == nullptr || encoding == nullptr) {
    return nullptr;
  }
  const std::string_view text(utf8);
  if (!IsValidUtf8(text)) {
    return nullptr;
  }
  try {
    std::string bytes;
    if (!ConvertExactly(text, *encoding, &bytes)) {
      return nullptr;
    }
    auto *result = static_cast<char *>(UtilSafeMalloc0(bytes.size() + encoding->terminator));
    memcpy(result, bytes.data(), bytes.size());
    memset(result + bytes.size(), 0, encoding->terminator);
    return result;
  } catch (const std::bad_alloc &) {
    return nullptr;
  }
}

const char *Unicode_EncodingEnumToName(StringEncoding enc) {
  const Encoding *encoding = FindEncoding(enc);
  return encoding != nullptr ? encoding->name : "UNKNOWN";
}
