// SPDX-License-Identifier: Apache-2.0
//
// Points and known markers in an order of their own, and the points by place.
#pragma once

#include <cmath>
#include <limits>
#include <vector>

#include "matching/known_object.h"

namespace kestrune::matching {

struct ObjectMarker {
    int number = -1;  ///< in the list
    Eigen::Vector3d place;
    double variance = 0;   ///< of each coordinate
    double logRadius = 0;  ///< NaN: not known
};

/// Sorted by place, then mixed: every part of the list has markers from all over the object.
std::vector<ObjectMarker> orderedMarkers(const std::vector<KnownMarker>& object);

class ObjectPoints {
  public:
    struct Point {
        int number;      ///< in the list
        SpacePoint its;  ///< probability within bounds: the exposure may be wrong as a whole
        double sigma;    ///< of the worst direction, at most
        Eigen::Matrix3d roughWeight;
    };

    /// @param variance  typical one of the known markers' coordinates
    ObjectPoints(const std::vector<SpacePoint>& points, double variance);

    const std::vector<Point>& all() const { return points_; }
    const Point& operator[](int i) const { return points_[static_cast<std::size_t>(i)]; }
    double volume() const { return volume_; }  ///< over which candidates are found by chance
    double rightVolume() const {
        return rightVolume_;
    }                                              ///< likewise those that are right: small if they lie on a plane
    double expected() const { return expected_; }  ///< points that are right
    int lines(std::size_t eye) const { return lines_[eye]; }

    /// Log of the density of a radius, if it is that marker's, over that by chance.
    double radiusEvidence(const Point& point, const ObjectMarker& marker) const;

    /// Every point that `place` may be by its own uncertainty, `kReach` times the standard deviation. Others as well.
    template <typename Body>
    void forNear(const Eigen::Vector3d& place, const Body& body) const {
        Eigen::Array3d at = (place - low_).array() / cell_;
        if (!((at >= 0).all() && (at < size_.cast<double>()).all())) return;
        const Eigen::Array3i c = at.cast<int>();
        const int cellNumber = (c.z() * size_.y() + c.y()) * size_.x() + c.x();
        const auto cell = static_cast<std::size_t>(cellNumber);
        for (int k = start_[cell]; k < start_[cell + 1]; ++k) body(entry_[static_cast<std::size_t>(k)]);
    }

    static constexpr double kReach = 10;

  private:
    void measureBox();
    void measureSpread();
    void fillGrid();
    template <typename Body>
    void forCells(const Point& point, const Body& body) const;

    std::vector<Point> points_;
    std::array<int, 2> lines_{};
    double volume_ = 1, rightVolume_ = 1, expected_ = 1, radiusRange_ = 1;
    double variance_ = 0;
    Eigen::Vector3d low_;
    Eigen::Array3d cell_;
    Eigen::Array3i size_ = Eigen::Array3i::Zero();
    std::vector<int> start_, entry_;
};

}  // namespace kestrune::matching
