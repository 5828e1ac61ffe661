// SPDX-License-Identifier: Apache-2.0
#include "stereo_output.h"

#include <fmt/format.h>

#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "csv.h"
#include "trust_explanation.h"
#include "trusted_match.h"

namespace kestrune::measure {
namespace {

using nlohmann::json;

/// Fields of a row that tell of one marker, after the exposure's name.
constexpr int kMarkerFields = 15;
/// And of those that tell of its refinement, before the numbers.
constexpr std::size_t kEstimateTexts = 3;

/// File names may hold any bytes; what is no UTF-8 is replaced.
std::string dump(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

json listOf(const cv::Point2d& p) {
    return {p.x, p.y};
}

json listOf(const cv::Vec3d& v) {
    return {v[0], v[1], v[2]};
}

json listOf(const cv::Matx33d& m) {
    return {listOf(cv::Vec3d(m(0, 0), m(0, 1), m(0, 2))), listOf(cv::Vec3d(m(1, 0), m(1, 1), m(1, 2))),
            listOf(cv::Vec3d(m(2, 0), m(2, 1), m(2, 2)))};
}

json cuesOf(const PairCues& cues) {
    json list;
    for (const CueColumn& cue : cueColumns()) list[cue.name] = cues.*cue.value;
    return list;
}

/// A pair in doubt, or one of its rivals.
json candidateOf(const StereoMarker& m) {
    return {{"numbers", m.number},
            {"left", listOf(m.pixel[0])},
            {"right", listOf(m.pixel[1])},
            {"point", listOf(m.point)},
            {"normal", listOf(m.normal)},
            {"radius", m.radius},
            {"probability", m.trust->probability}};
}

/// What a match by probability tells of the exposure.
void addTrust(json& record, const TrustedResult& trusted) {
    const StereoMatch& match = trusted.match;
    record["objection"] = nameOf(match.objection);
    record["reason"] = match.reason;
    if (match.objection == MatchObjection::patternRepeats) record["repeat"] = match.repeat;
    record["scales"] = {{"centre", match.centreScale}, {"shape", match.shapeScale}};
    if (match.moved.found)
        record["moved"] = {{"size", match.moved.size},
                           {"angle", match.moved.angle},
                           {"rotation", listOf(match.moved.rotation)},
                           {"translation", listOf(match.moved.translation)}};
    json pairs = json::array();
    for (const AmbiguousPair& pair : trusted.ambiguous) {
        json candidate = candidateOf(pair.marker);
        candidate["cues"] = cuesOf(pair.marker.trust->cues);
        candidate["decider"] = nameOf(pair.decider);
        candidate["rivals"] = json::array();
        for (const StereoMarker& rival : pair.rivals) candidate["rivals"].push_back(candidateOf(rival));
        pairs.push_back(std::move(candidate));
    }
    record["ambiguous"] = std::move(pairs);
}

/// Both eyes' ellipses with the columns of the tables of markers, and the covariances of the disc where there is one.
void addEstimate(json& marker, const PairEstimate& pair) {
    json eyes = json::array();
    for (std::size_t k = 0; k < 2; ++k) {
        const MarkerEstimate& e = pair.eyes[k];
        json eye = {{"status", statusOf(pair, k)},
                    {"centre", listOf(e.centre)},
                    {"halfAxes", {e.majorHalfAxis, e.minorHalfAxis}},
                    {"angle", degreesOf(e.angle)}};
        for (const EstimateColumn& column : estimateColumns()) eye[column.name] = column.valueOf(e);
        eyes.push_back(std::move(eye));
    }
    marker["eyes"] = std::move(eyes);
    marker["pointSource"] = pointSourceOf(pair);
    if (!pair.disc.found) return;
    for (const PairColumn& column : pairColumns()) marker[column.name] = column.valueOf(pair);
    marker["covariance"] = listOf(pair.disc.centreCovariance());
    marker["normalCovariance"] = listOf(pair.disc.normalCovariance());
    if (pair.disc.calibrationCovariance != cv::Matx33d::zeros())
        marker["calibrationCovariance"] = listOf(pair.disc.calibrationCovariance);
}

}  // namespace

std::string ambiguousTableOf(const std::string& csv) {
    const std::filesystem::path path(csv);
    if (csv.empty() || (std::filesystem::exists(path) && !std::filesystem::is_regular_file(path))) return {};
    return (path.parent_path() / (path.stem().string() + "-ambiguous" + path.extension().string())).string();
}

StereoOutput::StereoOutput(const StereoFiles& files, const StereoRun& run, const StereoDetail& detail)
    : detail_(detail) {
    csv_.open(files.csv);
    ply_.open(files.ply);
    json_.open(files.json);
    ambiguous_.open(files.ambiguous);
    if (csv_.isOpen()) {
        csv_.stream() << "exposure,pair,leftX,leftY,rightX,rightY,X,Y,Z,normalX,normalY,normalZ,radius,"
                         "rowResidual,leftResidual,rightResidual,leftMarkers,rightMarkers,pairs,leftUnmatched,"
                         "rightUnmatched,error";
        if (detail_.estimates) {
            csv_.stream() << ",leftStatus,rightStatus,pointSource";
            for (const PairColumn& column : pairColumns()) csv_.stream() << ',' << column.name;
        }
        csv_.stream() << (detail_.trusted ? ",probability\n" : "\n");
        csv_.flush();
    }
    if (ambiguous_.isOpen()) {
        ambiguous_.stream() << "exposure,pair," << pairRowHeader() << '\n';
        ambiguous_.flush();
    }
    if (json_.isOpen()) {
        json_.stream() << "{\n";
        for (const auto& [key, value] : {std::pair("calibration", run.calibration),
                                         {"settings", run.settings},
                                         {"path", run.path},
                                         {"frame", run.frame}}) {
            json_.stream() << dump(key) << ": " << dump(value) << ",\n";
        }
        json_.stream() << "\"range\": " << dump(run.range ? json{run.range->low, run.range->high} : json()) << ",\n";
        json_.stream() << "\"exposures\": [";
        json_.flush();
    }
}

void StereoOutput::add(const ExposureNames& names, const StereoResult& result) {
    if (csv_.isOpen()) addRows(names.name, result);
    if (ambiguous_.isOpen()) {
        writeAmbiguousRows(ambiguous_.stream(), csvField(names.name) + ",", result);
        ambiguous_.flush();
    }
    if (json_.isOpen()) addRecord(names, result);
    if (ply_.isOpen()) addVertices(result);
    ++exposures_;
}

void StereoOutput::addRows(const std::string& exposure, const StereoResult& result) {
    const std::string counts =
        fmt::format(",{},{},{},{},{},{}", result.found[0], result.found[1], result.markers.size(),
                    result.unmatched[0].size(), result.unmatched[1].size(), csvField(result.failure));
    if (!result.failure.empty()) {
        const std::size_t unknown =
            (detail_.estimates ? kEstimateTexts + pairColumns().size() : 0) + (detail_.trusted ? 1 : 0);
        csv_.stream() << csvField(exposure) << std::string(kMarkerFields, ',') << counts << std::string(unknown, ',')
                      << '\n';
    }
    for (std::size_t pair = 0; result.failure.empty() && pair < result.markers.size(); ++pair) {
        const StereoMarker& m = result.markers[pair];
        csv_.stream() << csvField(exposure) << ',' << pair;
        for (const double value :
             {m.pixel[0].x, m.pixel[0].y, m.pixel[1].x, m.pixel[1].y, m.point[0], m.point[1], m.point[2], m.normal[0],
              m.normal[1], m.normal[2], m.radius, m.residuals.row, m.residuals.eye[0], m.residuals.eye[1]}) {
            csv_.stream() << ',' << csvField(value);
        }
        csv_.stream() << counts;
        if (m.estimate) {
            csv_.stream() << ',' << statusOf(*m.estimate, 0) << ',' << statusOf(*m.estimate, 1) << ','
                          << pointSourceOf(*m.estimate);
            for (const PairColumn& column : pairColumns())
                csv_.stream() << ',' << csvField(column.valueOf(*m.estimate));
        }
        if (m.trust) csv_.stream() << ',' << csvField(m.trust->probability);
        csv_.stream() << '\n';
    }
    csv_.flush();  // a full disk is noticed here
}

void StereoOutput::addRecord(const ExposureNames& names, const StereoResult& result) {
    json record = {{"name", names.name},
                   {"left", names.left},
                   {"right", names.right},
                   {"found", result.found},
                   {"pairs", result.markers.size()},
                   {"unmatched", {result.unmatched[0].size(), result.unmatched[1].size()}}};
    if (!result.failure.empty()) record["error"] = result.failure;
    if (!result.doubt.empty()) record["warning"] = result.doubt;
    json markers = json::array();
    for (const StereoMarker& m : result.markers) {
        json marker = {{"pair", markers.size()},
                       {"left", listOf(m.pixel[0])},
                       {"right", listOf(m.pixel[1])},
                       {"point", listOf(m.point)}};
        if (detail_.normals) {
            marker["normal"] = listOf(m.normal);
            marker["radius"] = m.radius;
        }
        marker["rowResidual"] = m.residuals.row;
        marker["residuals"] = m.residuals.eye;
        if (m.polarity[0] != Polarity::unknown) marker["polarity"] = nameOf(m.polarity[0]);
        if (m.estimate) addEstimate(marker, *m.estimate);
        if (m.trust) {
            marker["numbers"] = m.number;
            marker["probability"] = m.trust->probability;
            marker["cues"] = cuesOf(m.trust->cues);
        }
        markers.push_back(std::move(marker));
    }
    record[result.failure.empty() ? "markers" : "rejected"] = std::move(markers);
    if (result.trusted) addTrust(record, *result.trusted);
    json_.stream() << (exposures_ == 0 ? "\n" : ",\n") << dump(record);
    json_.flush();
}

void StereoOutput::addVertices(const StereoResult& result) {
    if (!result.failure.empty()) return;
    int pair = 0;
    for (const StereoMarker& m : result.markers) {
        vertices_ += fmt::format("{} {} {}", m.point[0], m.point[1], m.point[2]);
        if (detail_.normals) vertices_ += fmt::format(" {} {} {} {}", m.normal[0], m.normal[1], m.normal[2], m.radius);
        vertices_ += fmt::format(" {} {}\n", exposures_, pair++);
        ++vertexCount_;
    }
}

void StereoOutput::writePly(const std::string& held) {
    ply_.stream() << "ply\nformat ascii 1.0\n";
    if (!held.empty()) ply_.stream() << "comment not complete: " << held << '\n';
    ply_.stream() << "element vertex " << vertexCount_ << '\n';
    for (const char* name : {"x", "y", "z"}) ply_.stream() << "property double " << name << '\n';
    if (detail_.normals)
        for (const char* name : {"nx", "ny", "nz", "radius"}) ply_.stream() << "property double " << name << '\n';
    ply_.stream() << "property int exposure\nproperty int pair\nend_header\n" << vertices_;
}

std::set<std::string> StereoOutput::close(const std::string& held) {
    std::set<std::string> lost;
    const auto attempt = [&](const auto& finish) {
        try {
            finish();
        } catch (const std::runtime_error& error) {
            lost.insert(error.what());
        }
    };
    attempt([&] { csv_.commitTable(held); });
    attempt([&] { ambiguous_.commitTable(held); });
    attempt([&] {
        if (json_.isOpen()) json_.stream() << "\n],\n\"complete\": " << (held.empty() ? "true" : "false") << "\n}\n";
        json_.commit();
    });
    attempt([&] {
        if (ply_.isOpen()) writePly(held);
        ply_.commit();
    });
    return lost;
}

}  // namespace kestrune::measure
