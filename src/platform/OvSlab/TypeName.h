#pragma once

#include <string>
#include <typeinfo>

namespace OvSlab::Impl {

/// The demangled name of a type.
std::string typeName(const std::type_info& type);

}  // namespace OvSlab::Impl
