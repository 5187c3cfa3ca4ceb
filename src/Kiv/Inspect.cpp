#include "Kiv/Inspect.h"

#include <fmt/core.h>

#include <charconv>
#include <optional>
#include <vector>

#include "Fenrik/TypeData.h"

namespace Kiv::Inspect {

PathException::~PathException() = default;

namespace {

/// Members that are compared with a key that cannot be looked up.
constexpr unsigned kCompared = 1'000'000;

using NodePtr = Fenrik::Ptr<Fenrik::Node>;

/// Reading an attribute changes nothing.
void* objectOf(const Fenrik::Node& node) { return const_cast<Fenrik::Node*>(&node); }

/// A walk over a collection attribute of an object.
class Members {
 public:
  Members(const Fenrik::Node& owner, const KivAttr& attribute, const void* key = nullptr)
      : attribute_(attribute) {
    void* from = const_cast<void*>(key);
    const void* ops = nullptr;
    iterator_ = genericIfIterator(owner.typeData(), objectOf(owner),
                                  key != nullptr ? &from : nullptr, attribute.fieldId(), &ops);
    if (iterator_ == nullptr) throw PathException("there is no memory to walk a collection");
  }
  ~Members() { kIteratorOperations.iterDel(attribute_, iterator_); }
  Members(const Members&) = delete;
  Members& operator=(const Members&) = delete;

  explicit operator bool() const { return kIteratorOperations.iterNonnull(attribute_, iterator_); }
  void next() { kIteratorOperations.iterInc(attribute_, iterator_); }
  AnyValue key() const { return read(attribute_.keyType(), kIteratorOperations.iterKey); }
  AnyValue value() const { return read(attribute_.valueType(), kIteratorOperations.iterObj); }

 private:
  template <class Read>
  AnyValue read(const ValueType& type, const Read& read) const {
    AnyValue value(type);
    read(attribute_, iterator_, value.storage());
    value.filled();
    return value;
  }

  const KivAttr& attribute_;
  void* iterator_;
};

AnyValue readValue(const Fenrik::Node& owner, const KivAttr& attribute) {
  AnyValue value(attribute.valueType());
  attribute.access()->read(objectOf(owner), value.storage());
  value.filled();
  return value;
}

std::string_view classOf(const Fenrik::Node& node) {
  const TypeFacts* const facts = node.typeData().facts();
  return facts != nullptr ? facts->name : "an object without type data";
}

/// The attributes of an object, those of the bases first.
std::vector<KivAttr> attributesOf(const Fenrik::Node& node) {
  std::vector<KivType> levels;
  for (KivType type = node.typeData(); type.valid(); type = type.base()) levels.push_back(type);
  std::vector<KivAttr> all;
  for (auto level = levels.rbegin(); level != levels.rend(); ++level) {
    for (const AttributeFact& row : level->facts()->attributes) {
      all.emplace_back(node.typeData(), row.fieldId);
    }
  }
  return all;
}

bool isCollection(const KivAttr& attribute) {
  return attribute.access() != nullptr && attribute.access()->iterator != nullptr;
}
bool isReadable(const KivAttr& attribute) {
  return attribute.access() != nullptr && attribute.access()->read != nullptr;
}

// The way along a path.

/// What a path has come to: a value, which may be a pointer to an object, or a collection.
struct Place {
  AnyValue value;
  /// Of the object that `value` refers to; without it, the value itself.
  std::optional<KivAttr> collection;
};

class Walker {
 public:
  Walker(const Fenrik::Ptr<const Fenrik::Node>& root, std::string_view path)
      : path_(path), place_{AnyValue(kValueType<NodePtr>), std::nullopt} {
    ::new (place_.value.storage()) Fenrik::Ptr<const Fenrik::Node>(root);
    place_.value.filled();
  }

  Place walked() {
    while (at_ < path_.size() && path_[at_] == '/') ++at_;
    while (at_ < path_.size()) {
      if (place_.collection) {
        toMember();
      } else {
        const Fenrik::Node* const node = place_.value.node();
        if (node == nullptr) {
          fail("{}, which has no parts",
               place_.value.type().ops->form == ValueForm::node ? "null" : "a value");
        }
        toAttribute(*node, step());
      }
    }
    return std::move(place_);
  }

 private:
  template <class... Args>
  [[noreturn]] void fail(fmt::format_string<Args...> what, Args&&... args) const {
    throw PathException(Fenrik::String(fmt::format(
        "\"{}\" is {}", path_.substr(0, from_), fmt::format(what, std::forward<Args>(args)...))));
  }

  /// The next step up to '/', decoded.
  std::string step() {
    from_ = at_ == 0 ? 0 : at_ - 1;
    const std::size_t end = std::min(path_.find('/', at_), path_.size());
    const std::string text = decoded(path_.substr(at_, end - at_));
    at_ = std::min(end + 1, path_.size());
    return text;
  }

