#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>

/// The field list of a type used in records: it defines which of the type's bytes are significant.
/// Types with padding, with a `bool`, or printed by field names must define it:
///
///     struct Lamp {
///       std::uint8_t colour = 0;
///       std::uint16_t place = 0;
///
///       static constexpr auto fields() {
///         return std::array{DRIFT_FIELD_AT(Lamp, colour, 0), DRIFT_FIELD_AT(Lamp, place, 2)};
///       }
///     };
///
/// Bytes not covered by a field are padding. A list with an overlap, a missing field or a wrong
/// offset fails to compile where it is first used.
namespace Drift {

/// Padding that alignment alone does not explain.
template <std::size_t kSize>
struct Padding {
  std::array<unsigned char, kSize> bytes{};
};

/// Content of a field.
enum class FieldKind : std::uint8_t {
  number,
  bytes,     ///< a value of several numbers without field list
  flag,      ///< a bool: 0 or 1; the other bits of its byte are padding
  presence,  ///< the flag that says whether the other fields of its group are significant
  padding,
  group,  ///< a type with its own field list
};

/// How a value is printed. A type chooses with `static constexpr auto kTextForm`.
enum class TextForm : std::uint8_t {
  members,  ///< {name: value, ...}, omitting zeros
  whole,    ///< {name: value, ...} with all fields; the default for keys
  place,    ///< 3:17, from the fields `bank` and `index`
  prefix,   ///< 10.1.0.0/16, from an address of 32 bits, or the upper words of one of 128, the most
            ///< significant first, and its length
};

/// A row of the list: `count` consecutive elements of one kind.
struct RecordField {
  const char* name;                     ///< name of the member
  std::size_t offset;                   ///< offset in the type, in bytes
  FieldKind kind;                       ///< content of an element
  std::size_t size;                     ///< bytes of one element
  std::size_t count;                    ///< number of elements
  std::size_t alignment;                ///< alignment of the member
  const RecordField* fields = nullptr;  ///< field list of a group
  std::size_t fieldCount = 0;           ///< number of rows in that list
  TextForm form = TextForm::members;    ///< text form of a group

