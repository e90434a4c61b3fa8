// The config-file parser on arbitrary text, then a write and a reload of what
// it accepted: every loaded dictionary must survive its own round trip.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/dictionary/dictionary.h"
#include "platform/msg/msg.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Dictionary *dict = Dictionary_Create();
  MsgList *messages = nullptr;
  bool loaded =
      Dictionary_LoadFromBufferEx(dict, reinterpret_cast<const char *>(data), size, &messages);
  MsgList_Free(messages);
  if (loaded && Dictionary_NumberOfEntries(dict) > 0) {
    static const std::string path = "/tmp/fuzz_dictionary." + std::to_string(getpid());
    if (Dictionary_Write(dict, path.c_str())) {
      Dictionary *again = Dictionary_Create();
      if (!Dictionary_Load(again, path.c_str()) ||
          Dictionary_NumberOfEntries(again) != Dictionary_NumberOfEntries(dict)) {
        abort();  // what we write, we must read back
      }
      Dictionary_Free(again);
    }
    unlink(path.c_str());
  }
  Dictionary_Free(dict);
  return 0;
}
