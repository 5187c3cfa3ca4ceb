#pragma once

#include "Drift/DriftMap.h"
#include "Fenrik/Exception.h"

namespace Asic {

template <class Record>
inline const Record kDefaultRecord{};

/// What a guarded look-up found: a copy, or a default record.
template <class Record>
struct Found {
  bool found = false;
  Record record{};
};

/// Runs one read of a collection. If the read meets damage, reports it to the collection and
/// returns `otherwise`. Other exceptions pass through.
template <class Map, class Read, class Result>
Result guardedRead(Map& map, Read read, Result otherwise) {
  try {
    return read();
  } catch (const Fenrik::CorruptionDetectedException& e) {
    map.doCorruptionDetected(e.msg());
    return otherwise;
  }
}

/// What `guardedLook` found: the record itself, valid until the next look-up in the map.
template <class Record>
struct Looked {
  bool found = false;
  const Record* record = &kDefaultRecord<Record>;
};

template <class Record>
Looked<Record> guardedLook(Drift::DriftMap<Record>& map,
                           const typename Drift::DriftMap<Record>::Key& key) {
  Looked<Record> result;
  try {
    result.record = &map.driftMapFind(key, result.found);
  } catch (const Fenrik::CorruptionDetectedException& e) {
    map.doCorruptionDetected(e.msg());
  }
  return result;
}

/// Looks a record up. Damage yields a default record, with the found flag as the look-up left it.
template <class Record>
Found<Record> guardedFind(Drift::DriftMap<Record>& map,
                          const typename Drift::DriftMap<Record>::Key& key) {
  const Looked<Record> looked = guardedLook(map, key);
  return {looked.found, *looked.record};
}

/// Walks a configuration, calling `visit` with a copy of each record. Damage ends the walk. The
/// visitor may change the collection.
template <class Record, class Visit>
void guardedWalk(Drift::DriftMap<Record>& map, Visit visit) {
  typename Drift::DriftMap<Record>::Cursor cursor;
  const auto begin = [&] { return map.driftMapIterBegin(cursor); };
  bool more = guardedRead(map, begin, false);
  while (more) {
    const Record record = cursor.record;
    const auto key = record.logEntry.key;
    visit(record);
    more = guardedRead(
        map, [&] { return map.driftMapIterNext(key, cursor); }, false);
  }
}

}  // namespace Asic
