#include "bringup/Installation.h"

#include <dlfcn.h>
#include <unistd.h>

#include "manager/TaProcessManager.h"

namespace kvx::bringup {

std::string installedProgram(const std::string& name) {
  // The plug-in's file, found through one of its functions.
  Dl_info info{};
  if (::dladdr(reinterpret_cast<void*>(&vorn::TaProcessManager::getInstance), &info) == 0 ||
      info.dli_fname == nullptr) {
    return "";
  }
  const std::string library = info.dli_fname;
  const size_t slash = library.rfind('/');
  const std::string program =
      (slash == std::string::npos ? "." : library.substr(0, slash)) + "/../bin/" + name;
  return ::access(program.c_str(), X_OK) == 0 ? program : "";
}

}  // namespace kvx::bringup
