// SPDX-License-Identifier: Apache-2.0
#include "native/result_tables.h"

#include <limits>
#include <numeric>

#include "native/tables.h"

namespace kestrune::python {
namespace {

using measure::Candidate;
using measure::Dropped;
using measure::Marker;
using measure::StereoMarker;
using measure::UnmatchedMarker;

constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();

void addEstimates(std::vector<Column>& columns, const std::vector<MarkerEstimate>& estimates) {
    columns.push_back(
        {"status", cellsOf(estimates, [](const MarkerEstimate& e) { return std::string(nameOf(e.status)); })});
    for (const measure::EstimateColumn& column : measure::estimateColumns())
        columns.push_back({column.name, cellsOf(estimates, column.valueOf)});
}

}  // namespace

py::array markerTable(const std::vector<Marker>& m, const std::vector<MarkerEstimate>* estimates) {
    std::vector<Column> columns = {
        {"id", cellsOf(m, [](const Marker& r) { return r.id; })},
        {"x", cellsOf(m, [](const Marker& r) { return r.centre.x; })},
        {"y", cellsOf(m, [](const Marker& r) { return r.centre.y; })},
        {"major", cellsOf(m, [](const Marker& r) { return r.majorHalfAxis; })},
        {"minor", cellsOf(m, [](const Marker& r) { return r.minorHalfAxis; })},
        {"angle", cellsOf(m, [](const Marker& r) { return r.angle; })},
        {"area", cellsOf(m, [](const Marker& r) { return r.area; })},
        {"eccentricity", cellsOf(m, [](const Marker& r) { return r.eccentricity; })},
        {"circularity", cellsOf(m, [](const Marker& r) { return r.circularity; })},
        {"fitError", cellsOf(m, [](const Marker& r) { return r.fitError; })},
        {"fitResidual", cellsOf(m, [](const Marker& r) { return r.fitResidual; })},
        {"polarity", cellsOf(m, [](const Marker& r) { return std::string(measure::nameOf(r.polarity)); })}};
    if (estimates != nullptr) addEstimates(columns, *estimates);
    return tableOf(columns, m.size());
}

py::array estimateTable(const std::vector<MarkerEstimate>& estimates) {
    using E = MarkerEstimate;
    std::vector<Column> columns = {
        {"x", cellsOf(estimates, [](const E& e) { return e.centre.x; })},
        {"y", cellsOf(estimates, [](const E& e) { return e.centre.y; })},
        {"major", cellsOf(estimates, [](const E& e) { return e.majorHalfAxis; })},
        {"minor", cellsOf(estimates, [](const E& e) { return e.minorHalfAxis; })},
        {"angle", cellsOf(estimates, [](const E& e) { return measure::degreesOf(e.angle); })}};
    addEstimates(columns, estimates);
    return tableOf(columns, estimates.size());
}

py::array candidateTable(const std::vector<Candidate>& c) {
    const auto rim = [&](auto of) {
        return cellsOf(c, [&](const Candidate& r) { return r.rim ? of(*r.rim) : kUnknown; });
    };
    return tableOf({{"number", cellsOf(c, [](const Candidate& r) { return r.number; })},
                    {"x", cellsOf(c, [](const Candidate& r) { return r.box.x; })},
                    {"y", cellsOf(c, [](const Candidate& r) { return r.box.y; })},
                    {"width", cellsOf(c, [](const Candidate& r) { return r.box.width; })},
                    {"height", cellsOf(c, [](const Candidate& r) { return r.box.height; })},
                    {"ellipseX", rim([](const measure::Rim& r) { return r.centre.x; })},
                    {"ellipseY", rim([](const measure::Rim& r) { return r.centre.y; })},
                    {"major", rim([](const measure::Rim& r) { return r.majorHalfAxis; })},
                    {"minor", rim([](const measure::Rim& r) { return r.minorHalfAxis; })},
                    {"angle", rim([](const measure::Rim& r) { return r.angle; })},
                    {"gate", cellsOf(c, [](const Candidate& r) { return r.gate; })},
                    {"measured", cellsOf(c, [](const Candidate& r) { return r.measured; })},
                    {"wanted", cellsOf(c, [](const Candidate& r) { return r.wanted; })},
                    {"marker", cellsOf(c, [](const Candidate& r) { return r.marker; })}},
                   c.size());
}

py::array dropTable(const std::vector<Dropped>& d) {
    return tableOf({{"x", cellsOf(d, [](const Dropped& r) { return r.box.x; })},
                    {"y", cellsOf(d, [](const Dropped& r) { return r.box.y; })},
                    {"width", cellsOf(d, [](const Dropped& r) { return r.box.width; })},
                    {"height", cellsOf(d, [](const Dropped& r) { return r.box.height; })},
                    {"gate", cellsOf(d, [](const Dropped& r) { return r.gate; })},
                    {"measured", cellsOf(d, [](const Dropped& r) { return r.measured; })},
                    {"wanted", cellsOf(d, [](const Dropped& r) { return r.wanted; })}},
                   d.size());
}

py::array pointTable(const measure::StereoResult& result) {
    const std::vector<StereoMarker>& m = result.markers;
    std::vector<std::int32_t> pair(m.size());
    std::iota(pair.begin(), pair.end(), 0);
    const auto column = [&](const char* name, auto of) { return Column{name, cellsOf(m, of)}; };
    std::vector<Column> columns = {{"pair", pair},
                                   column("leftX", [](const StereoMarker& r) { return r.pixel[0].x; }),
                                   column("leftY", [](const StereoMarker& r) { return r.pixel[0].y; }),
                                   column("rightX", [](const StereoMarker& r) { return r.pixel[1].x; }),
                                   column("rightY", [](const StereoMarker& r) { return r.pixel[1].y; }),
                                   column("X", [](const StereoMarker& r) { return r.point[0]; }),
                                   column("Y", [](const StereoMarker& r) { return r.point[1]; }),
                                   column("Z", [](const StereoMarker& r) { return r.point[2]; }),
                                   column("normalX", [](const StereoMarker& r) { return r.normal[0]; }),
                                   column("normalY", [](const StereoMarker& r) { return r.normal[1]; }),
                                   column("normalZ", [](const StereoMarker& r) { return r.normal[2]; }),
                                   column("radius", [](const StereoMarker& r) { return r.radius; }),
                                   column("rowResidual", [](const StereoMarker& r) { return r.residuals.row; }),
                                   column("leftResidual", [](const StereoMarker& r) { return r.residuals.eye[0]; }),
                                   column("rightResidual", [](const StereoMarker& r) { return r.residuals.eye[1]; })};
    if (result.refined || result.trusted) {
        for (const auto& [name, eye] : {std::pair("leftStatus", 0U), {"rightStatus", 1U}})
            columns.push_back(column(
                name, [eye = eye](const StereoMarker& r) { return std::string(measure::statusOf(*r.estimate, eye)); }));
        columns.push_back(column(
            "pointSource", [](const StereoMarker& r) { return std::string(measure::pointSourceOf(*r.estimate)); }));
        for (const measure::PairColumn& c : measure::pairColumns())
            columns.push_back(column(c.name, [&c](const StereoMarker& r) { return c.valueOf(*r.estimate); }));
    }
    if (result.trusted)
        columns.push_back(column("probability", [](const StereoMarker& r) { return r.trust->probability; }));
    return tableOf(columns, m.size());
}

py::array unmatchedTable(const std::vector<UnmatchedMarker>& u) {
    return tableOf({{"number", cellsOf(u, [](const UnmatchedMarker& r) { return r.number; })},
                    {"x", cellsOf(u, [](const UnmatchedMarker& r) { return static_cast<double>(r.rim.center.x); })},
                    {"y", cellsOf(u, [](const UnmatchedMarker& r) { return static_cast<double>(r.rim.center.y); })},
                    {"test", cellsOf(u, [](const UnmatchedMarker& r) { return std::string(measure::testOf(r)); })},
                    {"measured", cellsOf(u, [](const UnmatchedMarker& r) { return r.verdict.measured; })},
                    {"partner", cellsOf(u, [](const UnmatchedMarker& r) { return r.partner; })}},
                   u.size());
}

}  // namespace kestrune::python
