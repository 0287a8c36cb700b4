#include "log/line_queue.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <utility>

namespace ipsla {
namespace {

// A few hundred lines.
constexpr std::size_t kChunkBytes = 65536;

// As much is taken at a time, and ends the rest.
constexpr std::size_t kBatchBytes = std::size_t{1} << 20U;

// What stands before each line in a chunk.
struct LineHeader {
  std::uint32_t bytes = 0;
  std::uint16_t id = 0;
};

log_internal::Pages MapPages(std::size_t size) {
  void* const pages =
      mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (pages == MAP_FAILED) throw std::bad_alloc();
  return {static_cast<char*>(pages), log_internal::UnmapPages{size}};
}

void AddLines(char* bytes, std::size_t used, std::vector<LogLine>* lines) {
  for (std::size_t at = 0; at < used;) {
    LineHeader header;
    std::memcpy(&header, bytes + at, sizeof header);
    at += sizeof header;
    lines->push_back({header.id, {bytes + at, header.bytes}});
    at += header.bytes;
  }
}

}  // namespace

void log_internal::UnmapPages::operator()(char* bytes) const {
  munmap(bytes, size);
}

void LineQueue::Push(std::uint16_t id, std::string_view text) noexcept {
  bool wakes = false;
  {
    const PriorityLock lock(mutex_);
    if (is_closed_) return;
    try {
      // Also here: behind a line that is longer than all the room no batch may follow whose end
      // would tell.
      if (is_dropping_ && memory_ <= kMaxBytes / 2) TellDropped();
      if (is_dropping_ || !Append(id, text)) {
        is_dropping_ = true;
        ++dropped_[id];
      }
    } catch (const std::exception&) {
      return;  // out of memory: the line is lost
    }
    wakes = std::exchange(is_asleep_, false) || memory_ >= kBatchBytes;
  }
  if (wakes) wake_.NotifyAll();
}

bool LineQueue::WaitUntilDone(std::chrono::steady_clock::time_point deadline) {
  PriorityLock lock(mutex_);
  const std::uint64_t until = pushed_;
  if (written_ >= until) return true;
  is_urgent_ = true;
  wake_.NotifyAll();
  while (written_ < until) {
    if (!done_.WaitUntil(&lock, deadline)) return written_ >= until;
  }
  return true;
}

void LineQueue::Close() {
  const PriorityLock lock(mutex_);
  is_closed_ = true;
  wake_.NotifyAll();
}

bool LineQueue::Take(std::vector<LogLine>* lines) {
  lines->clear();
  {
    PriorityLock lock(mutex_);
    Rest(&lock);
    while (chunks_.empty()) {
      if (is_closed_) return false;
      is_asleep_ = true;
      wake_.Wait(&lock);
    }
    is_asleep_ = false;
    for (std::size_t bytes = 0; !chunks_.empty() && bytes < kBatchBytes;) {
      bytes += chunks_.front().size;
      taken_.push_back(std::move(chunks_.front()));
      chunks_.pop_front();
    }
  }
  for (const Chunk& chunk : taken_) AddLines(chunk.bytes.get(), chunk.used, lines);
  taken_lines_ = lines->size();
  return true;
}

void LineQueue::Done() {
  std::vector<Chunk> chunks;  // what is not kept goes back behind the lock
  chunks.swap(taken_);
  const PriorityLock lock(mutex_);
  for (Chunk& chunk : chunks) {
    memory_ -= chunk.size;
    KeepSpare(&chunk);
  }
  written_ += taken_lines_;
  if (is_dropping_ && memory_ <= kMaxBytes / 2) TellDropped();
  done_.NotifyAll();
}

bool LineQueue::Append(std::uint16_t id, std::string_view text) {
  const std::size_t line = LogLine::kTimeBytes + text.size() + 1;
  char* place = Room(sizeof(LineHeader) + line);
  if (place == nullptr) return false;
  const LineHeader header{static_cast<std::uint32_t>(line), id};
  std::memcpy(place, &header, sizeof header);
  place += sizeof header + LogLine::kTimeBytes;
  std::memcpy(place, text.data(), text.size());
  place[text.size()] = '\n';
  ++pushed_;
  return true;
}

char* LineQueue::Room(std::size_t bytes) {
  if (chunks_.empty() || chunks_.back().size - chunks_.back().used < bytes) {
    const std::size_t size = std::max(bytes, kChunkBytes);
    if (memory_ + size > kMaxBytes) return nullptr;
    Chunk chunk = size == kChunkBytes ? TakeSpare() : Chunk{};
    if (!chunk.bytes) chunk = {MapPages(size), size, 0};
    chunks_.push_back(std::move(chunk));
    memory_ += size;
  }
  Chunk& last = chunks_.back();
  char* const place = last.bytes.get() + last.used;
  last.used += bytes;
  return place;
}

LineQueue::Chunk LineQueue::TakeSpare() {
  for (Chunk& spare : spare_) {
    if (spare.bytes) return std::exchange(spare, {});
  }
  return {};
}

void LineQueue::KeepSpare(Chunk* chunk) {
  if (chunk->size != kChunkBytes) return;
  for (Chunk& spare : spare_) {
    if (spare.bytes) continue;
    spare = std::move(*chunk);
    spare.used = 0;
    return;
  }
}

void LineQueue::TellDropped() {
  try {
    while (!dropped_.empty()) {
      const auto& [id, count] = *dropped_.begin();
      if (!Append(id, std::to_string(count) + " lines dropped")) return;
      dropped_.erase(dropped_.begin());
    }
    is_dropping_ = false;
  } catch (const std::exception&) {
    return;  // out of memory: with the next batch
  }
}

// Only behind a batch: the first line after a pause goes to its file at once.
void LineQueue::Rest(PriorityLock* held) {
  if (written_ == 0) return;
  const auto end = std::chrono::steady_clock::now() + kRest;
  while (!is_urgent_ && !is_closed_ && memory_ < kBatchBytes) {
    if (!wake_.WaitUntil(held, end)) break;
  }
  is_urgent_ = false;
}

}  // namespace ipsla
