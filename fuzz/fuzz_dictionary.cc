// The config-file parser on arbitrary text, then a write and a reload of what
// it accepted: every loaded dictionary must come back entry for entry, names,
// values and order, from its own file.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "platform/dictionary/dictionary.h"
#include "platform/log/log.h"
#include "platform/msg/msg.h"

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

Entries All(Dictionary *dict) {
  Entries out;
  Dictionary_Iterate(
      dict,
      [](const char *name, const char *value, void *ctx) {
        static_cast<Entries *>(ctx)->emplace_back(name, value);
        return true;
      },
      &out);
  return out;
}

void Quiet(void *, int, const char *, size_t) {}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static bool quiet = (Log_SetSink(Quiet, nullptr), true);
  (void)quiet;
  Dictionary *dict = Dictionary_Create();
  MsgList *messages = nullptr;
  bool loaded =
      Dictionary_LoadFromBufferEx(dict, reinterpret_cast<const char *>(data), size, &messages);
  MsgList_Free(messages);
  if (loaded && Dictionary_NumberOfEntries(dict) > 0) {
    static const std::string path = "/tmp/fuzz_dictionary." + std::to_string(getpid());
    if (Dictionary_Write(dict, path.c_str())) {
      Dictionary *again = Dictionary_Create();
      messages = nullptr;
      if (!Dictionary_LoadEx(again, path.c_str(), &messages) || All(again) != All(dict)) {
        char *why = MsgList_ToEnglishString(messages);
        fprintf(stderr, "written dictionary does not read back: %s\n", why ? why : "different");
        abort();  // what we write, we must read back
      }
      MsgList_Free(messages);
      Dictionary_Free(again);
    }
    unlink(path.c_str());
  }
  Dictionary_Free(dict);
  return 0;
}