  std::string decoded(std::string_view text) const {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
      unsigned byte = 0;
      if (text[i] != '%') {
        plain += text[i];
        continue;
      }
      const std::string_view digits = text.substr(i + 1, 2);
      const auto [end, error] =
          std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
      if (error != std::errc() || digits.size() != 2 || end != digits.data() + 2) {
        throw PathException(Fenrik::String(
            fmt::format("\"{}\": '%' is followed by two hexadecimal digits in a step", text)));
      }
      plain += static_cast<char>(byte);
      i += 2;
    }
    return plain;
  }

  void toAttribute(const Fenrik::Node& node, const std::string& step) {
    const std::size_t call = step.find('(');
    const std::string_view name = std::string_view(step).substr(0, call);
    const KivAttr attribute(node.typeData(), name);
    if (!attribute.valid()) {
      std::string there;
      for (const KivAttr& known : attributesOf(node)) {
        there += fmt::format("{}{}", there.empty() ? "" : ", ", known.name());
      }
      fail("a {}, which has no attribute \"{}\"; it has: {}", classOf(node), name,
           there.empty() ? "none" : there);
    }
    if (attribute.kind() == AttributeKind::function) {
      return toResult(node, attribute, call == std::string::npos ? "" : step.substr(call));
    }
    if (call != std::string::npos) fail("a {}, whose \"{}\" is no function", classOf(node), name);
    if (isCollection(attribute)) {
      place_.collection = attribute;
    } else if (isReadable(attribute)) {
      place_.value = readValue(node, attribute);
    } else {
      fail("a {}, whose \"{}\" cannot be read", classOf(node), name);
    }
  }

  /// `arguments` is "(a,b)", or empty for none.
  void toResult(const Fenrik::Node& node, const KivAttr& attribute, std::string_view arguments) {
    const AttributeAccess* const access = attribute.access();
    if (access == nullptr || !access->reading) {
      fail("a {}, whose \"{}\" is not marked as reading", classOf(node), attribute.name());
    }
    const std::size_t wanted = access->arguments.size();
    std::vector<AnyValue> values;
    std::vector<void*> addresses;
    if (!arguments.empty() && (arguments.size() < 2 || arguments.back() != ')')) {
      fail("a {}; a call of \"{}\" ends with ')'", classOf(node), attribute.name());
    }
    std::string_view rest = arguments.empty() ? "" : arguments.substr(1, arguments.size() - 2);
    while (!rest.empty() && values.size() != wanted) {
      const std::size_t end = std::min(rest.find(','), rest.size());
      const ValueType& type = attribute.argumentType(values.size());
      AnyValue& value = values.emplace_back(type);
      value.construct();
      if (type.ops->parse == nullptr || !type.ops->parse(type, rest.substr(0, end), value.get())) {
        fail("a {}; \"{}\" takes a {} where \"{}\" stands", classOf(node), attribute.name(),
             type.name, rest.substr(0, end));
      }
      rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    if (values.size() != wanted || !rest.empty()) {
      fail("a {}, whose \"{}\" takes {} arguments", classOf(node), attribute.name(), wanted);
    }
    for (AnyValue& value : values) addresses.push_back(value.get());
    AnyValue result(attribute.valueType());
    access->call(objectOf(node), result.storage(), addresses.data());
    if (result.type().ops != nullptr) result.filled();
    place_.value = std::move(result);
  }

  /// A key may contain '/': as many steps are taken as make one.
  void toMember() {
    const KivAttr attribute = *place_.collection;
    const AnyValue held = std::move(place_.value);
    const Fenrik::Node& owner = *held.node();
    const std::size_t first = at_;
    std::string key;
    do {
      key += (key.empty() ? "" : "/") + step();
      if (std::optional<AnyValue> found = member(owner, attribute, key)) {
        place_ = {std::move(*found), std::nullopt};
        return;
      }
    } while (at_ < path_.size());
    at_ = first;
    from_ = first == 0 ? 0 : first - 1;
    fail("a collection without \"{}\"", decoded(path_.substr(first)));
  }

  static std::optional<AnyValue> member(const Fenrik::Node& owner, const KivAttr& attribute,
                                        const std::string& text) {
    const ValueType& type = attribute.keyType();
    if (type.ops->parse != nullptr) {
      AnyValue key(type);
      key.construct();
      if (!type.ops->parse(type, text, key.get())) return std::nullopt;
      const Members at(owner, attribute, key.get());
      return at ? std::optional(at.value()) : std::nullopt;
    }
    Members walk(owner, attribute);
    for (unsigned i = 0; walk && i != kCompared; walk.next(), ++i) {
      if (walk.key().text() == text) return walk.value();
    }
    return std::nullopt;
  }

  std::string_view path_;
  /// Where the next step begins, and where the last one ended.
  std::size_t at_ = 0;
  std::size_t from_ = 0;
  Place place_;
};

// The answer.

void appendQuoted(std::string_view text, std::string& out) {
  out += '"';
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7f) {
      out += fmt::format("\\u{:04x}", static_cast<unsigned char>(c));
    } else {
      out += c;
    }
  }
  out += '"';
}

