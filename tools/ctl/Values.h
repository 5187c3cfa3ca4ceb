#pragma once

#include "ctl/Command.h"

namespace Ctl {

/// A described value, member by member.
Json jsonOf(const Tables::Fields& fields, const void* value);

/// The key that a text names: as it is printed, or the values of its fields in their order (of a
/// place, the bank first), separated by '/', ':', ',' or blanks. A name before a value says whose
/// it is: "index: 17, bank: 3". Throws `UsageError`, with the fields that are expected.
std::vector<Word> keyOf(const TableKind& kind, std::string_view text);

}  // namespace Ctl
