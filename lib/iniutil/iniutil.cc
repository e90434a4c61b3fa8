/*
 * INI files of the Windows answer files: a line-at-a-time reader and a
 * writer that rewrites the whole file with one value set.
 *
 * Both walk the file in pieces of at most 1,023 bytes, the way a 1,024-byte
 * line buffer sees it, so a longer line is several lines here. The reader
 * cuts inline ";" comments before it looks at a line, the writer does not
 * (it copies lines it does not change byte for byte).
 */
#include "guestprep/iniutil.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/file/fileIO.h"

namespace {

// Longest piece of a line handled at once: a 1,024-byte buffer less its NUL.
constexpr size_t kPieceMax = 1023;
// The writer refuses to grow a file past this; answer files are far smaller.
constexpr size_t kMaxCollected = 0x7F800;
// A rewritten line keeps at most this many bytes for "key=" plus value, so
// that quotes, line feed and NUL still fit the line buffer.
constexpr size_t kRewriteRoom = 1020;
// Bytes handed to each write of the new contents.
constexpr size_t kWriteChunk = 1024;

struct FileCloser {
  void operator()(FILE *f) const { fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;

// Splits a stream into the pieces described above; each ends with its line
// feed when it has one.
class PieceReader {
 public:
  explicit PieceReader(FILE *f) : f_(f) {}

  bool Next(std::string &piece) {
    piece.clear();
    int c;
    while (piece.size() < kPieceMax && (c = getc(f_)) != EOF) {
      piece.push_back(static_cast<char>(c));
      if (c == '\n') {
        break;
      }
    }
    return !piece.empty();
  }

  // A read error (a directory opens but does not read) is not an end of file.
  bool Failed() const { return ferror(f_) != 0; }

 private:
  FILE *f_;
};

File OpenForReading(const char *path) {
  return File(fopen(path, "re"));
}

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

bool IsLineEndOrBlank(char c) {
  return IsBlank(c) || c == '\r' || c == '\n';
}

char FoldAscii(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

bool SameNoCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return FoldAscii(x) == FoldAscii(y);
         });
}

// The name of a header piece (one starting with "["), or nothing when it
// holds no "]".
std::optional<std::string_view> SectionName(std::string_view piece) {
  size_t close = piece.find(']', 1);
  if (close == std::string_view::npos) {
    return std::nullopt;
  }
  return piece.substr(1, close - 1);
}

// A key line: the key from its first non-blank byte up to the first "=",
// blanks before "=" included. A line without "=" is a key on its own; its
// trailing blanks and line ending are not part of it.
struct KeyLine {
  size_t keyStart = 0;
  std::string_view key;
  size_t equals = std::string_view::npos;

