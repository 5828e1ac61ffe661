// SPDX-License-Identifier: Apache-2.0
#include "centre_match.h"

#include <utility>

#include "files/inputs.h"

namespace kestrune::measure {

CircleMarkerExtractor rigOfLists(Rig rig, const std::string& origin) {
    if (rig.size.empty()) rig.size = {1, 1};
    try {
        return calibratedExtractor(rig);
    } catch (const cv::Exception& error) {
        throw InputError(origin, plainText(error));
    }
}

cv::Mat fundamentalOf(CircleMarkerExtractor& rig) {
    cv::Mat fundamental;
    rig.CalcFoundationMat(rig.rotation, rig.translation, rig.leftIntrinsic, rig.rightIntrinsic, fundamental);
    return fundamental;
}

std::vector<CentrePair> matchCentres(const CircleMarkerExtractor& rig, const cv::Mat& fundamental,
                                     std::vector<Corner>& left, std::vector<Corner>& right) {
    cv::Mat relativePose;
    cv::hconcat(rig.rotation, rig.translation, relativePose);
    std::vector<Point3_<double>> points;
    const auto pairs =
        getStereoMarker3dPoints(left, right, relativePose, rig.leftIntrinsic, rig.rightIntrinsic, fundamental, points);
    std::vector<CentrePair> result;
    result.reserve(pairs.size());
    for (std::size_t k = 0; k < pairs.size(); ++k) {
        const auto& [i, j] = pairs[k];
        const Corner& a = left[static_cast<std::size_t>(i)];
        const Corner& b = right[static_cast<std::size_t>(j)];
        result.push_back({{i, j}, {{{a.x, a.y}, {b.x, b.y}}}, {points[k].x, points[k].y, points[k].z}});
    }
    return result;
}

}  // namespace kestrune::measure
