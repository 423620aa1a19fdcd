#pragma once

// The library is built with hidden default visibility; only declarations marked
// KEP_API are exported from libkep_frame_registration.so.
#if defined(_WIN32)
#define KEP_API
#else
#define KEP_API __attribute__((visibility("default")))
#endif
