// The bring-up engineer's commands end to end: access widths seen at the agent, word views,
// modify, search across workers, images written by dump and read back by load, and a firmware's
// symbols and entry point.

#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/ChildProcess.h"
#include "tests/support/RequestProxy.h"
#include "tests/support/SimProcess.h"

namespace kvx::test {
namespace {

/// Runs kvx-ta quietly against `server` with `script` on stdin, and any global options before.
ProgramResult script(const std::string& server, const std::string& lines,
                     std::vector<std::string> options = {}) {
  std::vector<std::string> argv{KVX_TA_PATH, "-q", "--server", server};
  argv.insert(argv.end(), options.begin(), options.end());
  argv.push_back("script");
  return runProgram(argv, lines);
}

/// The sizes of the memory accesses that reached the agent, and how many of them.
std::vector<uint32_t> accessSizes(const RequestProxy& proxy) {
  std::vector<uint32_t> sizes;
  for (const auto& request : proxy.requests()) {
    if (request.opcode == protocol::Opcode::kIoRead || request.opcode == protocol::Opcode::kIoWrite) {
      sizes.push_back(request.size);
    }
  }
  return sizes;
}

TEST(KvxTaCommandsTest, AWidthMakesEveryAccessThatWide) {
  SimProcess sim({"--quiet"});
  {
    RequestProxy proxy(sim.endpoint());
    const ProgramResult dumped = script(proxy.endpoint().text(), "dump 0x1000 64 --width 4\n");
    EXPECT_EQ(dumped.exitCode, 0) << dumped;
    EXPECT_EQ(accessSizes(proxy), std::vector<uint32_t>(16, 4));
  }
  RequestProxy proxy(sim.endpoint());
  const std::string image = ::testing::TempDir() + "kvx-ta-width.bin";
  const ProgramResult twos = script(proxy.endpoint().text(),
                                    "fill 0x2000 32 0xabcd --width 2\n"
                                    "crc32 0x2000 32 --width 2\n"
                                    "dump 0x2000 32 --out " +
                                        image +
                                        " --width 2\n"
                                        "load " +
                                        image +
                                        " 0x3000 --verify --width 2\n"
                                        "search 0x2000 32 0xabcd --width 2\n");
  EXPECT_EQ(twos.exitCode, 0) << twos;
  const std::vector<uint32_t> sizes = accessSizes(proxy);
  EXPECT_EQ(sizes.size(), 16u * 6) << "fill, crc32, dump, load, verify, search: 16 accesses each";
  EXPECT_EQ(std::count(sizes.begin(), sizes.end(), 2u), static_cast<long>(sizes.size()));
  std::remove(image.c_str());
}

TEST(KvxTaCommandsTest, WordViewsModifyAndSearchAcrossWorkers) {
  SimProcess sim({"--quiet"});
  const ProgramResult words = script(sim.endpoint().text(),
                                     "write32 0x1000 1 2 3\n"
                                     "read32 0x1000 8\n"
                                     "write32 0x1000 0x0000000f\n"
                                     "modify 0x1000 4 --set 0x10 --clear 0x1\n"
                                     "fill 0x8000 0x10000 0x11\n"
                                     "write8 0x8ffe 0x41 0x42 0x43 0x44\n");
  EXPECT_TRUE(words.exitCode == 0 && words.out ==
                                         "00001000:  00000001 00000002 00000003 00000000\n"
                                         "00001010:  00000000 00000000 00000000 00000000\n"
                                         "0x0000000f -> 0x0000001e\n")
      << words;
  // Four parts of 0x4000 bytes: the match at 0x8ffe lies inside the first; the one at 0xbffe,
  // written next, across the seam of the first two.
  const ProgramResult seam = script(sim.endpoint().text(),
                                    "write8 0xbffe 0x41 0x42 0x43 0x44\n"
                                    "search 0x8000 0x10000 --string ABCD\n",
                                    {"--jobs", "4"});
  EXPECT_TRUE(seam.exitCode == 0 && seam.out == "0x8ffe\n0xbffe\n") << seam;
}

TEST(KvxTaCommandsTest, DumpedImagesLoadBackAndAFirmwareStartsAtItsEntry) {
  SimProcess sim({"--quiet"});
  const std::string hex = ::testing::TempDir() + "kvx-ta-snapshot.hex";
  const std::string srec = ::testing::TempDir() + "kvx-ta-snapshot.s37";
  const ProgramResult images = script(sim.endpoint().text(),
                                      "fill 0x100003 100 0x123456\n"
                                      "dump 0x100003 100 --out " +
                                          hex +
                                          "\n"
                                          "dump 0x100003 100 --out " +
                                          srec +
                                          "\n"
                                          "fill 0x100003 100 0\n"
                                          "load " +
                                          hex +
                                          " --verify\n"
                                          "verify " +
                                          srec + "\n");
  EXPECT_EQ(images.exitCode, 0) << images;
  std::remove(hex.c_str());
  std::remove(srec.c_str());

  const ProgramResult firmware = script(sim.endpoint().text(),
                                        "load " FIRMWARE_ELF
                                        " --start\n"
                                        "reg pc\n"
                                        "read g_boot_status\n"
                                        "crc32 g_table\n"
                                        "symbols g_*\n",
                                        {"--elf", FIRMWARE_ELF});
  EXPECT_EQ(firmware.exitCode, 0) << firmware;
  // pc holds the entry point that the ELF header gives (e_entry, 8 bytes at offset 24).
  std::ifstream elf(FIRMWARE_ELF, std::ios::binary);
  uint64_t entry = 0;
  elf.seekg(24).read(reinterpret_cast<char*>(&entry), sizeof entry);
  char pc[32];
  std::snprintf(pc, sizeof pc, "0x%016llx\n", static_cast<unsigned long long>(entry));
  EXPECT_TRUE(firmware.out.rfind(pc, 0) == 0 &&
              std::regex_search(firmware.out, std::regex(R"(\n0x1234abcd\n)"   // the 4 bytes of g_boot_status
                                                         R"(0x[0-9a-f]{8}\n)"  // the CRC of g_table's 32
                                                         R"(0x[0-9a-f]{16} +32  object +g_table\n)"
                                                         R"(0x[0-9a-f]{16} +4  object +g_boot_status\n$)")))
      << firmware;
  const ProgramResult unknown = runProgram({KVX_TA_PATH, "--elf", FIRMWARE_ELF, "read", "g_boot_statsu"});
  EXPECT_TRUE(unknown.exitCode == 2 && unknown.err.find("g_boot_status") != std::string::npos) << unknown;
}

}  // namespace
}  // namespace kvx::test
