// SPDX-License-Identifier: Apache-2.0
//
// Connected components of a binary image from the runs of its rows, without an image of labels.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

namespace kestrune {

/// A bright component of a binary image, 8-connected.
struct BrightBlob {
    cv::Rect box;
    int area;              ///< px
    cv::Point2d centroid;  ///< px
};

/// Bright pixels of a row that touch, and the component that they are in.
struct PixelRun {
    int begin, end;
    int part;
};

/// What is known of a component, or of a part of one.
struct ComponentPart {
    void add(const PixelRun& run, int row);
    void add(const ComponentPart& other);
    BrightBlob blob() const;

    int parent;  ///< another part of its component, or itself
    int left, right, top, bottom, area;
    std::uint64_t sumX, sumY;
    /// Of the first of its blocks of 2 x 2 pixels, in the order of rows of blocks: components are told in this order.
    std::uint64_t firstBlock;
};

/// The components of some rows of an image.
class RowComponents {
  public:
    /// @param firstRow  of the rows that are added; even.
    void begin(int firstRow);
    /// Adds the next row.
    ///
    /// @param bright  not 0 where a pixel is bright, whole words; null for a row without any.
    void addRow(const uchar* bright, std::size_t size);
    /// Leaves each component in one part.
    void finish();

    std::vector<ComponentPart> parts;
    std::vector<PixelRun> firstRuns, lastRuns;  ///< of the first and of the last row

  private:
    int nextRow_ = 0, firstRow_ = 0;
    std::vector<PixelRun> current_;
    std::vector<int> places_;
};

/// Joins components of rows that follow each other.
class ComponentSeams {
  public:
    /// The components of all rows, in the order of `cv::connectedComponents`.
    void join(const std::vector<RowComponents>& strips, std::size_t count, std::vector<BrightBlob>& blobs);

  private:
    std::vector<ComponentPart> parts_;
    std::vector<PixelRun> above_;
};

}  // namespace kestrune
