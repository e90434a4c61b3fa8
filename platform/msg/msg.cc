#include "platform/msg/msg.h"

#include <printf.h>

#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/dictionary/dictionary.h"
#include "platform/log/log.h"
#include "platform/util/safeAlloc.h"
#include "platform/util/str.h"

namespace {

// More conversions than this in one catalogue text is not a real message.
constexpr size_t kMaxFormatArgs = 64;
constexpr std::string_view kMarker = MSG_MARKER;

struct Parsed {
  bool hasMarker = false;
  std::string_view id;
  std::string_view text;  // the default text, or the whole input without a marker
};

// Splits a marker string; nullopt when the marker is malformed.
std::optional<Parsed> ParseMarker(std::string_view s) {
  Parsed p;
  if (s.substr(0, kMarker.size()) != kMarker) {
    p.text = s;
    return p;
  }
  std::string_view rest = s.substr(kMarker.size());
  size_t close = rest.find(')');
  if (close == std::string_view::npos || close == 0 || close > MSG_MAX_ID_LENGTH) {
    return std::nullopt;
  }
  p.hasMarker = true;
  p.id = rest.substr(0, close);
  p.text = rest.substr(close + 1);
  return p;
}

struct State {
  std::mutex mutex;
  std::unordered_map<std::string, std::string> catalog;
  std::deque<MsgList *> pending;
};

State &GetState() {
  static State *state = new State;  // never destroyed: usable from other static destructors
  return *state;
}

std::optional<std::string> CatalogLookup(std::string_view id) {
  State &st = GetState();
  std::lock_guard<std::mutex> lock(st.mutex);
  auto it = st.catalog.find(std::string(id));
  if (it == st.catalog.end()) {
    return std::nullopt;
  }
  return it->second;
}

size_t SkipDigits(const std::string &s, size_t i) {
  while (i < s.size() && s[i] >= '0' && s[i] <= '9') {
    ++i;
  }
  return i;
}

// Walks every conversion of fmt. False when one is incomplete or unknown, a
// "*" is used with positional arguments, or positional and sequential
// arguments are mixed: cases where what printf fetches is not well defined.
bool ConversionsWellFormed(const std::string &fmt) {
  bool positional = false;
  bool sequential = false;
  for (size_t i = 0; i < fmt.size(); ++i) {
    if (fmt[i] != '%') {
      continue;
    }
    size_t j = i + 1;
    if (j < fmt.size() && fmt[j] == '%') {
      i = j;
      continue;
    }
    size_t d = SkipDigits(fmt, j);
    bool isPositional = d > j && d < fmt.size() && fmt[d] == '$';
    (isPositional ? positional : sequential) = true;
    j = isPositional ? d + 1 : j;
    while (j < fmt.size() && strchr("-+ #0'I", fmt[j]) != nullptr) {
      ++j;
    }
    for (int part = 0; part < 2; ++part) {  // width, then precision
      if (part == 1) {
        if (j >= fmt.size() || fmt[j] != '.') {
          break;
        }
        ++j;
      }
      if (j < fmt.size() && fmt[j] == '*') {
        if (isPositional) {
          return false;
        }
        ++j;
      } else {
        j = SkipDigits(fmt, j);
      }
    }
    while (j < fmt.size() && strchr("hlLqjzZt", fmt[j]) != nullptr) {
      ++j;
    }
    if (j >= fmt.size() || strchr("diouxXeEfFgGaAcspnmCS", fmt[j]) == nullptr) {
      return false;
    }
    i = j;
  }
  return !(positional && sequential);
}

// The argument types printf would fetch for fmt, normalised to what va_arg
// really reads (char and short promote to int). nullopt when the format
// cannot be trusted: a malformed conversion, %n, too many arguments, or
// positional arguments with gaps.
std::optional<std::vector<int>> ArgTypes(const std::string &fmt) {
  if (!ConversionsWellFormed(fmt)) {
    return std::nullopt;
  }
  constexpr int kUnset = -1;
  std::vector<int> types(kMaxFormatArgs, kUnset);
  size_t n = parse_printf_format(fmt.c_str(), types.size(), types.data());
  if (n > kMaxFormatArgs) {
    return std::nullopt;
  }
  types.resize(n);
  for (int &t : types) {
    if (t == kUnset || (t & PA_FLAG_PTR) != 0) {
      return std::nullopt;  // an unreferenced position, or %n
    }
    t &= ~PA_FLAG_SHORT;
    if (t == PA_CHAR || t == PA_WCHAR) {
      t = PA_INT;
    }
  }
  return types;
}

// The format to use for a message: the catalogue's when it is safe for the
// arguments the default takes, else the default.
std::string ChooseFormat(const Parsed &p) {
  std::string def(p.text);
  if (!p.hasMarker) {
    return def;
  }
  std::optional<std::string> local = CatalogLookup(p.id);
  if (!local || *local == def) {
    return def;
  }
  auto defTypes = ArgTypes(def);
  auto localTypes = ArgTypes(*local);
  if (!localTypes || !defTypes || *localTypes != *defTypes) {
    Log("Msg: catalogue text for \"%.*s\" does not take the arguments of its default; using the "
        "default\n",
        static_cast<int>(p.id.size()), p.id.data());
    return def;
  }
  return *local;
}

// Formats idFmt in English and localised; the returned node is unlinked.
MsgList *MakeMessage(const char *idFmt, va_list args) {
  std::string_view input = idFmt == nullptr ? std::string_view() : std::string_view(idFmt);
  std::optional<Parsed> p = ParseMarker(input);
  if (!p) {
    p = Parsed{false, {}, input};
  }
  std::string english(p->text);
  std::string local = ChooseFormat(*p);
  va_list copy;
  va_copy(copy, args);
  std::string englishText = gp::VFormat(english.c_str(), copy);
  va_end(copy);
  std::string localText = local == english ? englishText : gp::VFormat(local.c_str(), args);

  auto *m = static_cast<MsgList *>(UtilSafeCalloc0(1, sizeof(MsgList)));
  m->id = UtilSafeStrndup0(p->id.data() == nullptr ? "" : p->id.data(), p->id.size());
  m->englishText = UtilSafeStrdup0(englishText.c_str());
  m->localizedText = UtilSafeStrdup0(localText.c_str());
  return m;
}

}  // namespace

