#include "bringup/image/LibElf.h"

#include <libelf.h>

namespace kvx::bringup {

void ElfEnd::operator()(Elf* elf) const { ::elf_end(elf); }

ElfHandle readElf(int fd) {
  // libelf must be told the version its caller knows before anything else; once is enough.
  static const bool known = ::elf_version(EV_CURRENT) != EV_NONE;
  if (!known) return nullptr;
  return ElfHandle(::elf_begin(fd, ELF_C_READ_MMAP, nullptr));
}

std::string elfError() {
  const char* message = ::elf_errmsg(-1);
  return message != nullptr ? message : "unknown libelf error";
}

}  // namespace kvx::bringup
