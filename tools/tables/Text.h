#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "Drift/RecordField.h"

namespace Tables {

using Json = nlohmann::ordered_json;

/// A described value member by member, without padding; an absent group is null. Addresses are
/// strings, as people write them: of a group with the fields `address` or `prefix`, and `length`.
/// The address of a group is IPv6 if `etherType` in an enclosing one says so, or if IPv4 has no
/// room for it.
Json jsonOf(const Drift::RecordField* fields, std::size_t count, const void* value);

/// The same in one line, "{name: value, ...}" or what `form` says. Members that are zero and groups
/// that are absent are left out, but keys are shown whole; prefixes are shown as 10.0.0.0/8.
std::string textOf(const Drift::RecordField* fields, std::size_t count, const void* value,
                   Drift::TextForm form);

}  // namespace Tables
