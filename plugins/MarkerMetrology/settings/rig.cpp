// SPDX-License-Identifier: Apache-2.0
#include "kestrune/MarkerMetrology/rig.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <opencv2/calib3d.hpp>
#include <opencv2/core/persistence.hpp>
#include <vector>

#include "files/inputs.h"
#include "files/output_file.h"
#include "settings/field_lines.h"

namespace kestrune {
namespace {

using HostPose = Pose_<double>;
using HostCamera = Camera_<double, 2, 2>;

constexpr std::array<const char*, 2> kEyes = {"left", "right"};
// The lengths of a distortion vector that OpenCV's camera model knows, and how many of them the library's camera holds.
constexpr std::array kDistortionLengths = {4, 5, 8, 12, 14};
constexpr int kHeldCoefficients = 5;
// Rounded to six digits, a rotation is this far from an orthonormal one.
constexpr double kRotationTolerance = 1e-5;
constexpr double kLargestSide = 1e6;

bool isNumber(const cv::FileNode& node) {
    return node.isReal() || node.isInt();
}

/// Reads one file of either form and gathers what is wrong with it.
class RigReader {
  public:
    explicit RigReader(const std::string& file) : RigReader(file, readText(file), true) {}

    /// @param tellLines  of a text that somebody wrote.
    RigReader(const std::string& file, const std::string& text, bool tellLines)
        : file_(file), storage_(parseYaml(file, text)), root_(storage_.root()), lines_(tellLines ? text : "") {
        if (has("poses") || has("cameras")) {
            records_ = true;
            for (const char* name : {"M1", "D1", "M2", "D2", "R", "T"})
                if (has(name)) problem(fmt::format("holds '{}' beside 'poses' or 'cameras': which one counts?", name));
        }
    }

    bool hasCamera(std::size_t eye) const {
        if (records_) return !member(root_["cameras"], kEyes[eye]).empty();
        return has(fmt::format("M{}", eye + 1)) || has(fmt::format("D{}", eye + 1));
    }

    Camera camera(std::size_t eye) { return records_ ? recordCamera(eye) : matrixCamera(eye); }

    HostCamera hostCamera(std::size_t eye) {
        const Camera c = camera(eye);
        if (c.matrix.empty() || c.distortion.empty()) return {};
        HostCamera result{{c.matrix.at<double>(0, 0), c.matrix.at<double>(1, 1), c.matrix.at<double>(0, 2),
                           c.matrix.at<double>(1, 2)}};
        for (int k = 0; k < static_cast<int>(c.distortion.total()); ++k) {
            const double value = c.distortion.at<double>(k);
            if (k < kHeldCoefficients) {
                result.values[4 + k] = value;
            } else if (value != 0) {
                problem(
                    cameraName(eye, "distortion", "D"),
                    fmt::format(": coefficient {} is {}; only the first {} (k1, k2, p1, p2, k3) can be other than 0",
                                k + 1, value, kHeldCoefficients));
                break;
            }
        }
        return result;
    }

    std::array<HostPose, 2> poses() {
        std::array<HostPose, 2> poses{};
        if (records_) {
            for (std::size_t eye = 0; eye < 2; ++eye) poses[eye] = recordPose(eye);
        } else {
            poses[0].values[0] = poses[0].values[4] = poses[0].values[8] = 1;
            poses[1] = poseOfTransform();
        }
        const bool apart = !std::equal(poses[0].values + 9, poses[0].values + 12, poses[1].values + 9);
        if (!apart && problems_.empty()) problem(records_ ? "poses" : "T", ": both cameras stand in one place");
        return poses;
    }

    cv::Size imageSize() {
        const std::vector<double> pair = numbers("imageSize", root_["imageSize"], {2}, false);
        if (pair.size() == 2) return {side("imageSize", pair[0]), side("imageSize", pair[1])};
        if (!has("image_width") && !has("image_height")) return {};
        cv::Size size;
        for (const auto& [name, value] : {std::pair("image_width", &size.width), {"image_height", &size.height}}) {
            const cv::FileNode node = root_[name];
            if (isNumber(node))
                *value = side(name, node.real());
            else
                problem(name, node.empty() ? " is missing" : " is no number");
        }
        return size;
    }

    int rectifyFlags() {
        const cv::FileNode node = root_["rectify_flags"];
        if (node.empty()) return cv::CALIB_ZERO_DISPARITY;
        if (node.isInt() && (static_cast<int>(node) == 0 || static_cast<int>(node) == cv::CALIB_ZERO_DISPARITY))
            return static_cast<int>(node);
        problem("rectify_flags", fmt::format(" is neither 0 nor {}", static_cast<int>(cv::CALIB_ZERO_DISPARITY)));
        return 0;
    }

