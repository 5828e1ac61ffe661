// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <map>

#include "command_line.h"

namespace kestrune::measure {
namespace {

constexpr const char* kExtractNotes =
    R"(CSV: one row a marker; x, y, half axes and fitError in px, angle of the major axis in degrees, area in px^2 (the
product of the full axes; with path fast the contour's area); a field that the path does not measure is empty.
Path hand takes strong edges only, with thresholds of its own, and ids are places in its list. Paths fast and hand
measure in the image as it is.
Path complex finds bright and dark markers at once and tells them apart: polarity is bright or dark, as the image
is searched, so after --invert. Overlays draw dark ones dashed.
Coordinates are pixels of the full image, (0, 0) being the centre of the top left one. Path simple with scale above 1
measures in the reduced image: its results are mapped back by (x + 0.5) s - 0.5 with s = full / reduced size.
With skipUndistort false in the settings, --calibration is needed, coordinates are free of lens distortion, and the
overlay is drawn on the undistorted image. An image of another size than the calibration's is refused.
The column pixels says which pixels a row is in: undistorted, distorted (as the image was taken) or rectified (so
taken, with cornersRectified).
With --refine x, y, half axes and angle are those of an ellipse fitted to the grey levels of the image as it was read,
with all its bits and before --invert; the other columns stay what the path measured. status is refined, or why a
marker was not and stays as the path measured it: no outline, leaves the image, touches another, too faint, not
converged, not a disc. Then standard deviations (sigmaX, sigmaY, sigmaMajor, sigmaMinor px, sigmaAngle degrees; of a
marker that was not refined, what the path may be off by) and covarianceXY (px^2); grey levels inside and outside the
rim and the noise at it, in levels of the image; blur of the rim (px), degree of the light's variation
(lightDegree), RMS of what the fit leaves in units of the noise (residual) and the pixels that took part (fitPixels).
The overlay shows the centres' error ellipses, one standard deviation, as many times enlarged as its title says, and
markers that were not refined in violet.
Exit code: 0, 1 if an image could not be handled (the others are), 2 if nothing was begun.)";

constexpr const char* kExplainNotes =
    R"(Lists every candidate that the front end of the path delivered: place and size of its contour in pixels of the full
image as it was taken, and either the marker that it is, under its id as extract gives it, or the gate that refused
it, the value measured and what the settings want. Values are those of the gate: path simple with scale above 1
measures in the reduced image. Of a gate that refused more than 200, the table and the labels of the picture tell
only the count; the CSV lists all, with the last fitted ellipse where there is one, in the pixels of extract.
Picture: markers green with their id, all else in the colour of its gate with # and its number in the table.
Below the candidates: the blobs, contours and edges that the front end dropped before, by cause, with the range of
the values met and the settings that dropped them (in the CSV one by one, without a number; in the picture grey boxes,
where a cause has no more than 200); the settings that would add markers, and what else to try.
Exit code: 0, 1 if the image could not be handled, 2 if nothing was begun.)";

constexpr const char* kDepthNotes =
    R"(Depth is interpolated between the four pixels about each centre, and the point is the one at that depth behind the
centre, in the camera's frame (x right, y down, z away). DEPTH is of the size of IMAGE and in the same pixels, those
of the camera matrix without lens distortion: with skipUndistort false the centres are, though IMAGE is not.
Settings that leave distortion in the centres are refused, unless the calibration has none.
32-bit float TIFF or EXR, or 16-bit PNG; 0, negative and not finite values are no depth. A marker is dropped where
one of the four pixels has none or is missing.
CSV: one row for each marker that is left, with its id as extract gives it.
Exit code: 0, 1 if an image could not be handled, 2 if nothing was begun.)";

/// The options of every command that searches the images of one eye.
void addSearch(CLI::App* command, SearchOptions& options) {
    static const std::map<std::string, int> kEyes = {{"left", 0}, {"right", 1}};
    command->add_option("--settings", options.settings, "YAML file with every setting that the path reads")->required();
    addPath(command, options.path);
    addRange(command, options.range);
    command->add_flag("--invert", options.invert, "find dark markers: 255 - pixel");
    command->add_option("--eye", options.eye, "whose calibration counts; left without it")
        ->transform(CLI::CheckedTransformer(kEyes))
        ->option_text("left|right");
    command->add_option("--calibration", options.calibration, "YAML file with M1, D1 (left) and M2, D2 (right)");
}

}  // namespace

void addExtract(CLI::App& app, ExtractOptions& options) {
    CLI::App* command = app.add_subcommand("extract", "Find the markers in images");
    command->add_option("IMAGE", options.images, "images, grey or colour")->required();
    addSearch(command, options);
    command->add_option("--csv", options.csv, "write the markers as a table");
    command->add_flag("--refine", options.refine,
                      "measure the markers again by least squares on the grey levels, with their uncertainty");
    command
        ->add_option(
            "--overlay", options.overlay,
            "draw the markers; of several images, as FILE-<image>.png, or FILE-<image>-overlay.png where one has that "
            "name")
        ->option_text("FILE.png");
    command->footer(std::string(kExtractNotes) + kImageNotes + kFileNotes);
}

void addExplain(CLI::App& app, ExplainOptions& options) {
    CLI::App* command = app.add_subcommand("explain", "Tell of every candidate why it is a marker or not");
    command->add_option("IMAGE", options.image, "image, grey or colour")->required();
    addSearch(command, options);
    command->add_option("--out", options.out, "draw the candidates")->option_text("FILE.png");
    command->add_option("--csv", options.csv, "write all candidates as a table");
    command->footer(std::string(kExplainNotes) + kImageNotes + kFileNotes);
}

void addDepth(CLI::App& app, DepthOptions& options) {
    CLI::App* command = app.add_subcommand("depth", "Place the markers of an image in space by a depth image");
    command->add_option("IMAGE", options.image, "image, grey or colour")->required();
    command->add_option("DEPTH", options.depth, "z of each pixel, 0 where there is none")->required();
    addSearch(command, options);
    command->get_option("--calibration")->required();
    command->add_option("--csv", options.csv, "write the points as a table")->required();
    command
        ->add_option("--depth-scale", options.depthScale,
                     "multiplies the depth image: 0.001 makes metres of whole millimetres; 1 without it")
        ->check(CLI::PositiveNumber);
    command->footer(std::string(kDepthNotes) + kImageNotes + kFileNotes);
}

}  // namespace kestrune::measure
