#include "platform/dictionary/dictionary.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/file/fileIO.h"
#include "platform/log/log.h"
#include "platform/util/safeAlloc.h"
#include "platform/util/str.h"

namespace {

constexpr std::string_view kUtf8Bom = "\xEF\xBB\xBF";

constexpr const char kMsgOpen[] = "@&!*@*@(msg.dictionary.openFailed)Cannot open file \"%s\": %s";
constexpr const char kMsgNotRegular[] =
    "@&!*@*@(msg.dictionary.notRegularFile)Cannot load \"%s\": not a regular file";
constexpr const char kMsgTooLarge[] =
    "@&!*@*@(msg.dictionary.tooLarge)Cannot load \"%s\": larger than %u bytes";
constexpr const char kMsgRead[] = "@&!*@*@(msg.dictionary.readFailed)Cannot read file \"%s\": %s";
constexpr const char kMsgSyntax[] = "@&!*@*@(msg.dictionary.syntaxError)Error in %s at line %u: %s";
constexpr const char kMsgTooManyEntries[] =
    "@&!*@*@(msg.dictionary.tooManyEntries)Error in %s at line %u: more than %d entries";

struct Entry {
  std::string name;
  std::string value;
  // Converted values handed out by Dictionary_Get.
  bool boolValue = false;
  int32_t intValue = 0;
  int64_t int64Value = 0;
};

std::string Lower(std::string_view s) {
  std::string out(s);
  for (char &c : out) {
    if (c >= 'A' && c <= 'Z') {
      c = static_cast<char>(c - 'A' + 'a');
    }
  }
  return out;
}

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}
bool IsControl(unsigned char c) {
  return c < 0x20 || c == 0x7F;
}

std::string_view Trim(std::string_view s) {
  while (!s.empty() && IsBlank(s.front())) {
    s.remove_prefix(1);
  }
  while (!s.empty() && IsBlank(s.back())) {
    s.remove_suffix(1);
  }
  return s;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
}

// Bytes that cannot stand literally inside a quoted value.
bool NeedsEscape(unsigned char c) {
  return IsControl(c) || c == '"' || c == '|';
}

size_t EscapedLength(std::string_view value) {
  size_t n = 0;
  for (unsigned char c : value) {
    n += NeedsEscape(c) ? 3 : 1;
  }
  return n;
}

// A name that reads back as itself: loaders take the trimmed text before the
// first "=", and a line starting with "#" is a comment.
bool IsWritableName(std::string_view name) {
  if (name.empty() || name.front() == '#' || IsBlank(name.front()) || IsBlank(name.back()) ||
      name.starts_with(kUtf8Bom)) {
    return false;
  }
  for (unsigned char c : name) {
    if (c == '=' || c == '"' || IsControl(c)) {
      return false;
    }
  }
  return true;
}

// Length of the line Dictionary_Write produces: name = "value".
size_t WrittenLineLength(std::string_view name, std::string_view value) {
  return name.size() + 4 + EscapedLength(value) + 1;
}

}  // namespace

struct Dictionary {
  std::vector<std::unique_ptr<Entry>>
      entries;  // file order; unique_ptr keeps Get's pointers stable
  std::unordered_map<std::string, size_t> index;  // lower-cased name -> first position
  bool keepRepeats = false;                       // loads append a repeated name as another entry

  // A loaded entry: a further entry for a repeated name when repeats are
  // kept, else the name's value replaced.
  void Add(std::string_view name, std::string_view value) {
    if (!keepRepeats || Find(name) == nullptr) {
      Set(name, value);
      return;
    }
    auto e = std::make_unique<Entry>();
    e->name.assign(name);
    e->value.assign(value);
    entries.push_back(std::move(e));
  }

  Entry *Find(std::string_view name) const {
    auto it = index.find(Lower(name));
    return it == index.end() ? nullptr : entries[it->second].get();
  }

