// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Marks an operation that the shared library exports. Everything else in it is hidden.
#define KESTRUNE_API __attribute__((visibility("default")))
