// Whether memory sufficed for a JSON document.

#ifndef IPSLA_API_JSON_MEMORY_H_
#define IPSLA_API_JSON_MEMORY_H_

namespace ipsla {

/// Lets the JSON library take its memory where a failure is noted. The library itself goes on
/// without the value that it had no memory for, and a reply would lack it. Once, before documents
/// are made.
void WatchJsonMemory();

/// Whether the JSON library was refused memory on this thread since the last call.
[[nodiscard]] bool TakeJsonMemoryFailure();

}  // namespace ipsla

#endif  // IPSLA_API_JSON_MEMORY_H_
