#include "bringup/image/ElfImage.h"

#include <gelf.h>

#include <algorithm>
#include <utility>

#include "bringup/Error.h"
#include "bringup/image/LibElf.h"

namespace kvx::bringup {
namespace {

/// A PT_LOAD segment as the checks see it: its program header's index and both its addresses.
struct Loaded {
  size_t index;
  uint64_t physical;
  uint64_t virtualAddress;
  uint64_t fileOffset;
  uint64_t length;
};

bool intersect(uint64_t a, uint64_t b, uint64_t length, uint64_t otherLength) {
  return a <= b + (otherLength - 1) && b <= a + (length - 1);
}

std::string segmentName(const Loaded& segment, uint64_t address) {
  return "segment " + std::to_string(segment.index) + " at " + addressRange(address, segment.length);
}

}  // namespace

ElfImage::ElfImage(ImageFile file, const Placement& placement, bool virtualAddresses)
    : m_file(std::move(file)) {
  const auto malformed = [this](const std::string& reason) {
    return Error(Error::Kind::kFile, "cannot read " + m_file.name() + " as ELF", reason);
  };
  const ElfHandle elf = readElf(m_file.descriptor());
  if (elf == nullptr || ::elf_kind(elf.get()) != ELF_K_ELF) throw malformed(elfError());
  GElf_Ehdr header;
  size_t headers = 0;
  if (::gelf_getehdr(elf.get(), &header) == nullptr || ::elf_getphdrnum(elf.get(), &headers) != 0) {
    throw malformed(elfError());
  }
  if (header.e_type == ET_REL) {
    throw malformed(
        "it is a relocatable object file (ET_REL): nothing in it has an address until it is linked, so it "
        "has "
        "no segment to load");
  }
  const uint64_t fileSize = *m_file.size();
  std::vector<Loaded> loaded;
  size_t loads = 0;
  for (size_t i = 0; i < headers; ++i) {
    GElf_Phdr segment;
    if (::gelf_getphdr(elf.get(), static_cast<int>(i), &segment) == nullptr) {
      throw malformed("program header " + std::to_string(i) + ": " + elfError());
    }
    if (segment.p_type != PT_LOAD) continue;
    ++loads;
    if (segment.p_filesz == 0) continue;
    if (segment.p_offset > fileSize || segment.p_filesz > fileSize - segment.p_offset) {
      throw malformed("segment " + std::to_string(i) + " runs past the end of the file");
    }
    loaded.push_back({i, segment.p_paddr, segment.p_vaddr, segment.p_offset, segment.p_filesz});
  }
  if (loads == 0) {
    throw malformed("it has no PT_LOAD segment (" + std::to_string(headers) +
                    " program headers): nothing in it is meant to be loaded");
  }
  if (loaded.empty()) {
    throw malformed("its PT_LOAD segments hold no bytes of the file, only memory for the program to clear");
  }
  const auto addressOf = [virtualAddresses](const Loaded& segment) {
    return virtualAddresses ? segment.virtualAddress : segment.physical;
  };
  // Sorted by address, segments that overlap at all include two neighbours that do.
  std::vector<Loaded> sorted = loaded;
  std::sort(sorted.begin(), sorted.end(),
            [&](const Loaded& a, const Loaded& b) { return addressOf(a) < addressOf(b); });
  for (size_t i = 0; i + 1 < sorted.size(); ++i) {
    const Loaded& a = sorted[i];
    const Loaded& b = sorted[i + 1];
    if (!intersect(addressOf(a), addressOf(b), a.length, b.length)) continue;
    std::string reason = segmentName(a, addressOf(a)) + " and " + segmentName(b, addressOf(b)) + " overlap";
    if (!virtualAddresses && !intersect(a.virtualAddress, b.virtualAddress, a.length, b.length)) {
      reason += "; at their virtual addresses (p_vaddr) they do not: load by those (--vaddr)";
    }
    throw malformed(reason);
  }
  for (const Loaded& segment : loaded) {
    const uint64_t address = placement.place(addressOf(segment), segment.length);
    placement.checkWidth(address, segment.length,
                         "segment " + std::to_string(segment.index) + " of " + m_file.name());
    m_segments.push_back({address, segment.fileOffset, segment.length});
    m_size += segment.length;
  }
  // The ELF file format's own rule: an entry point of 0 means there is none.
  if (header.e_entry != 0) m_entry = placement.placeEntry(header.e_entry);
}

void ElfImage::visit(const Visitor& visitor) {
  m_piece.resize(kPieceBytes);
  for (const Segment& segment : m_segments) {
    for (uint64_t done = 0; done < segment.length;) {
      const size_t count = static_cast<size_t>(std::min<uint64_t>(m_piece.size(), segment.length - done));
      m_file.readExactly(segment.fileOffset + done, m_piece.data(), count);
      visitor(segment.address + done, m_piece.data(), count);
      done += count;
    }
  }
}

}  // namespace kvx::bringup
