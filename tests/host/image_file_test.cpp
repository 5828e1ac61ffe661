// SPDX-License-Identifier: Apache-2.0
//
// Images as cameras, disks and networks leave them: whole ones to the bit, all others refused by name.
#include "image_file.h"

#include <map>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include <zlib.h>

#include "png_grey.h"
#include "png_image.h"
#include "support/program.h"

namespace kestrune::measure::image_file_test {

std::string bytesOf(const char* format, const cv::Mat& image, const std::vector<int>& options = {}) {
    std::vector<uchar> bytes;
    cv::imencode(format, image, bytes, options);
    return {bytes.begin(), bytes.end()};
}

/// A TIFF as scanners and many cameras write it, with its directory before the pixels, in strips of 16 rows.
std::string tiffWithPixelsLast(const cv::Mat& image) {
    const auto u = [](unsigned value, int bytes) {
        std::string text;
        for (int i = 0; i < bytes; ++i) text += static_cast<char>(value >> (8 * i));
        return text;
    };
    const auto size = static_cast<unsigned>(16 * image.step[0]), strips = static_cast<unsigned>(image.rows / 16);
    const unsigned lists = 8 + 2 + 9 * 12 + 4, data = lists + 8 * strips;
    std::string tiff = "II" + u(42, 2) + u(8, 4) + u(9, 2);
    const std::array<std::array<unsigned, 3>, 9> tags = {{{256, 1, static_cast<unsigned>(image.cols)},
                                                          {257, 1, static_cast<unsigned>(image.rows)},
                                                          {258, 1, static_cast<unsigned>(8 * image.elemSize())},
                                                          {259, 1, 1},
                                                          {262, 1, 1},
                                                          {273, strips, lists},
                                                          {277, 1, 1},
                                                          {278, 1, 16},
                                                          {279, strips, lists + 4 * strips}}};
    for (const auto& [tag, count, value] : tags) tiff += u(tag, 2) + u(4, 2) + u(count, 4) + u(value, 4);
    tiff += u(0, 4);
    for (unsigned k = 0; k < strips; ++k) tiff += u(data + k * size, 4);
    for (unsigned k = 0; k < strips; ++k) tiff += u(size, 4);
    return tiff.append(reinterpret_cast<const char*>(image.data), image.total() * image.elemSize());
}

std::string refusal(const std::string& file) {
    return test::refused([&] { decodeImage(file); });
}

/// What is cut off anywhere is refused, or has every pixel; and so is what has a hole. Whole files are as OpenCV reads them.
TEST(HostImageFile, NoPartOfAPictureIsTakenForAllOfIt) {
    enterOwnDirectory();
    cv::Mat grey(96, 128, CV_8UC1), colour, deep, real;
    cv::RNG(1).fill(grey, cv::RNG::NORMAL, 120, 30);
    cv::merge(std::vector<cv::Mat>{grey, 255 - grey, grey / 2}, colour);
    grey.convertTo(deep, CV_16U, 16), grey.convertTo(real, CV_32F, 0.01);
    const cv::Mat clear(96, 128, CV_8UC4, cv::Scalar(10, 200, 30, 40));
    const std::pair<const char*, std::string> cases[] = {
        {"grey.jpg", bytesOf(".jpg", grey)},
        {"colour.jpg", bytesOf(".jpg", colour)},
        {"progressive.jpg", bytesOf(".jpg", colour, {cv::IMWRITE_JPEG_PROGRESSIVE, 1})},
        {"restarts.jpg", bytesOf(".jpg", grey, {cv::IMWRITE_JPEG_RST_INTERVAL, 2})},
        {"grey.png", bytesOf(".png", grey)},
        {"colour.png", bytesOf(".png", colour)},
        {"deep.png", bytesOf(".png", deep)},
        {"clear.png", bytesOf(".png", clear)},
        {"one.png", bytesOf(".png", grey, {cv::IMWRITE_PNG_BILEVEL, 1})},
        {"last.tif", bytesOf(".tiff", grey)},
        {"first.tif", tiffWithPixelsLast(grey)},
        {"deep-first.tif", tiffWithPixelsLast(deep)},
        {"packed.tif", bytesOf(".tiff", colour, {cv::IMWRITE_TIFF_COMPRESSION, 8})},
        {"real.tif", bytesOf(".tiff", real)},
        {"grey.bmp", bytesOf(".bmp", grey)},
        {"deep.pgm", bytesOf(".pgm", deep)},
        {"colour.webp", bytesOf(".webp", colour)},
    };
    testing::internal::CaptureStderr();
    for (const auto& [name, bytes] : cases) {
        std::ofstream(name) << bytes;
        const cv::Mat whole = cv::imread(name, cv::IMREAD_ANYDEPTH | cv::IMREAD_ANYCOLOR | cv::IMREAD_IGNORE_ORIENTATION);
        const auto same = [&](const cv::Mat& image) {
            return image.type() == whole.type() && image.size() == whole.size() && cv::norm(image, whole, cv::NORM_INF) == 0;
        };
        EXPECT_TRUE(same(decodeImage(name))) << name;
        EXPECT_EQ(tellsEightBits(name), whole.depth() == CV_8U) << name;
        std::string holed = bytes;
        holed.replace(bytes.size() / 2, 64, 64, '\0');
        std::ofstream("holed") << holed;
        for (std::size_t part = 1; part <= 60; ++part) {
            const std::size_t size = part < 40 ? bytes.size() * part / 40 : bytes.size() - (60 - part) - 1;
            std::ofstream("cut") << bytes.substr(0, size);
            const std::string said = refusal("cut");
            EXPECT_TRUE(said.starts_with("cut: ") || (said.empty() && same(decodeImage("cut")))) << name << " cut to " << size << ": " << said;
        }
        const bool checked = std::string(name).ends_with(".jpg") || std::string(name).ends_with(".png");
        EXPECT_TRUE(!checked || refusal("holed").starts_with("holed: is damaged or ends early (")) << name;
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "without the file's name";
}

std::string number(std::size_t value) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) text += static_cast<char>(value >> shift);
    return text;
}

