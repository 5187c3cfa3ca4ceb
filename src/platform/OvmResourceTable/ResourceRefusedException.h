#pragma once

#include "Fenrik/Exception.h"

namespace OvmResourceTable {

/// A provider's call was refused. Nothing has changed. The message names the table, the key and the
/// reason.
class QUARNBASTIL_EXPORT ResourceRefusedException final : public Fenrik::Exception {
 public:
  using Exception::Exception;
  ~ResourceRefusedException() override;
};

}  // namespace OvmResourceTable
