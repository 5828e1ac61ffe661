// SPDX-License-Identifier: Apache-2.0
#pragma once

/// @file
/// Version of the headers that a host is compiled with. Its library must have the same major and minor number: records
/// may change with each of them, and the soname changes with them.

#define KESTRUNE_MARKEREXTRACTOR_VERSION_MAJOR 0  ///< changes with anything that a host must be changed for
#define KESTRUNE_MARKEREXTRACTOR_VERSION_MINOR 1  ///< changes with records and operations
#define KESTRUNE_MARKEREXTRACTOR_VERSION_PATCH 0  ///< changes with what a host need not be compiled anew for

/// The three in one number that can be compared: 10203 for 1.2.3.
#define KESTRUNE_MARKEREXTRACTOR_VERSION                                                             \
    (KESTRUNE_MARKEREXTRACTOR_VERSION_MAJOR * 10000 + KESTRUNE_MARKEREXTRACTOR_VERSION_MINOR * 100 + \
     KESTRUNE_MARKEREXTRACTOR_VERSION_PATCH)
