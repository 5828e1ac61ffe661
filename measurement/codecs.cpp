// SPDX-License-Identifier: Apache-2.0
#include "codecs.h"

#include <dlfcn.h>

#include <stdexcept>

namespace kestrune::measure {
namespace {

using Decode = cv::Mat (*)(const cv::_InputArray& bytes, int flags);
using Encode = bool (*)(const std::string& ending, const cv::_InputArray& image, std::vector<unsigned char>& bytes,
                        const std::vector<int>& parameters);

/// As compilers name `cv::imdecode` and `cv::imencode` with these parameters.
constexpr const char* kDecode = "_ZN2cv8imdecodeERKNS_11_InputArrayEi";
constexpr const char* kEncode =
    "_ZN2cv8imencodeERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEERKNS_11_InputArrayERSt6vectorIhSaIhEERKSB_"
    "IiSaIiEE";

class Codecs {
  public:
    Codecs() : library_(::dlopen(KESTRUNE_IMGCODECS, RTLD_LAZY | RTLD_LOCAL)) {
        if (library_ == nullptr) throw std::runtime_error(::dlerror());
        decode = reinterpret_cast<Decode>(find(kDecode));
        encode = reinterpret_cast<Encode>(find(kEncode));
    }

    Decode decode;
    Encode encode;

  private:
    void* find(const char* name) const {
        void* const function = ::dlsym(library_, name);
        if (function == nullptr) throw std::runtime_error(::dlerror());
        return function;
    }

    void* library_;  // stays: what it brings is not made to be unloaded
};

const Codecs& codecs() {
    static const Codecs loaded;
    return loaded;
}

}  // namespace

cv::Mat decodeByCodec(std::span<const unsigned char> bytes, int flags) {
    const cv::Mat wrapped(1, static_cast<int>(bytes.size()), CV_8UC1, const_cast<unsigned char*>(bytes.data()));
    return codecs().decode(wrapped, flags);
}

bool encodeByCodec(const std::string& ending, const cv::Mat& image, std::vector<unsigned char>& bytes) {
    return codecs().encode(ending, image, bytes, {});
}

}  // namespace kestrune::measure
