#pragma once

#include "ctl/Command.h"

namespace Ctl {

/// A described value, member by member.
Json jsonOf(const Tables::Fields& fields, const void* value);

/// The key that a text names: the values of its fields in their order, separated by '/', ':', ','
/// or blanks; an address may be dotted. A name before a value says whose it is, as in the form that
/// logs print: "{prefix: 167772160, length: 8}". Throws `UsageError`, with the fields that are
/// expected.
std::vector<Word> keyOf(const TableKind& kind, std::string_view text);

}  // namespace Ctl
