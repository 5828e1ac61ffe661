// SPDX-License-Identifier: Apache-2.0
//
// Poses of a known object that explain points, from triangles of the same sides.
#pragma once

#include <random>
#include <vector>

#include "matching/length_table.h"
#include "matching/object_pose.h"

namespace kestrune::matching {

class ObjectSearch {
  public:
    ObjectSearch(const std::vector<ObjectMarker>& object, const ObjectPoints& points);

    /// Different poses that are more probable than chance, the most probable first. Poses that explain half of what
    /// the first one does are among them, unless there are very many. The same ones in each run.
    std::vector<PoseFit> run();
    /// Likewise, of the points of a pose and what they lead to.
    std::vector<PoseFit> runAmong(const std::vector<PoseFit::Match>& matches);

  private:
    struct Draw {  // of points that triangles are made of
        std::vector<int> points;
        std::vector<double> sums;        // of their weights
        std::vector<std::size_t> guide;  // for equal parts of the sum the point at which each begins
    };

    void measureSides();
    Draw drawOf(const std::vector<int>& points) const;
    int pick(const Draw& draw);
    bool agree(std::size_t count, const std::array<int, 3>& corners) const;
    bool pickTriangle(const Draw& draw, std::array<int, 3>& corners);
    void search(const Draw& draw, bool untilSettled);
    void tryTriangle(std::array<int, 3> corners);
    void consider(const std::array<int, 3>& markers, const std::array<int, 3>& corners);
    int roughCount(const RigidPose& pose, const std::array<int, 3>& except);
    bool isKnown(const RigidPose& pose) const;
    double needed(const Draw& draw) const;
    bool tied() const;
    /// Whether not even one more pose can be paid, since each is dear.
    bool isWornOut() const { return crowding_ > 0 && work_ < 0; }
    double tolerance(int a, int b, double length) const;
    double distance(int a, int b) const { return (points_[a].its.place - points_[b].its.place).norm(); }
    bool radiusFits(int point, int marker) const;
    double between(int a, int b) const {
        return lengths_[static_cast<std::size_t>(a) * seeds_ + static_cast<std::size_t>(b)];
    }

    const std::vector<ObjectMarker>& object_;
    const ObjectPoints& points_;
    PoseFitter fitter_;
    std::size_t seeds_;            // the first markers, of which triangles are made
    double variance_ = 0;          // largest of the seeds' coordinates
    std::vector<double> lengths_;  // between seeds, a matrix
    LengthTable sides_;            // each once
    LengthTable rows_;             // of each seed those to all
    std::mt19937 random_{1};
    double work_ = 0;      // left
    double crowding_ = 0;  // points about the places of the last look's markers, beyond the usual ones
    std::vector<PoseFit> fits_;
};

/// Whether a pose explains so much of what another does that neither is sure.
bool isRival(const PoseFit& fit, const PoseFit& other);

}  // namespace kestrune::matching
