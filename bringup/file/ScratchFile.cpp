#include "bringup/file/ScratchFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "bringup/Error.h"

namespace kvx::bringup {
namespace {

/// Waiting bytes go on to the sink in blocks of this size.
constexpr size_t kBlock = 64 * 1024;

std::string temporaryDirectory() {
  const char* directory = std::getenv("TMPDIR");
  return directory != nullptr && *directory != '\0' ? directory : "/tmp";
}

}  // namespace

ScratchFile::ScratchFile(Sink sink, std::string directory)
    : m_sink(std::move(sink)), m_directory(directory.empty() ? temporaryDirectory() : std::move(directory)) {}

void ScratchFile::writeAt(uint64_t offset, const void* bytes, size_t size) {
  if (size == 0) return;
  const uint64_t end = offset + size;
  const auto after = m_waiting.upper_bound(offset);
  const bool overlapsAfter = after != m_waiting.end() && after->first < end;
  const bool overlapsBefore = after != m_waiting.begin() && std::prev(after)->second > offset;
  if (offset < m_delivered || overlapsAfter || overlapsBefore) {
    throw std::invalid_argument("bytes at offset " + std::to_string(offset) +
                                " of the stream were given before");
  }
  if (offset != m_delivered) {
    keep(offset, bytes, size);
    return;
  }
  m_sink(static_cast<const uint8_t*>(bytes), size);
  m_delivered = end;
  deliverWaiting();
}

void ScratchFile::keep(uint64_t offset, const void* bytes, size_t size) {
  if (!m_file) {
    std::string hidden;
    if (const int error = openTemporary(m_directory, "kvx-scratch", 0600, m_file, hidden))
      fail("create", error);
    // Where the file system has no unnamed files, the name goes at once: the open file lives on.
    if (!hidden.empty()) ::unlink(hidden.c_str());
  }
  if (const int error = m_file.writeAt(offset, bytes, size)) fail("write", error);
  uint64_t start = offset;
  uint64_t end = offset + size;
  if (const auto next = m_waiting.find(end); next != m_waiting.end()) {
    end = next->second;
    m_waiting.erase(next);
  }
  if (const auto before = m_waiting.lower_bound(start); before != m_waiting.begin()) {
    const auto previous = std::prev(before);
    if (previous->second == start) {
      start = previous->first;
      m_waiting.erase(previous);
    }
  }
  m_waiting.emplace(start, end);
}

void ScratchFile::deliverWaiting() {
  while (!m_waiting.empty() && m_waiting.begin()->first == m_delivered) {
    const uint64_t start = m_delivered;
    const uint64_t end = m_waiting.begin()->second;
    m_waiting.erase(m_waiting.begin());
    m_carry.resize(kBlock);
    while (m_delivered < end) {
      const size_t size = static_cast<size_t>(std::min<uint64_t>(kBlock, end - m_delivered));
      if (const int error = m_file.readAt(m_delivered, m_carry.data(), size)) fail("read", error);
      m_sink(m_carry.data(), size);
      m_delivered += size;
    }
    // Delivered bytes need no room any more: a long stream keeps on disk only what waits. Where
    // the file system cannot give the room back, the file just stays as large.
    (void)::fallocate(m_file.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(start),
                      static_cast<off_t>(end - start));
  }
}

void ScratchFile::fail(const char* what, int error) const {
  throw fileError(std::string(what) + " a scratch file in", m_directory, error);
}

}  // namespace kvx::bringup
