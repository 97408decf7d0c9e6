#pragma once
// `glyptora decompress IN -o OUT.(png|exr)`: decodes a DDS, KTX2 or .astc file with the
// library's block decoders and writes its images.
namespace glyptora_tools {

// argv[1] is "decompress". Returns the exit status.
int runDecompress(int argc, char** argv);

}  // namespace glyptora_tools
