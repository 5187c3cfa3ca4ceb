#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "Drift/RecordField.h"

namespace Tables {

using Json = nlohmann::ordered_json;

/// A value with a field list as JSON, member by member, without padding; an absent group is null.
/// Addresses are strings in the usual notation, formed from a group's fields `address` or `prefix`,
/// and `length`. The address is IPv6 if an `etherType` in an enclosing group says so, or if it does
/// not fit IPv4.
Json jsonOf(const Drift::RecordField* fields, std::size_t count, const void* value);

/// As above as one line, "{name: value, ...}" or as `form` says. Zero members and absent groups are
/// omitted, except in keys; prefixes are printed as 10.0.0.0/8.
std::string textOf(const Drift::RecordField* fields, std::size_t count, const void* value,
                   Drift::TextForm form);

}  // namespace Tables