    /// Each is optional, in either form.
    RigUncertainty uncertainty() {
        RigUncertainty result;
        for (std::size_t eye = 0; eye < 2; ++eye) {
            sigmas(fmt::format("M{}_sigma", eye + 1), {4}, result.cameras[eye]);
            sigmas(fmt::format("D{}_sigma", eye + 1), {4, 5, 8, 12, 14}, result.distortions[eye]);
        }
        sigmas("R_sigma", {3}, result.rotation);
        sigmas("T_sigma", {3}, result.translation);
        return result;
    }

    void finish() const {
        std::string text;
        for (const std::string& p : problems_) text += (text.empty() ? "" : "\n" + file_ + ": ") + p;
        if (!problems_.empty()) throw InputError(file_, text);
    }

  private:
    bool has(const std::string& name) const { return !root_[name].empty(); }

    void problem(const std::string& text) { problems_.push_back(text); }
    void problem(const std::string& field, const std::string& text) {
        problem(fmt::format("{}field '{}'{}", lines_.before(field), field, text));
    }

    std::string cameraName(std::size_t eye, const char* record, const char* matrix) const {
        return records_ ? fmt::format("cameras.{}.{}", kEyes[eye], record) : fmt::format("{}{}", matrix, eye + 1);
    }

    int side(const char* name, double value) {
        if (value >= 1 && value <= kLargestSide && value == std::floor(value)) return static_cast<int>(value);
        problem(name, fmt::format(": {} is no number of pixels", value));
        return 0;
    }

    bool finite(const std::string& name, const std::vector<double>& values) {
        const bool good = std::all_of(values.begin(), values.end(), [](double v) { return std::isfinite(v); });
        if (!good) problem(name, " holds a value that is no finite number");
        return good;
    }

    /// A list of one of the lengths; otherwise empty, and a problem unless it is missing and need not be there.
    std::vector<double> numbers(const std::string& name, const cv::FileNode& node,
                                const std::vector<std::size_t>& lengths, bool needed) {
        if (node.empty()) {
            if (needed) problem(name, " is missing");
            return {};
        }
        std::vector<double> values;
        if (isNumber(node)) values.push_back(node.real());
        if (node.isSeq()) {
            for (const cv::FileNode entry : node)
                values.push_back(isNumber(entry) ? entry.real() : std::numeric_limits<double>::quiet_NaN());
        }
        if (std::find(lengths.begin(), lengths.end(), values.size()) == lengths.end()) {
            problem(name, fmt::format(" is no {} of {}", lengths[0] == 1 ? "number" : "list of numbers",
                                      fmt::join(lengths, " or ")));
            return {};
        }
        return finite(name, values) ? values : std::vector<double>();
    }

    /// Standard deviations, as a list or as a matrix of one row or column; what there are more than are held must be 0.
    template <std::size_t count>
    void sigmas(const std::string& name, const std::vector<std::size_t>& lengths, std::array<double, count>& held) {
        if (!has(name)) return;
        std::vector<double> values;
        if (root_[name].isMap()) {
            const cv::Mat given = matrix(name);
            if (given.empty()) return;
            values.assign(given.begin<double>(), given.end<double>());
            if (std::find(lengths.begin(), lengths.end(), values.size()) == lengths.end())
                return problem(name,
                               fmt::format(" holds {} numbers, not {}", values.size(), fmt::join(lengths, " or ")));
        } else {
            values = numbers(name, root_[name], lengths, false);
        }
        const bool isNegative = std::any_of(values.begin(), values.end(), [](double v) { return v < 0; });
        if (isNegative) return problem(name, " holds a negative number: standard deviations are wanted");
        const std::size_t kept = std::min(values.size(), count);
        if (std::any_of(values.begin() + static_cast<std::ptrdiff_t>(kept), values.end(),
                        [](double v) { return v != 0; }))
            return problem(name, fmt::format(": only the first {} can be other than 0", count));
        std::copy_n(values.begin(), kept, held.begin());
    }

    cv::Mat matrix(const std::string& name) {
        cv::Mat result;
        try {
            if (root_[name].isMap()) root_[name] >> result;
        } catch (const cv::Exception& error) {
            problem(name, ": " + plainText(error));
            return {};
        }
        if (result.empty() || result.channels() != 1) {
            problem(name, " is missing or is no matrix");
            return {};
        }
        result.convertTo(result, CV_64F);
        return finite(name, std::vector<double>(result.begin<double>(), result.end<double>())) ? result : cv::Mat();
    }

