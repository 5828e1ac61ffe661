// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <kestrune/MarkerMetrology.h>
#include "centre_match.h"
#include "commands.h"
#include "corner_list.h"
#include "csv.h"
#include "files/inputs.h"
#include "files/output_file.h"
#include "interrupt.h"

namespace kestrune::measure {
namespace {

using HostCamera = Camera_<double, 2, 2>;

/// The markers of one eye, in pixels that the epipolar lines are drawn in.
std::vector<Corner> loadList(const std::string& file, const ListMatchOptions& options, const HostCamera& camera) {
    CornerList list = readCorners(file, options.pixels);
    if (list.pixels == Pixels::rectified)
        throw InputError(file, "is of rectified pixels; match needs those of the cameras, without distortion");
    if (list.pixels == Pixels::distorted && hasDistortion(asMatrices(camera).distortion))
        throw InputError(file,
                         fmt::format("is of distorted pixels, and {} has distortion; match needs markers of extract "
                                     "with skipUndistort false, or for images that are free of distortion already "
                                     "a calibration that has none",
                                     options.calibration));
    return std::move(list.corners);
}

cv::Mat loadFundamental(const std::string& file, CircleMarkerExtractor& rig) {
    if (file.empty()) return fundamentalOf(rig);
    cv::Mat fundamental;
    const cv::FileStorage storage = parseYaml(file, readText(file));
    try {
        if (storage["F"].isMap()) storage["F"] >> fundamental;
    } catch (const cv::Exception& error) {
        throw InputError(file, "field 'F': " + plainText(error));
    }
    if (fundamental.size() != cv::Size(3, 3) || fundamental.channels() != 1)
        throw InputError(file, "field 'F' is missing or is no matrix of 3 by 3");
    fundamental.convertTo(fundamental, CV_64F);
    if (!cv::checkRange(fundamental) || cv::countNonZero(fundamental) == 0)
        throw InputError(file, "field 'F' is all 0 or holds a value that is no finite number");
    return fundamental;
}

}  // namespace

int runMatch(const ListMatchOptions& options) {
    const InterruptWatch watch;
    RunFiles files;
    files.reads("LEFT", options.left);
    files.reads("RIGHT", options.right);
    files.reads("--calibration", options.calibration);
    files.reads("--fundamental", options.fundamental);
    files.writesTable("--csv", options.csv);
    files.check();
    const Rig calibration = readRig(options.calibration);
    std::vector<Corner> left = loadList(options.left, options, calibration.cameras[0]);
    std::vector<Corner> right = loadList(options.right, options, calibration.cameras[1]);
    CircleMarkerExtractor rig = rigOfLists(calibration, options.calibration);
    const cv::Mat fundamental = loadFundamental(options.fundamental, rig);
    OutputFile csv;
    csv.open(options.csv);
    csv.stream() << "pair,left,right,leftX,leftY,rightX,rightY,X,Y,Z\n";
    csv.flush();
    if (watch.asked()) return watch.exitCode(kPartlyFailed, "nothing is done");
    const std::vector<CentrePair> pairs = matchCentres(rig, fundamental, left, right);
    for (std::size_t k = 0; k < pairs.size(); ++k) {
        const CentrePair& pair = pairs[k];
        csv.stream() << k << ',' << left[static_cast<std::size_t>(pair.place[0])].matchIndex << ','
                     << right[static_cast<std::size_t>(pair.place[1])].matchIndex;
        for (const double value : {pair.pixel[0].x, pair.pixel[0].y, pair.pixel[1].x, pair.pixel[1].y, pair.point[0],
                                   pair.point[1], pair.point[2]})
            csv.stream() << ',' << csvField(value);
        csv.stream() << '\n';
    }
    csv.commitTable();
    say(fmt::format("{} pairs of {} left and {} right markers\n", pairs.size(), left.size(), right.size()));
    return watch.exitCode(pairs.empty() ? kPartlyFailed : kSuccess, "but all is done");
}

}  // namespace kestrune::measure
