// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <charconv>
#include <functional>
#include <map>
#include <optional>
#include <vector>

#include "command_line.h"

namespace kestrune::measure {
namespace {

constexpr const char* kExplainStereoNotes =
    R"(With --match path lists every marker of both eyes that is in no pair: its number and place (undistorted pixels), its candidate in the
other eye that got furthest in the matching, the test that ended this candidate, the value measured and what the
settings want. Tests, as far as the path takes them, in their order: outline, rows, area, rim rows, depth, circle,
radius, spread, radius score, radius ratio, score, edge length, edge direction, taken, ambiguous. A marker with no
other in its rows shows the one that is nearest in row. Below it, how many markers each test ended and what most
of them measured. Of a test that ended more than 200 only the count is told; the CSV lists all markers.
Picture: both eyes side by side, pairs green with their numbers, others in the colour of their test.
Exit code: 0, 1 if the exposure could not be handled, 2 if nothing was begun.)";

constexpr const char* kMatchNotes =
    R"(Lists: CSV with a header row that names x and y, as extract writes them for one image each; ids are those of the
column id or, without one, row numbers from 0. Coordinates are pixels without lens distortion (extract with
skipUndistort false), as the column pixels or --pixels must say: 'distorted' will do where the calibration has
no distortion, 'rectified' never.
A marker's partner lies within 1.5 px of its epipolar line. Those that are each other's only candidate stand first
in the result; the others are settled by their distances to these. Any pair can be wrong, and of every two exposures
about one has such a pair: drop pairs that use a marker twice or whose Z the object cannot have.
CSV: one row a pair, with ids, pixels and the point in the left camera's frame (x right, y down, z away), in the
unit of the calibration's positions.
Exit code: 0 if there are pairs, 1 if there are none, 2 if nothing was begun.)";

constexpr const char* kStereoNotes =
    R"(Each exposure is a left and a right image; the two lists are paired in order. Distortion is always taken out, unless
the settings say cornersRectified. Points stand in the left camera's frame (x right, y down, z away; outputRectified
leaves them in the rectified one), in the unit of the calibration's positions. With --match path, paths radial and
complex match the circles in space that the ellipses imply and know normals and radii; path simple matches by size and
by the constellation; polarities are not matched, and with path complex told for the left eye.
Every exposure tells its markers of each eye, pairs and unmatched, every marker its row residual (left minus right
row of the rectified eyes) and the distance of its reprojected point from the pixels of each eye, px.
With fewer pairs than --min-share asks for, an exposure counts as failed: exchanged eyes and the calibration of
another rig leave a few pairs by chance. With --match path the error names the tests that ended most markers, and
explain-stereo lists all; a warning tells of pairs that are far off their rows, as wrong partners in a dense pattern are.
With --refine the markers of both eyes are measured again on the grey levels before they are matched, and the point,
normal and radius of a pair are those of the disc that fits both ellipses best (pointSource is disc; where there is
none, matcher). leftStatus and rightStatus say what became of each eye's marker, as in extract. Of a disc: standard
deviations and covariances of the point (sigmaX.., covarianceXY..), of its normal (sigmaNormal, degrees) and radius,
and chiSquare, about 4 for a disc seen rightly; they hold the noise of the images, not the calibration. JSON has both
eyes' estimates and the covariances as well. Pictures show error ellipses and ellipsoids, enlarged as they tell.
CSV: one row a marker, in the order of the exposures; a failed one has one row with its counts and the error.
JSON: one record an exposure, failed ones with the error, and their pairs as rejected in place of markers.
PLY: all points, with the exposure's number from 0. Overlay: NAME.png and NAME-3d.png, NAME as the left image's, or
NAME-overlay where an image of the run has such a name.
Exit code: 0 if every exposure gave points, 1 if one did not, 2 if nothing was begun.)";

