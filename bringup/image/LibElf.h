// libelf opened on a file, for the ELF image and the symbol table alike: the library's version
// set once for the process, and its handle ended however its user ends. Safe from any thread;
// each handle belongs to one.
#pragma once

#include <memory>
#include <string>

struct Elf;

namespace kvx::bringup {

struct ElfEnd {
  void operator()(Elf* elf) const;
};
/// libelf's handle on an open file.
using ElfHandle = std::unique_ptr<Elf, ElfEnd>;

/// libelf's reader of the file open on `fd`, which must stay open while the handle lives. The
/// file is mapped, so only the pages read are touched. Null when libelf cannot read it at all;
/// a file that is not ELF gives a handle whose elf_kind() is not ELF_K_ELF.
ElfHandle readElf(int fd);

/// What libelf says of its last error.
std::string elfError();

}  // namespace kvx::bringup
