// The families of kvx-ta's commands, each in a file of its own, in the order help lists them.
#pragma once

#include <vector>

#include "tools/CommandTable.h"

namespace kvx::cli {

/// read, write, wait, reg, regs, reserve, unreserve, unreserve-all: single accesses and
/// reservations.
std::vector<CommandDefinition> accessCommands();
/// dump, fill, crc32: ranges of any length, moved in accesses of at most 8 bytes.
std::vector<CommandDefinition> transferCommands();
/// load, verify: image files (raw, Intel HEX, S-record, ELF) to and against target memory.
std::vector<CommandDefinition> imageCommands();
/// script, shell, sleep, reconnect, demo, help: commands about the run itself.
std::vector<CommandDefinition> sessionCommands();

}  // namespace kvx::cli
