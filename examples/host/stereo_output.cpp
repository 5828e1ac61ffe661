// SPDX-License-Identifier: Apache-2.0
#include "stereo_output.h"

#include <fmt/format.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "csv.h"
#include "inputs.h"

namespace kestrune::host {
namespace {

using nlohmann::json;

/// Fields of a row that tell of one marker, after the exposure's name.
constexpr int kMarkerFields = 15;

void open(std::ofstream& stream, const std::string& file) {
    if (!file.empty()) openOutput(stream, file);
}

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

}  // namespace

StereoOutput::StereoOutput(const StereoFiles& files, const StereoRun& run, bool withNormals)
    : files_(files), withNormals_(withNormals) {
    open(csv_, files.csv);
    open(ply_, files.ply);
    open(json_, files.json);
    if (csv_.is_open()) {
        csv_ << "exposure,pair,leftX,leftY,rightX,rightY,X,Y,Z,normalX,normalY,normalZ,radius,"
                "rowResidual,leftResidual,rightResidual,leftMarkers,rightMarkers,pairs,leftUnmatched,rightUnmatched,"
                "error\n";
        csv_.flush();
    }
    if (json_.is_open()) {
        json_ << "{\n";
        for (const auto& [key, value] : {std::pair("calibration", run.calibration),
                                         {"settings", run.settings},
                                         {"path", run.path},
                                         {"frame", run.frame}}) {
            json_ << dump(key) << ": " << dump(value) << ",\n";
        }
        json_ << "\"exposures\": [";
    }
}

void StereoOutput::add(const ExposureNames& names, const StereoResult& result) {
    if (csv_.is_open()) addRows(names.name, result);
    if (json_.is_open()) addRecord(names, result);
    if (ply_.is_open()) addVertices(result);
    ++exposures_;
}

void StereoOutput::addRows(const std::string& exposure, const StereoResult& result) {
    const std::string counts =
        fmt::format(",{},{},{},{},{},{}\n", result.found[0], result.found[1], result.markers.size(),
                    result.unmatched[0].size(), result.unmatched[1].size(), csvField(result.failure));
    if (!result.failure.empty()) csv_ << csvField(exposure) << std::string(kMarkerFields, ',') << counts;
    for (std::size_t pair = 0; result.failure.empty() && pair < result.markers.size(); ++pair) {
        const StereoMarker& m = result.markers[pair];
        csv_ << csvField(exposure) << ',' << pair;
        for (const double value :
             {m.pixel[0].x, m.pixel[0].y, m.pixel[1].x, m.pixel[1].y, m.point[0], m.point[1], m.point[2], m.normal[0],
              m.normal[1], m.normal[2], m.radius, m.residuals.row, m.residuals.eye[0], m.residuals.eye[1]}) {
            csv_ << ',' << csvField(value);
        }
        csv_ << counts;
    }
    csv_.flush();  // what is done stays, however the run ends
}

void StereoOutput::addRecord(const ExposureNames& names, const StereoResult& result) {
    json record = {{"name", names.name},
                   {"left", names.left},
                   {"right", names.right},
                   {"found", result.found},
                   {"pairs", result.markers.size()},
                   {"unmatched", {result.unmatched[0].size(), result.unmatched[1].size()}}};
    if (!result.failure.empty()) record["error"] = result.failure;
    json markers = json::array();
    for (const StereoMarker& m : result.markers) {
        json marker = {{"pair", markers.size()},
                       {"left", listOf(m.pixel[0])},
                       {"right", listOf(m.pixel[1])},
                       {"point", listOf(m.point)}};
        if (withNormals_) {
            marker["normal"] = listOf(m.normal);
            marker["radius"] = m.radius;
        }
        marker["rowResidual"] = m.residuals.row;
        marker["residuals"] = m.residuals.eye;
        if (m.polarity[0] != Polarity::unknown) marker["polarity"] = nameOf(m.polarity[0]);
        markers.push_back(std::move(marker));
    }
    record[result.failure.empty() ? "markers" : "rejected"] = std::move(markers);
    json_ << (exposures_ == 0 ? "\n" : ",\n") << dump(record);
    json_.flush();
}

void StereoOutput::addVertices(const StereoResult& result) {
    if (!result.failure.empty()) return;
    int pair = 0;
    for (const StereoMarker& m : result.markers) {
        vertices_ += fmt::format("{} {} {}", m.point[0], m.point[1], m.point[2]);
        if (withNormals_) vertices_ += fmt::format(" {} {} {} {}", m.normal[0], m.normal[1], m.normal[2], m.radius);
        vertices_ += fmt::format(" {} {}\n", exposures_, pair++);
        ++vertexCount_;
    }
}

void StereoOutput::writePly() {
    ply_ << "ply\nformat ascii 1.0\nelement vertex " << vertexCount_ << '\n';
    for (const char* name : {"x", "y", "z"}) ply_ << "property double " << name << '\n';
    if (withNormals_)
        for (const char* name : {"nx", "ny", "nz", "radius"}) ply_ << "property double " << name << '\n';
    ply_ << "property int exposure\nproperty int pair\nend_header\n" << vertices_;
}

std::vector<std::string> StereoOutput::close(bool interrupted) {
    if (json_.is_open()) json_ << "\n],\n\"complete\": " << (interrupted ? "false" : "true") << "\n}\n";
    if (ply_.is_open()) writePly();
    std::vector<std::string> lost;
    for (const auto& [stream, file] : {std::pair(&csv_, &files_.csv), {&ply_, &files_.ply}, {&json_, &files_.json}}) {
        if (!stream->is_open()) continue;
        stream->close();
        if (stream->fail()) lost.push_back(*file);
    }
    return lost;
}

}  // namespace kestrune::host
