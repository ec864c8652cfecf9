// A host that loads the plug-in, uses it, unloads it and loads it again, as hosts do when the
// user changes the configuration. After the last dlclose neither the plug-in nor the host
// framework library may stay mapped, and the reloaded plug-in must start from fresh statics. The
// host keeps the plug-in's log records, as an asynchronous appender's queue does, and formats
// them only after the unload.
#include <dlfcn.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <log4cxx/appenderskeleton.h>
#include <log4cxx/helpers/pool.h>
#include <log4cxx/logger.h>
#include <log4cxx/patternlayout.h>

namespace {

/// Keeps every record it is given, unformatted.
class KeepingAppender : public log4cxx::AppenderSkeleton {
 public:
  void close() override {}
  bool requiresLayout() const override { return false; }
  std::vector<log4cxx::spi::LoggingEventPtr> kept;

 protected:
  void append(const log4cxx::spi::LoggingEventPtr& event, log4cxx::helpers::Pool& /*pool*/) override {
    kept.push_back(event);
  }
};

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
  auto keeping = std::make_shared<KeepingAppender>();
  log4cxx::Logger::getLogger("tesk.ta.kvx")->addAppender(keeping);
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

  // The location of a record the plug-in logged points into memory that outlived it.
  check(keeping->kept.size() == 1, "the plug-in warned once");
  if (!keeping->kept.empty()) {
    log4cxx::PatternLayout layout("%F|%M");
    log4cxx::LogString formatted;
    log4cxx::helpers::Pool pool;
    layout.format(formatted, keeping->kept.front(), pool);
    check(
        formatted.rfind("agent/TaProcessKVX.cpp|", 0) == 0 && formatted.find("read_mem") != std::string::npos,
        "a record kept past the unload formats as '" + formatted + "'");
  }

  module = dlopen(HOST_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
  check(module != nullptr && sharedEndpoint(module) == ":-1", "the reloaded plug-in records no session");
  return failures == 0 ? 0 : 1;
}
