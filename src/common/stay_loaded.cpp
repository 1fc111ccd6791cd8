// For systems whose linker cannot mark the library as one that is never unloaded: it marks itself when it is loaded.

#include <dlfcn.h>

namespace {

bool stay_loaded() {
  static const char inside = 0;
  Dl_info library{};
  return dladdr(&inside, &library) != 0 &&
         dlopen(library.dli_fname, RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD | RTLD_NODELETE) != nullptr;
}

[[maybe_unused]] const bool stays = stay_loaded();

}  // namespace
