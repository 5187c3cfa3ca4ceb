#pragma once

#include <vector>

#include "Fenrik/NodeClass.h"

namespace Asic {

class OrderedTableInterface;

/// The calls in progress of one agent, and what is put off until the outermost of them has ended: a
/// resource must not change in the middle of a commit.
///
/// Threads: the table thread.
class QUARNBASTIL_EXPORT OutermostCall final : public Fenrik::NodeClass<OutermostCall> {
 public:
  /// Puts work off.
  class QUARNBASTIL_EXPORT Listener {
   public:
    Listener() = default;
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    virtual ~Listener();

    /// Whether work has been put off.
    virtual bool callEndDue() const noexcept = 0;
    /// The outermost call has ended: does the work, which may put off more. Not called within
    /// itself.
    virtual void handleCallEnd() = 0;
    /// The hardware writer has reported something, which the tables have taken in.
    virtual void handleReports() = 0;
  };

  /// One call. Calls nest.
  class QUARNBASTIL_EXPORT Scope {
   public:
    /// `call` may be null: there is nothing to put off.
    explicit Scope(const Fenrik::Ptr<OutermostCall>& call) noexcept;
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

    /// The call ends without exception. If it is the outermost one, does what was put off. Their
    /// exceptions pass through, and the next outermost call continues. After an exception of the
    /// call itself, the destructor leaves the work to the next call or pump.
    void end();

   private:
    Fenrik::Ptr<OutermostCall> call_;
  };

  explicit OutermostCall(OrderedTableInterface* tables) : tables_(tables) {}
  ~OutermostCall() override;

  bool inCall() const noexcept { return depth_ != 0; }
  /// Whether work was put off and no call is in progress that will do it.
  bool due() const noexcept;
  /// Null once the interface has been destroyed.
  OrderedTableInterface* tables() const noexcept { return tables_; }
  void tablesDel() noexcept { tables_ = nullptr; }

  /// REQUIRES: a listener unregisters before it is destroyed.
  void listenerAdd(Listener& listener);
  void listenerDel(Listener& listener) noexcept;
  void handleReports();

 private:
  void doPutOff();

  OrderedTableInterface* tables_;
  std::vector<Listener*> listeners_;
  unsigned depth_ = 0;
};

}  // namespace Asic
