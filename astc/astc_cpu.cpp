#include "astc/astc_cpu.h"

#include "astc/astc_cpu_high.h"
#include "astc/astc_cpu_level0.h"
#include "astc/astc_cpu_level1.h"
#include "core/cpu_views.h"

namespace glyptora_astc {

void astc_encode_cpu(const AstcEncoderInput& input, int level) {
    if (level == 2 || level == 3) {
        astc_cpu_high encoder(input, level);
        encoder.encode();
        return;
    }
    if (level == 1) {
        astc_cpu_level1 encoder(input);
        encoder.encode();
        return;
    }
    astcEncodeLevel0(input);
}

void encodeAstcCPU(const glyptora_internal::CPUViewBase& view, int level, bool imageHasAlpha, uint8_t* out) {
    astc_encode_cpu(makeAstcEncoderInput(view, imageHasAlpha, out), level);
}

}  // namespace glyptora_astc
