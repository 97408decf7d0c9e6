#include "tools/info_command.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "tools/command_line.h"
#include "tools/container_read.h"

namespace glyptora_tools {

namespace {

const char* const kInfoUsage =
    "usage: glyptora info FILE...\n"
    "\n"
    "Prints the container, format, size, levels, array layers, cube faces, supercompression,\n"
    "alpha mode and size on disk of DDS, KTX2 and .astc files, and the size of every level.\n";

void printInfo(const std::string& path, const TextureFile& file) {
    const EncodedTexture& t = file.texture;
    std::printf("file: %s\n", path.c_str());
    std::printf("container: %s\n", containerName(file.container));
    std::printf("format: %s\n", t.format->word);
    std::printf("size: %ux%u\n", t.width, t.height);
    std::printf("levels: %u\n", t.levels);
    std::printf("layers: %u%s\n", t.layers, t.isArray ? " (array)" : "");
    std::printf("faces: %u%s\n", t.faces, t.faces == 6 ? " (cube map)" : "");
    std::printf("supercompression: %s\n", supercompressionName(file.supercompression));
    std::printf("alpha: %s\n", t.premultiplied ? "premultiplied" : "straight");
    std::printf("size on disk: %llu bytes\n", static_cast<unsigned long long>(file.fileBytes));
    for (uint32_t m = 0; m < t.levels; ++m) {
        std::printf("level %u: %ux%u, %llu bytes", m, std::max<uint32_t>(t.width >> m, 1),
                    std::max<uint32_t>(t.height >> m, 1), static_cast<unsigned long long>(t.levelSizes[m]));
        if (file.storedLevelBytes[m] != t.levelSizes[m])
            std::printf(", stored in %llu bytes", static_cast<unsigned long long>(file.storedLevelBytes[m]));
        std::printf("\n");
    }
}

}  // namespace

int runInfo(int argc, char** argv) {
    std::vector<std::string> files;
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            std::fputs(kInfoUsage, stdout);
            return kExitOk;
        }
        if (arg.size() > 1 && arg[0] == '-') return usageError("unknown option '" + arg + "' (see 'glyptora info --help')");
        files.push_back(arg);
    }
    if (files.empty()) return usageError("no file given (see 'glyptora info --help')");
    int failures = 0;
    for (size_t i = 0; i < files.size(); ++i) {
        TextureFile file;
        std::string error;
        if (!readTextureFile(files[i], file, error)) {
            fail(files[i], error);
            ++failures;
            continue;
        }
        if (i > 0) std::printf("\n");
        printInfo(files[i], file);
        std::fflush(stdout);
    }
    return failures ? kExitFailed : kExitOk;
}

}  // namespace glyptora_tools
