#include "bringup/file/ScratchFile.h"

#include <stdexcept>

#include "bringup/Error.h"
#include "tests/bringup/file/FileTesting.h"

namespace kvx::test {
namespace {

using bringup::Error;
using bringup::ScratchFile;

class ScratchFileTest : public FileTest {};

TEST_F(ScratchFileTest, PartsInAnyOrderReachTheSinkInOrderAsSoonAsTheGapBeforeThemFills) {
  withAndWithoutUnnamedFiles([&](const std::string& directory) {
    std::string stream(300 * 1024, '\0');
    for (size_t i = 0; i < stream.size(); ++i) stream[i] = static_cast<char>(i % 251);
    const size_t starts[] = {0, 1000, 70000, 70001, 150000, 290000, stream.size()};
    std::string received;
    ScratchFile scratch([&](const uint8_t* bytes,
                            size_t size) { received.append(reinterpret_cast<const char*>(bytes), size); },
                        directory);
    // Each step: the part written, and how far the sink has the stream after it.
    const std::pair<size_t, size_t> steps[] = {{3, 0},    {5, 0},      {0, 1000},
                                               {2, 1000}, {1, 150000}, {4, stream.size()}};
    for (const auto& [index, delivered] : steps) {
      scratch.writeAt(starts[index], stream.data() + starts[index], starts[index + 1] - starts[index]);
      EXPECT_EQ(scratch.delivered(), delivered) << "case: part " << index;
      EXPECT_EQ(received.size(), delivered) << "case: part " << index;
      EXPECT_EQ(names(directory), std::vector<std::string>{}) << "the scratch file has no name";
    }
    EXPECT_FALSE(scratch.waiting());
    EXPECT_TRUE(received == stream);
  });
  // Bytes in order need no scratch file: the stream goes on where none can be made.
  ScratchFile inOrder([](const uint8_t*, size_t) {}, at("missing"));
  EXPECT_NO_THROW(inOrder.writeAt(0, "in order", 8));
  EXPECT_THROW(inOrder.writeAt(9, "ahead", 5), Error);
}

TEST_F(ScratchFileTest, BytesGivenTwiceAreRefused) {
  ScratchFile scratch([](const uint8_t*, size_t) {}, m_directory);
  const std::string bytes(100, 'x');
  scratch.writeAt(0, bytes.data(), 100);
  scratch.writeAt(200, bytes.data(), 100);
  // Bytes that touch what the sink has (0-99) or what waits (200-299): offset and size.
  const std::pair<uint64_t, size_t> twice[] = {{50, 2}, {99, 2}, {150, 51}, {200, 2}, {250, 2}, {299, 2}};
  for (const auto& [offset, size] : twice) {
    EXPECT_THROW(scratch.writeAt(offset, bytes.data(), size), std::invalid_argument) << "case: " << offset;
  }
  scratch.writeAt(100, bytes.data(), 100);
  EXPECT_EQ(scratch.delivered(), 300u);
}

}  // namespace
}  // namespace kvx::test
