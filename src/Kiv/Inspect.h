#pragma once

#include <string>
#include <string_view>

#include "Fenrik/Exception.h"
#include "Fenrik/Node.h"
#include "Fenrik/Ptr.h"

/// Looks into the objects of a process by the names of their attributes. Changes nothing: only
/// functions that are marked as reading are called.
///
/// Threads: that of the objects.
namespace Kiv::Inspect {

/// Form of an answer.
enum class Form : std::uint8_t { text, json };

/// What an answer may cost. What is left out is shown as cut.
struct Bounds {
  /// Levels of objects and collections that are shown.
  unsigned depth = 1;
  /// Members of a collection.
  unsigned elements = 100;
  /// Bytes of the answer, about.
  std::size_t bytes = std::size_t{1} << 20;
};

/// A path leads nowhere. The message says at which step, and what there is.
class QUARNBASTIL_EXPORT PathException : public Fenrik::Exception {
 public:
  using Exception::Exception;
  ~PathException() override;
};

/// Shows what a path leads to, beginning at `root`. Steps are separated by '/': the name of an
/// attribute of an object; a function with its arguments, as `entryRead(3:17)`; the text of a key
/// of a collection, which may contain '/' itself, and a queue's sequence index. A step may be
/// written with %XX for any byte. The empty path is the root.
///
///     show(tables, "swTableIntf/QuarnBastil::TcamEntryInterface/swTableSet/swTable/0", Form::text)
///
/// Throws `PathException`; an exception of a called function passes through.
QUARNBASTIL_EXPORT std::string show(const Fenrik::Ptr<const Fenrik::Node>& root,
                                    std::string_view path, Form form, const Bounds& bounds = {});

}  // namespace Kiv::Inspect
