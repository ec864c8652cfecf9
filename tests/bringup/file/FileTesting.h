// What the tests of the file classes share: a directory for each test, and children in which a
// test runs where it changes what the process may do (drop root, refuse unnamed files), since
// neither can be undone.
#pragma once

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace kvx::test {

/// A fresh directory under $TMPDIR or /tmp, removed with all it holds when the test ends.
class FileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "kvx-file-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    m_directory = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(m_directory); }

  std::string at(const std::string& name) const { return m_directory + "/" + name; }

  /// The names in `directory`, sorted, hidden ones included.
  static std::vector<std::string> names(const std::string& directory) {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
      found.push_back(entry.path().filename().string());
    std::sort(found.begin(), found.end());
    return found;
  }
  static std::string contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
  }
  static void make(const std::string& path, const std::string& bytes, mode_t mode = 0644) {
    std::ofstream(path, std::ios::binary) << bytes;
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
  }
  static struct stat statusOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status;
  }

  /// Runs `scenario` in a child process; the child prints its failures and exits 1 on them.
  static void inChild(const std::function<void()>& scenario) {
    std::fflush(stdout);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      scenario();
      std::fflush(stdout);
      ::_exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child failed, as printed above";
  }

  /// Runs `scenario` in a fresh directory, then in another in a child whose file systems, as some
  /// do, take no unnamed files: every open asking for one (O_TMPFILE) fails with EOPNOTSUPP.
  void withAndWithoutUnnamedFiles(const std::function<void(const std::string& directory)>& scenario) {
    ASSERT_TRUE(std::filesystem::create_directory(at("unnamed")));
    scenario(at("unnamed"));
    ASSERT_TRUE(std::filesystem::create_directory(at("hidden")));
    inChild([&] {
      // openat's flags: the low 32 bits of its third argument, first on a little-endian machine.
      sock_filter filter[] = {
          BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
          BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_openat, 0, 3),
          BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),
          BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, O_TMPFILE & ~O_DIRECTORY, 0, 1),
          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EOPNOTSUPP),
          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      };
      sock_fprog program{static_cast<unsigned short>(std::size(filter)), filter};
      ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
      ASSERT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
      ASSERT_LT(::open(m_directory.c_str(), O_TMPFILE | O_RDWR, 0600), 0);
      scenario(at("hidden"));
    });
  }

  std::string m_directory;
};

}  // namespace kvx::test
