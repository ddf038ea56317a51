// Devices and the registry of backends that serve them.
//
// Device 0 is the processor. Devices 1000 and up are accelerators. The registry
// always holds the CPU backend; PYTRAMEL_EMULATED_ACCELERATORS=N (read once, when
// the engine is loaded) adds an emulated accelerator backend serving devices
// 1000..1000+N-1. Emulated devices exist so that every device rule can be
// tested without a GPU: their memory is host memory, but they are distinct
// devices, operations that mix devices fail as on a real GPU, and the engine
// treats their memory as a GPU's (Note [backend seam] in backend.h).
#pragma once
#include <cstddef>

namespace tramel {

constexpr int kCpuDevice = 0;
constexpr int kFirstAccelerator = 1000;

class Backend;  // backend.h

// The backend serving `device`; fails with "[op] device N is not available ..."
// when nothing serves it.
Backend& backend_for(int device, const char* op);
bool device_available(int device);
int emulated_accelerator_count();

// Fails with "[op] not available on device N" unless host code may address
// `device`'s memory; for interfaces that hand host pointers out (DLPack).
void require_host_addressable(int device, const char* op);

}  // namespace tramel
