#pragma once

#include <string>
#include <string_view>

#include "Blipline/TraceFile.h"
#include "Fenrik/Export.h"

namespace Blipline {

/// The letters of a message's numbers, in their order.
class QUARNBASTIL_EXPORT MsgFormatString {
 public:
  void put(const char* letter) { letters_ += letter; }
  std::string_view letters() const noexcept { return letters_; }

 private:
  std::string letters_;
};

/// The description of one site's message on its way into one file.
///
/// The site makes it, puts a letter for each number, tells the rest through `msgDesc` and finishes
/// it. One that is not finished leaves no trace.
class QUARNBASTIL_EXPORT MsgDesc {
 public:
  /// `msgId` is the site's; `finish` gives it a number when it has none. Sites of several threads
  /// may come here at once, each with its own file.
  MsgDesc(TraceFile* traceFile, int* msgId, const char* file, int line);
  MsgDesc(const MsgDesc&) = delete;
  MsgDesc& operator=(const MsgDesc&) = delete;
  ~MsgDesc();

  MsgFormatString& formatString() noexcept { return formatString_; }
  void finish();

 private:
  friend void msgDesc(MsgDesc& desc, const char* className, const char* function, const char* text);

  /// The file that gets the description.
  TraceFile* const traceFile_;
  /// The site's message id, 0 before its first use.
  int* const msgId_;
  /// Source file and line of the site.
  const char* const file_;
  const int line_;
  MsgFormatString formatString_;
  /// What `msgDesc` reported.
  std::string className_;
  std::string function_;
  std::string text_;
};

/// Tells where the message stands and what it says: "{}" is the place of a number.
QUARNBASTIL_EXPORT void msgDesc(MsgDesc& desc, const char* className, const char* function,
                                const char* text);

}  // namespace Blipline
