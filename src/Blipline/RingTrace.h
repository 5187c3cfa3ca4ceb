#pragma once

#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "Blipline/MsgDesc.h"
#include "Blipline/TraceHandle.h"

namespace Blipline {

/// Representation of a number of type T in a record: its type letter, and the plain number stored.
/// Specialize it for a value type:
///
///     template <>
///     struct Blipline::Field<Asic::UnitId> : Blipline::Field<std::uint16_t> {
///       static std::uint16_t number(Asic::UnitId unitId) { return unitId.value(); }
///     };
template <class T>
struct Field;

namespace Impl {

template <class T>
consteval char letterOf() {
  if (std::is_floating_point_v<T>) return 'd';
  switch (sizeof(T)) {
    case 1:
      return 'c';
    case 2:
      return std::is_signed_v<T> ? 'h' : 's';
    case 4:
      return std::is_signed_v<T> ? 'i' : 'u';
    default:
      return std::is_signed_v<T> ? 'l' : 'L';
  }
}

}  // namespace Impl

template <class T>
requires std::unsigned_integral<T> ||(std::signed_integral<T> && sizeof(T) > 1) ||
    std::same_as<T, double> struct Field<T> {
  static constexpr char kLetter[2] = {Impl::letterOf<T>(), '\0'};
  static T number(T value) noexcept { return value; }
};

template <class T>
requires std::is_enum_v<T>
struct Field<T> : Field<std::underlying_type_t<T>> {
  static auto number(T value) noexcept { return static_cast<std::underlying_type_t<T>>(value); }
};

namespace Impl {

/// Number of places for numbers in a message's text, or -1 if it contains other braces, which
/// readers would print literally.
consteval int placesIn(std::string_view text) {
  int places = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '}') return -1;
    if (text[at] != '{') continue;
    if (text.substr(at, 2) != "{}") return -1;
    ++places;
    ++at;
  }
  return places;
}

template <class T>
[[gnu::always_inline]] inline std::byte* numberStore(std::byte* place, const T& value) noexcept {
  const auto number = Field<T>::number(value);
  static_assert(sizeof number == letterBytes(Field<T>::kLetter[0]));
  std::memcpy(place, &number, sizeof number);
  return place + sizeof number;
}

/// Describes a site's message in a file, at its first use there.
template <class... Args>
[[gnu::noinline, gnu::cold]] void siteDescribe(TraceFile* traceFile, int* msgId, const char* file,
                                               int line, const char* className,
                                               const char* function, const char* text) noexcept {
  MsgDesc desc(traceFile, msgId, file, line);
  (desc.formatString().put(Field<Args>::kLetter), ...);
  msgDesc(desc, className, function, text);
  desc.finish();
}

inline TraceFile* siteFile() {
  TraceHandle* const handle = defaultBliplineHandle.load(std::memory_order_acquire);
  return handle != nullptr ? handle->traceFile() : nullptr;
}

template <class... Args>
[[gnu::always_inline]] inline void siteRecord(TraceFile* traceFile, int* msgId, const char* file,
                                              int line, const char* className, const char* function,
                                              const char* text, const Args&... args) noexcept {
  static_assert(sizeof...(Args) <= kArgumentsMax, "a ring record has no room for more numbers");
  const std::atomic_ref<int> id(*msgId);
  if (!traceFile->msgIdInitialized(id.load(std::memory_order_relaxed)))
    siteDescribe<Args...>(traceFile, msgId, file, line, className, function, text);
  RingBuf& ring = traceFile->ring();
  if (!ring.startMsg(traceFile, id.load(std::memory_order_relaxed))) return;
  std::byte* place = ring.writePtr();
  ((place = numberStore(place, args)), ...);
  ring.writePtrIs(place);
  ring.endMsg();
}

}  // namespace Impl
}  // namespace Blipline

/// A ring trace site:
/// `BLIPLINE_TRACE("TcamEntryInterface", " Restored {} entries, unitId: {}", count, unitId)`.
///
/// `text` is a constant with one "{}" per number. The type of a number determines how it is stored:
/// an `int` with the letter "i", an `unsigned short` with "s". Without a ring trace the numbers are
/// not evaluated.
#define BLIPLINE_TRACE(className, text, ...)                                                      \
  do {                                                                                            \
    static_assert(::Blipline::Impl::placesIn(text) >= 0, "a place for a number is {}");           \
    if (::Blipline::TraceFile* const bliplineFile = ::Blipline::Impl::siteFile()) {               \
      static constinit ::Blipline::MsgId bliplineMsgId = 0;                                       \
      [&](const char* bliplineFunction, const auto&... bliplineNumbers) {                         \
        static_assert(::Blipline::Impl::placesIn(text) == int{sizeof...(bliplineNumbers)},        \
                      "one {} for each number");                                                  \
        ::Blipline::Impl::siteRecord(bliplineFile, &bliplineMsgId, __FILE__, __LINE__, className, \
                                     bliplineFunction, text, bliplineNumbers...);                 \
      }(static_cast<const char*>(__func__) __VA_OPT__(, ) __VA_ARGS__);                           \
    }                                                                                             \
  } while (false)
