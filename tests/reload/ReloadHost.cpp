// A host that loads the plug-in, uses it, unloads it and loads it again, as hosts do when the
// user changes the configuration. After the last dlclose neither the plug-in nor the host
// framework library may stay mapped, and the reloaded plug-in must start from fresh statics.
#include <dlfcn.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace {

int failures = 0;

void check(bool ok, const std::string& what) {
  std::printf("%s: %s\n", ok ? "ok" : "FAILED", what.c_str());
  failures += ok ? 0 : 1;
}

bool mapped(const std::string& library) {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find("/" + library) != std::string::npos) return true;
  }
  return false;
}

std::string sharedEndpoint(void* module) {
  auto describe = reinterpret_cast<void (*)(char*, size_t)>(dlsym(module, "hostModuleSharedEndpoint"));
  char text[128] = {};
  describe(text, sizeof text);
  return text;
}

}  // namespace

int main() {
  void* module = dlopen(HOST_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) {
    std::printf("FAILED: dlopen: %s\n", dlerror());
    return 1;
  }
  check(sharedEndpoint(module) == ":-1", "a fresh plug-in records no session");
  reinterpret_cast<void (*)(const char*, int)>(dlsym(module, "hostModuleUse"))("127.0.0.1", 1);
  check(sharedEndpoint(module) == "127.0.0.1:1", "an access records its endpoint");

  dlclose(module);
  for (const char* library : {"libta_kvx.so", "libvorn_host.so"}) {
    check(!mapped(library), std::string(library) + " leaves the process at the last dlclose");
  }

  module = dlopen(HOST_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
  check(module != nullptr && sharedEndpoint(module) == ":-1", "the reloaded plug-in records no session");
  return failures == 0 ? 0 : 1;
}