  bool HasEquals() const { return equals != std::string_view::npos; }
};

KeyLine ParseKeyLine(std::string_view piece) {
  KeyLine k;
  while (k.keyStart < piece.size() && IsBlank(piece[k.keyStart])) {
    k.keyStart++;
  }
  k.equals = piece.find('=', k.keyStart);
  if (k.HasEquals()) {
    k.key = piece.substr(k.keyStart, k.equals - k.keyStart);
  } else {
    size_t end = piece.size();
    while (end > k.keyStart && IsLineEndOrBlank(piece[end - 1])) {
      end--;
    }
    k.key = piece.substr(k.keyStart, end - k.keyStart);
  }
  return k;
}

bool KeyMatches(const KeyLine &line, std::string_view key) {
  // A blank line is no key, not even the empty one.
  if (!line.HasEquals() && line.key.empty()) {
    return false;
  }
  return SameNoCase(line.key, key);
}

std::string_view TrimValue(std::string_view v) {
  while (!v.empty() && IsBlank(v.front())) {
    v.remove_prefix(1);
  }
  while (!v.empty() && IsLineEndOrBlank(v.back())) {
    v.remove_suffix(1);
  }
  return v;
}

bool ReadString(const char *path, const char *section, const char *key, char *buf,
                int32_t bufSize) {
  File f = OpenForReading(path);
  if (!f) {
    return false;
  }
  PieceReader reader(f.get());
  std::string piece;
  bool inSection = false;
  while (reader.Next(piece)) {
    std::string_view line(piece);
    if (line[0] == ';') {
      continue;
    }
    // From the second byte on, ";" starts a comment, even inside a value.
    size_t comment = line.find(';', 1);
    if (comment != std::string_view::npos) {
      line = line.substr(0, comment);
    }
    if (line[0] == '[') {
      std::optional<std::string_view> name = SectionName(line);
      if (!name) {
        return false;
      }
      inSection = SameNoCase(*name, section);
      continue;
    }
    if (!inSection) {
      continue;
    }
    KeyLine k = ParseKeyLine(line);
    if (!KeyMatches(k, key)) {
      continue;
    }
    std::string_view value = k.HasEquals() ? TrimValue(line.substr(k.equals + 1)) : "";
    const size_t room = static_cast<size_t>(bufSize) - 1;
    if (value.size() > room) {
      value = value.substr(0, room);
    }
    // Unquoting after the cut: a cut quoted value keeps its opening quote.
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
      value = value.substr(1, value.size() - 2);
    }
    memcpy(buf, value.data(), value.size());
    buf[value.size()] = '\0';
    return true;
  }
  return !reader.Failed();
}

// A line the writer makes ends in a line feed and fits the line buffer;
// anything longer is cut, keeping the line feed so the next line survives.
std::string FinishLine(std::string line) {
  if (line.size() > kPieceMax - 1) {
    line.resize(kPieceMax - 1);
  }
  line.push_back('\n');
  return line;
}

std::string NewKeyLine(std::string_view key, std::string_view value, bool quote) {
  std::string line(key);
  if (!value.empty()) {
    line += '=';
    line += quote ? "\"" + std::string(value) + "\"" : std::string(value);
  }
  return FinishLine(std::move(line));
}

// An existing line of the key with the new value: its own spelling up to
// and including "=" stays, the rest goes.
std::string RewrittenLine(std::string_view piece, const KeyLine &k, std::string_view value,
                          bool quote) {
  std::string line;
  if (k.HasEquals()) {
    line.assign(piece.substr(0, k.equals + 1));
  } else {
    line.assign(piece.substr(0, k.keyStart + k.key.size()));
    line += '=';
  }
  const size_t room = line.size() < kRewriteRoom ? kRewriteRoom - line.size() : 0;
  value = value.substr(0, std::min(room, value.size()));
  if (quote) {
    line += '"';
    line += value;
    line += '"';
  } else {
    line += value;
  }
  line += '\n';
  return line;
}

// Appending after a last line without a line feed would glue the new line
// onto it.
void EndLine(std::string &out) {
  if (!out.empty() && out.back() != '\n') {
    out.push_back('\n');
  }
}

// Replaces path with data through a temporary file beside it, so a crash
// or a full disk leaves the old file whole.
bool ReplaceFile(const char *path, const std::string &data) {
  FileIOAtomicWriter w;
  if (FileIO_AtomicBegin(&w, path, kFileIOKeepMode, true) != FILEIO_SUCCESS) {
    return false;
  }
  for (size_t off = 0; off < data.size(); off += kWriteChunk) {
    size_t len = std::min(kWriteChunk, data.size() - off);
    if (FileIO_Write(&w.fd, data.data() + off, len, nullptr) != FILEIO_SUCCESS) {
      FileIO_AtomicAbort(&w);
      return false;
    }
  }
  return FileIO_AtomicCommit(&w) == FILEIO_SUCCESS;
}

