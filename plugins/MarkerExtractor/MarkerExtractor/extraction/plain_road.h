// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>

namespace kestrune {

/// Each path has two roads to the same bits. The plain one makes the images of every step by OpenCV's calls and can
/// tell what it dropped; a call that asks for findings takes it. The fast one computes only what decides. With true
/// every call takes the plain road, which is for tests that hold the one to the other.
extern std::atomic<bool> takePlainRoad;

}  // namespace kestrune
