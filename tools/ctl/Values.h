#pragma once

#include "ctl/Command.h"

namespace Ctl {

/// A value with a field list as JSON, member by member.
Json jsonOf(const Tables::Fields& fields, const void* value);

/// Parses a key: as printed, or as the values of its fields in order (for a position, the bank
/// first), separated by '/', ':', ',' or blanks. A value may be preceded by its field's name:
/// "index: 17, bank: 3". Throws `UsageError`, which lists the expected fields.
std::vector<Word> keyOf(const TableKind& kind, std::string_view text);

}  // namespace Ctl