    cv::Mat matrixOfSize(const std::string& name, int rows, int columns) {
        cv::Mat result = matrix(name);
        const bool vector = columns == 1 && result.rows == columns && result.cols == rows;
        if (result.empty() || vector || result.size() == cv::Size(columns, rows)) return result;
        problem(name, fmt::format(" is {} by {}, not {} by {}", result.rows, result.cols, rows, columns));
        return {};
    }

    void checkFocal(const std::string& name, double value) {
        if (!(value > 0)) problem(name, fmt::format(": focal length {} must be above 0", value));
    }

    Camera matrixCamera(std::size_t eye) {
        const std::string matrixName = fmt::format("M{}", eye + 1), distortionName = fmt::format("D{}", eye + 1);
        Camera camera{matrixOfSize(matrixName, 3, 3), matrix(distortionName)};
        if (const cv::Mat& m = camera.matrix; !m.empty()) {
            checkFocal(matrixName, m.at<double>(0, 0));
            checkFocal(matrixName, m.at<double>(1, 1));
            if (m.at<double>(0, 1) != 0 || m.at<double>(1, 0) != 0 || m.at<double>(2, 0) != 0 ||
                m.at<double>(2, 1) != 0 || m.at<double>(2, 2) != 1) {
                problem(matrixName, " is no camera matrix [fx 0 cx; 0 fy cy; 0 0 1]");
            }
        }
        if (const cv::Mat& d = camera.distortion; !d.empty()) {
            const bool vector = d.rows == 1 || d.cols == 1;
            const int length = static_cast<int>(d.total());
            if (!vector || std::ranges::find(kDistortionLengths, length) == kDistortionLengths.end()) {
                problem(distortionName, fmt::format(" is {} by {}, not a vector of {}", d.rows, d.cols,
                                                    fmt::join(kDistortionLengths, ", ")));
                camera.distortion = cv::Mat();
            }
        }
        return camera;
    }

    Camera recordCamera(std::size_t eye) {
        const cv::FileNode node = member(root_["cameras"], kEyes[eye]);
        std::array<double, 4> values{};
        static constexpr std::array<const char*, 4> kNames = {"fx", "fy", "cx", "cy"};
        for (std::size_t k = 0; k < kNames.size(); ++k) {
            const std::string name = cameraName(eye, kNames[k], "");
            const std::vector<double> number = numbers(name, member(node, kNames[k]), {1}, true);
            if (number.empty()) continue;
            values[k] = number[0];
            if (k < 2) checkFocal(name, values[k]);
        }
        const std::string name = cameraName(eye, "distortion", "");
        const std::vector<double> lens = numbers(name, member(node, "distortion"), {4, 5, 8, 12, 14}, true);
        return {(cv::Mat_<double>(3, 3) << values[0], 0, values[2], 0, values[1], values[3], 0, 0, 1),
                cv::Mat(lens, true).reshape(1, lens.empty() ? 0 : 1)};
    }

    static cv::FileNode member(const cv::FileNode& node, const char* name) {
        return node.isMap() ? node[name] : cv::FileNode();
    }

    HostPose recordPose(std::size_t eye) {
        const cv::FileNode node = member(root_["poses"], kEyes[eye]);
        const std::string name = fmt::format("poses.{}.", kEyes[eye]);
        const std::vector<double> turn = numbers(name + "rotation", member(node, "rotation"), {9}, true);
        const std::vector<double> place = numbers(name + "position", member(node, "position"), {3}, true);
        HostPose pose{};
        std::copy(turn.begin(), turn.end(), pose.values);
        std::copy(place.begin(), place.end(), pose.values + 9);
        if (!turn.empty()) checkRotation(name + "rotation", cv::Matx33d(turn.data()));
        return pose;
    }

    /// x_right = R x_left + T with the left camera as the world: A = R, and A (X - c) = R X + T gives c = -R^T T.
    HostPose poseOfTransform() {
        const cv::Mat r = matrixOfSize("R", 3, 3), t = matrixOfSize("T", 3, 1);
        if (r.empty() || t.empty()) return {};
        const cv::Matx33d turn(r.ptr<double>());
        checkRotation("R", turn);
        const cv::Vec3d place = -(turn.t() * cv::Vec3d(t.ptr<double>()));
        HostPose pose{};
        std::copy(turn.val, turn.val + 9, pose.values);
        std::copy(place.val, place.val + 3, pose.values + 9);
        return pose;
    }

