#include "QuarnBastil/FamilyLogs.h"

namespace QuarnBastil {

KIV_LOG_DESCRIPTOR(kHwAbstractionException, "HW_ABSTRACTION_EXCEPTION", "%s", "Exception",
                   Kiv::kLogNoAction, Kiv::kLogSeverityError);
KIV_LOG_DESCRIPTOR(kHwAbstractionRelaunchError, "HW_ABSTRACTION_RELAUNCH_ERROR", "%s",
                   "Duplicate Writer Detected, drift path not cleaned up", Kiv::kLogNoAction,
                   Kiv::kLogSeverityError);
KIV_LOG_DESCRIPTOR(kHwAbstractionError, "HW_ABSTRACTION_ERROR",
                   "Hardware abstraction error: unable to load item: %s",
                   "Hardware abstraction error: unable to load some persistent items. Some agents "
                   "will be restarted",
                   Kiv::kLogNoAction, Kiv::kLogSeverityError);

}  // namespace QuarnBastil
