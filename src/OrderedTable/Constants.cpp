#include "OrderedTable/Constants.h"

#include <charconv>
#include <string>

#include "Fenrik/Exception.h"
#include "Fenrik/Format.h"

namespace Asic {

namespace {

constexpr std::string_view kLogFolder = "/entryLog/";
constexpr std::string_view kConfigFolder = "/config/";
constexpr std::string_view kNeededFolder = "/needed/";

Fenrik::String tablePath(const Fenrik::String& canonicalGroup, const Fenrik::String& tableNamespace,
                         const Fenrik::String& tableName) {
  return Fenrik::formatString("{}{}/{}::{}", Constants::kRoot, canonicalGroup, tableNamespace,
                              tableName);
}

/// Parses the number that follows the last `folder` in a path. Nullopt unless it extends to the
/// path's end.
template <class T>
std::optional<T> numberBehind(std::string_view path, std::string_view folder, int base) {
  const std::size_t at = path.rfind(folder);
  if (at == std::string_view::npos) return {};
  const std::string_view digits = path.substr(at + folder.size());
  T number{};
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), number, base);
  if (error != std::errc() || end != digits.data() + digits.size()) return {};
  return number;
}

}  // namespace

Fenrik::String Constants::canonicalizeGroupName(const Fenrik::String& agentName,
                                                const Fenrik::String& groupName) {
  if (groupName.view().starts_with(agentName.view())) return groupName;
  return Fenrik::formatString("{}-{}", agentName, groupName);
}

Fenrik::String Constants::canonicalGroupTableConfigDriftPathBase(
    const Fenrik::String& canonicalGroup, const Fenrik::String& tableNamespace,
    const Fenrik::String& tableName) {
  return Fenrik::formatString("{}{}", tablePath(canonicalGroup, tableNamespace, tableName),
                              kConfigFolder);
}

Fenrik::String Constants::configDriftPath(const Fenrik::String& canonicalGroup,
                                          const Fenrik::String& tableNamespace,
                                          const Fenrik::String& tableName, UnitId unitId) {
  return Fenrik::formatString(
      "{}{}", canonicalGroupTableConfigDriftPathBase(canonicalGroup, tableNamespace, tableName),
      unitId);
}

Fenrik::String Constants::canonicalGroupTableEntryLogDriftPath(const Fenrik::String& canonicalGroup,
                                                               const Fenrik::String& tableNamespace,
                                                               const Fenrik::String& tableName,
                                                               SwTableId tableId) {
  return Fenrik::formatString("{}{}{:08x}", tablePath(canonicalGroup, tableNamespace, tableName),
                              kLogFolder, tableId.value());
}

Fenrik::String Constants::canonicalGroupTableVersionPath(const Fenrik::String& canonicalGroup) {
  return Fenrik::formatString("{}{}/tableVersion", kRoot, canonicalGroup);
}

std::optional<UnitId> Constants::findUnitIdOfConfigPath(const Fenrik::String& path) {
  const auto unit = numberBehind<std::uint16_t>(path.view(), kConfigFolder, 10);
  return unit ? std::optional(UnitId(*unit)) : std::nullopt;
}

UnitId Constants::getUnitIdFromConfigPath(const Fenrik::String& path) {
  if (const auto unit = findUnitIdOfConfigPath(path)) return *unit;
  throw Fenrik::Exception(Fenrik::formatString(
      "\"{}\" is not the path of a unit's configuration: it does not end in \"{}\" and a number "
      "up to 65535",
      path, kConfigFolder));
}

std::optional<SwTableId> Constants::getTableIdFromEntryLogPath(const Fenrik::String& path) {
  const auto id = numberBehind<std::uint32_t>(path.view(), kLogFolder, 16);
  return id ? std::optional(SwTableId(*id)) : std::nullopt;
}

Fenrik::String Constants::neededPathOfEntryLogPath(const Fenrik::String& path) {
  std::string result = path.str();
  const std::size_t at = result.rfind(kLogFolder);
  if (at != std::string::npos) result.replace(at, kLogFolder.size(), kNeededFolder);
  return Fenrik::String(result);
}

}  // namespace Asic
