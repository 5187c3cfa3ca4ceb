#pragma once

/// Marks what libquarnbastil.so offers to its users; everything else stays hidden in it.
#define QUARNBASTIL_EXPORT __attribute__((visibility("default")))
