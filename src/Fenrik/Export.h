#pragma once

/// Exports a symbol from libquarnbastil.so; all others are hidden.
#define QUARNBASTIL_EXPORT __attribute__((visibility("default")))
