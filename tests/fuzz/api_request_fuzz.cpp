// Sender API datagrams: header, JSON text, metric groups, and the replies built over the request.

#include <string_view>

#include <cjson/cJSON.h>

#include "api/sender_api_message.h"
#include "config/json_text.h"
#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace ipsla;
  const auto input = fuzz::Exactly(data, size);
  const ApiHeader header = DecodeApiHeader(input);
  if (size >= kApiHeaderSize) {
    const auto encoded = EncodeApiHeader(header);
    fuzz::Require(std::equal(encoded.begin(), encoded.end(), input.begin()),
                  "decode and encode agree");
  }
  fuzz::Require(ApiCommandName(header.command) != nullptr, "every command has a name");
  fuzz::Require(BuildHeaderReply(header, kApiFailure).size() == kApiHeaderSize,
                "a header-only reply is 28 bytes");
  const std::string_view text = ApiPayloadText(input);
  fuzz::Require(text.size() <= size && text.find('\0') == std::string_view::npos,
                "the text ends at its NUL");
  const JsonParse parsed = ParseJson(text);
  if (!parsed.document) return 0;
  static_cast<void>(ReadMetricGroups(cJSON_GetObjectItem(parsed.document.get(), "metrics")));
  const JsonText printed(cJSON_PrintUnformatted(parsed.document.get()));
  std::size_t payload = 0;
  for (const ApiBytes& fragment : BuildJsonReply(header, printed.get())) {
    fuzz::Require(fragment.size() <= kApiMaxDatagram, "a fragment fits a datagram");
    payload += fragment.size() - kApiHeaderSize;
  }
  fuzz::Require(payload == std::string_view(printed.get()).size() + 1,
                "the fragments carry the text and its NUL");
  return 0;
}
