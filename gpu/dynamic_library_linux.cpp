#include "gpu/dynamic_library.h"

#include <dlfcn.h>

namespace glyptora_internal {

DynamicLibrary* DynamicLibrary::open(const char* path) {
    void* handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    return handle ? new DynamicLibrary(handle) : nullptr;
}

DynamicLibrary::~DynamicLibrary() { dlclose(m_handle); }

void* DynamicLibrary::symbol(const char* name) const { return dlsym(m_handle, name); }

const char* defaultCudaDriverLibraryName() { return "libcuda.so.1"; }

}  // namespace glyptora_internal
