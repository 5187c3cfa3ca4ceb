#pragma once

#include "Kiv/Log.h"
#include "QuarnBastil/FamilyTraits.h"

namespace QuarnBastil {

/// The three messages to the operator, one of each for all families, those outside the library
/// too.
extern QUARNBASTIL_EXPORT const Kiv::LogDescriptor kHwAbstractionError;
extern QUARNBASTIL_EXPORT const Kiv::LogDescriptor kHwAbstractionRelaunchError;
extern QUARNBASTIL_EXPORT const Kiv::LogDescriptor kHwAbstractionException;

/// The log handles of one family, made when the library is loaded. Only the first is ever raised.
struct FamilyLogHandles {
  Kiv::LogHandle error{&kHwAbstractionError, Fenrik::Duration(), 1.0, 0, 0};
  Kiv::LogHandle relaunchError{&kHwAbstractionRelaunchError, Fenrik::Duration(), 1.0, 0, 0};
  Kiv::LogHandle exception{&kHwAbstractionException, Fenrik::Duration(), 1.0, 0, 0};
};

}  // namespace QuarnBastil
