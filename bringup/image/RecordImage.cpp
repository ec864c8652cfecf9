#include "bringup/image/RecordImage.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <utility>

#include "bringup/image/RecordParser.h"

namespace kvx::bringup {
namespace {

/// The addresses that the records read so far fill, in runs of adjacent records whatever their
/// order in the file: memory grows with the gaps between runs, not with the records.
class Filled {
 public:
  /// Records on lines `firstLine` to `lastLine` (`records` of them) fill `first` to `last`.
  struct Run {
    uint64_t first;
    uint64_t last;
    uint64_t firstLine;
    uint64_t lastLine;
    uint64_t records;
  };

  /// Adds the bytes `first` to `last` of the record on `line`; when some are filled already, adds
  /// nothing and gives the run that holds them.
  std::optional<Run> add(uint64_t first, uint64_t last, uint64_t line) {
    const auto after = m_runs.upper_bound(first);
    if (after != m_runs.end() && after->second.first <= last) return after->second;
    const auto before = after == m_runs.begin() ? m_runs.end() : std::prev(after);
    if (before != m_runs.end() && before->second.last >= first) return before->second;
    Run run{first, last, line, line, 1};
    if (before != m_runs.end() && before->second.last + 1 == first) {
      join(run, before->second);
      m_runs.erase(before);
    }
    if (after != m_runs.end() && last + 1 == after->second.first) {
      join(run, after->second);
      m_runs.erase(after);
    }
    m_runs.emplace(run.first, run);
    return std::nullopt;
  }

 private:
  static void join(Run& run, const Run& other) {
    run.first = std::min(run.first, other.first);
    run.last = std::max(run.last, other.last);
    run.firstLine = std::min(run.firstLine, other.firstLine);
    run.lastLine = std::max(run.lastLine, other.lastLine);
    run.records += other.records;
  }

  /// By first address; runs neither overlap nor touch.
  std::map<uint64_t, Filled::Run> m_runs;
};

/// The file Error for `record`, which lands on bytes of `run`. A run of one record names it; in a
/// regular file, the record of the run that the bytes are from is found by reading it again; in a
/// stream, which cannot be, the run's lines are named.
Error overlap(ImageFile& file, ImageFormat format, const RecordParser& parser,
              const RecordParser::Record& record, const Filled::Run& run) {
  const uint64_t last = record.address + (record.count - 1);
  const std::string what = "line " + std::to_string(record.line) + ": its bytes at " +
                           addressRange(record.address, record.count) + " overlap those of ";
  if (run.records > 1 && !file.isStream()) {
    RecordParser again(file, format, nullptr);
    RecordParser::Record earlier;
    while (again.next(earlier) && earlier.line < record.line) {
      const uint64_t earlierLast = earlier.address + (earlier.count - 1);
      if (earlier.address <= last && earlierLast >= record.address) {
        return parser.malformed(what + "line " + std::to_string(earlier.line) + " at " +
                                addressRange(earlier.address, earlier.count));
      }
    }
  }
  const std::string lines =
      run.records == 1 ? "line " + std::to_string(run.firstLine)
                       : "lines " + std::to_string(run.firstLine) + " to " + std::to_string(run.lastLine);
  return parser.malformed(what + lines + " at " + addressRange(run.first, run.last - run.first + 1));
}

}  // namespace

RecordImage::RecordImage(ImageFile file, ImageFormat format, const Placement& placement, Warn warn)
    : m_file(std::move(file)), m_format(format), m_placement(placement), m_warn(std::move(warn)) {
  if (!m_file.isStream()) readThrough(nullptr, m_warn);
}

void RecordImage::visit(const Visitor& visitor) {
  // A regular file gave its warnings when it was checked.
  readThrough(&visitor, m_file.isStream() ? m_warn : nullptr);
}

void RecordImage::readThrough(const Visitor* visitor, const Warn& warn) {
  RecordParser parser(m_file, m_format, warn);
  Filled filled;
  uint64_t total = 0;
  if (visitor != nullptr) m_piece.resize(kPieceBytes);
  // The bytes held in m_piece for the visitor, which go at `start`.
  uint64_t start = 0;
  size_t held = 0;
  RecordParser::Record record;
  while (parser.next(record)) {
    const uint64_t address = m_placement.place(record.address, record.count);
    m_placement.checkWidth(address, record.count,
                           "the record on line " + std::to_string(record.line) + " of " + m_file.name());
    if (const auto run = filled.add(record.address, record.address + (record.count - 1), record.line)) {
      throw overlap(m_file, m_format, parser, record, *run);
    }
    total += record.count;
    if (visitor == nullptr) continue;
    if (held != 0 && (address != start + held || held + record.count > m_piece.size())) {
      (*visitor)(start, m_piece.data(), held);
      held = 0;
    }
    if (held == 0) start = address;
    std::copy(record.bytes, record.bytes + record.count, m_piece.data() + held);
    held += record.count;
  }
  if (held != 0) (*visitor)(start, m_piece.data(), held);
  if (!m_file.isStream()) m_size = total;
  m_entry = m_placement.placeEntry(parser.entryPoint());
}

}  // namespace kvx::bringup
