// SPDX-License-Identifier: Apache-2.0
//
// kestrune-measure: the program. Reads images and settings, calls the library, writes tables and pictures.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <map>
#include <opencv2/core/utils/logger.hpp>

#include "commands.h"
#include "inputs.h"
#include "kestrune/MarkerExtractor/version.h"
#include "output_file.h"

namespace kestrune::host {
namespace {

// The scene needs room for a few markers, and the renderer memory for its accumulators.
constexpr int kSmallestSide = 240, kLargestSide = 8192;

// Below the notes of every command that writes.
constexpr const char* kFileNotes =
    "\nFiles: no output may be an input or another output. Each is written beside its place, as FILE.*.part, and takes "
    "the\n"
    "place when it is whole: an earlier one survives what fails. Nothing is written when no image could be read, and a "
    "write\n"
    "that fails ends the run. Ctrl-C or SIGTERM ends it after what is under way and writes what is done (exit code 130 "
    "or\n"
    "143); a CSV that lacks images then has FILE.incomplete beside it until it is written in full, JSON says "
    "complete:\n"
    "false, PLY has a comment. A second one kills.";

// And of those that search images.
constexpr const char* kImageNotes =
    "\nImages: JPEG, PNG, TIFF, BMP and what else OpenCV reads; one that is damaged or ends early fails. Those of 8 "
    "bits "
    "are\n"
    "taken as they are. Others are mapped to 8 bits, all of a run by one --range: (value - LOW) * 255 / (HIGH - LOW), "
    "to the\n"
    "nearest whole number, halves to the even one, 0 below and 255 above; what is no finite number counts as LOW. "
    "Without\n"
    "--range, the images are read twice. --invert comes after.";

constexpr const char* kExtractNotes =
    "CSV: one row a marker; x, y, half axes and fitError in px, angle of the major axis in degrees, area in px^2 (the\n"
    "product of the full axes; with path fast the contour's area); a field that the path does not measure is empty.\n"
    "Path hand takes strong edges only, with thresholds of its own, and ids are places in its list. Paths fast and "
    "hand\n"
    "measure in the image as it is.\n"
    "Path complex finds bright and dark markers at once and tells them apart: polarity is bright or dark, as the "
    "image\n"
    "is searched, so after --invert. Overlays draw dark ones dashed.\n"
    "Coordinates are pixels of the full image, (0, 0) being the centre of the top left one. Path simple with scale "
    "above 1\n"
    "measures in the reduced image: its results are mapped back by (x + 0.5) s - 0.5 with s = full / reduced size.\n"
    "With skipUndistort false in the settings, --calibration is needed, coordinates are free of lens distortion, and "
    "the\n"
    "overlay is drawn on the undistorted image. An image of another size than the calibration's is refused.\n"
    "The column pixels says which pixels a row is in: undistorted, distorted (as the image was taken) or rectified "
    "(so\n"
    "taken, with cornersRectified).\n"
    "Exit code: 0, 1 if an image could not be handled (the others are), 2 if nothing was begun.";

void addRange(CLI::App* command, std::optional<GreyRange>& range) {
    command
        ->add_option_function<std::string>(
            "--range",
            [&range](const std::string& text) {
                range = parseRange(text);
                if (!range)
                    throw CLI::ValidationError("--range", text + " is no LOW:HIGH of two numbers in that order");
            },
            "values of images of more than 8 bits that become 0 and 255; without it, those of the data of all images")
        ->option_text("LOW:HIGH");
}

/// The options of every command that searches the images of one eye.
void addSearch(CLI::App* command, SearchOptions& options) {
    static const std::map<std::string, Path> kPaths = {{"simple", Path::simple},
                                                       {"radial", Path::radial},
                                                       {"fast", Path::fast},
                                                       {"complex", Path::complex},
                                                       {"hand", Path::hand}};
    static const std::map<std::string, int> kEyes = {{"left", 0}, {"right", 1}};
    command->add_option("--settings", options.settings, "YAML file with every setting")->required();
    command
        ->add_option(
            "--path", options.path,
            "simple (sub-pixel contours), radial, fast, complex (edge-based) or hand (strong edges); without it, "
            "the settings decide")
        ->transform(CLI::CheckedTransformer(kPaths))
        ->option_text("simple|radial|fast|complex|hand");
    addRange(command, options.range);
    command->add_flag("--invert", options.invert, "find dark markers: 255 - pixel");
    command->add_option("--eye", options.eye, "whose calibration counts; left without it")
        ->transform(CLI::CheckedTransformer(kEyes))
        ->option_text("left|right");
    command->add_option("--calibration", options.calibration, "YAML file with M1, D1 (left) and M2, D2 (right)");
}

void addExtract(CLI::App& app, ExtractOptions& options) {
    CLI::App* command = app.add_subcommand("extract", "Find the markers in images");
    command->add_option("IMAGE", options.images, "images, grey or colour")->required();
    addSearch(command, options);
    command->add_option("--csv", options.csv, "write the markers as a table");
    command
        ->add_option(
            "--overlay", options.overlay,
            "draw the markers; of several images, as FILE-<image>.png, or FILE-<image>-overlay.png where one has that "
            "name")
        ->option_text("FILE.png");
    command->footer(std::string(kExtractNotes) + kImageNotes + kFileNotes);
}

constexpr const char* kExplainNotes =
    "Lists every candidate that the front end of the path delivered: place and size of its contour in pixels of the "
    "full\n"
    "image as it was taken, and either the marker that it is, under its id as extract gives it, or the gate that "
    "refused\n"
    "it, the value measured and what the settings want. Values are those of the gate: path simple with scale above 1\n"
    "measures in the reduced image. Of a gate that refused more than 200, the table and the labels of the picture "
    "tell\n"
    "only the count; the CSV lists all, with the last fitted ellipse where there is one, in the pixels of extract.\n"
    "Picture: markers green with their id, all else in the colour of its gate with # and its number in the table.\n"
    "Below the candidates: the blobs, contours and edges that the front end dropped before, by cause, with the range "
    "of\n"
    "the values met and the settings that dropped them (in the CSV one by one, without a number; in the picture grey "
    "boxes,\n"
    "where a cause has no more than 200); the settings that would add markers, and what else to try.\n"
    "Exit code: 0, 1 if the image could not be handled, 2 if nothing was begun.";

void addExplain(CLI::App& app, ExplainOptions& options) {
    CLI::App* command = app.add_subcommand("explain", "Tell of every candidate why it is a marker or not");
    command->add_option("IMAGE", options.image, "image, grey or colour")->required();
    addSearch(command, options);
    command->add_option("--out", options.out, "draw the candidates")->option_text("FILE.png");
    command->add_option("--csv", options.csv, "write all candidates as a table");
    command->footer(std::string(kExplainNotes) + kImageNotes + kFileNotes);
}

/// The options of every command that searches the images of both eyes.
void addStereoSearch(CLI::App* command, std::string& settings, std::optional<Path>& path,
                     std::optional<GreyRange>& range, bool& invert) {
    static const std::map<std::string, Path> kPaths = {
        {"simple", Path::simple}, {"radial", Path::radial}, {"complex", Path::complex}};
    command->add_option("--settings", settings, "YAML file with every setting")->required();
    command
        ->add_option("--path", path,
                     "simple (sub-pixel contours), radial or complex (edge-based); without it, the settings decide")
        ->transform(CLI::CheckedTransformer(kPaths))
        ->option_text("simple|radial|complex");
    addRange(command, range);
    command->add_flag("--invert", invert, "find dark markers: 255 - pixel");
}

constexpr const char* kExplainStereoNotes =
    "Lists every marker of both eyes that is in no pair: its number and place (undistorted pixels), its candidate in "
    "the\n"
    "other eye that got furthest in the matching, the test that ended this candidate, the value measured and what the\n"
    "settings want. Tests, as far as the path takes them, in their order: outline, rows, area, rim rows, depth, "
    "circle,\n"
    "radius, spread, radius score, radius ratio, score, edge length, edge direction, taken, ambiguous. A marker with "
    "no\n"
    "other in its rows shows the one that is nearest in row. Below it, how many markers each test ended and what most\n"
    "of them measured. Of a test that ended more than 200 only the count is told; the CSV lists all markers.\n"
    "Picture: both eyes side by side, pairs green with their numbers, others in the colour of their test.\n"
    "Exit code: 0, 1 if the exposure could not be handled, 2 if nothing was begun.";

void addExplainStereo(CLI::App& app, ExplainStereoOptions& options) {
    CLI::App* command =
        app.add_subcommand("explain-stereo", "Tell of every marker of an exposure why it has no partner");
    command->add_option("--calibration", options.calibration, "YAML file of the camera pair (see docs/calibration.md)")
        ->required();
    command->add_option("--left", options.left, "image of the left eye")->required();
    command->add_option("--right", options.right, "that of the right eye")->required();
    addStereoSearch(command, options.settings, options.path, options.range, options.invert);
    command->add_option("--out", options.out, "draw the markers")->option_text("FILE.png");
    command->add_option("--csv", options.csv, "write all markers as a table");
    command->footer(std::string(kExplainStereoNotes) + kImageNotes + kFileNotes);
}

constexpr const char* kDepthNotes =
    "Depth is interpolated between the four pixels about each centre, and the point is the one at that depth behind "
    "the\n"
    "centre, in the camera's frame (x right, y down, z away). DEPTH is of the size of IMAGE and in the same pixels, "
    "those\n"
    "of the camera matrix without lens distortion: with skipUndistort false the centres are, though IMAGE is not.\n"
    "Settings that leave distortion in the centres are refused, unless the calibration has none.\n"
    "32-bit float TIFF or EXR, or 16-bit PNG; 0, negative and not finite values are no depth. A marker is dropped "
    "where\n"
    "one of the four pixels has none or is missing.\n"
    "CSV: one row for each marker that is left, with its id as extract gives it.\n"
    "Exit code: 0, 1 if an image could not be handled, 2 if nothing was begun.";

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

constexpr const char* kMatchNotes =
    "Lists: CSV with a header row that names x and y, as extract writes them for one image each; ids are those of the\n"
    "column id or, without one, row numbers from 0. Coordinates are pixels without lens distortion (extract with\n"
    "skipUndistort false), as the column pixels or --pixels must say: 'distorted' will do where the calibration has\n"
    "no distortion, 'rectified' never.\n"
    "A marker's partner lies within 1.5 px of its epipolar line. Those that are each other's only candidate stand "
    "first\n"
    "in the result; the others are settled by their distances to these. Any pair can be wrong, and of every two "
    "exposures\n"
    "about one has such a pair: drop pairs that use a marker twice or whose Z the object cannot have.\n"
    "CSV: one row a pair, with ids, pixels and the point in the left camera's frame (x right, y down, z away), in the\n"
    "unit of the calibration's positions.\n"
    "Exit code: 0 if there are pairs, 1 if there are none, 2 if nothing was begun.";

void addMatch(CLI::App& app, MatchOptions& options) {
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

constexpr const char* kStereoNotes =
    "Each exposure is a left and a right image; the two lists are paired in order. Distortion is always taken out, "
    "unless\n"
    "the settings say cornersRectified. Points stand in the left camera's frame (x right, y down, z away; "
    "outputRectified\n"
    "leaves them in the rectified one), in the unit of the calibration's positions. Paths radial and complex match "
    "the\n"
    "circles in space that the ellipses imply and know normals and radii; path simple matches by size and by the\n"
    "constellation. Polarities are not matched: with path complex they are told for the left eye.\n"
    "Every exposure tells its markers of each eye, pairs and unmatched, every marker its row residual (left minus "
    "right\n"
    "row of the rectified eyes) and the distance of its reprojected point from the pixels of each eye, px.\n"
    "With fewer pairs than --min-share asks for, an exposure counts as failed: exchanged eyes and the calibration of\n"
    "another rig leave a few pairs by chance. The error names the tests that ended most markers; explain-stereo lists "
    "all.\n"
    "A warning tells of pairs that are far off their rows, as wrong partners in a dense pattern are.\n"
    "CSV: one row a marker, in the order of the exposures; a failed one has one row with its counts and the error.\n"
    "JSON: one record an exposure, failed ones with the error, and their pairs as rejected in place of markers.\n"
    "PLY: all points, with the exposure's number from 0. Overlay: NAME.png and NAME-3d.png, NAME as the left image's, "
    "or\n"
    "NAME-overlay where an image of the run has such a name.\n"
    "Exit code: 0 if every exposure gave points, 1 if one did not, 2 if nothing was begun.";

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
    command->add_option("--csv", options.csv, "write the markers as a table");
    command->add_option("--ply", options.ply, "write the points as a cloud");
    command->add_option("--json", options.json, "write everything, failures included");
    command->add_option("--overlay", options.overlay, "folder for pictures of both eyes and of the points")
        ->option_text("DIR");
    command->footer(std::string(kStereoNotes) + kImageNotes + kFileNotes);
}

void addDemo(CLI::App& app, DemoOptions& options) {
    CLI::App* command =
        app.add_subcommand("demo", "Render exposures, find and measure their markers, compare with the truth");
    command->add_option("--out", options.out, "folder for the pictures")->capture_default_str();
    command
        ->add_option_function<std::string>(
            "--size",
            [&options](const std::string& text) {
                char rest = 0;
                int width = 0, height = 0;
                const bool read = std::sscanf(text.c_str(), "%dx%d%c", &width, &height, &rest) == 2;
                if (!read || std::min(width, height) < kSmallestSide || std::max(width, height) > kLargestSide) {
                    throw CLI::ValidationError(
                        "--size", fmt::format("{} is no WxH of {} to {} px", text, kSmallestSide, kLargestSide));
                }
                options.size = {width, height};
            },
            "of each image, px")
        ->option_text("WxH [1632x1360, stereo part 2448x2048]");
    command->add_option("--markers", options.markers, "at most so many")
        ->check(CLI::Range(1, 2000))
        ->capture_default_str();
    command->add_option("--seed", options.seed, "of places and noise")->capture_default_str();
    command->add_option("--settings", options.settings, "folder of the ready settings");
    command->footer(
        std::string("Exit code: 0 if every path found and paired every marker and nothing else, otherwise 1.") +
        kFileNotes);
}

int run(int argc, char** argv) {
    CLI::App app("Finds small flat circular markers in camera images and measures them.", "kestrune-measure");
    app.require_subcommand(1);
    app.set_version_flag("--version",
                         fmt::format("kestrune-measure {}.{}.{}", KESTRUNE_MARKEREXTRACTOR_VERSION_MAJOR,
                                     KESTRUNE_MARKEREXTRACTOR_VERSION_MINOR, KESTRUNE_MARKEREXTRACTOR_VERSION_PATCH));
    ExtractOptions extract;
    addExtract(app, extract);
    ExplainOptions explain;
    addExplain(app, explain);
    ExplainStereoOptions explainStereo;
    addExplainStereo(app, explainStereo);
    DepthOptions depth;
    addDepth(app, depth);
    MatchOptions match;
    addMatch(app, match);
    StereoOptions stereo;
    addStereo(app, stereo);
    DemoOptions demo;
    addDemo(app, demo);
    std::vector<std::string> files;
    app.add_subcommand("settings", "List the fields of a settings file, or check files")
        ->add_option("FILE", files, "settings files to check; without one, the fields are listed");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kSuccess : kWrongInput;
    }
    if (app.got_subcommand("extract")) return runExtract(extract);
    if (app.got_subcommand("explain-stereo")) return runExplainStereo(explainStereo);
    if (app.got_subcommand("explain")) return runExplain(explain);
    if (app.got_subcommand("depth")) return runDepth(depth);
    if (app.got_subcommand("match")) return runMatch(match);
    if (app.got_subcommand("stereo")) return runStereo(stereo);
    if (app.got_subcommand("demo")) return runDemo(demo);
    return runSettings(files);
}

}  // namespace

int runSettings(const std::vector<std::string>& files) {
    if (files.empty()) say(describeSettings());
    int code = kSuccess;
    for (const std::string& file : files) {
        try {
            say(fmt::format("{}: good for path {}\n", file, nameOf(loadSettings(file, {}).path)));
        } catch (const std::runtime_error& error) {
            complain(error.what());
            code = kWrongInput;
        }
    }
    return code;
}

}  // namespace kestrune::host

int main(int argc, char** argv) {
    // Its reports about unreadable files would stand beside ours.
    cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
    // No file that is opened later may get the number of a standard stream that the caller closed, and its lines.
    int stream = 0;
    while (stream >= 0 && stream <= STDERR_FILENO) stream = ::open("/dev/null", O_RDWR);  // NOLINT(*-vararg)
    ::close(stream);
    // A limit on file sizes and a reader that left are told as what they are to a write: an error.
    std::signal(SIGXFSZ, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
    using namespace kestrune::host;
    int code = kWrongInput;
    try {
        code = run(argc, argv);
    } catch (const OutputError& error) {
        complain(error.what());
        code = kPartlyFailed;
    } catch (const std::exception& error) {
        complain(plainText(error));
    }
    return saidAll() || code != kSuccess ? code : kPartlyFailed;
}
