// SPDX-License-Identifier: Apache-2.0
//
// A host of the second library: settings that are read, changed and written come back as they are, and so does a rig; what
// cannot be read ends in the library's exception.  usage: files SETTINGS WRITTEN_SETTINGS WRITTEN_RIG
#include <kestrune/MarkerMetrology.h>

#include <cstdio>

int main(int, char** argv) try {
    kestrune::Settings settings = kestrune::readSettings(argv[1], {}, kestrune::Use::stereo);
    settings.configs.markerRadii.clear();
    settings.configs.sigma += 0.1;
    kestrune::writeSettings(argv[2], settings, kestrune::Use::stereo);
    const kestrune::Settings again = kestrune::readSettings(argv[2], kestrune::Path::complex, kestrune::Use::stereo);

    kestrune::RigMatrices matrices;
    for (kestrune::Camera& camera : matrices.cameras) {
        camera.matrix = (cv::Mat_<double>(3, 3) << 800, 0, 320, 0, 800, 240, 0, 0, 1);
        camera.distortion = cv::Mat::zeros(1, 5, CV_64F);
    }
    matrices.rotation = cv::Mat::eye(3, 3, CV_64F);
    matrices.translation = (cv::Mat_<double>(3, 1) << -100, 0, 0);
    matrices.size = {640, 480};
    kestrune::writeRig(argv[3], kestrune::rigOf(matrices));
    const kestrune::RigMatrices read = kestrune::matricesOf(kestrune::readRig(argv[3]));

    if (!again.configs.markerRadii.empty() || again.configs.sigma != settings.configs.sigma || again.configs.minDepth != settings.configs.minDepth ||
        read.size != matrices.size || cv::norm(read.translation, matrices.translation) > 1e-12)
        return std::fputs("what was written reads otherwise\n", stderr), 1;
    try {
        kestrune::readRig("no such file");
        return std::fputs("a file that is not there was read\n", stderr), 1;
    } catch (const kestrune::InputError&) {
        return std::puts("files"), 0;
    }
} catch (const std::exception& error) {
    return std::fprintf(stderr, "%s\n", error.what()), 1;
}
