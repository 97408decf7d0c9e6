#pragma once
// Why a conversion failed. Statuses travel up to the exported function, which reports
// only success (1) or failure (0); the failing step prints the details as one line.
namespace glyptora_internal {

enum class Status {
    Ok,
    NullArgument,
    UnknownDestinationFormat,
    UnknownSourceFormat,
    GpuUnavailable,
    EncoderMissing,
    TooLarge,
    OutOfMemory,
    ServerUnavailable,
    InternalError,
};

}  // namespace glyptora_internal
