#pragma once

#include <string>
#include <string_view>

#include "Blipline/TraceFile.h"
#include "Fenrik/Export.h"

namespace Blipline {

/// The type letters of a message's numbers, in order.
class QUARNBASTIL_EXPORT MsgFormatString {
 public:
  void put(const char* letter) { letters_ += letter; }
  std::string_view letters() const noexcept { return letters_; }

 private:
  std::string letters_;
};

/// Description of one site's message, while it is being written to one file.
///
/// The site creates it, adds a letter for each number, passes the rest to `msgDesc` and calls
/// `finish`. Without `finish`, nothing is written.
class QUARNBASTIL_EXPORT MsgDesc {
 public:
  /// `msgId` belongs to the site; `finish` assigns an id if it has none. Sites of several threads
  /// may run this at once, each with its own file.
  MsgDesc(TraceFile* traceFile, int* msgId, const char* file, int line);
  MsgDesc(const MsgDesc&) = delete;
  MsgDesc& operator=(const MsgDesc&) = delete;
  ~MsgDesc();

  MsgFormatString& formatString() noexcept { return formatString_; }
  void finish();

 private:
  friend void msgDesc(MsgDesc& desc, const char* className, const char* function, const char* text);

  /// The file that receives the description.
  TraceFile* const traceFile_;
  /// The site's message id; 0 before its first use.
  int* const msgId_;
  /// Source file and line of the site.
  const char* const file_;
  const int line_;
  MsgFormatString formatString_;
  /// Values passed to `msgDesc`.
  std::string className_;
  std::string function_;
  std::string text_;
};

/// Passes the position and text of the message; "{}" is the place of a number.
QUARNBASTIL_EXPORT void msgDesc(MsgDesc& desc, const char* className, const char* function,
                                const char* text);

}  // namespace Blipline