  void Set(std::string_view name, std::string_view value) {
    std::string key = Lower(name);
    auto it = index.find(key);
    if (it != index.end()) {
      entries[it->second]->value.assign(value);
      return;
    }
    auto e = std::make_unique<Entry>();
    e->name.assign(name);
    e->value.assign(value);
    index.emplace(std::move(key), entries.size());
    entries.push_back(std::move(e));
  }
};

namespace {

struct ParsedLine {
  bool isEntry = false;
  std::string_view name;
  std::string value;
};

// Parses one line (without its line end). Returns null on success, else the
// reason the line is malformed.
const char *ParseLine(std::string_view line, ParsedLine *out) {
  out->isEntry = false;
  if (line.size() > DICTIONARY_MAX_LINE_LENGTH) {
    return "line too long";
  }
  if (line.find('\0') != std::string_view::npos) {
    return "NUL byte";
  }
  std::string_view t = Trim(line);
  // Only the file's first bytes can be a byte order mark. One starting any
  // other line is what joining two files leaves; read as part of a name it
  // would never match, so the line is refused.
  if (t.starts_with(kUtf8Bom)) {
    return "byte order mark inside the text";
  }
  if (t.empty() || t.front() == '#') {
    return nullptr;
  }
  size_t eq = t.find('=');
  if (eq == std::string_view::npos) {
    return "missing \"=\"";
  }
  std::string_view name = Trim(t.substr(0, eq));
  if (name.empty()) {
    return "empty name";
  }
  for (unsigned char c : name) {
    if (c == '"' || IsControl(c)) {
      return "invalid character in name";
    }
  }
  std::string_view rest = Trim(t.substr(eq + 1));
  std::string value;
  if (!rest.empty() && rest.front() == '"') {
    size_t i = 1;
    for (;; ++i) {
      if (i >= rest.size()) {
        return "unterminated quoted value";
      }
      char c = rest[i];
      if (c == '"') {
        break;
      }
      if (c != '|') {
        value.push_back(c);
        continue;
      }
      int hi = i + 2 < rest.size() ? HexDigit(rest[i + 1]) : -1;
      int lo = hi >= 0 ? HexDigit(rest[i + 2]) : -1;
      if (lo < 0 || (hi == 0 && lo == 0)) {
        return "bad |XX escape";
      }
      value.push_back(static_cast<char>(hi * 16 + lo));
      i += 2;
    }
    std::string_view after = Trim(rest.substr(i + 1));
    if (!after.empty() && after.front() != '#') {
      return "text after closing quote";
    }
  } else {
    value.assign(Trim(rest.substr(0, rest.find('#'))));
  }
  out->isEntry = true;
  out->name = name;
  out->value = std::move(value);
  return nullptr;
}

void Report(MsgList **messages, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void Report(MsgList **messages, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  if (messages != nullptr) {
    MsgList_VAppend(messages, fmt, args);
  } else {
    Msg_VAppend(fmt, args);
  }
  va_end(args);
}

// Parses the whole text into a scratch dictionary, then merges it, so a
// failure leaves dict untouched.
bool LoadText(Dictionary *dict, std::string_view text, const std::string &source,
              MsgList **messages) {
  if (text.substr(0, kUtf8Bom.size()) == kUtf8Bom) {
    text.remove_prefix(kUtf8Bom.size());
  }
  Dictionary scratch;
  scratch.keepRepeats = dict->keepRepeats;
  unsigned lineNo = 0;
  while (!text.empty()) {
    ++lineNo;
    size_t nl = text.find('\n');
    std::string_view line = text.substr(0, nl);
    text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
    if (!line.empty() && line.back() == '\r') {
      line.remove_suffix(1);
    }
    ParsedLine parsed;
    if (const char *why = ParseLine(line, &parsed)) {
      Report(messages, kMsgSyntax, source.c_str(), lineNo, why);
      return false;
    }
    if (!parsed.isEntry) {
      continue;
    }
    scratch.Add(parsed.name, parsed.value);
    if (scratch.entries.size() > static_cast<size_t>(DICTIONARY_MAX_ENTRIES)) {
      Report(messages, kMsgTooManyEntries, source.c_str(), lineNo, DICTIONARY_MAX_ENTRIES);
      return false;
    }
  }
  if (dict->entries.size() + scratch.entries.size() > static_cast<size_t>(DICTIONARY_MAX_ENTRIES)) {
    Report(messages, kMsgTooManyEntries, source.c_str(), lineNo, DICTIONARY_MAX_ENTRIES);
    return false;
  }
  for (const auto &e : scratch.entries) {
    dict->Add(e->name, e->value);
  }
  return true;
}

struct Fd {
  int fd = -1;
  explicit Fd(int f) : fd(f) {}
  ~Fd() {
    if (fd >= 0) {
      close(fd);
    }
  }
  Fd(const Fd &) = delete;
  Fd &operator=(const Fd &) = delete;
};

// Reads a whole regular file of at most DICTIONARY_MAX_FILE_SIZE bytes.
bool ReadFileLimited(const char *path, std::string *out, MsgList **messages) {
  // O_NONBLOCK: opening a FIFO must not wait for a writer; it is refused below.
  Fd f(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (f.fd < 0) {
    Report(messages, kMsgOpen, path, strerror(errno));
    return false;
  }
  struct stat st;
  if (fstat(f.fd, &st) != 0) {
    Report(messages, kMsgRead, path, strerror(errno));
    return false;
  }
  if (!S_ISREG(st.st_mode)) {
    Report(messages, kMsgNotRegular, path);
    return false;
  }
  if (st.st_size < 0 || static_cast<uint64_t>(st.st_size) > DICTIONARY_MAX_FILE_SIZE) {
    Report(messages, kMsgTooLarge, path, DICTIONARY_MAX_FILE_SIZE);
    return false;
  }
  // The file may grow while it is read: read one byte past the limit to notice.
  out->assign(static_cast<size_t>(st.st_size) + 1, '\0');
  size_t got = 0;
  while (got < out->size()) {
    ssize_t n = read(f.fd, out->data() + got, out->size() - got);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      Report(messages, kMsgRead, path, strerror(errno));
      return false;
    }
    if (n == 0) {
      break;
    }
    got += static_cast<size_t>(n);
    if (got == out->size() && got <= DICTIONARY_MAX_FILE_SIZE) {
      out->resize(std::min<size_t>(out->size() * 2, DICTIONARY_MAX_FILE_SIZE + 1));
    }
  }
  if (got > DICTIONARY_MAX_FILE_SIZE) {
    Report(messages, kMsgTooLarge, path, DICTIONARY_MAX_FILE_SIZE);
    return false;
  }
  out->resize(got);
  return true;
}

bool SetChecked(Dictionary *dict, const std::string &name, const char *value) {
  if (dict == nullptr || value == nullptr) {
    Log("Dictionary: cannot set \"%s\": no dictionary or no value\n", name.c_str());
    return false;
  }
  if (!IsWritableName(name)) {
    Log("Dictionary: refusing entry name \"%s\"\n", name.c_str());
    return false;
  }
  if (WrittenLineLength(name, value) > DICTIONARY_MAX_LINE_LENGTH) {
    Log("Dictionary: value of \"%s\" is too long (%zu bytes)\n", name.c_str(), strlen(value));
    return false;
  }
  dict->Set(name, value);
  return true;
}

// Whole-text integer: optional blanks, sign, decimal or 0x hex.
bool ParseInt64(const std::string &text, int64_t *out) {
  std::string_view t = Trim(text);
  if (t.empty()) {
    return false;
  }
  std::string s(t);
  const char *p = s.c_str();
  size_t signLen = (*p == '-' || *p == '+') ? 1 : 0;
  int base = (p[signLen] == '0' && (p[signLen + 1] == 'x' || p[signLen + 1] == 'X')) ? 16 : 10;
  if (IsBlank(p[signLen]) || p[signLen] == '-' || p[signLen] == '+') {
    return false;  // strtoll would skip these
  }
  errno = 0;
  char *end = nullptr;
  long long v = strtoll(p, &end, base);
  if (errno != 0 || end == p || *end != '\0' || (base == 16 && end == p + signLen + 2)) {
    return false;
  }
  *out = v;
  return true;
}

// Which word table entry text is: 1 true, 0 false, -1 neither.
int BoolWord(const char *text) {
  if (text == nullptr) {
    return -1;
  }
  static constexpr struct {
    const char *word;
    int value;
  } kWords[] = {{"true", 1},  {"yes", 1}, {"on", 1},  {"1", 1},
                {"false", 0}, {"no", 0},  {"off", 0}, {"0", 0}};
  std::string t = Lower(Trim(text));
  for (const auto &w : kWords) {
    if (t == w.word) {
      return w.value;
    }
  }
  return -1;
}

}  // namespace

Dictionary *Dictionary_Create(void) {
  return new Dictionary;
}

Dictionary *Dictionary_CreateEx(uint32_t flags) {
  Dictionary *dict = new Dictionary;
  dict->keepRepeats = (flags & DICTIONARY_KEEP_REPEATS) != 0;
  return dict;
}

void Dictionary_Free(Dictionary *dict) {
  delete dict;
}

bool Dictionary_LoadEx(Dictionary *dict, const char *path, MsgList **messages) {
  if (dict == nullptr || path == nullptr) {
    Report(messages, kMsgOpen, path == nullptr ? "(null)" : path, "no dictionary or path");
    return false;
  }
  std::string text;
  if (!ReadFileLimited(path, &text, messages)) {
    return false;
  }
  return LoadText(dict, text, std::string("file \"") + path + "\"", messages);
}

bool Dictionary_Load(Dictionary *dict, const char *path) {
  return Dictionary_LoadEx(dict, path, nullptr);
}

bool Dictionary_LoadFromBufferEx(Dictionary *dict, const char *buffer, size_t size,
                                 MsgList **messages) {
  if (dict == nullptr || (buffer == nullptr && size != 0)) {
    Report(messages, kMsgSyntax, "buffer", 0u, "no dictionary or buffer");
    return false;
  }
  if (size > DICTIONARY_MAX_FILE_SIZE) {
    Report(messages, kMsgTooLarge, "buffer", DICTIONARY_MAX_FILE_SIZE);
    return false;
  }
  return LoadText(dict, std::string_view(buffer == nullptr ? "" : buffer, size), "buffer",
                  messages);
}

bool Dictionary_LoadFromBuffer(Dictionary *dict, const char *buffer, size_t size) {
  return Dictionary_LoadFromBufferEx(dict, buffer, size, nullptr);
}

bool Dictionary_Write(Dictionary *dict, const char *path) {
  if (dict == nullptr || path == nullptr || *path == '\0') {
    Log("Dictionary: cannot write: no dictionary or path\n");
    return false;
  }
  std::string text;
  for (const auto &e : dict->entries) {
    if (!IsWritableName(e->name) ||
        WrittenLineLength(e->name, e->value) > DICTIONARY_MAX_LINE_LENGTH) {
      Log("Dictionary: cannot write entry \"%s\" to \"%s\"\n", e->name.c_str(), path);
      return false;
    }
    text += e->name;
    text += " = \"";
    for (unsigned char c : e->value) {
      if (NeedsEscape(c)) {
        char esc[4];
        snprintf(esc, sizeof esc, "|%02X", c);
        text += esc;
      } else {
        text.push_back(static_cast<char>(c));
      }
    }
    text += "\"\n";
  }

  // Temporary file beside the target, fsync, rename, directory fsync.
  FileIOResult result = FileIO_AtomicWrite(path, text.data(), text.size());
  if (result != FILEIO_SUCCESS) {
    Log("Dictionary: cannot write \"%s\": %s\n", path, FileIO_ErrorEnglish(result));
    return false;
  }
  return true;
}

int Dictionary_Iterate(Dictionary *dict, DictionaryIterateFn fn, void *ctx) {
  if (dict == nullptr || fn == nullptr) {
    return 0;
  }
  int visited = 0;
  size_t n = dict->entries.size();
  for (size_t i = 0; i < n && i < dict->entries.size(); ++i) {
    const Entry &e = *dict->entries[i];
    if (!fn(e.name.c_str(), e.value.c_str(), ctx)) {
      break;
    }
    ++visited;
  }
  return visited;
}

int Dictionary_NumberOfEntries(const Dictionary *dict) {
  return dict == nullptr ? 0 : static_cast<int>(dict->entries.size());
}

bool Dictionary_IsDefined(const Dictionary *dict, const char *name) {
  return dict != nullptr && name != nullptr && dict->Find(name) != nullptr;
}

const void *Dictionary_Get(Dictionary *dict, const void *defaultValue, DictionaryType type,
                           const char *name) {
  Entry *e = (dict == nullptr || name == nullptr) ? nullptr : dict->Find(name);
  if (e == nullptr) {
    return defaultValue;
  }
  const char *typeName = "value";
  switch (type) {
    case DICT_STRING:
      return e->value.c_str();
    case DICT_BOOL: {
      int b = BoolWord(e->value.c_str());
      if (b >= 0) {
        e->boolValue = b == 1;
        return &e->boolValue;
      }
      typeName = "bool";
      break;
    }
    case DICT_INT: {
      int64_t v;
      if (ParseInt64(e->value, &v) && v >= INT32_MIN && v <= INT32_MAX) {
        e->intValue = static_cast<int32_t>(v);
        return &e->intValue;
      }
      typeName = "32-bit integer";
      break;
    }
    case DICT_INT64: {
      if (ParseInt64(e->value, &e->int64Value)) {
        return &e->int64Value;
      }
      typeName = "64-bit integer";
      break;
    }
    default:
      NOT_REACHED();
  }
  Log("Dictionary: value \"%s\" of \"%s\" is not a %s\n", e->value.c_str(), e->name.c_str(),
      typeName);
  return defaultValue;
}

bool Dictionary_StringToBool(const char *text, bool defaultValue) {
  int b = BoolWord(text);
  return b < 0 ? defaultValue : b == 1;
}

char *Dict_GetString(Dictionary *dict, const char *defaultValue, const char *nameFmt, ...) {
  va_list args;
  va_start(args, nameFmt);
  std::string name = gp::VFormat(nameFmt, args);
  va_end(args);
  const Entry *e = dict == nullptr ? nullptr : dict->Find(name);
  return UtilSafeStrdup0(e != nullptr ? e->value.c_str() : defaultValue);
}

bool Dict_GetBool(Dictionary *dict, bool defaultValue, const char *nameFmt, ...) {
  va_list args;
  va_start(args, nameFmt);
  std::string name = gp::VFormat(nameFmt, args);
  va_end(args);
  const Entry *e = dict == nullptr ? nullptr : dict->Find(name);
  return e == nullptr ? defaultValue : Dictionary_StringToBool(e->value.c_str(), defaultValue);
}

bool Dict_SetString(Dictionary *dict, const char *value, const char *nameFmt, ...) {
  va_list args;
  va_start(args, nameFmt);
  std::string name = gp::VFormat(nameFmt, args);
  va_end(args);
  return SetChecked(dict, name, value);
}

bool Dict_SetBool(Dictionary *dict, bool value, const char *nameFmt, ...) {
  va_list args;
  va_start(args, nameFmt);
  std::string name = gp::VFormat(nameFmt, args);
  va_end(args);
  return SetChecked(dict, name, value ? "TRUE" : "FALSE");
}
