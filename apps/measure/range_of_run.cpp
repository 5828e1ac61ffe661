// SPDX-License-Identifier: Apache-2.0
#include "range_of_run.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "image_file.h"
#include "progress.h"
#include "terminal.h"

namespace kestrune::measure {

std::optional<GreyRange> rangeOfRun(const std::vector<std::string>& images, const std::optional<GreyRange>& wanted,
                                    const std::atomic<bool>& stop) {
    std::vector<std::string> deep;
    std::ranges::copy_if(images, std::back_inserter(deep), [](const std::string& f) { return !tellsEightBits(f); });
    RangeOfData data;
    std::size_t taken = 0;
    if (!wanted) {
        Progress progress(deep.size());
        for (const std::string& file : deep) {
            if (stop) break;
            progress.show(static_cast<std::size_t>(&file - deep.data()), file);
            try {
                const cv::Mat image = decodeImage(file);
                if (image.depth() == CV_8U) continue;
                data.add(image);
                ++taken;
            } catch (const std::exception&) {  // told when its turn comes
            }
        }
        if (taken == 0) return std::nullopt;
    } else if (deep.empty()) {
        complain("--range is not used: all images have 8 bits");
        return std::nullopt;
    }
    const GreyRange range = wanted ? *wanted : data.range();
    say(fmt::format("range {}:{} becomes 0:255{}\n", range.low, range.high,
                    wanted ? "" : fmt::format(", that of the data of {} images of more than 8 bits", taken)));
    return range;
}

}  // namespace kestrune::measure
