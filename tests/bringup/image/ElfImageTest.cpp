// ELF images: the file bytes of each PT_LOAD segment at its physical or virtual address, and the
// ELF files that load nothing or would load two segments over each other, refused saying so.

#include "bringup/image/ElfImage.h"

#include <elf.h>

#include <gtest/gtest.h>

#include "bringup/Error.h"
#include "tests/bringup/image/ImageFiles.h"

namespace kvx::test {
namespace {

using bringup::Error;
using bringup::ImageOptions;

class ElfImageTest : public ImageFilesTest {};

TEST_F(ElfImageTest, SegmentsGoToTheirPhysicalOrVirtualAddressesMovedByTheOffsetAndTheWidthFitsEach) {
  // Linked by ld (tests/cli/images/README.md): 30 bytes at 0x3000 and 40 at 0x5000, virtual
  // 0x8000xxxx; .bss after the second, which is not the file's to write.
  const std::string path = KVX_TEST_IMAGES "/image.elf";
  const auto physical = open(path, options(std::nullopt, std::nullopt, 2));
  EXPECT_TRUE(physical->size() == 70u && physical->entryPoint() == 0x80003000u);
  auto bytes = bytesOf(*physical);
  EXPECT_TRUE(bytes.size() == 70u && bytes.begin()->first == 0x3000u && bytes.rbegin()->first == 0x5027u);
  ImageOptions byVirtual = options(std::nullopt, 0x100);
  byVirtual.virtualAddresses = true;
  const auto moved = open(path, byVirtual);
  EXPECT_EQ(moved->entryPoint(), 0x80003100u);
  bytes = bytesOf(*moved);
  EXPECT_TRUE(bytes.begin()->first == 0x80003100u && bytes.rbegin()->first == 0x80005127u);
  const Error misfit = errorOf([&] { open(path, options(std::nullopt, std::nullopt, 4)); });
  EXPECT_EQ(misfit.kind(), Error::Kind::kUsage);
  EXPECT_EQ(misfit.what(),
            "segment 0 of '" + path +
                "' goes to 0x3000-0x301d: accesses of 4 bytes need a start and an end on a multiple of 4");
}

TEST_F(ElfImageTest, AnElfFileThatLoadsNothingIsAFileErrorSayingWhatItFound) {
  ElfLayout relocatable;
  relocatable.type = ET_REL;
  ElfLayout noLoad;
  noLoad.segments = {{PT_NOTE, 0, 0, "note"}, {PT_DYNAMIC, 0, 0, "dyn"}};
  ElfLayout onlyBss;
  onlyBss.segments = {{PT_LOAD, 0x1000, 0x1000, ""}};
  for (const auto& [layout, reason] : {
           std::pair{relocatable,
                     "it is a relocatable object file (ET_REL): nothing in it has an address until it is "
                     "linked, so "
                     "it has no segment to load"},
           std::pair{noLoad,
                     "it has no PT_LOAD segment (2 program headers): nothing in it is meant to be loaded"},
           std::pair{onlyBss,
                     "its PT_LOAD segments hold no bytes of the file, only memory for the program to clear"},
       }) {
    const std::string path = file("empty.elf", elfFile(layout));
    const Error error = errorOf([&] { open(path); });
    EXPECT_EQ(error.kind(), Error::Kind::kFile) << "case: " << reason;
    EXPECT_EQ(error.what(), "cannot read '" + path + "' as ELF: " + reason);
  }
}

TEST_F(ElfImageTest, OverlappingSegmentsAreRefusedSuggestingVirtualAddressesWhenTheyWouldNotOverlapThere) {
  ElfLayout layout;
  layout.segments = {
      {PT_LOAD, 0x2000, 0x2000, "other"}, {PT_LOAD, 0, 0x80000000, "text"}, {PT_LOAD, 0, 0x80001000, "data"}};
  const std::string path = file("zero.elf", elfFile(layout));
  EXPECT_EQ(
      errorOf([&] { open(path); }).reason(),
      "segment 1 at 0x0-0x3 and segment 2 at 0x0-0x3 overlap; at their virtual addresses (p_vaddr) they do "
      "not: load by those (--vaddr)");
  ImageOptions byVirtual;
  byVirtual.virtualAddresses = true;
  EXPECT_EQ(bytesOf(*open(path, byVirtual)).count(0x80001003), 1u);
  layout.segments[2].virtualAddress = 0x80000002;
  EXPECT_EQ(errorOf([&] { open(file("both.elf", elfFile(layout)), byVirtual); }).reason(),
            "segment 1 at 0x80000000-0x80000003 and segment 2 at 0x80000002-0x80000005 overlap");
}

}  // namespace
}  // namespace kvx::test
