// SPDX-License-Identifier: Apache-2.0
//
// The pose of a known object from the points near its markers, and what speaks for it.
#pragma once

#include <array>
#include <vector>

#include "matching/object_points.h"

namespace kestrune::matching {

struct RigidPose {
    Eigen::Matrix3d rotation;
    Eigen::Vector3d shift;

    Eigen::Vector3d operator()(const Eigen::Vector3d& place) const { return rotation * place + shift; }
};

/// That which turns one triangle into another of the same sides. Never a mirror image.
RigidPose poseOfTriangle(const std::array<Eigen::Vector3d, 3>& from, const std::array<Eigen::Vector3d, 3>& to);

struct PoseFit {
    using Matrix6 = Eigen::Matrix<double, 6, 6>;

    struct Match {
        int marker, point;
        double worth;   ///< log of the density of its place given the marker over that by chance
        double radius;  ///< likewise of its radius; not above 0, since most markers have one size
    };

    RigidPose pose;
    std::vector<Match> matches;  ///< one to one, probable first
    Matrix6 information;         ///< of a turn about `pivot` and a shift
    Eigen::Vector3d pivot;       ///< in the frame of the points
    double scale = 1;            ///< by which variances are multiplied
    double logOdds = 0;          ///< against chance, integrated over poses
    double explained = 0;        ///< likewise of the markers, each within a bound
    bool determined = false;     ///< whether the matches leave no freedom to turn
};

class PoseFitter {
  public:
    PoseFitter(const std::vector<ObjectMarker>& object, const ObjectPoints& points)
        : object_(object), points_(points) {}

    PoseFit fit(const RigidPose& start) const;

    /// Density of a point's place and radius if it is that marker's, over that by chance.
    /// @param own  whether the pose was fitted to this point as that marker: it is then taken out
    double ratio(const PoseFit& fit, int marker, int point, bool own) const;

    const ObjectMarker& marker(int i) const { return object_[static_cast<std::size_t>(i)]; }

  private:
    Eigen::Matrix3d covariance(const PoseFit& fit, int marker, int point) const;
    double logRatio(const Eigen::Vector3d& off, const Eigen::Matrix3d& covariance, double volume) const;
    void match(PoseFit& fit, double gate) const;
    void step(PoseFit& fit) const;
    void measureScale(PoseFit& fit) const;
    void weigh(PoseFit& fit) const;

    const std::vector<ObjectMarker>& object_;
    const ObjectPoints& points_;
};

}  // namespace kestrune::matching
