#pragma once

#include <optional>

#include "Fenrik/String.h"
#include "OrderedTable/SwTableId.h"
#include "OrderedTable/UnitId.h"

namespace Asic {

/// The names of things that several processes know: groups and shared-memory paths.
///
///     hardware/<group>/<namespace>::<table>/config/<unit>       configuration of a unit
///     hardware/<group>/<namespace>::<table>/entryLog/<table id> change log, eight hex digits
///     hardware/<group>/<namespace>::<table>/needed/<table id>   needed sets of the log
///     hardware/<group>/tableVersion                             reports of the hardware writer
class QUARNBASTIL_EXPORT Constants {
 public:
  /// "<agent>-<group>"; a group name that begins with the agent's name is canonical already.
  static Fenrik::String canonicalizeGroupName(const Fenrik::String& agentName,
                                              const Fenrik::String& groupName);
  /// What the configuration paths of all units of a table begin with.
  static Fenrik::String canonicalGroupTableConfigDriftPathBase(const Fenrik::String& canonicalGroup,
                                                               const Fenrik::String& tableNamespace,
                                                               const Fenrik::String& tableName);
  static Fenrik::String configDriftPath(const Fenrik::String& canonicalGroup,
                                        const Fenrik::String& tableNamespace,
                                        const Fenrik::String& tableName, UnitId unitId);
  static Fenrik::String canonicalGroupTableEntryLogDriftPath(const Fenrik::String& canonicalGroup,
                                                             const Fenrik::String& tableNamespace,
                                                             const Fenrik::String& tableName,
                                                             SwTableId tableId);
  static Fenrik::String canonicalGroupTableVersionPath(const Fenrik::String& canonicalGroup);

  /// The unit of a configuration path. Throws `Fenrik::Exception` for a path of another form.
  static UnitId getUnitIdFromConfigPath(const Fenrik::String& path);
  /// As above; nothing for a path of another form.
  static std::optional<UnitId> findUnitIdOfConfigPath(const Fenrik::String& path);
  /// The table of a change log's path; nothing for the path of something else.
  static std::optional<SwTableId> getTableIdFromEntryLogPath(const Fenrik::String& path);
  /// Where the needed sets of a log are.
  static Fenrik::String neededPathOfEntryLogPath(const Fenrik::String& path);

  /// What all paths of tables begin with.
  static constexpr const char* kRoot = "hardware/";
};

}  // namespace Asic
