/* Driver libraries too old for the library: FAKE_CUDA_ENTRY_POINTS of the entry points that
 * came with driver versions 2.0, 2.1 and 2.2 (cuStreamCreate, cuModuleLoadDataEx,
 * cuDriverGetVersion), in that order, and nothing else. Only their presence is checked. */
#define EXPORT __attribute__((visibility("default")))

EXPORT int fake_cuda_entry_points(void) { return FAKE_CUDA_ENTRY_POINTS; }
#if FAKE_CUDA_ENTRY_POINTS >= 1
EXPORT int cuStreamCreate(void) { return 1; }
#endif
#if FAKE_CUDA_ENTRY_POINTS >= 2
EXPORT int cuModuleLoadDataEx(void) { return 1; }
#endif
