#pragma once

#include <exception>

#include "Fenrik/Export.h"
#include "Fenrik/FieldId.h"
#include "Fenrik/KivType.h"
#include "Fenrik/String.h"

namespace Fenrik {

/// Base class of the system's exceptions: a self-contained message for people.
class QUARNBASTIL_EXPORT Exception : public std::exception {
 public:
  explicit Exception(String message) : message_(std::move(message)) {}
  ~Exception() override;

  const String& msg() const noexcept { return message_; }
  const char* what() const noexcept override { return message_.data(); }

 private:
  /// The complete message.
  String message_;
};

/// Invalid call of a mutator. The object is unchanged.
class QUARNBASTIL_EXPORT MutatorException : public Exception {
 public:
  MutatorException(String message, Kiv::KivType type, FieldId fieldId)
      : Exception(std::move(message)), type_(type), fieldId_(fieldId) {}
  ~MutatorException() override;

  /// The class and the attribute whose mutator was called.
  Kiv::KivType type() const noexcept { return type_; }
  FieldId fieldId() const noexcept { return fieldId_; }

 private:
  /// The class of the attribute.
  Kiv::KivType type_;
  /// The attribute's number in the class.
  FieldId fieldId_;
};

/// A null pointer was passed to a mutator that does not accept it.
class QUARNBASTIL_EXPORT MutatorArgNullPointerException final : public MutatorException {
 public:
  using MutatorException::MutatorException;
  ~MutatorArgNullPointerException() override;
};

/// An object that may be created only once was to be created again.
class QUARNBASTIL_EXPORT MutatorReinstantiatingException final : public MutatorException {
 public:
  using MutatorException::MutatorException;
  ~MutatorReinstantiatingException() override;
};

/// A read from shared memory met bytes that no writer can have stored. The message names the
/// collection and the position.
class QUARNBASTIL_EXPORT CorruptionDetectedException final : public Exception {
 public:
  using Exception::Exception;
  ~CorruptionDetectedException() override;
};

}  // namespace Fenrik

namespace Kiv {

/// Throws `MutatorArgNullPointerException` for an attribute, given by its class's module, the
/// class's index in the module and the attribute's number. The message contains all three.
[[noreturn]] QUARNBASTIL_EXPORT void throwMutatorArgNullPointerException(const ModuleFacts* module,
                                                                         std::uint8_t typeIndex,
                                                                         Fenrik::FieldId fieldId);

namespace Impl {

/// Throws `MutatorReinstantiatingException` for an attribute.
[[noreturn]] QUARNBASTIL_EXPORT void throwMutatorReinstantiating(const ModuleFacts* module,
                                                                 std::uint8_t typeIndex,
                                                                 Fenrik::FieldId fieldId);

}  // namespace Impl
}  // namespace Kiv