constexpr const char* kTrustNotes = R"(
With --match trusted, which is taken without --match, every pair has the probability that both its markers are one:
every cue (rows, the two circles in space, radii, depths, normals, grey levels, a known object) counts by its own
uncertainty, over all ways to pair the whole exposure. There is no tolerance to find. Nominal radii and depths are those
of the options, or of the settings: markerRadii, with sizeTolerance as two standard deviations, minDepth and maxDepth.
Of the settings' other stereo fields, tolerances and gates are for --match path alone, and never select it. Pairs of at
least --sure become points; the others are ambiguous, and are told with their rivals and what would decide.)";

constexpr const char* kStereoTrustNotes = R"(
CSV has a column probability and, beside it as NAME-ambiguous.csv, a table of the ambiguous pairs, each before its
rivals, with left and right as numbers of the eyes' markers; JSON has them as ambiguous, with objection, reason, moved
and the scales of the markers' sigmas. Pictures show them dashed, with ? and lines to their rivals.
What speaks against an exposure as a whole (nothing matches, eyes exchanged, a pattern that repeats, a rig that has
moved) fails it with its reason. Of a rig that has moved, --write-moved writes the corrected calibration, by the
exposure with most pairs; measured again with that, the exposures give points.)";

constexpr const char* kExplainTrustNotes = R"(
The list has all pairs then, sure ones and those in doubt with their rivals, with the distance from the epipolar line
and its standard deviation, px; how the two circles in space disagree (shape: chi-square of 3); and how much more
likely a pair each cue makes the two than chance would (natural logarithms: 7 is a thousand times); - is what could
not be judged. --refine and --no-refine count for it alone: the path's matcher is explained without.)";

/// Numbers with commas between them; none for anything else.
std::optional<std::vector<double>> numbersIn(const std::string& text) {
    std::vector<double> numbers;
    for (const char *at = text.data(), *const end = at + text.size();; ++at) {
        const auto [stop, error] = std::from_chars(at, end, numbers.emplace_back());
        if (error != std::errc() || (stop != end && *stop != ',')) return std::nullopt;
        if (stop == end) return numbers;
        at = stop;
    }
}

/// An option of one or `count` numbers.
CLI::Option* addNumbers(CLI::App* command, const std::string& name, std::size_t count, const std::string& help,
                        const std::function<void(const std::vector<double>&)>& take) {
    return command->add_option_function<std::string>(
        name,
        [=](const std::string& text) {
            const auto numbers = numbersIn(text);
            if (!numbers || (count > 0 && numbers->size() != count))
                throw CLI::ValidationError(name, fmt::format("{} is no {} with commas between them", text,
                                                             count > 0 ? fmt::format("{} numbers", count) : "numbers"));
            take(*numbers);
        },
        help);
}

/// How to pair, and what is known for it.
void addMatching(CLI::App* command, MatchingOptions& options) {
    addMatcher(command, options.matching);
    MatchKnowledge& known = options.known;
    addNumbers(command, "--radii", 0, "trusted: nominal radii of the markers; without it, those of the settings",
               [&known](const auto& radii) { known.radii = radii; })
        ->option_text("R[,R..]");
    command->add_option("--radius-tolerance", known.radiusTolerance,
                        "trusted: standard deviation of a radius, as a share of the nominal one; 0.01 with --radii");
    addNumbers(command, "--depth-range", 2,
               "trusted: nearest and farthest z in the left camera's frame; without it, the settings'",
               [&known](const auto& depths) {
                   known.depth = {depths[0], depths[1]};
               })
        ->option_text("NEAR,FAR");
    command->add_option(
        "--sure", known.sure,
        fmt::format("trusted: least probability of a pair that becomes a point; {} without it", MatchOptions{}.sure));
    command->add_option("--object", options.object,
                        "trusted: CSV of markers whose places on the object are known: x, y, z, sigma and perhaps "
                        "radius, or points that stereo measured");
}