std::string chunk(const std::string& name, const std::string& data) {
    return number(data.size()) + name + data +
           number(crc32(crc32(0, nullptr, 0), reinterpret_cast<const Bytef*>((name + data).data()), static_cast<uInt>(name.size() + data.size())));
}

/// Any bytes are a picture, as long as each row begins with a filter.
struct Png {
    cv::Size size;
    std::string notes, stream, rest, kind = std::string("\x08\0\0\0\0", 5);
    std::size_t piece = 100000;

    Png(cv::Size picture, int level, cv::RNG& random) : size(picture) {
        std::vector<uchar> rows;
        for (int y = 0; y < size.height; ++y)
            for (int x = 0; x <= size.width; ++x)
                rows.push_back(static_cast<uchar>(x == 0 ? random.uniform(0, 5) : static_cast<int>(random.gaussian(9))));
        stream.resize(compressBound(rows.size()));
        uLongf length = stream.size();
        compress2(reinterpret_cast<Bytef*>(stream.data()), &length, rows.data(), rows.size(), level);
        stream.resize(length);
    }
    std::string file() const {
        std::string all = "\x89PNG\r\n\x1a\n" +
                          chunk("IHDR", number(static_cast<std::size_t>(size.width)) + number(static_cast<std::size_t>(size.height)) + kind) + notes;
        for (std::size_t at = 0; at < stream.size(); at += piece) all += chunk("IDAT", stream.substr(at, piece));
        return all + rest + chunk("IEND", "");
    }
};

/// Decoded as libpng and OpenCV do it, or left to them.
bool isDecodedHere(const std::string& file) {
    const std::span bytes(reinterpret_cast<const uchar*>(file.data()), file.size());
    const cv::Mat image = decodeGreyPng(bytes);
    if (image.empty()) return false;
    for (const cv::Mat& other : {decodePng(bytes), cv::imdecode(std::vector<uchar>(file.begin(), file.end()), cv::IMREAD_UNCHANGED)})
        EXPECT_TRUE(other.type() == CV_8UC1 && other.size() == image.size() && cv::norm(image, other, cv::NORM_INF) == 0);
    return true;
}