char *Msg_GetString(const char *idString) {
  if (idString == nullptr) {
    return nullptr;
  }
  std::optional<Parsed> p = ParseMarker(idString);
  if (!p) {
    return nullptr;
  }
  if (p->hasMarker) {
    if (std::optional<std::string> local = CatalogLookup(p->id)) {
      return UtilSafeStrdup0(local->c_str());
    }
  }
  return UtilSafeStrndup0(p->text.data(), p->text.size());
}

char *Msg_GetStringSafe(const char *idString) {
  char *s = Msg_GetString(idString);
  return s != nullptr ? s : UtilSafeStrdup0(idString == nullptr ? "" : idString);
}

char *Msg_VFormat(const char *idFmt, va_list args) {
  std::string_view input = idFmt == nullptr ? std::string_view() : std::string_view(idFmt);
  std::optional<Parsed> p = ParseMarker(input);
  std::string fmt = p ? ChooseFormat(*p) : std::string(input);
  return UtilSafeStrdup0(gp::VFormat(fmt.c_str(), args).c_str());
}

char *Msg_Format(const char *idFmt, ...) {
  va_list args;
  va_start(args, idFmt);
  char *s = Msg_VFormat(idFmt, args);
  va_end(args);
  return s;
}

void Msg_VAppend(const char *idFmt, va_list args) {
  MsgList *m = MakeMessage(idFmt, args);
  State &st = GetState();
  MsgList *dropped = nullptr;
  {
    std::lock_guard<std::mutex> lock(st.mutex);
    if (st.pending.size() >= MSG_MAX_PENDING) {
      dropped = st.pending.front();
      st.pending.pop_front();
    }
    st.pending.push_back(m);
  }
  MsgList_Free(dropped);
}

void Msg_Append(const char *idFmt, ...) {
  va_list args;
  va_start(args, idFmt);
  Msg_VAppend(idFmt, args);
  va_end(args);
}

MsgList *Msg_GetMessagesAndReset(void) {
  State &st = GetState();
  std::deque<MsgList *> taken;
  {
    std::lock_guard<std::mutex> lock(st.mutex);
    taken.swap(st.pending);
  }
  MsgList *head = nullptr;
  for (auto it = taken.rbegin(); it != taken.rend(); ++it) {
    (*it)->next = head;
    head = *it;
  }
  return head;
}

bool Msg_LoadCatalog(const char *path) {
  Dictionary *dict = Dictionary_Create();
  MsgList *errors = nullptr;
  bool ok = Dictionary_LoadEx(dict, path, &errors);
  if (!ok) {
    MsgList_Log(errors);
    MsgList_Free(errors);
    Dictionary_Free(dict);
    return false;
  }
  std::unordered_map<std::string, std::string> catalog;
  Dictionary_Iterate(
      dict,
      [](const char *name, const char *value, void *ctx) {
        static_cast<std::unordered_map<std::string, std::string> *>(ctx)->insert_or_assign(name,
                                                                                           value);
        return true;
      },
      &catalog);
  Dictionary_Free(dict);
  State &st = GetState();
  std::lock_guard<std::mutex> lock(st.mutex);
  st.catalog.swap(catalog);
  return true;
}

void Msg_ResetCatalog(void) {
  State &st = GetState();
  std::unordered_map<std::string, std::string> old;
  std::lock_guard<std::mutex> lock(st.mutex);
  st.catalog.swap(old);
}

void MsgList_VAppend(MsgList **list, const char *idFmt, va_list args) {
  if (list == nullptr) {
    return;
  }
  MsgList *m = MakeMessage(idFmt, args);
  MsgList **tail = list;
  while (*tail != nullptr) {
    tail = &(*tail)->next;
  }
  *tail = m;
}

void MsgList_Append(MsgList **list, const char *idFmt, ...) {
  va_list args;
  va_start(args, idFmt);
  MsgList_VAppend(list, idFmt, args);
  va_end(args);
}

void MsgList_Free(MsgList *list) {
  while (list != nullptr) {
    MsgList *next = list->next;
    free(list->id);
    free(list->englishText);
    free(list->localizedText);
    free(list);
    list = next;
  }
}

size_t MsgList_Count(const MsgList *list) {
  size_t n = 0;
  for (; list != nullptr; list = list->next) {
    ++n;
  }
  return n;
}

char *MsgList_ToEnglishString(const MsgList *list) {
  std::string out;
  for (const MsgList *m = list; m != nullptr; m = m->next) {
    std::string_view text = m->englishText;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
      text.remove_suffix(1);
    }
    if (m != list) {
      out.push_back('\n');
    }
    out.append(text);
  }
  return UtilSafeStrdup0(out.c_str());
}

void MsgList_Log(const MsgList *list) {
  for (const MsgList *m = list; m != nullptr; m = m->next) {
    std::string_view text = m->englishText;
    while (!text.empty() && text.back() == '\n') {
      text.remove_suffix(1);
    }
    Log("%.*s\n", static_cast<int>(text.size()), text.data());
  }
}
