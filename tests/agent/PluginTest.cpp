// libTrelSnmp.so is loaded, used and closed by a process that goes on.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>

#include "platform/lumalog/Lumalog.h"
#include "tests/support/BareAgent.h"

namespace {

class Library {
 public:
  explicit Library(const char* path) : handle_(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
    if (handle_ == nullptr) ADD_FAILURE() << dlerror();
  }
  ~Library() {
    if (handle_ != nullptr) dlclose(handle_);
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  void* get() const { return handle_; }
  template <class Function>
  Function* function(const char* name) const {
    return reinterpret_cast<Function*>(dlsym(handle_, name));
  }

 private:
  void* handle_;
};

bool pluginLoaded() {
  void* handle = dlopen(TREL_SNMP_PLUGIN, RTLD_NOW | RTLD_NOLOAD);
  if (handle != nullptr) dlclose(handle);
  return handle != nullptr;
}

// Whether the library itself asks to be kept; what else the process has loaded may keep it, too.
bool asksToStay(void* library) {
  link_map* map = nullptr;
  dlinfo(library, RTLD_DI_LINKMAP, &map);
  for (const ElfW(Dyn)* entry = map->l_ld; entry->d_tag != DT_NULL; ++entry) {
    if (entry->d_tag == DT_FLAGS_1) return (entry->d_un.d_val & DF_1_NODELETE) != 0;
  }
  return false;
}

// Reaches every trace handle that is registered.
void everyHandleTraces() {
  Lumalog::levelIs("*", Lumalog::kMaxLevel);
  Lumalog::levelsReset();
}

TEST(Plugin, LoadedUsedAndClosed_StaysLoadedAndCanBeUsedAgain) {
  Support::startBareAgent("plugin-test");
  EXPECT_FALSE(pluginLoaded());
  {
    Library plugin(TREL_SNMP_PLUGIN);
    EXPECT_TRUE(asksToStay(plugin.get()));
  }
  EXPECT_TRUE(pluginLoaded());
  for (int life = 0; life < 3; ++life) {
    Library user(PLUGIN_USER);
    auto* serveOnce = user.function<size_t()>("serveOnce");
    ASSERT_NE(serveOnce, nullptr);
    EXPECT_EQ(serveOnce(), 1U) << life;
    EXPECT_EQ(serveOnce(), 1U) << life;
  }
  EXPECT_TRUE(pluginLoaded());
  everyHandleTraces();
}

}  // namespace
