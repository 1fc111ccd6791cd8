/// @file export.h
/// The export marks and the version of the library. Included by every other header.
#ifndef MERU_EXPORT_H
#define MERU_EXPORT_H

#define MERU_VERSION_MAJOR 1         ///< changes when a host has to be built anew or changed
#define MERU_VERSION_MINOR 0         ///< changes when something is added
#define MERU_VERSION_PATCH 0         ///< changes when something is mended
#define MERU_VERSION_STRING "1.0.0"  ///< the three numbers, with dots between

/// Makes a symbol leave the library.
#if defined(__GNUC__) || defined(__clang__)
#define MERU_EXPORT __attribute__((visibility("default")))
#else
#define MERU_EXPORT
#endif

/// Marks an exported function. A C++ host sees it with C++ linkage, a C host (or a loader that looks names up) under
/// its plain name; the library defines both, and both do the same.
#define MERU_API MERU_EXPORT

#endif
