#include "platform/util/utilVersion.h"

#include <string_view>

namespace {

struct Part {
  std::string_view number;  // leading digits, leading zeros stripped
  std::string_view rest;    // the remainder of the part
};

// Splits off the part at the front of *text (advancing past its dot).
Part NextPart(std::string_view *text) {
  size_t dot = text->find('.');
  std::string_view part = text->substr(0, dot);
  *text = dot == std::string_view::npos ? std::string_view() : text->substr(dot + 1);

  size_t digits = 0;
  while (digits < part.size() && part[digits] >= '0' && part[digits] <= '9') {
    ++digits;
  }
  size_t zeros = 0;
  while (zeros < digits && part[zeros] == '0') {
    ++zeros;
  }
  return Part{part.substr(zeros, digits - zeros), part.substr(digits)};
}

int Sign(int v) {
  return (v > 0) - (v < 0);
}

// Numbers of any length: without leading zeros, the longer is the bigger;
// equal lengths compare digit by digit.
int CompareNumbers(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) {
    return a.size() < b.size() ? -1 : 1;
  }
  return Sign(a.compare(b));
}

}  // namespace

int Util_CompareDotted(const char *a, const char *b) {
  if (a == nullptr || b == nullptr) {
    return (a != nullptr) - (b != nullptr);
  }
  std::string_view ta(a);
  std::string_view tb(b);
  // A trailing part is missing only when no text is left; "1." has an
  // empty second part, which counts as 0 like a missing one.
  while (!ta.empty() || !tb.empty()) {
    Part pa = NextPart(&ta);
    Part pb = NextPart(&tb);
    if (int c = CompareNumbers(pa.number, pb.number); c != 0) {
      return c;
    }
    // Byte order, as strcmp: string_view compares chars via char_traits,
    // which orders them as unsigned char.
    if (int c = Sign(pa.rest.compare(pb.rest)); c != 0) {
      return c;
    }
  }
  return 0;
}
