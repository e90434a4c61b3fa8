// Shared by the Windows detectors: the parser of the key = value lines that
// Windows setup media keep their product, build and language facts in.
#ifndef GUESTPREP_LIB_GUESSWINDOWS_H
#define GUESTPREP_LIB_GUESSWINDOWS_H

#include <optional>
#include <string>
#include <string_view>

// Parses the key = value at the start of text, which may run on into the
// rest of a file: the value ends within its line. The key runs from the start
// of text to its first blank before the "=", else to the "=". The value
// follows the "=" after any blanks, tabs, line ends and an opening double
// quote, and runs up to the first carriage return, line feed, tab, double
// quote or the end of text (a NUL ends text too). False, with the outputs
// untouched, when there is no "=", the value is empty, or an opening quote is
// followed by the end of text or another quote. key may be null.
bool GuessParseKeyValue(std::string_view text, std::string *key, std::string *value);

// The value of the first "marker" line of text (marker includes the "=" or
// the blank that ends the key); none when absent or unparsable.
std::optional<std::string> GuessValueOf(std::string_view text, std::string_view marker);

#endif
