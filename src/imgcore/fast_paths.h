#pragma once

// Every kernel keeps its plain definition (the documentation of its arithmetic)
// next to any fast path, and the fast path must give identical results. Building
// with -DKEP_FORCE_PLAIN=ON makes every dispatch take the plain definition, so
// that the two builds can be compared output for output.
#if defined(KEP_FORCE_PLAIN) && KEP_FORCE_PLAIN
constexpr bool kUseFastPaths = false;
#else
constexpr bool kUseFastPaths = true;
#endif
