// Where the running program lives, so that it can start its siblings: kvx-ta its simulator and
// its workers.
#pragma once

#include <string>

namespace kvx::common {

/// The absolute path of the running executable; "" when the system will not say.
std::string thisProgram();

/// The program called `name` in the directory of the running executable.
std::string besideThisProgram(const std::string& name);

}  // namespace kvx::common
