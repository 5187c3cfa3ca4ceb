#include "QuarnL3NiLib/ReqIdToFecResourceDrift.h"

namespace QuarnL3NiLib {

namespace {

const KivSharedMem::EntityRegistrations<ReqIdToFecResourceDrift> kRegistered;

}  // namespace

std::vector<ReqIdToFecResourceRecord> ReqIdToFecResourceDrift::resources() {
  const auto found = writer().recordsWhere([](const std::byte*) { return true; });
  noteDropped();
  std::vector<ReqIdToFecResourceRecord> records(found.size());
  for (std::size_t i = 0; i < found.size(); ++i) Layout::fromWords(found[i].data(), records[i]);
  return records;
}

}  // namespace QuarnL3NiLib
