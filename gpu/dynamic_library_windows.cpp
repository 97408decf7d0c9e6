#include <windows.h>

#include "gpu/dynamic_library.h"

namespace glyptora_internal {

DynamicLibrary* DynamicLibrary::open(const char* path) {
    const HMODULE module = LoadLibraryExA(path, nullptr, 0);
    return module ? new DynamicLibrary(reinterpret_cast<void*>(module)) : nullptr;
}

DynamicLibrary::~DynamicLibrary() { FreeLibrary(static_cast<HMODULE>(m_handle)); }

void* DynamicLibrary::symbol(const char* name) const {
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(m_handle), name));
}

const char* defaultCudaDriverLibraryName() { return "nvcuda.dll"; }

}  // namespace glyptora_internal
