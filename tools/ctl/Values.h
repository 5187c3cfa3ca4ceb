#pragma once

#include "ctl/Command.h"

namespace Ctl {

/// A described value, member by member; padding is left out, and so are groups that are absent.
Json jsonOf(const Tables::Fields& fields, const void* value);

/// The key that a text names: the values of its fields in their order, separated by '/', ':', ','
/// or blanks; an address may be dotted. The form that the tables print is understood too:
/// "{prefix: 167772160, length: 8}". Throws `UsageError`, with the fields that are expected.
std::vector<Word> keyOf(const TableKind& kind, std::string_view text);

}  // namespace Ctl