TEST(HostGreyPng, IsDecodedAsByLibpngWhereItIsWhole) {
    cv::RNG random(5);
    for (int k = 0; k < 400; ++k) {
        Png png({random.uniform(1, 71), random.uniform(1, 71)}, k % 10, random);
        png.piece = static_cast<std::size_t>(random.uniform(1, 300));
        EXPECT_TRUE(isDecodedHere(png.file())) << k << ": " << png.size;
    }
    for (const cv::Size size : {cv::Size(70001, 2), cv::Size(3, 70000), cv::Size(700, 500)})
        EXPECT_TRUE(isDecodedHere(Png(size, 6, random).file())) << size;
    const Png whole({40, 30}, 6, random);
    const auto with = [&](auto&& change) {
        Png png = whole;
        change(png);
        return png.file();
    };
    const std::string note = chunk("tEXt", std::string("Title\0disc", 10)), gamma = chunk("gAMA", number(45455));
    EXPECT_TRUE(isDecodedHere(with([&](Png& png) { png.notes = note + gamma, png.rest = note; })));
    EXPECT_TRUE(isDecodedHere(whole.file() + "more"));
    const std::pair<const char*, std::string> left[] = {
        {"interlaced", with([](Png& png) { png.kind[4] = 1; })},
        {"16 bits", with([](Png& png) { png.kind[0] = 16; })},
        {"colour", with([](Png& png) { png.kind[1] = 2; })},
        {"palette", with([&](Png& png) { png.kind[1] = 3, png.notes = chunk("PLTE", std::string(768, 'p')); })},
        {"transparent", with([](Png& png) { png.notes = chunk("tRNS", std::string(2, 'a')); })},
        {"pixels in two runs", with([&](Png& png) { png.rest = note + chunk("IDAT", png.stream.substr(200)), png.stream.resize(200); })},
        {"a row too few", with([](Png& png) { ++png.size.height; })},
        {"a row too many", with([](Png& png) { --png.size.height; })},
        {"bytes after the pixels", with([](Png& png) { png.stream += 'x'; })},
        {"the wrong sum", with([](Png& png) { ++png.stream.back(); })},
        {"no end", whole.file().substr(0, whole.file().size() - 12)},
        {"no row", with([](Png& png) { png.size.height = 0; })},
        {"rows for all memory", with([](Png& png) {
             png.size = {1000000, 1000000};
         })},
        {"a filter that there is not", with([](Png& png) {
             png.stream = std::string("\x78\x01\x01\x02\0\xfd\xff\x05\0\0\x0c\0\x06", 13), png.size = {1, 1};
         })},
    };
    for (const auto& [what, file] : left) EXPECT_FALSE(isDecodedHere(file)) << what;
}

TEST(HostGreyPng, IsLeftToLibpngWhereAnythingIsWrong) {
    cv::RNG random(6);
    for (const int level : {0, 1, 9}) {
        const Png whole({33, 21}, level, random);
        const std::string file = whole.file();
        for (std::size_t size = 0; size < file.size(); ++size) EXPECT_FALSE(isDecodedHere(file.substr(0, size))) << size;
        for (std::size_t bit = 0; bit < 8 * file.size(); ++bit) {
            std::string flipped = file;
            flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << bit % 8));
            EXPECT_FALSE(bit >= 64 && isDecodedHere(flipped)) << bit;  // the signature is for the caller to know
        }
        for (std::size_t bit = 0; bit < 8 * whole.stream.size(); ++bit) {
            Png png = whole;
            png.stream[bit / 8] = static_cast<char>(png.stream[bit / 8] ^ (1 << bit % 8));
            isDecodedHere(png.file());
        }
    }
}

TEST(HostImageFile, ToldApartByWhatIsWrong) {
    enterOwnDirectory();
    std::ofstream("text.png") << "no picture", std::ofstream("empty.png");
    const std::pair<const char*, const char*> cases[] = {
        {"none.png", "none.png: cannot be read: No such file or directory"},      {"ready", "ready: cannot be read: Is a directory"},
        {"/proc/self/mem", "/proc/self/mem: cannot be read: Input/output error"}, {"text.png/x", "text.png/x: cannot be read: Not a directory"},
        {"text.png", "text.png: is in no image format that is known here"},       {"empty.png", "empty.png: is empty"},
    };
    for (const auto& [file, expected] : cases) {
        EXPECT_EQ(refusal(file), expected);
        expectOutcome(std::string("extract --settings ready/bright-radial.yaml ") + file, 1, expected);
    }
}

