// Lets tests make a service of the platform layer fail, so that what happens then
// can be seen. Costs one relaxed load where nothing is armed.
#pragma once

namespace talvorn::platform {

enum class Fault {
  kThreadStart,
  kEventCreate,
  kSocketCreate,
  kReceive,  // the error is the one armed with it
  kEventLogRegister,
  kMailslotCreate,
  kNamedObjectOpen,
  kSidAllocate,
  kAclMake,
  kDescriptorMake,
  kDigest,
  kSettingsOpen,
  kAdapterQuery,  // on Windows; the error is the one armed with it
  kGroupJoin,
  kCount,
};

// Lets the next `skip` calls pass and makes the `times` after them fail.
void ArmFault(Fault fault, int times, int skip = 0, int error = 0);
void DisarmFaults();

// For the platform layer: whether this call is to fail, and with which native
// error.
[[nodiscard]] bool FaultHits(Fault fault, int* error = nullptr);

}  // namespace talvorn::platform
