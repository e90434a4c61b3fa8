// Escaping for the CLI's text output (see cli.h).
#include <cstdio>
#include <string>
#include <string_view>

#include "cli.h"
#include "platform/util/bytes.h"

namespace cli {

std::string EscapeText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const unsigned char c = static_cast<unsigned char>(text.front());
    size_t length = gp::Utf8SequenceLength(text);
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
