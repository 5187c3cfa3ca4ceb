#include "asic/RowFile.h"

#include "Fenrik/Assert.h"
#include "tables/Collections.h"

namespace SimAsic {

RowFile::RowFile(const Drift::Directory& directory, const std::string& path,
                 const Drift::Geometry& geometry)
    : file_(Drift::DriftFile::openForWriting(directory, path, geometry, {})),
      writer_(*file_),
      note_(file_->data(), Drift::Format::Line::scratchpad),
      found_(writer_.view().recordWords()) {
  FENRIK_ASSERT(note_.adopt());
}

std::optional<RowFile::Words> RowFile::find(Words key) const {
  if (!writer_.view().find(key, found_)) return {};
  return found_;
}

void RowFile::walk(const std::function<void(Words)>& visit) const {
  Tables::walkHashed(*file_, visit, [](const std::string&) {});
}

}  // namespace SimAsic