    void checkRotation(const std::string& name, const cv::Matx33d& turn) {
        const double off = cv::norm(turn * turn.t() - cv::Matx33d::eye(), cv::NORM_INF);
        if (off > kRotationTolerance) {
            problem(name, fmt::format(" is no rotation: times its transpose it is {:.2g} off the identity", off));
        } else if (cv::determinant(turn) < 0) {
            problem(name, " is a reflection, not a rotation: its determinant is -1");
        }
    }

    std::string file_;
    cv::FileStorage storage_;
    cv::FileNode root_;
    FieldLines lines_;
    bool records_ = false;
    std::vector<std::string> problems_;
};

Rig rigFrom(RigReader reader) {
    Rig rig;
    for (std::size_t eye = 0; eye < 2; ++eye) rig.cameras[eye] = reader.hostCamera(eye);
    rig.poses = reader.poses();
    rig.size = reader.imageSize();
    rig.rectifyFlags = reader.rectifyFlags();
    rig.uncertainty = reader.uncertainty();
    reader.finish();
    return rig;
}

/// Nothing for zeros, which are what is read where there is nothing.
template <std::size_t count>
void writeSigmas(cv::FileStorage& storage, const std::string& name, const std::array<double, count>& values) {
    if (std::all_of(values.begin(), values.end(), [](double v) { return v == 0; })) return;
    storage << name << cv::Mat(1, static_cast<int>(count), CV_64F, const_cast<double*>(values.data()));
}

/// As OpenCV's stereo calibration writes it.
std::string yamlOf(const RigMatrices& matrices) {
    cv::FileStorage storage(".yaml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY);
    if (!matrices.size.empty())
        storage << "image_width" << matrices.size.width << "image_height" << matrices.size.height;
    for (std::size_t eye = 0; eye < 2; ++eye) {
        const Camera& camera = matrices.cameras[eye];
        storage << fmt::format("M{}", eye + 1) << camera.matrix << fmt::format("D{}", eye + 1) << camera.distortion;
    }
    storage << "R" << matrices.rotation << "T" << matrices.translation << "rectify_flags" << matrices.rectifyFlags;
    const RigUncertainty& u = matrices.uncertainty;
    for (std::size_t eye = 0; eye < 2; ++eye) {
        writeSigmas(storage, fmt::format("M{}_sigma", eye + 1), u.cameras[eye]);
        writeSigmas(storage, fmt::format("D{}_sigma", eye + 1), u.distortions[eye]);
    }
    writeSigmas(storage, "R_sigma", u.rotation);
    writeSigmas(storage, "T_sigma", u.translation);
    return storage.releaseAndGetString();
}

}  // namespace

Cameras readCameras(const std::string& file, int eye) {
    RigReader reader(file);
    Cameras calibration;
    for (std::size_t i = 0; i < 2; ++i) {
        if (reader.hasCamera(i) || static_cast<int>(i) == eye) calibration[i] = reader.camera(i);
    }
    const cv::Size size = reader.imageSize();
    for (Camera& camera : calibration) camera.size = size;
    reader.finish();
    return calibration;
}

Rig readRig(const std::string& file) {
    return rigFrom(RigReader(file));
}

Rig rigOf(const RigMatrices& matrices, const std::string& origin) {
    return rigFrom(RigReader(origin, yamlOf(matrices), false));
}

RigMatrices matricesOf(const Rig& rig) {
    const auto turn = [&](std::size_t eye) { return cv::Matx33d(rig.poses[eye].values); };
    const auto place = [&](std::size_t eye) { return cv::Vec3d(rig.poses[eye].values + 9); };
    return {{asMatrices(rig.cameras[0]), asMatrices(rig.cameras[1])},
            cv::Mat(turn(1) * turn(0).t()),
            cv::Mat(turn(1) * (place(0) - place(1))),
            rig.size,
            rig.rectifyFlags,
            rig.uncertainty};
}

void writeRig(const std::string& file, const Rig& rig) {
    const std::string text = yamlOf(matricesOf(rig));
    writeWhole(file, text.data(), text.size());
}

Camera asMatrices(const Camera_<double, 2, 2>& camera) {
    const double* const v = camera.values;
    return {(cv::Mat_<double>(3, 3) << v[0], 0, v[2], 0, v[1], v[3], 0, 0, 1),
            (cv::Mat_<double>(1, 5) << v[4], v[5], v[6], v[7], v[8])};
}

CircleMarkerExtractor calibratedExtractor(const Rig& rig) {
    CircleMarkerExtractor extractor;
    extractor.transform_kestruneData2cvMat({rig.poses.begin(), rig.poses.end()},
                                           {rig.cameras.begin(), rig.cameras.end()}, rig.size.width, rig.size.height,
                                           rig.rectifyFlags);
    return extractor;
}

}  // namespace kestrune
