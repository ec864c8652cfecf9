#include "tools/output/HexDump.h"

#include <unistd.h>

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "tools/output/Output.h"

namespace kvx::test {
namespace {

/// What `print` writes on stdout through an Output with `options`.
template <typename Print>
std::string printed(const cli::Output::Options& options, Print print) {
  std::FILE* file = std::tmpfile();
  const int saved = ::dup(STDOUT_FILENO);
  ::dup2(::fileno(file), STDOUT_FILENO);
  {
    cli::Output output;
    output.configure(options);
    print(output);
    output.finish();
  }
  ::dup2(saved, STDOUT_FILENO);
  ::close(saved);
  std::string text(static_cast<size_t>(::lseek(::fileno(file), 0, SEEK_END)), '\0');
  ::pread(::fileno(file), text.data(), text.size(), 0);
  std::fclose(file);
  return text;
}

TEST(HexDumpTest, LinesStartAtTheFirstAddressAndShowOnlyPrintableBytes) {
  const std::string text = printed({}, [](cli::Output& output) {
    cli::HexDump dump(output, 0x10003, 20);
    const uint8_t bytes[] = {'H', 'e', 'l', 'l', 'o', 0x7f, 0x01, 0xff, 'a', 'b',
                             'c', 'd', 'e', 'f', 'g', 'h',  'i',  0,    1,   2};
    dump.append(bytes, 7);  // lines are whole whatever the pieces
    dump.append(bytes + 7, 13);
    dump.finish();
  });
  EXPECT_EQ(text,
            "00010003:  48 65 6c 6c 6f 7f 01 ff  61 62 63 64 65 66 67 68  |Hello...abcdefgh|\n"
            "00010013:  69 00 01 02                                       |i...|\n");
  // Above 4 GiB the address column is 64 bits wide; with --json each line is an object.
  cli::Output::Options json;
  json.json = true;
  EXPECT_EQ(printed(json,
                    [](cli::Output& output) {
                      cli::HexDump dump(output, 0xfffffffffffffff0, 2);
                      const uint8_t bytes[] = {0xab, 0xcd};
                      dump.append(bytes, 2);
                      dump.finish();
                    }),
            "{\"address\":\"0xfffffffffffffff0\",\"bytes\":\"abcd\"}\n");
  EXPECT_EQ(cli::wordLine(0x100000000, cli::addressDigits(0x100000010), 4, {1, 0xdeadbeef}),
            "0000000100000000:  00000001 deadbeef");
}

}  // namespace
}  // namespace kvx::test