TEST(HostGreyRange, RoundsSaturatesAndTakesWhatIsNoNumberForLow) {
    const cv::Mat values = (cv::Mat_<float>(1, 8) << -5, 0, 1, 2.5F, 510, 600, test::kNaN, test::kInf);
    const cv::Mat expected = (cv::Mat_<uchar>(1, 8) << 0, 0, 0, 1, 255, 255, 0, 0);
    EXPECT_EQ(cv::norm(toEightBits(values, {0, 510}), expected, cv::NORM_INF), 0);
    EXPECT_EQ(toEightBits((cv::Mat_<ushort>(1, 2) << 3, 4095), {0, 510}).at<uchar>(0), 2) << "1.5, to the even one";
    RangeOfData data;
    data.add(values), data.add((cv::Mat_<ushort>(1, 1) << 4095));
    EXPECT_TRUE(data.range().low == -5 && data.range().high == 4095);
    for (const char* text : {"", "1", "1:", "2:1", "1:1", "0:nan", "0:inf", "1:2x"}) EXPECT_FALSE(parseRange(text)) << text;
    EXPECT_EQ(parseRange("-1:2e3")->high, 2000);
}

/// The same markers whatever the camera's number of bits, and one range for all images of a run.
TEST(HostGreyRange, IsThatOfTheWholeRunAndTold) {
    enterOwnDirectory();
    const scene::Rig rig = scene::makeVergedRig({400, 320});
    const scene::Exposure exposure = scene::render(rig, scene::makeCurvedObject(rig, 6, 8, 12, 200, 1), {}, {});
    writeRig("rig.yaml", rig);
    writeSettings("s.yaml", "ready/bright-radial.yaml", {{"markerRadii", "[ 8, 12 ]"}});
    for (std::size_t eye = 0; eye < 2; ++eye) {
        const std::string name = eye == 0 ? "left" : "right";
        cv::Mat twelve, real, dim = exposure.image[eye] / 8;
        exposure.image[eye].convertTo(twelve, CV_16U, 16), exposure.image[eye].convertTo(real, CV_32F, 0.5, -3);
        dim.convertTo(dim, CV_16U, 16);
        cv::imwrite(name + "8.png", exposure.image[eye]), cv::imwrite(name + "12.png", twelve);
        cv::imwrite(name + "f.tif", real), cv::imwrite(name + "dim.png", dim);
    }
    const std::string stereo = "stereo --no-refine --match path --calibration rig.yaml --settings s.yaml --json t.json ";
    const auto markersOf = [&](const std::string& kind, const std::string& options, const std::string& told) {
        expectOutcome(stereo + "--left left" + kind + " --right right" + kind + options, 0, told);
        const auto json = nlohmann::json::parse(readText("t.json"));
        return std::pair(json["exposures"][0]["markers"], json["range"]);
    };
    const auto eight = markersOf("8.png", " --range 1:2", "--range is not used");
    EXPECT_TRUE(eight.second.is_null());
    EXPECT_EQ(markersOf("12.png", " --range 0:4080", "range 0:4080 becomes 0:255\n").first, eight.first);
    EXPECT_EQ(markersOf("f.tif", " --range -3:124.5", "").first, eight.first);
    const auto own = markersOf("12.png", "", ", that of the data of 2 images");
    EXPECT_TRUE(own.second[0] > 0 && own.second[1] > 3000 && own.second[1] < 4081) << own.second;
    for (const char* order : {"left12.png leftdim.png", "leftdim.png left12.png left8.png"}) {
        expectOutcome(std::string("extract --settings s.yaml --invert ") + order, 0, "left12.png: 0 markers");
        expectOutcome(std::string("extract --settings s.yaml ") + order, 0, "left12.png: 6 markers");
        expectOutcome(std::string("extract --settings s.yaml ") + order, 0, "leftdim.png: 0 markers");
    }
    expectOutcome("explain leftdim.png --settings s.yaml", 0, "\n     6  marker\n");
    expectOutcome("extract left12.png --settings s.yaml --range 9:1", 2, "--range: 9:1 is no LOW:HIGH");
}

}  // namespace kestrune::measure::image_file_test