/// Writes what it is shown, in one of the forms.
class Writer {
 public:
  Writer(Form form, const Bounds& bounds) : json_(form == Form::json), bounds_(bounds) {}

  std::string take() {
    if (!json_ && (out_.empty() || out_.back() != '\n')) out_ += '\n';
    return std::move(out_);
  }

  void place(const Place& place) {
    if (place.collection) {
      collection(*place.value.node(), *place.collection, bounds_.depth, 0);
    } else {
      value(place.value, bounds_.depth, 0);
    }
  }

 private:
  bool full() const { return out_.size() >= bounds_.bytes; }
  void line(unsigned indent) { out_ += '\n' + std::string(2 * std::size_t{indent}, ' '); }

  void value(const AnyValue& value, unsigned depth, unsigned indent) {
    if (const Fenrik::Node* const node = value.node(); node != nullptr) {
      return depth == 0 ? name(*node) : object(*node, depth, indent);
    }
    const ValueForm form = value.empty() ? ValueForm::none : value.type().ops->form;
    if (form == ValueForm::none || form == ValueForm::node) {
      out_ += "null";
    } else if (!json_ || form != ValueForm::text) {
      out_ += value.text();
    } else {
      appendQuoted(value.text(), out_);
    }
  }

  void name(const Fenrik::Node& node) {
    if (!json_) {
      out_ += classOf(node);
      return;
    }
    out_ += "{\"class\": ";
    appendQuoted(classOf(node), out_);
    out_ += '}';
  }

  void object(const Fenrik::Node& node, unsigned depth, unsigned indent) {
    out_ += json_ ? "{\"class\": " : "";
    json_ ? appendQuoted(classOf(node), out_) : void(out_ += classOf(node));
    if (json_) out_ += ", \"attributes\": {";
    const char* separator = "";
    for (const KivAttr& attribute : attributesOf(node)) {
      if (!isCollection(attribute) && !isReadable(attribute)) continue;
      if (full()) {
        cut(indent + 1, separator);
        break;
      }
      field(attribute.name(), indent + 1, separator);
      separator = ", ";
      if (isCollection(attribute)) {
        collection(node, attribute, depth - 1, indent + 1);
      } else {
        value(readValue(node, attribute), depth - 1, indent + 1);
      }
    }
    if (json_) out_ += "}}";
  }

  void field(std::string_view name, unsigned indent, const char* separator) {
    if (json_) {
      out_ += separator;
      appendQuoted(name, out_);
    } else {
      line(indent);
      out_ += name;
    }
    out_ += ": ";
  }

  /// With no depth left, the number of members.
  void collection(const Fenrik::Node& owner, const KivAttr& attribute, unsigned depth,
                  unsigned indent) {
    Members walk(owner, attribute);
    if (depth == 0) {
      unsigned count = 0;
      for (; walk && count != bounds_.elements; walk.next()) ++count;
      out_ += json_ ? fmt::format("{{\"members\": {}{}}}", count, walk ? ", \"cut\": true" : "")
                    : fmt::format("{} members{}", count, walk ? ", and more" : "");
      return;
    }
    if (json_) out_ += "{\"members\": {";
    const char* separator = "";
    unsigned shown = 0;
    for (; walk && shown != bounds_.elements && !full(); walk.next(), ++shown) {
      field(walk.key().text(), indent + 1, separator);
      separator = ", ";
      value(walk.value(), depth - 1, indent + 1);
    }
    if (json_) {
      out_ += walk ? "}, \"cut\": true}" : "}}";
    } else if (walk) {
      cut(indent + 1, "");
    } else if (shown == 0) {
      out_ += "0 members";
    }
  }

  void cut(unsigned indent, const char* separator) {
    if (json_) {
      out_ += fmt::format("{}\"...\": \"cut\"", separator);
    } else {
      line(indent);
      out_ += "... and more";
    }
  }

  const bool json_;
  const Bounds bounds_;
  std::string out_;
};

}  // namespace

std::string show(const Fenrik::Ptr<const Fenrik::Node>& root, std::string_view path, Form form,
                 const Bounds& bounds) {
  Writer writer(form, bounds);
  writer.place(Walker(root, path).walked());
  return writer.take();
}

}  // namespace Kiv::Inspect
