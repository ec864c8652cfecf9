// Where the programs installed with the plug-in are: in the bin/ beside the lib/ that holds
// libta_kvx.so, in a build tree as in an installed prefix. A host that is not one of those
// programs (the Python package) starts them from there.
#pragma once

#include <string>

namespace kvx::bringup {

/// The program called `name` in the bin/ beside the directory of the loaded plug-in; "" when
/// there is no such executable.
std::string installedProgram(const std::string& name);

}  // namespace kvx::bringup
