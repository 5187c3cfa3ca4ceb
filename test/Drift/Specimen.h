#pragma once

#include "Support/Collections.h"

/// Collections to damage, and what may be seen in them afterwards. No test framework: the fuzzers
/// use the same.
namespace Drift::Specimens {

/// The bytes of a whole collection and what is in it.
struct Specimen {
  Geometry geometry;
  Model model;
  std::string image;
  Word scratchpad = 0;

  bool dense() const { return isDense(geometry); }
};

/// A collection with `count` records that has seen replacing, removing and, if dense, has holes and
/// went once round its ring.
Specimen makeSpecimen(const Geometry& geometry, Word count);

/// A look at bytes of which only this is known: that they must not bring a reader down.
void lookAnyway(const DriftFile& file);

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