  constexpr std::size_t end() const { return offset + size * count; }
};

/// A type with a field list.
template <class T>
concept Described = std::is_class_v<T> && requires {
  T::fields().size();
};

/// A type whose bytes are all significant, so that it needs no field list.
template <class T>
concept Plain =
    !Described<T> && !std::is_same_v<T, bool> && std::has_unique_object_representations_v<T>;

template <Described T>
inline constexpr auto kFieldsOf = T::fields();

namespace Impl {

// Called for an invalid list. Not constexpr, so that the compiler stops there and shows the name.
inline void aFieldStandsElsewhereThanStated() {}
inline void fieldsOverlapOrAreOutOfOrder() {}
inline void aFieldIsMissingFromTheList() {}
inline void presenceMustBeTheLastFieldOfAGroupWithoutGroupsOfThatKind() {}

template <class T>
struct ElementOf {
  using Type = T;
  static constexpr std::size_t kCount = 1;
};
template <class T, std::size_t kSize>
struct ElementOf<std::array<T, kSize>> {
  using Type = typename ElementOf<T>::Type;
  static constexpr std::size_t kCount = kSize * ElementOf<T>::kCount;
};

template <class T>
inline constexpr bool kIsPadding = false;
template <std::size_t kSize>
inline constexpr bool kIsPadding<Padding<kSize>> = true;

template <class T>
inline constexpr bool kIsNumber = std::is_integral_v<T> || std::is_enum_v<T> || requires {
  requires sizeof(typename T::Rep) == sizeof(T);
};

template <class T>
constexpr TextForm textFormOf() {
  if constexpr (requires { T::kTextForm; }) {
    return T::kTextForm;
  } else {
    constexpr bool kIsKey = requires(const T& value) { value.hash(std::uint32_t{}); };
    return kIsKey ? TextForm::whole : TextForm::members;
  }
}

template <class T>
constexpr FieldKind kindOf() {
  if constexpr (kIsPadding<T>) {
    return FieldKind::padding;
  } else if constexpr (std::is_same_v<T, bool>) {
    return FieldKind::flag;
  } else if constexpr (Described<T>) {
    return FieldKind::group;
  } else {
    static_assert(Plain<T>, "a type with padding or a bool in it must state its fields()");
    return kIsNumber<T> ? FieldKind::number : FieldKind::bytes;
  }
}

template <class Member>
constexpr RecordField fieldAt(const char* name, std::size_t stated, std::size_t actual) {
  using Element = typename ElementOf<Member>::Type;
  if (stated != actual) aFieldStandsElsewhereThanStated();
  RecordField field{
      name, actual, kindOf<Element>(), sizeof(Element), ElementOf<Member>::kCount, alignof(Member)};
  if constexpr (Described<Element>) {
    field.fields = kFieldsOf<Element>.data();
    field.fieldCount = kFieldsOf<Element>.size();
    field.form = textFormOf<Element>();
  }
  return field;
}

constexpr RecordField presence(RecordField flag) {
  flag.kind = FieldKind::presence;
  return flag;
}

constexpr std::size_t alignedUp(std::size_t offset, std::size_t alignment) {
  return (offset + alignment - 1) / alignment * alignment;
}

/// Fails to compile unless the fields, laid out in order as the compiler would, fill the type: a
/// missing field appears as a gap.
constexpr bool checkFields(const RecordField* fields, std::size_t count, std::size_t size,
                           std::size_t alignment) {
  std::size_t end = 0;
  for (std::size_t i = 0; i < count; ++i) {
    if (fields[i].offset < end) fieldsOverlapOrAreOutOfOrder();
    if (fields[i].offset != alignedUp(end, fields[i].alignment)) aFieldIsMissingFromTheList();
    end = fields[i].end();
  }
  if (count != 0 && alignedUp(end, alignment) != size) aFieldIsMissingFromTheList();
  return true;
}

/// Sets the significant bits.
constexpr void addToMask(std::uint8_t* mask, const RecordField* fields, std::size_t count) {
  for (const RecordField* field = fields; field != fields + count; ++field) {
    for (std::size_t i = 0; i < field->count; ++i) {
      std::uint8_t* const element = mask + field->offset + i * field->size;
      switch (field->kind) {
        case FieldKind::number:
        case FieldKind::bytes:
          for (std::size_t byte = 0; byte < field->size; ++byte) element[byte] = 0xff;
          break;
        case FieldKind::flag:
        case FieldKind::presence:
          *element = 1;
          break;
        case FieldKind::group:
          addToMask(element, field->fields, field->fieldCount);
          break;
        case FieldKind::padding:
          break;
      }
    }
  }
}

/// The bytes of an optional group. Its presence byte follows directly.
struct OptionalGroup {
  std::size_t offset;
  std::size_t size;
  constexpr std::size_t presence() const { return offset + size; }
};

/// Counts the optional groups, and stores them if `groups` is not null.
constexpr std::size_t collectGroups(const RecordField* fields, std::size_t count,
                                    std::size_t offset, OptionalGroup* groups) {
  std::size_t found = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const RecordField& field = fields[i];
    if (field.kind == FieldKind::presence) {
      if (i + 1 != count || found != 0) {
        presenceMustBeTheLastFieldOfAGroupWithoutGroupsOfThatKind();
      }
      if (groups != nullptr) groups[found] = {offset, field.offset};
      ++found;
    }
    if (field.kind != FieldKind::group) continue;
    for (std::size_t element = 0; element < field.count; ++element) {
      found += collectGroups(field.fields, field.fieldCount,
                             offset + field.offset + element * field.size,
                             groups == nullptr ? nullptr : groups + found);
    }
  }
  return found;
}

}  // namespace Impl

/// A row for `member` of `Type`, at the offset that the compiler chose.
#define DRIFT_FIELD(Type, member) DRIFT_FIELD_AT(Type, member, offsetof(Type, member))
/// A row for `member` of `Type`, which must be at `offset`.
#define DRIFT_FIELD_AT(Type, member, offset) \
  ::Drift::Impl::fieldAt<decltype(Type::member)>(#member, offset, offsetof(Type, member))
/// A row for the presence byte of an optional group. It must be the group's last row.
#define DRIFT_PRESENCE_AT(Type, member, offset) \
  ::Drift::Impl::presence(DRIFT_FIELD_AT(Type, member, offset))

}  // namespace Drift
