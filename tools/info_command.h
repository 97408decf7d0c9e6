#pragma once
// `glyptora info FILE...`: what a DDS, KTX2 or .astc file holds.
namespace glyptora_tools {

// argv[1] is "info". Returns the exit status.
int runInfo(int argc, char** argv);

}  // namespace glyptora_tools
