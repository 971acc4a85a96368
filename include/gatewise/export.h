// Symbol visibility for libgatewise.
//
// The library is built with hidden visibility by default; GW_EXPORT marks what host programs may
// call. Everything else stays private to the library even though it is linked into the same file.
#pragma once

#define GW_EXPORT __attribute__((visibility("default")))
#define GW_EXTERN_C extern "C" GW_EXPORT
