// The stack walk of the debug-help library: symbols and source lines come from whatever
// debug information dbghelp finds for each module, and the trace ends at the first frame
// it knows nothing about.
#include <windows.h>
// dbghelp.h needs the declarations of windows.h first.
#include <dbghelp.h>

#include <mutex>
#include <string_view>
#include <vector>

#include "core/diagnostics.h"
#include "core/stack_trace.h"
#include "core/string_builder.h"

namespace glyptora_internal {

namespace {

constexpr int kMaxFrames = 64;
constexpr DWORD kSymbolNameBytes = 512;

}  // namespace

void printStackTrace(int skipFrames) {
    diagnosticPrint("\nDumping stacktrace:\n");
    // dbghelp is single-threaded: one walk at a time in the process.
    static std::mutex walking;
    const std::lock_guard<std::mutex> guard(walking);
    const HANDLE process = GetCurrentProcess();
    const HANDLE thread = GetCurrentThread();
    static const bool symbolsReady = SymInitialize(process, nullptr, TRUE) != FALSE;
    if (!symbolsReady) return;

    CONTEXT context{};
    context.ContextFlags = CONTEXT_FULL;
    RtlCaptureContext(&context);
    STACKFRAME64 frame{};
    frame.AddrPC.Offset = context.Rip;
    frame.AddrPC.Mode = AddrModeFlat;
    frame.AddrFrame.Offset = context.Rbp;
    frame.AddrFrame.Mode = AddrModeFlat;
    frame.AddrStack.Offset = context.Rsp;
    frame.AddrStack.Mode = AddrModeFlat;

    alignas(IMAGEHLP_SYMBOL64) unsigned char symbolBuffer[sizeof(IMAGEHLP_SYMBOL64) + kSymbolNameBytes];
    std::vector<StringBuilder*> lines;
    lines.reserve(16);
    // Frame 0 is this function; the callers' own frames to skip follow it.
    for (int index = 0; index < kMaxFrames; ++index) {
        if (!StackWalk64(IMAGE_FILE_MACHINE_AMD64, process, thread, &frame, &context, nullptr,
                         SymFunctionTableAccess64, SymGetModuleBase64, nullptr))
            break;
        if (index <= skipFrames) continue;
        const DWORD64 address = frame.AddrPC.Offset;
        if (address == 0) break;
        auto* symbol = reinterpret_cast<IMAGEHLP_SYMBOL64*>(symbolBuffer);
        symbol->SizeOfStruct = sizeof(IMAGEHLP_SYMBOL64);
        symbol->MaxNameLength = kSymbolNameBytes;
        DWORD64 symbolOffset = 0;
        if (!SymGetSymFromAddr64(process, address, &symbolOffset, symbol)) break;
        IMAGEHLP_LINE64 line{};
        line.SizeOfStruct = sizeof line;
        DWORD lineOffset = 0;
        if (!SymGetLineFromAddr64(process, address, &lineOffset, &line)) break;
        auto* text = new StringBuilder(512);
        text->format("%s(%d) : %s\n", line.FileName, int(line.LineNumber), symbol->Name);
        lines.push_back(text);
        if (std::string_view(symbol->Name) == "WinMain") break;
    }
    for (StringBuilder* line : lines) {
        diagnosticPrint("%s", line->str());
        delete line;
    }
}

}  // namespace glyptora_internal
