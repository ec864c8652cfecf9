// Symbols of an ELF file: a name, or a name and an offset, to an address and the bytes left of
// the symbol; the near misses of a name that is not there; listing by pattern; and the files that
// have no symbols to give.

#include "bringup/image/ElfSymbols.h"

#include <elf.h>

#include <gtest/gtest.h>

#include "bringup/Error.h"
#include "tests/bringup/image/ImageFiles.h"

namespace kvx::test {
namespace {

using bringup::ElfSymbols;
using bringup::Error;

class ElfSymbolsTest : public ImageFilesTest {
 protected:
  void SetUp() override {
    ImageFilesTest::SetUp();
    ElfLayout layout;
    layout.symbols = {{
        {"boot.c", 0, 0, STT_FILE, true, SHN_ABS},
        {"counter", 0x4010, 4, STT_OBJECT, true, 1},
        {"$d", 0x4010, 0, STT_NOTYPE, true, 1},
        {"main.c", 0, 0, STT_FILE, true, SHN_ABS},
        {"counter", 0x4020, 4, STT_OBJECT, true, 1},
        {"g_boot_status", 0x80012a40, 64, STT_OBJECT, false, 1},
        {"g_boot_state", 0x80012a80, 8, STT_OBJECT, false, 1},
        {"main", 0x1000, 0x80, STT_FUNC, false, 1},
        {"_stack_top", 0x90000000, 0, STT_NOTYPE, false, SHN_ABS},
        {"puts", 0, 0, STT_FUNC, false, SHN_UNDEF},
        {"text", 0x1000, 0, STT_SECTION, true, 1},
    }};
    m_path = file("fw.elf", elfFile(layout));
  }

  /// The usage message that resolving `text` gives.
  static std::string refusal(const ElfSymbols& symbols, const std::string& text) {
    const Error error = errorOf([&] { symbols.resolve(text); });
    EXPECT_EQ(error.kind(), Error::Kind::kUsage) << "case: " << text;
    return error.what();
  }

  std::string m_path;
};

TEST_F(ElfSymbolsTest, ANameWithAnOffsetGivesTheAddressAndTheBytesToTheSymbolsEnd) {
  const ElfSymbols symbols(m_path);
  const struct {
    const char* text;
    uint64_t address;
    uint64_t length;
  } cases[] = {
      {"g_boot_status", 0x80012a40, 64},    {"g_boot_status+0x10", 0x80012a50, 48},
      {"g_boot_status+16", 0x80012a50, 48}, {"g_boot_status+64", 0x80012a80, 0},
      {"_stack_top", 0x90000000, 0},
  };
  for (const auto& each : cases) {
    const ElfSymbols::Location location = symbols.resolve(each.text);
    EXPECT_EQ(location.address, each.address) << "case: " << each.text;
    EXPECT_EQ(location.length, each.length) << "case: " << each.text;
  }
  EXPECT_EQ(symbols.resolve("main").symbol->type, ElfSymbols::Type::kFunction);
}

TEST_F(ElfSymbolsTest, AnUnknownOrAmbiguousNameIsAUsageErrorThatNamesTheCandidates) {
  const ElfSymbols symbols(m_path);
  EXPECT_EQ(refusal(symbols, "g_boot_stats"), "unknown symbol 'g_boot_stats' in '" + m_path +
                                                  "' (did you mean 'g_boot_state' or 'g_boot_status'?)");
  EXPECT_EQ(refusal(symbols, "nothing+4"), "unknown symbol 'nothing' in '" + m_path + "'");
  // Undefined in this file: it has no address here.
  EXPECT_EQ(refusal(symbols, "puts"), "unknown symbol 'puts' in '" + m_path + "'");
  EXPECT_EQ(
      refusal(symbols, "counter"),
      "ambiguous symbol 'counter': 2 symbols have that name, at 0x4010 (boot.c) and 0x4020 (main.c); give "
      "an address instead");
  EXPECT_EQ(refusal(symbols, "main+0x1g"), "invalid offset '0x1g' in 'main+0x1g' (decimal, or hex with 0x)");
  EXPECT_EQ(refusal(symbols, "_stack_top+0xffffffffffffffff"),
            "'_stack_top+0xffffffffffffffff' runs past the end of the 64-bit address space");
}

TEST_F(ElfSymbolsTest, APatternListsTheMatchingSymbolsByAddress) {
  const ElfSymbols symbols(m_path);
  const auto names = [&symbols](const std::string& pattern) {
    std::string list;
    for (const ElfSymbols::Symbol* symbol : symbols.matching(pattern)) list += symbol->name + " ";
    return list;
  };
  EXPECT_EQ(names("g_boot_*"), "g_boot_status g_boot_state ");
  // No undefined, section, file or mapping symbols.
  EXPECT_EQ(names(""), "main counter counter g_boot_status g_boot_state _stack_top ");
  EXPECT_STREQ(ElfSymbols::typeName(symbols.matching("_stack_top").front()->type), "notype");
}

TEST_F(ElfSymbolsTest, AFileWithoutSymbolsIsAUsageError) {
  ElfLayout stripped;
  stripped.segments = {{PT_LOAD, 0x1000, 0x1000, "code"}};
  ElfLayout relocatable;
  relocatable.type = ET_REL;
  relocatable.symbols.emplace();
  for (const auto& [content, message] :
       {std::pair{std::string("text"), "is not an ELF file"},
        std::pair{elfFile(stripped), "has no symbol table (was it stripped?)"},
        std::pair{elfFile(relocatable),
                  "is a relocatable object file: its symbols have no addresses until it is linked"}}) {
    const std::string path = file("symbols", content);
    const Error error = errorOf([&] { ElfSymbols symbols(path); });
    EXPECT_EQ(error.kind(), Error::Kind::kUsage) << "case: " << message;
    EXPECT_EQ(error.what(), "'" + path + "' " + message);
  }
}

}  // namespace
}  // namespace kvx::test
