#include <elf.h>
#include <link.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "Kiv/Log.h"

// The section's name is not a C identifier, so the linker defines no symbols for its bounds; they
// are read from the section table of the loaded file.

namespace Kiv {
namespace {

constexpr std::string_view kSection = ".corvane_logmsg";

template <class T>
std::vector<T> readTable(std::ifstream& file, std::uint64_t offset, std::size_t count) {
  std::vector<T> table(count);
  file.seekg(static_cast<std::streamoff>(offset));
  file.read(reinterpret_cast<char*>(table.data()), static_cast<std::streamsize>(count * sizeof(T)));
  return file ? table : std::vector<T>();
}

/// Whether the file is the one that was loaded, not a later replacement.
bool sameSegments(std::ifstream& file, const ElfW(Ehdr) & head, const dl_phdr_info& object) {
  if (head.e_phnum != object.dlpi_phnum) return false;
  const auto segments = readTable<ElfW(Phdr)>(file, head.e_phoff, head.e_phnum);
  return !segments.empty() &&
         std::memcmp(segments.data(), object.dlpi_phdr, segments.size() * sizeof(segments[0])) == 0;
}

bool lies(const ElfW(Shdr) & section, const dl_phdr_info& object) {
  return std::any_of(
      object.dlpi_phdr, object.dlpi_phdr + object.dlpi_phnum, [&](const ElfW(Phdr) & segment) {
        return segment.p_type == PT_LOAD && section.sh_addr >= segment.p_vaddr &&
               section.sh_addr + section.sh_size <= segment.p_vaddr + segment.p_memsz;
      });
}

/// The section's position in the object's file; size 0 if the object has none.
ElfW(Shdr) sectionOf(const dl_phdr_info& object) {
  const char* const name = object.dlpi_name;
  std::ifstream file(*name != '\0' ? name : "/proc/self/exe", std::ios::binary);
  const auto head = readTable<ElfW(Ehdr)>(file, 0, 1);
  if (head.empty() || std::memcmp(head[0].e_ident, ELFMAG, SELFMAG) != 0 ||
      !sameSegments(file, head[0], object))
    return {};
  const auto sections = readTable<ElfW(Shdr)>(file, head[0].e_shoff, head[0].e_shnum);
  if (head[0].e_shstrndx >= sections.size()) return {};
  const ElfW(Shdr)& nameTable = sections[head[0].e_shstrndx];
  std::vector<char> names = readTable<char>(file, nameTable.sh_offset, nameTable.sh_size);
  names.push_back('\0');
  for (const ElfW(Shdr) & section : sections)
    if (section.sh_name < names.size() && kSection == &names[section.sh_name] &&
        lies(section, object))
      return section;
  return {};
}

int gather(dl_phdr_info* object, std::size_t, void* into) {
  auto& all = *static_cast<std::vector<const LogDescriptor*>*>(into);
  const ElfW(Shdr) section = sectionOf(*object);
  const auto begin = object->dlpi_addr + section.sh_addr;
  const auto end = begin + section.sh_size;
  for (auto at = begin; at + sizeof(LogDescriptor) <= end;) {
    const auto* const descriptor = reinterpret_cast<const LogDescriptor*>(at);
    // The linker may leave a gap between the parts of two sources.
    if (descriptor->mnemonic == nullptr) {
      at += sizeof(void*);
      continue;
    }
    all.push_back(descriptor);
    at += sizeof(LogDescriptor);
  }
  return 0;
}

}  // namespace

std::vector<const LogDescriptor*> logDescriptors() {
  std::vector<const LogDescriptor*> all;
  ::dl_iterate_phdr(gather, &all);
  return all;
}

}  // namespace Kiv
