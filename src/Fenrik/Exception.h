#pragma once

#include <exception>

#include "Fenrik/Export.h"
#include "Fenrik/FieldId.h"
#include "Fenrik/KivType.h"
#include "Fenrik/String.h"

namespace Fenrik {

/// Base of the system's exceptions: a message for a person, complete in itself.
class QUARNBASTIL_EXPORT Exception : public std::exception {
 public:
  explicit Exception(String message) : message_(std::move(message)) {}
  ~Exception() override;

  const String& msg() const noexcept { return message_; }
  const char* what() const noexcept override { return message_.data(); }

 private:
  /// The whole message, for a person.
  String message_;
};

/// A mutator was called in a way that its attribute does not allow. The object is unchanged.
class QUARNBASTIL_EXPORT MutatorException : public Exception {
 public:
  MutatorException(String message, Kiv::KivType type, FieldId fieldId)
      : Exception(std::move(message)), type_(type), fieldId_(fieldId) {}
  ~MutatorException() override;

  /// The class whose mutator refused, and the attribute.
  Kiv::KivType type() const noexcept { return type_; }
  FieldId fieldId() const noexcept { return fieldId_; }

 private:
  /// The class whose attribute was to be changed.
  Kiv::KivType type_;
  /// The attribute's number in that class.
  FieldId fieldId_;
};

/// A null pointer was given to a mutator that may not take one.
class QUARNBASTIL_EXPORT MutatorArgNullPointerException final : public MutatorException {
 public:
  using MutatorException::MutatorException;
  ~MutatorArgNullPointerException() override;
};

/// What may be made only once was to be made a second time.
class QUARNBASTIL_EXPORT MutatorReinstantiatingException final : public MutatorException {
 public:
  using MutatorException::MutatorException;
  ~MutatorReinstantiatingException() override;
};

/// A read from shared memory met bytes that cannot be what the writer stored. The message names
/// the collection and the place.
class QUARNBASTIL_EXPORT CorruptionDetectedException final : public Exception {
 public:
  using Exception::Exception;
  ~CorruptionDetectedException() override;
};

}  // namespace Fenrik

namespace Kiv {

/// Raises `MutatorArgNullPointerException` for an attribute, given by its class's module, the
/// class's index in that module and the attribute's number; all three stand in the message.
[[noreturn]] QUARNBASTIL_EXPORT void throwMutatorArgNullPointerException(const ModuleFacts* module,
                                                                         std::uint8_t typeIndex,
                                                                         Fenrik::FieldId fieldId);

namespace Impl {

/// Raises `MutatorReinstantiatingException` for an attribute.
[[noreturn]] QUARNBASTIL_EXPORT void throwMutatorReinstantiating(const ModuleFacts* module,
                                                                 std::uint8_t typeIndex,
                                                                 Fenrik::FieldId fieldId);

}  // namespace Impl
}  // namespace Kiv
