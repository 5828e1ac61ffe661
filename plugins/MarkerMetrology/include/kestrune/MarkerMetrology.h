// SPDX-License-Identifier: Apache-2.0
//
/// @file
/// What a measurement needs beyond finding markers: settings and calibration files, least squares on the grey levels
/// of each marker, and discs in space with their uncertainty. A host includes this one header,
/// `kestrune/MarkerMetrology.h`; it brings `kestrune/MarkerExtractor.h` along.
///
/// All functions may be called from many threads at once. Files are read whole before anything is checked, all that is
/// wrong with one is told at once, and a file that is written takes its place when it is whole.
#pragma once

#include "kestrune/MarkerExtractor.h"
#include "kestrune/MarkerMetrology/discs.h"
#include "kestrune/MarkerMetrology/errors.h"
#include "kestrune/MarkerMetrology/matching.h"
#include "kestrune/MarkerMetrology/refinement.h"
#include "kestrune/MarkerMetrology/rig.h"
#include "kestrune/MarkerMetrology/setting_fields.h"
#include "kestrune/MarkerMetrology/settings.h"
