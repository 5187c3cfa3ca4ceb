#include "Drift/DriftMap.h"

namespace Drift {

DriftMapBase::~DriftMapBase() = default;

void DriftMapBase::doCorruptionDetected(const Fenrik::String& message) {
  ++corruptionCount_;
  lastMessage_ = message;
}

}  // namespace Drift
