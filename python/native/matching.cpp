// SPDX-License-Identifier: Apache-2.0
#include "native/matching.h"

#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <array>
#include <string>
#include <vector>

#include "known_object.h"
#include "native/estimates.h"
#include "native/held.h"
#include "native/images.h"
#include "native/module.h"
#include "native/tables.h"
#include "native/threads.h"
#include "trusted_match.h"

namespace kestrune::python {
namespace {

using measure::MatchKnowledge;
using measure::StereoMarker;

// x, y, z, radius, sigma.
constexpr py::ssize_t kObjectColumns = 5;

using Numbers = py::array_t<double, py::array::c_style | py::array::forcecast>;

std::vector<KnownMarker> objectOf(const Numbers& rows) {
    if (rows.ndim() != 2 || rows.shape(1) != kObjectColumns) throw InputError("object", "is no table of markers");
    std::vector<KnownMarker> markers;
    for (py::ssize_t i = 0; i < rows.shape(0); ++i)
        markers.push_back({{rows.at(i, 0), rows.at(i, 1), rows.at(i, 2)}, rows.at(i, 3), rows.at(i, 4)});
    return markers;
}

Numbers rowsOf(const std::vector<KnownMarker>& markers) {
    Numbers rows(std::vector<py::ssize_t>{static_cast<py::ssize_t>(markers.size()), kObjectColumns});
    double* at = rows.mutable_data();
    for (const KnownMarker& m : markers)
        for (const double value : {m.centre[0], m.centre[1], m.centre[2], m.radius, m.sigma}) *at++ = value;
    return rows;
}

py::array matchTable(const std::vector<MatchedPair>& pairs) {
    using P = MatchedPair;
    std::vector<Column> columns = {
        {"left", cellsOf(pairs, [](const P& p) { return p.left; })},
        {"right", cellsOf(pairs, [](const P& p) { return p.right; })},
        {"probability", cellsOf(pairs, [](const P& p) { return p.probability; })},
        {"sure", cellsOf(pairs, [](const P& p) { return p.sure ? Flag::yes : Flag::no; })},
    };
    const auto ofDisc = [&](const char* name, auto of) {
        columns.push_back({name, cellsOf(pairs, [&](const P& p) {
                               return p.disc.found ? of(p.disc) : std::numeric_limits<double>::quiet_NaN();
                           })});
    };
    ofDisc("X", [](const DiscEstimate& d) { return d.centre[0]; });
    ofDisc("Y", [](const DiscEstimate& d) { return d.centre[1]; });
    ofDisc("Z", [](const DiscEstimate& d) { return d.centre[2]; });
    ofDisc("normalX", [](const DiscEstimate& d) { return d.normal[0]; });
    ofDisc("normalY", [](const DiscEstimate& d) { return d.normal[1]; });
    ofDisc("normalZ", [](const DiscEstimate& d) { return d.normal[2]; });
    ofDisc("radius", [](const DiscEstimate& d) { return d.radius; });
    for (const measure::PairColumn& c : measure::pairColumns())
        ofDisc(c.name, [&c](const DiscEstimate& d) { return c.valueOf({{}, d}); });
    for (const measure::CueColumn& c : measure::cueColumns())
        columns.push_back({c.name, cellsOf(pairs, [&c](const P& p) { return p.cues.*c.value; })});
    columns.push_back({"decider", cellsOf(pairs, [](const P& p) { return std::string(nameOf(p.decider)); })});
    return tableOf(columns, pairs.size());
}

py::array rivalTable(const std::vector<PairChance>& rivals) {
    using P = PairChance;
    return tableOf({{"left", cellsOf(rivals, [](const P& p) { return p.left; })},
                    {"right", cellsOf(rivals, [](const P& p) { return p.right; })},
                    {"probability", cellsOf(rivals, [](const P& p) { return p.probability; })}},
                   rivals.size());
}

/// A pair in doubt, or one of its rivals.
struct Candidate {
    std::int32_t pair;
    const StereoMarker* marker;
    std::string standing, decider;
};

py::array ambiguousTable(const std::vector<measure::AmbiguousPair>& pairs) {
    std::vector<Candidate> rows;
    for (std::size_t k = 0; k < pairs.size(); ++k) {
        const auto number = static_cast<std::int32_t>(k);
        rows.push_back({number, &pairs[k].marker, "ambiguous", nameOf(pairs[k].decider)});
        for (const StereoMarker& rival : pairs[k].rivals) rows.push_back({number, &rival, "rival", ""});
    }
    const auto column = [&](const char* name, auto of) {
        return Column{name, cellsOf(rows, [&](const Candidate& c) { return of(*c.marker); })};
    };
    using M = StereoMarker;
    std::vector<Column> columns = {{"pair", cellsOf(rows, [](const Candidate& c) { return c.pair; })},
                                   {"standing", cellsOf(rows, [](const Candidate& c) { return c.standing; })},
                                   column("left", [](const M& m) { return m.number[0]; }),
                                   column("right", [](const M& m) { return m.number[1]; }),
                                   column("leftX", [](const M& m) { return m.pixel[0].x; }),
                                   column("leftY", [](const M& m) { return m.pixel[0].y; }),
                                   column("rightX", [](const M& m) { return m.pixel[1].x; }),
                                   column("rightY", [](const M& m) { return m.pixel[1].y; }),
                                   column("X", [](const M& m) { return m.point[0]; }),
                                   column("Y", [](const M& m) { return m.point[1]; }),
                                   column("Z", [](const M& m) { return m.point[2]; }),
                                   column("normalX", [](const M& m) { return m.normal[0]; }),
                                   column("normalY", [](const M& m) { return m.normal[1]; }),
                                   column("normalZ", [](const M& m) { return m.normal[2]; }),
                                   column("radius", [](const M& m) { return m.radius; }),
                                   column("probability", [](const M& m) { return m.trust->probability; })};
    for (const measure::CueColumn& c : measure::cueColumns())
        columns.push_back(column(c.name, [&c](const M& m) { return m.trust->cues.*c.value; }));
    columns.push_back({"decider", cellsOf(rows, [](const Candidate& c) { return c.decider; })});
    return tableOf(columns, rows.size());
}

py::object movedOf(const MovedRig& moved) {
    if (!moved.found) return py::none();
    return py::make_tuple(moved.size, moved.angle, arrayOf(cv::Mat(moved.rotation)),
                          arrayOf(cv::Mat(moved.translation)));
}

py::tuple matchMarkersIn(const HeldRig& held, const std::vector<MarkerEstimate>& left,
                         const std::vector<MarkerEstimate>& right, const py::object& known, bool estimateSigmas) {
    const std::optional<MatchKnowledge> knowledge = knowledgeOf(known);
    StereoMatch match;
    {
        const py::gil_scoped_release others;
        applyWantedThreads();
        MatchOptions options = measure::matchOptions(knowledge.value_or(MatchKnowledge{}));
        options.estimateSigmas = estimateSigmas;
        match = matchMarkers(left, right, matricesOf(held.rig), options);
    }
    return pythonMatch(match);
}

}  // namespace

std::optional<MatchKnowledge> knowledgeOf(const py::object& known) {
    if (known.is_none()) return std::nullopt;
    const auto parts = known.cast<py::tuple>();
    MatchKnowledge knowledge;
    knowledge.radii = parts[0].cast<std::vector<double>>();
    knowledge.radiusTolerance = parts[1].cast<std::optional<double>>();
    knowledge.depth = parts[2].cast<std::optional<std::array<double, 2>>>();
    knowledge.sure = parts[3].cast<std::optional<double>>();
    if (!parts[4].is_none()) knowledge.object = objectOf(parts[4].cast<Numbers>());
    requireKnowledge(knowledge);
    return knowledge;
}

py::tuple pythonMatch(const StereoMatch& match) {
    py::list discs;
    for (const MatchedPair& pair : match.pairs) discs.append(pair.disc);
    return py::make_tuple(
        matchTable(match.pairs), rivalTable(match.rivals),
        py::make_tuple(py::array_t<double>(py::cast(match.single[0])), py::array_t<double>(py::cast(match.single[1]))),
        discs, nameOf(match.objection), match.reason, match.repeat, movedOf(match.moved),
        py::make_tuple(match.centreScale, match.shapeScale));
}

py::object pythonTrust(const measure::StereoResult& result) {
    if (!result.trusted) return py::none();
    return py::make_tuple(ambiguousTable(result.trusted->ambiguous), pythonMatch(result.trusted->match));
}

void defineMatching(py::module_& module) {
    module.attr("MATCH_STEREO") = nameOf(measure::kMatchStereo);
    module.def("match_markers", &matchMarkersIn);
    module.def("check_known", [](const py::object& known) { knowledgeOf(known); });
    module.def("read_object", [](const std::string& file) { return rowsOf(measure::readKnownObject(file)); });
    module.def("plain_estimates", [](const py::object& corners) {
        py::list estimates;
        for (const Corner& corner : *cornersIn(corners)) estimates.append(plainEstimate(corner));
        return estimates;
    });
}

}  // namespace kestrune::python
