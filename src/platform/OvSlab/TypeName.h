#pragma once

#include <string>
#include <typeinfo>

namespace OvSlab::Impl {

/// The name of a type as a programmer writes it.
std::string typeName(const std::type_info& type);

}  // namespace OvSlab::Impl
