#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Drift/DenseCollection.h"
#include "Drift/HashedCollection.h"
#include "Support/TempDir.h"

/// Collections to damage, and what may be seen in them afterwards. No test framework: the fuzzers
/// use the same.
namespace Drift::Specimens {

using Record = std::vector<Word>;
/// Records by the words of their key.
using Model = std::map<Record, Record>;

using Support::TempDir;

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  std::string bytes(in ? static_cast<std::size_t>(in.tellg()) : 0, '\0');
  in.seekg(0).read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return bytes;
}

inline void writeFile(const std::string& path, const std::string& bytes, mode_t mode = 0640) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  ::chmod(path.c_str(), mode);
}

/// Numbers without a pattern that follow from a seed (SplitMix64).
inline Word mix(Word value) {
  value += 0x9e3779b97f4a7c15;
  value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9;
  value = (value ^ (value >> 27)) * 0x94d049bb133111eb;
  return value ^ (value >> 31);
}

inline std::size_t wordsOf(std::size_t bytes) { return Format::paddedSize(bytes) / sizeof(Word); }

/// A record that differs from that of every other key and salt.
inline Record recordOf(const Geometry& geometry, const Record& key, Word salt) {
  Record record(wordsOf(geometry.recordSize));
  for (std::size_t i = 0; i < record.size(); ++i) {
    record[i] = i < key.size() ? key[i] : mix(mix(key.back()) + salt * 1000 + i);
  }
  return record;
}

/// The key of a number; its upper words are what a long key has in them.
inline Record keyOf(const Geometry& geometry, Word number) {
  Record key(wordsOf(geometry.keySize), 0x01020304);
  key.back() = number;
  return key;
}

/// The bytes of a whole collection and what is in it.
struct Specimen {
  Geometry geometry;
  Model model;
  std::string image;
  Word scratchpad = 0;

  bool dense() const { return geometry.layout == Format::Layout::dense; }
};

/// A collection with `count` records that has seen replacing, removing and, if dense, has holes and
/// went once round its ring.
Specimen makeSpecimen(const Geometry& geometry, Word count);

/// What a look at every record showed.
struct Sight {
  std::string complaint;  ///< something that must not be; empty if all is well
  unsigned errors = 0;    ///< named errors on the way
  Word missing = 0;       ///< records said not to be there
};

/// Looks at every record by key, in a walk, and at keys that are not there.
Sight look(const DriftFile& file, const Model& model);
/// The same over bytes of which only this is known: that they must not bring a reader down.
void lookAnyway(const DriftFile& file);

/// A writer of either layout.
struct AnyWriter {
  explicit AnyWriter(DriftFile& file);
  void set(const Record& record);
  bool remove(const Record& key);
  void removeAll();
  Word dropped() const { return hashed ? hashed->dropped() : 0; }

  std::unique_ptr<HashedWriter> hashed;
  std::unique_ptr<DenseWriter> dense;
};

/// How often the ends were seen, so that a test can tell that its faults took effect.
struct Tally {
  unsigned refusedAtOpen = 0;
  unsigned errorsWhileReading = 0;
  unsigned rebuilt = 0;
  unsigned dropped = 0;
  unsigned right = 0;  ///< all values, no error
};

/// Opens the damaged file `entity`, whose undamaged form is the specimen, as a reader and then as
/// the writer that takes over, who writes everything anew. Returns what must not be, or nothing.
std::string inspect(const Directory& directory, const std::string& entity, const Specimen& specimen,
                    Tally& tally);

}  // namespace Drift::Specimens
