// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <array>
#include <opencv2/core.hpp>
#include <vector>

namespace kestrune {

/// An ellipse with its conic and what the contour points say of it.
struct EllipseRecord {
    cv::RotatedRect ellipse;      ///< centre, full axes, angle in degrees
    double fitResidual = 0;       ///< root mean square of the conic's value over the points
    bool conicValid = false;      ///< `conic` is filled
    std::array<double, 6> conic;  ///< A..F of A x^2 + B x y + C y^2 + D x + E y + F: -1 at the centre, 0 on the ellipse
    Eigen::MatrixXd scatter;      ///< M^T M, 6 by 6, of the rows (x^2, x y, y^2, x, y, 1)
};

/// Fills a record from a fitted ellipse. With half axes a, b along the rectangle's width and height, its angle t and
/// its centre (x0, y0):
///   A = cos^2 t / a^2 + sin^2 t / b^2,  B = (1 / a^2 - 1 / b^2) 2 sin t cos t,  C = sin^2 t / a^2 + cos^2 t / b^2,
///   D = -2 A x0 - B y0,  E = -B x0 - 2 C y0,  F = A x0^2 + B x0 y0 + C y0^2 - 1.
/// The half axes, their squares, the angle with its sine and cosine, and A and C are formed in single precision, like
/// the ellipse they come from; the rest in double.
///
/// @param rect      both sides above 0.
/// @param residual  `fitResidual` for an empty list of points.
/// @param points    px; none leaves `scatter` empty.
void fitConicFromEllipse(EllipseRecord& record, const cv::RotatedRect& rect, double residual,
                         const std::vector<cv::Point2f>& points);

/// The same for whole pixels, without `scatter`: of the first ellipse of a candidate nobody asks for it.
///
/// @param pixels  not empty.
void fitConicToPixels(EllipseRecord& record, const cv::RotatedRect& rect, const std::vector<cv::Point>& pixels);

/// An ellipse and on which side of its rim the image is brighter.
struct PolarEllipse {
    EllipseRecord record;
    bool brightInside = false;
};

/// Reduces ellipses to one for each edge of a marker. From small to large (by the product of the axes, equal ones in
/// the order given), each is compared with those kept so far, and the first like one stands for it: same polarity,
/// centres nearer than `centreTolerance` times the mean of the kept one's axes, and relative differences of widths and
/// heights whose root mean square is below `shapeTolerance`. Of two like ones the better fit stays, on a tie the
/// earlier.
///
/// @param contours  one for each ellipse.
/// @param merged,mergedContours  results, replaced.
void mergeSimilarEllipses(const std::vector<PolarEllipse>& ellipses,
                          const std::vector<std::vector<cv::Point>>& contours, std::vector<PolarEllipse>& merged,
                          std::vector<std::vector<cv::Point>>& mergedContours, double shapeTolerance,
                          double centreTolerance);

/// Moves each pixel of a contour to the ridge of the gradient's magnitude: along the eigenvector n of the Hessian's
/// eigenvalue of larger magnitude, by t = -(slope along n) / (curvature along n), a line point after C. Steger, "An
/// unbiased detector of curvilinear structures", PAMI 20(2), 1998. Where t exceeds 1.5 px, or there is no curvature,
/// the pixel stays where it is.
///
/// @param img_grad  magnitudes, `rows` times `cols` of them without gaps.
/// @return          px, in the order of the contour, without the pixels of the outer two rows and columns.
std::vector<cv::Point2f> refineContourOnGradient(const std::vector<cv::Point>& contour, const float* img_grad, int rows,
                                                 int cols);

}  // namespace kestrune
