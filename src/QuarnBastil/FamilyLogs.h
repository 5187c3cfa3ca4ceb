#pragma once

#include "Kiv/Log.h"
#include "QuarnBastil/FamilyTraits.h"

namespace QuarnBastil {

/// The three operator messages, shared by all families, including those of other libraries.
extern QUARNBASTIL_EXPORT const Kiv::LogDescriptor kHwAbstractionError;
extern QUARNBASTIL_EXPORT const Kiv::LogDescriptor kHwAbstractionRelaunchError;
extern QUARNBASTIL_EXPORT const Kiv::LogDescriptor kHwAbstractionException;

/// Log handles of one family, created when the library is loaded. Only `error` is ever logged.
struct FamilyLogHandles {
  Kiv::LogHandle error{&kHwAbstractionError, Fenrik::Duration(), 1.0, 0, 0};
  Kiv::LogHandle relaunchError{&kHwAbstractionRelaunchError, Fenrik::Duration(), 1.0, 0, 0};
  Kiv::LogHandle exception{&kHwAbstractionException, Fenrik::Duration(), 1.0, 0, 0};
};

}  // namespace QuarnBastil
