#include "api/json_memory.h"

#include <cstdlib>
#include <utility>

#include <cjson/cJSON.h>

namespace ipsla {
namespace {

thread_local bool json_memory_failed = false;

void* TakeMemory(std::size_t size) {
  void* memory = std::malloc(size);  // NOLINT(cppcoreguidelines-no-malloc): a C library's own
  if (memory == nullptr) json_memory_failed = true;
  return memory;
}

void FreeMemory(void* memory) {
  std::free(memory);  // NOLINT(cppcoreguidelines-no-malloc): a C library's own
}

}  // namespace

void WatchJsonMemory() {
  cJSON_Hooks hooks{TakeMemory, FreeMemory};
  cJSON_InitHooks(&hooks);
}

bool TakeJsonMemoryFailure() {
  return std::exchange(json_memory_failed, false);
}

}  // namespace ipsla
