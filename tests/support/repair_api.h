#pragma once

#include <dlfcn.h>

#include <stdexcept>
#include <string>

#include "meru/repair.h"

namespace meru_test {

/// The repair functions, as a C++ host links them or as a loader finds them under their plain names.
struct RepairApi {
  const char* name;
  void* (*start_async)(const char*, const char*, const char*, MovieRepairCallback, void*);
  bool (*start_sync)(const char*, const char*, const char*, MovieRepairCallback, void*);
  void (*stop)(void**);
  bool (*is_running)(void*);

  static RepairApi linked() {
    return {"Linked", MERU_StartRepair_Async, MERU_StartRepair_sync, MERU_StopRepair, MERU_Repair_IsRunning};
  }
  static RepairApi loaded() {
    void* library = dlopen(MERU_LIBRARY, RTLD_NOW);
    if (library == nullptr) throw std::runtime_error(dlerror());
    RepairApi api{};
    api.name = "Loaded";
    find(library, "MERU_StartRepair_Async", &api.start_async);
    find(library, "MERU_StartRepair_sync", &api.start_sync);
    find(library, "MERU_StopRepair", &api.stop);
    find(library, "MERU_Repair_IsRunning", &api.is_running);
    return api;
  }

 private:
  template <class Function>
  static void find(void* library, const char* name, Function* function) {
    *function = reinterpret_cast<Function>(dlsym(library, name));
    if (*function == nullptr) throw std::runtime_error(std::string("no ") + name);
  }
};

}  // namespace meru_test
