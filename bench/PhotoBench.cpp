// The head crop of a 12-megapixel JPEG (goal: under 400 ms on a 2-core
// machine) and listing a person folder of 500 photos. Pictures are made
// from the public-domain portrait in tests/data/photos with libvips.

#include "KinbookKit/platform/DlibFaceDetector.h"
#include "KinbookKit/platform/VipsPictureCodec.h"
#include "KinbookKit/sidecar/ContactPhotos.h"
#include "KinbookKit/sidecar/HeadCrop.h"

#include <vips/vips.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

// The portrait upscaled to 4000 × 3000 on a grey canvas, as JPEG: a phone photo.
const Bytes& twelveMegapixels() {
    static const Bytes jpeg = [] {
        if (VIPS_INIT("kinbook-bench") != 0) {
            std::abort();
        }
        const std::string sample = std::string(KINBOOK_TESTDATA_DIR) + "/photos/astronaut.png";
        VipsImage* portrait = vips_image_new_from_file(sample.c_str(), nullptr);
        VipsImage* large = nullptr;
        VipsImage* black = nullptr;
        VipsImage* grey = nullptr;
        VipsImage* canvas = nullptr;
        if (portrait == nullptr || vips_resize(portrait, &large, 4.0, nullptr) != 0 ||
            vips_black(&black, 4000, 3000, "bands", 3, nullptr) != 0 ||
            vips_linear1(black, &grey, 1.0, 128.0, "uchar", TRUE, nullptr) != 0 ||
            vips_insert(grey, large, &canvas, 1500, 400, nullptr) != 0) {
            std::abort();
        }
        void* buffer = nullptr;
        std::size_t length = 0;
        if (vips_jpegsave_buffer(canvas, &buffer, &length, "Q", 90, nullptr) != 0) {
            std::abort();
        }
        Bytes bytes(static_cast<std::uint8_t*>(buffer), static_cast<std::uint8_t*>(buffer) + length);
        g_free(buffer);
        for (VipsImage* image : {portrait, large, black, grey, canvas}) {
            g_object_unref(image);
        }
        return bytes;
    }();
    return jpeg;
}

void BM_HeadCropOf12MegapixelJpeg(benchmark::State& state) {
    kinbook::VipsPictureCodec codec;
    kinbook::DlibFaceDetector detector;
    kinbook::HeadCrop headCrop(codec, detector);
    const Bytes& jpeg = twelveMegapixels();
    // The face must be found, or the figure measures the wrong path.
    const auto decision = headCrop.decide(jpeg, kinbook::HeadCrop::contactPhotoPixels);
    state.counters["faceFound"] = decision && decision->face ? 1 : 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(headCrop.crop(jpeg, kinbook::HeadCrop::contactPhotoPixels));
    }
}
BENCHMARK(BM_HeadCropOf12MegapixelJpeg)->Unit(benchmark::kMillisecond)->Iterations(5);

void BM_ListingFiveHundredPhotos(benchmark::State& state) {
    const fs::path root = fs::temp_directory_path() / "kinbook-photo-bench";
    fs::remove_all(root);
    const fs::path photos = root / "Documents" / "People" / "Ann Lee AB12CD34" / "photos";
    fs::create_directories(photos);
    for (int i = 0; i < 500; ++i) {
        std::ofstream(photos / (std::to_string(20240101000000LL + i) + ".jpg")) << "jpeg";
    }
    kinbook::ThreadPool pool(1);
    kinbook::ContactPhotos store(pool, {root / "Documents", nullptr, nullptr, nullptr});
    for (auto _ : state) {
        benchmark::DoNotOptimize(store.photos({"AB12CD34", "Ann Lee"}));
    }
    fs::remove_all(root);
}
BENCHMARK(BM_ListingFiveHundredPhotos)->Unit(benchmark::kMicrosecond);

} // namespace
