// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include "commands.h"
#include "csv.h"
#include "depth_points.h"
#include "files/inputs.h"
#include "files/output_file.h"
#include "image_file.h"
#include "interrupt.h"
#include "markers.h"
#include "range_of_run.h"

namespace kestrune::measure {

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
    requireUndistorted(options.settings, options.calibration, settings, camera);
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
        cv::Mat depth = asDepth(decodeImage(options.depth), options.depth, options.depthScale, image.size());
        if (watch.asked()) return watch.exitCode(kPartlyFailed, "nothing is done");
        CircleMarkerExtractor extractor;
        const std::vector<Marker> markers = findMarkers(extractor, image, options.eye, camera, settings);
        const std::vector<DepthPoint> points = placeByDepth(extractor, markers, depth, camera.matrix);
        for (const DepthPoint& p : points) {
            csv.stream() << p.id;
            for (const double value : {p.pixel.x, p.pixel.y, p.point[0], p.point[1], p.point[2]})
                csv.stream() << ',' << csvField(value);
            csv.stream() << '\n';
        }
        csv.commitTable();
        say(fmt::format("{}: {} markers, {} with a depth, {} dropped\n", options.image, markers.size(), points.size(),
                        markers.size() - points.size()));
    } catch (const OutputError&) {
        throw;
    } catch (const std::exception& error) {
        complain(plainText(error, options.image));
        return kPartlyFailed;
    }
    return watch.exitCode(kSuccess, "but all is done");
}

}  // namespace kestrune::measure