// Texts that would change the file's structure rather than one value: a
// line break starts a new line (a header, another key), a key that begins
// like a header or comment, or holds "=", is not read back as that key, and
// "]" ends a section name early.
bool SafeTexts(std::string_view section, std::string_view key, std::string_view value) {
  auto breaks = [](std::string_view t) { return t.find_first_of("\r\n") != t.npos; };
  std::string_view k = key.substr(std::min(key.find_first_not_of(" \t"), key.size()));
  return !breaks(section) && section.find(']') == section.npos && !breaks(key) && !k.empty() &&
         k[0] != '[' && k[0] != ';' && key.find('=') == key.npos && !breaks(value);
}

bool WriteString(const char *path, const char *section, const char *key, const char *value,
                 bool quote) {
  if (!SafeTexts(section, key, value)) {
    return false;
  }
  std::string out;
  {
    File f = OpenForReading(path);
    if (!f) {
      return false;
    }
    out.reserve(kMaxCollected + 2 * (kPieceMax + 1));
    PieceReader reader(f.get());
    std::string piece;
    bool inSection = false;
    bool seen = false;
    bool written = false;
    while (reader.Next(piece)) {
      if (out.size() > kMaxCollected) {
        return false;
      }
      if (piece[0] == ';') {
        out += piece;
        continue;
      }
      if (piece[0] == '[') {
        // The key goes at the end of its section, before the next header.
        if (inSection && !written) {
          EndLine(out);
          out += NewKeyLine(key, value, quote);
          written = true;
        }
        std::optional<std::string_view> name = SectionName(piece);
        if (!name) {
          return false;
        }
        inSection = SameNoCase(*name, section);
        seen = seen || inSection;
        out += piece;
        continue;
      }
      if (inSection) {
        KeyLine k = ParseKeyLine(piece);
        if (KeyMatches(k, key)) {
          out += RewrittenLine(piece, k, value, quote);
          written = true;
          continue;
        }
      }
      out += piece;
    }
    if (reader.Failed()) {
      return false;
    }
    if (!seen || !written) {
      if (out.size() > kMaxCollected) {
        return false;
      }
      EndLine(out);
      if (!seen) {
        // A cut header would lack its "]" and make the file unwritable.
        if (strlen(section) + 3 > kPieceMax) {
          return false;
        }
        out += "[" + std::string(section) + "]\n";
      }
      out += NewKeyLine(key, value, quote);
    }
  }
  return ReplaceFile(path, out);
}

}  // namespace

extern "C" {

bool IniUtil_GetIniFileString(const char *path, const char *section, const char *key, char *buf,
                              int32_t bufSize) {
  if (path == nullptr || section == nullptr || key == nullptr || buf == nullptr || bufSize < 1) {
    return false;
  }
  try {
    return ReadString(path, section, key, buf, bufSize);
  } catch (...) {
    return false;
  }
}

bool IniUtil_GetIniFileInt(const char *path, const char *section, const char *key, int32_t *value) {
  if (value == nullptr) {
    return false;
  }
  *value = 0;
  char text[1024] = "";
  if (!IniUtil_GetIniFileString(path, section, key, text, sizeof text)) {
    return false;
  }
  if (strcmp(text, "0") == 0) {
    return true;
  }
  long n = strtol(text, nullptr, 10);
  *value = static_cast<int32_t>(std::clamp<long>(n, INT32_MIN, INT32_MAX));
  return *value != 0;
}

bool IniUtil_WriteIniFileString(const char *path, const char *section, const char *key,
                                const char *value, bool quote) {
  if (path == nullptr || section == nullptr || key == nullptr || value == nullptr) {
    return false;
  }
  try {
    return WriteString(path, section, key, value, quote);
  } catch (...) {
    return false;
  }
}

bool IniUtil_WriteIniFileInt(const char *path, const char *section, const char *key,
                             int32_t value) {
  char text[64] = {};
  snprintf(text, sizeof text, "%d", value);
  return IniUtil_WriteIniFileString(path, section, key, text, false);
}

}  // extern "C"
