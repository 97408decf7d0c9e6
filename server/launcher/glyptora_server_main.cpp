// glyptora-server: runs the conversion server of the Glyptora library as a process of its own.
// The library starts it detached, naming itself as the argument; without one, the library
// beside this executable is used.
#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>

#include <string>

#ifndef GLYPTORA_LIBRARY_FILE_NAME
#define GLYPTORA_LIBRARY_FILE_NAME "libglyptora.so"
#endif

int main(int argc, char** argv) {
    std::string library;
    if (argc > 1) {
        library = argv[1];
    } else {
        char self[PATH_MAX];
        if (!realpath("/proc/self/exe", self)) return 2;
        library = self;
        library = library.substr(0, library.rfind('/') + 1) + GLYPTORA_LIBRARY_FILE_NAME;
    }
    void* handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) return 3;
    auto serverMain = reinterpret_cast<void (*)()>(dlsym(handle, "ServerMain"));
    if (!serverMain) return 4;
    serverMain();
    return 0;
}
