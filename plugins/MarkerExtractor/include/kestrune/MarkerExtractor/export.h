// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Marks an operation that the shared library exports. Everything else in it is hidden.
#if defined(_WIN32)
#if defined(KESTRUNE_MARKEREXTRACTOR_BUILDING)
#define KESTRUNE_API __declspec(dllexport)
#else
#define KESTRUNE_API __declspec(dllimport)
#endif
#else
#define KESTRUNE_API __attribute__((visibility("default")))
#endif
