#include "Fenrik/String.h"

#include <algorithm>
#include <string>

namespace Fenrik::Impl {

template <class Char>
void StringCommon<Char>::insert(std::size_t at, View text) {
  if (text.empty()) return;
  using Traits = std::char_traits<Char>;
  const std::size_t size = size_ + text.size();
  if (size < room_ && at == size_) {
    Traits::move(text_ + at, text.data(), text.size());
  } else {
    const std::size_t room = std::max(size + 1, 2 * room_);
    Char* const joined = new Char[room];
    Traits::copy(joined, data(), at);
    Traits::copy(joined + at, text.data(), text.size());
    Traits::copy(joined + at + text.size(), data() + at, size_ - at);
    delete[] std::exchange(text_, joined);
    room_ = room;
  }
  size_ = size;
  text_[size] = Char();
}

template class StringCommon<char>;

StrB::StrB(const std::string& text) : StringCommon(View(text)) {}

std::string StrB::str() const { return std::string(view()); }

}  // namespace Fenrik::Impl
