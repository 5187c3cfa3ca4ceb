#pragma once

#include <optional>

#include "Fenrik/String.h"
#include "OrderedTable/SwTableId.h"
#include "OrderedTable/UnitId.h"

namespace Asic {

/// Names shared between processes: groups and shared-memory paths.
///
///     hardware/<group>/<namespace>::<table>/config/<unit>       configuration of a unit
///     hardware/<group>/<namespace>::<table>/entryLog/<table id> change log, eight hex digits
///     hardware/<group>/<namespace>::<table>/needed/<table id>   needed sets of the log
///     hardware/<group>/tableVersion                             reports of the hardware writer
class QUARNBASTIL_EXPORT Constants {
 public:
  /// Returns "<agent>-<group>". A group name that begins with the agent's name is already
  /// canonical.
  static Fenrik::String canonicalizeGroupName(const Fenrik::String& agentName,
                                              const Fenrik::String& groupName);
  /// Common prefix of the configuration paths of a table's units.
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

  /// Unit of a configuration path. Throws `Fenrik::Exception` if the path is not one.
  static UnitId getUnitIdFromConfigPath(const Fenrik::String& path);
  /// Unit of a configuration path, or nullopt if the path is not one.
  static std::optional<UnitId> findUnitIdOfConfigPath(const Fenrik::String& path);
  /// Table of a change log's path, or nullopt if the path is not one.
  static std::optional<SwTableId> getTableIdFromEntryLogPath(const Fenrik::String& path);
  /// Path of the needed sets that belong to a log.
  static Fenrik::String neededPathOfEntryLogPath(const Fenrik::String& path);

  /// Common prefix of all table paths.
  static constexpr const char* kRoot = "hardware/";
};

}  // namespace Asic
