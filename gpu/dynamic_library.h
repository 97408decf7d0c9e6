#pragma once
// Run-time loading of a shared library, the one platform service the GPU host code needs
// (Linux: dlopen/dlsym/dlclose; a Windows build supplies LoadLibraryExA/GetProcAddress).
namespace glyptora_internal {

class DynamicLibrary {
public:
    // Loads `path`; returns null when the library cannot be loaded.
    static DynamicLibrary* open(const char* path);
    ~DynamicLibrary();
    DynamicLibrary(const DynamicLibrary&) = delete;
    DynamicLibrary& operator=(const DynamicLibrary&) = delete;

    // Address of the exported symbol `name`, or null when it is not exported.
    void* symbol(const char* name) const;

private:
    explicit DynamicLibrary(void* handle) : m_handle(handle) {}
    void* m_handle;
};

// File name of the NVIDIA CUDA driver library on this platform.
const char* defaultCudaDriverLibraryName();

}  // namespace glyptora_internal
