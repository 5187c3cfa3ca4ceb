#include "Blipline/MsgDesc.h"

#include <atomic>

namespace Blipline {
namespace {

/// The site's message id, assigned by the first call. Racing threads get the same id.
MsgId msgIdOf(int& site) {
  static std::atomic<MsgId> last{0};
  std::atomic_ref<int> msgId(site);
  MsgId known = msgId.load(std::memory_order_relaxed);
  if (known != 0) return known;
  const MsgId fresh = last.fetch_add(1, std::memory_order_relaxed) + 1;
  return msgId.compare_exchange_strong(known, fresh, std::memory_order_relaxed) ? fresh : known;
}

}  // namespace

MsgDesc::MsgDesc(TraceFile* traceFile, int* msgId, const char* file, int line)
    : traceFile_(traceFile), msgId_(msgId), file_(file), line_(line) {}

MsgDesc::~MsgDesc() = default;

void MsgDesc::finish() {
  traceFile_->descriptionAdd(msgIdOf(*msgId_), {formatString_.letters(), file_, className_,
                                                function_, text_, static_cast<unsigned>(line_)});
}

void msgDesc(MsgDesc& desc, const char* className, const char* function, const char* text) {
  desc.className_ = className;
  desc.function_ = function;
  desc.text_ = text;
}

}  // namespace Blipline