/// The options of every command that searches the images of both eyes.
void addStereoSearch(CLI::App* command, std::string& settings, std::optional<Path>& path,
                     std::optional<GreyRange>& range, bool& invert) {
    static const std::map<std::string, Path> kPaths = {
        {"simple", Path::simple}, {"radial", Path::radial}, {"complex", Path::complex}};
    command->add_option("--settings", settings, "YAML file with every setting that the path reads")->required();
    command
        ->add_option("--path", path,
                     "simple (sub-pixel contours), radial or complex (edge-based); without it, the settings decide")
        ->transform(CLI::CheckedTransformer(kPaths))
        ->option_text("simple|radial|complex");
    addRange(command, range);
    command->add_flag("--invert", invert, "find dark markers: 255 - pixel");
}

}  // namespace

void addExplainStereo(CLI::App& app, ExplainStereoOptions& options) {
    CLI::App* command =
        app.add_subcommand("explain-stereo", "Tell of every marker of an exposure why it has no partner");
    command->add_option("--calibration", options.calibration, "YAML file of the camera pair (see docs/calibration.md)")
        ->required();
    command->add_option("--left", options.left, "image of the left eye")->required();
    command->add_option("--right", options.right, "that of the right eye")->required();
    addStereoSearch(command, options.settings, options.path, options.range, options.invert);
    addMatching(command, options.match);
    addRefine(command, options.refine);
    command->add_option("--out", options.out, "draw the markers")->option_text("FILE.png");
    command->add_option("--csv", options.csv, "write all markers as a table");
    command->footer(std::string(kExplainStereoNotes) + kTrustNotes + kExplainTrustNotes + kImageNotes + kFileNotes);
}

void addMatch(CLI::App& app, ListMatchOptions& options) {
    CLI::App* command =
        app.add_subcommand("match", "Pair two lists of markers by epipolar lines and place them in space");
    command->add_option("LEFT", options.left, "markers of the left eye, CSV")->required();
    command->add_option("RIGHT", options.right, "those of the right eye")->required();
    command->add_option("--calibration", options.calibration, "YAML file of the camera pair (see docs/calibration.md)")
        ->required();
    command->add_option("--fundamental", options.fundamental,
                        "YAML file with a 3 by 3 matrix F, x'^T F x = 0 for x left and x' right; without it, that of "
                        "the calibration");
    static const std::map<std::string, Pixels> kPixels = {
        {"undistorted", Pixels::undistorted}, {"distorted", Pixels::distorted}, {"rectified", Pixels::rectified}};
    command->add_option("--pixels", options.pixels, "what x and y are in tables that have no column 'pixels'")
        ->transform(CLI::CheckedTransformer(kPixels))
        ->option_text("undistorted|distorted|rectified");
    command->add_option("--csv", options.csv, "write the pairs as a table")->required();
    command->footer(std::string(kMatchNotes) + kFileNotes);
}

void addStereo(CLI::App& app, StereoOptions& options) {
    CLI::App* command = app.add_subcommand("stereo", "Measure markers in space from the two images of each exposure");
    command->add_option("--calibration", options.calibration, "YAML file of the camera pair (see docs/calibration.md)")
        ->required();
    command->add_option("--left", options.left, "images of the left eye")->required();
    command->add_option("--right", options.right, "those of the right eye")->required();
    addStereoSearch(command, options.settings, options.path, options.range, options.invert);
    command->add_option("--jobs", options.jobs, "exposures at a time; without it, one for each hardware thread")
        ->check(CLI::Range(1, 1024));
    command
        ->add_option("--min-share", options.minShare,
                     "share of the poorer eye's markers that must be paired, or the exposure counts as failed; 0: any")
        ->capture_default_str();
    addRefine(command, options.refine);
    addMatching(command, options.match);
    command
        ->add_option("--write-moved", options.moved,
                     "trusted: write the calibration with R and T as the exposures show them, if the rig has moved")
        ->option_text("FILE");
    command->add_option("--csv", options.csv, "write the markers as a table");
    command->add_option("--ply", options.ply, "write the points as a cloud");
    command->add_option("--json", options.json, "write everything, failures included");
    command->add_option("--overlay", options.overlay, "folder for pictures of both eyes and of the points")
        ->option_text("DIR");
    command->footer(std::string(kStereoNotes) + kTrustNotes + kStereoTrustNotes + kImageNotes + kFileNotes);
}

}  // namespace kestrune::measure
