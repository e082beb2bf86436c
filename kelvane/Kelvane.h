#pragma once
// Exports of the engine library. The program links it at load time; a real engine library
// with the same exports can replace the stand-in built from this folder.

#include <stdint.h>

#ifdef _WIN32
#define KLV_API __declspec(dllimport)
#else
#define KLV_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/// Restricts the engine to the interface carrying this IPv4 address and netmask.
KLV_API int KLV_AddInterfaceFilter(const char* address, const char* netmask);
/// Starts the engine on its own threads; 0 on success. Flags: bit 0 always, bit 1 Master.
KLV_API int32_t KLV_Initialize(int32_t first, int32_t second, uint32_t flags);
/// Stops the engine and withdraws everything it set up.
KLV_API int KLV_Uninitialize(void);

#ifdef __cplusplus
}
#endif
