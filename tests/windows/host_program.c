/* A host tool's view of Glyptora.dll: loaded at run time with LoadLibraryA, its exports
 * found with GetProcAddress, one texture converted. Prints the first block and exits with 0
 * only when every step worked and the blocks are the expected ones.
 *
 *   glyptora_host_program <path of Glyptora.dll> */
#include <windows.h>

#include <stdint.h>
#include <stdio.h>
#include <string.h>

typedef uint32_t(__cdecl* ConvertFunction)(void*, const void*, const wchar_t*, const wchar_t*, const wchar_t*, uint32_t,
                                           uint32_t, uint32_t, uint32_t, uint32_t, uint32_t);
typedef uint32_t(__cdecl* AvailableFunction)(void);

int main(int argc, char** argv) {
    const char* path = argc > 1 ? argv[1] : "Glyptora.dll";
    HMODULE library = LoadLibraryA(path);
    if (!library) {
        printf("cannot load %s (error %lu)\n", path, (unsigned long)GetLastError());
        return 1;
    }
    ConvertFunction convert = (ConvertFunction)(void*)GetProcAddress(library, "GlyptoraConvert");
    AvailableFunction available = (AvailableFunction)(void*)GetProcAddress(library, "GlyptoraIsGpuEncodingAvailable");
    const uint32_t* optimus = (const uint32_t*)(void*)GetProcAddress(library, "NvOptimusEnablementCuda");
    if (!convert || !available || !optimus || !GetProcAddress(library, "ServerMain")) {
        printf("an export is missing\n");
        return 1;
    }
    printf("NvOptimusEnablementCuda %u, GPU encoding available %u\n", *optimus, available());

    /* 8x4 pixels: the left block opaque red, the right block opaque blue, into BC1. */
    uint8_t pixels[8 * 4 * 4];
    for (int i = 0; i < 8 * 4; ++i) {
        const int left = (i % 8) < 4;
        pixels[4 * i + 0] = left ? 255 : 0;
        pixels[4 * i + 1] = 0;
        pixels[4 * i + 2] = left ? 0 : 255;
        pixels[4 * i + 3] = 255;
    }
    uint8_t blocks[16];
    memset(blocks, 0xAB, sizeof blocks);
    if (!convert(blocks, pixels, L"unorm_bc1", L"unorm_8_8_8_8", L"normal", 0, 0, 8, 4, 1, 1)) {
        printf("GlyptoraConvert failed\n");
        return 1;
    }
    /* A single-colour block: both endpoints the colour in RGB565 (red 0xF800, blue 0x001F). */
    const uint16_t red = (uint16_t)(blocks[0] | blocks[1] << 8), blue = (uint16_t)(blocks[8] | blocks[9] << 8);
    printf("blocks %02x%02x%02x%02x%02x%02x%02x%02x %02x%02x%02x%02x%02x%02x%02x%02x\n", blocks[0], blocks[1],
           blocks[2], blocks[3], blocks[4], blocks[5], blocks[6], blocks[7], blocks[8], blocks[9], blocks[10],
           blocks[11], blocks[12], blocks[13], blocks[14], blocks[15]);
    if (red != 0xF800 || blue != 0x001F || *optimus != 1) return 1;
    /* The GPU flag: with the CPU fall-back (0x40) the CPU's blocks; without it, and no GPU, a failure. */
    uint8_t fallback[16];
    if (!convert(fallback, pixels, L"unorm_bc1", L"unorm_8_8_8_8", L"normal", 0x50, 0, 8, 4, 1, 1) ||
        memcmp(fallback, blocks, sizeof blocks) != 0 ||
        (!available() && convert(fallback, pixels, L"unorm_bc1", L"unorm_8_8_8_8", L"normal", 0x10, 0, 8, 4, 1, 1))) {
        printf("the GPU flag was not handled\n");
        return 1;
    }
    /* Refusals: an unknown format and a null string convert nothing. */
    if (convert(blocks, pixels, L"unorm_bc42", L"unorm_8_8_8_8", L"", 0, 0, 8, 4, 1, 1) ||
        convert(blocks, pixels, L"unorm_bc1", L"unorm_8_8_8_8", NULL, 0, 0, 8, 4, 1, 1)) {
        printf("a bad request was accepted\n");
        return 1;
    }
    FreeLibrary(library);
    printf("ok\n");
    return 0;
}
