// Escaping for the CLI's text output (see cli.h).
#include <cstdio>
#include <string>
#include <string_view>

#include "cli.h"

namespace {

// Length of the valid UTF-8 sequence at the start of text, 0 when it does not
// start with one (a stray byte, an overlong form, a surrogate, a cut sequence).
size_t Utf8SequenceLength(std::string_view text) {
  if (text.empty()) {
    return 0;
  }
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) {
    return 1;
  }
  size_t length = 0;
  // Bounds on the second byte rule out overlong forms, surrogates and code
  // points past U+10FFFF (RFC 3629's table).
  unsigned char low = 0x80, high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    low = lead == 0xE0 ? 0xA0 : 0x80;
    high = lead == 0xED ? 0x9F : 0xBF;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    low = lead == 0xF0 ? 0x90 : 0x80;
    high = lead == 0xF4 ? 0x8F : 0xBF;
  } else {
    return 0;
  }
  if (text.size() < length || byte(1) < low || byte(1) > high) {
    return 0;
  }
  for (size_t i = 2; i < length; ++i) {
    if (byte(i) < 0x80 || byte(i) > 0xBF) {
      return 0;
    }
  }
  return length;
}

}  // namespace

namespace cli {

std::string EscapeText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const unsigned char c = static_cast<unsigned char>(text.front());
    size_t length = Utf8SequenceLength(text);
    // C1 controls (U+0080..U+009F) act on terminals like C0 ones.
    const bool c1 = length == 2 && c == 0xC2 && static_cast<unsigned char>(text[1]) < 0xA0;
    if (length > 1 && !c1) {
      out.append(text.substr(0, length));
      text.remove_prefix(length);
      continue;
    }
    length = c1 ? 2 : 1;
    for (size_t i = 0; i < length; ++i) {
      const unsigned char b = static_cast<unsigned char>(text[i]);
      switch (b) {
        case '\\':
          out += "\\\\";
          break;
        case '\n':
          out += "\\n";
          break;
        case '\t':
          out += "\\t";
          break;
        case '\r':
          out += "\\r";
          break;
        default:
          if (b < 0x20 || b >= 0x7F) {
            char hex[5];
            snprintf(hex, sizeof hex, "\\x%02X", b);
            out += hex;
          } else {
            out.push_back(static_cast<char>(b));
          }
      }
    }
    text.remove_prefix(length);
  }
  return out;
}

}  // namespace cli
