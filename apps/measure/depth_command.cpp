// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include "commands.h"
#include "csv.h"
#include "files/inputs.h"
#include "files/output_file.h"
#include "image_file.h"
#include "interrupt.h"
#include "markers.h"
#include "range_of_run.h"

namespace kestrune::measure {
namespace {

/// The depth image as the library takes it: `CV_32FC1`, 0 where nothing was measured. Cameras say that in other ways as
/// well, and any other value would count as a depth.
cv::Mat readDepth(const std::string& file, double scale, cv::Size size) {
    cv::Mat depth = decodeImage(file);
    if (depth.type() != CV_32FC1 && depth.type() != CV_16UC1)
        throw InputError(file, fmt::format("is of type {}; a depth image is 32-bit float or 16-bit, of one channel",
                                           cv::typeToString(depth.type())));
    if (depth.size() != size)
        throw InputError(
            file, fmt::format("is {} by {}, the image {} by {}", depth.cols, depth.rows, size.width, size.height));
    depth.convertTo(depth, CV_32F, scale);
    for (auto it = depth.begin<float>(); it != depth.end<float>(); ++it)
        if (!(*it > 0) || std::isinf(*it)) *it = 0;
    return depth;
}

/// The markers' centres, with their ids in `matchIndex`, which no operation touches.
std::vector<Corner> cornersOf(const std::vector<Marker>& markers) {
    std::vector<Corner> corners(markers.size());
    for (std::size_t i = 0; i < markers.size(); ++i) {
        corners[i].matchIndex = markers[i].id;
        corners[i].x = markers[i].centre.x;
        corners[i].y = markers[i].centre.y;
    }
    return corners;
}

/// The centres are both looked up in the depth image and sent out as rays of the camera matrix, which holds where
/// nothing is left of the lens in them.
void requireUndistorted(const DepthOptions& options, const Settings& settings, const Camera& camera) {
    if (settings.configs.cornersRectified && hasDistortion(camera.distortion))
        throw InputError(options.settings, "field 'cornersRectified' true, but " + options.calibration +
                                               " has distortion: it is not that of a rectified image");
    if (deliversUndistorted(settings) || !hasDistortion(camera.distortion)) return;
    const std::string why =
        canUndistort(settings.path)
            ? "field 'skipUndistort' true leaves the lens in the pixels; depth needs false"
            : fmt::format("path {} leaves the lens in the pixels; depth needs another", nameOf(settings.path));
    throw InputError(options.settings, why +
                                           ", or for an image that is free of distortion already a calibration that "
                                           "has none");
}

}  // namespace

int runDepth(const DepthOptions& options) {
    const InterruptWatch watch;
    RunFiles files;
    files.reads("IMAGE", options.image);
    files.reads("DEPTH", options.depth);
    options.addTo(files);
    files.writesTable("--csv", options.csv);
    files.check();
    const Settings settings = readSettings(options.settings, options.path);
    const Camera camera = readCameras(options.calibration, options.eye)[static_cast<std::size_t>(options.eye)];
    requireUndistorted(options, settings, camera);
    OutputFile csv;
    csv.open(options.csv);
    csv.stream() << "id,x,y,X,Y,Z\n";
    csv.flush();
    const std::optional<GreyRange> range = rangeOfRun({options.image}, options.range, watch.asked());
    try {
        const cv::Mat image = readImage(options.image, options.invert, range);
        const std::string assumed =
            CalibratedSize(options.calibration, camera.size, true).require(options.image, image.size());
        if (!assumed.empty()) complain(assumed);
        cv::Mat depth = readDepth(options.depth, options.depthScale, image.size());
        if (watch.asked()) return watch.exitCode(kPartlyFailed, "nothing is done");
        CircleMarkerExtractor extractor;
        std::vector<Corner> corners = cornersOf(findMarkers(extractor, image, options.eye, camera, settings));
        const std::size_t found = corners.size();
        extractor.DetectFeaturePointsAndInterpolate_binocular(corners, depth, camera.matrix);
        for (const Corner& c : corners) {
            csv.stream() << c.matchIndex;
            for (const double value : {c.x, c.y, c.position[0], c.position[1], c.position[2]})
                csv.stream() << ',' << csvField(value);
            csv.stream() << '\n';
        }
        csv.commitTable();
        say(fmt::format("{}: {} markers, {} with a depth, {} dropped\n", options.image, found, corners.size(),
                        found - corners.size()));
    } catch (const OutputError&) {
        throw;
    } catch (const std::exception& error) {
        complain(plainText(error, options.image));
        return kPartlyFailed;
    }
    return watch.exitCode(kSuccess, "but all is done");
}

}  // namespace kestrune::measure
