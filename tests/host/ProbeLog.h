// The "ProbeLog" service through which the probe module reports each call it receives
// to the test that loaded it. Record answers the code the call should return.
#pragma once

#include "qf/ServiceObject.h"

#include <cstdint>

namespace probe {

struct LogTable {
    uint32_t (*Record)(SODetails::ServiceObject* self, const char* event);
};
inline constexpr uint32_t kLogId = 0x50524F42;
inline constexpr const char* kLogName = "ProbeLog";
// The tool factory the probe's Init registers with the TasksRepository.
inline constexpr const char* kToolName = "ProbeTool";

}  // namespace probe
