// Writes the seed files of fuzz/corpus/oni/ with the library's own writer: small recordings with
// each codec, every property kind and a few frames; and of fuzz/corpus/oni_repair/ the same
// recordings as they stand before the writer finishes them.
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "ll/oni/oni.h"

namespace oni = tevix::oni;

namespace {

bool _write(const std::string &path, uint32_t codec, uint32_t w, uint32_t h, uint32_t frames,
            bool device, const std::string &unfinished) {
    auto wr = oni::writer::create(path.c_str());
    if (!wr) return false;
    if (device) {
        oni::stream_desc d;
        d.type = 1;
        const int id = wr->add_node("Device", d, 0);
        wr->write_real(id, "VX_REP_VER", 1.0);
        wr->write_string(id, "VX_PRODUCT", "cam");
        const uint8_t ver[8] = {1, 2, 3, 4, 5, 6, 7, 8};
        wr->write_general(id, "VX_DEV_VER", ver, sizeof ver);
    }
    oni::stream_desc d{2, 100, 5000, w, h, 2, 30};
    const int id = wr->add_node("Depth", d, codec);
    std::vector<uint16_t> px(size_t{w} * h);
    for (uint32_t k = 0; k < frames; ++k) {
        for (size_t i = 0; i < px.size(); ++i)
            px[i] = static_cast<uint16_t>((i % 5 == 0) ? 0 : 700 + i * 3 + k * 11 + (i % 3) * 70);
        if (!wr->write_data(id, px.data(), static_cast<uint32_t>(px.size() * 2), 1000 * (k + 1)))
            return false;
    }
    if (!unfinished.empty()) {
        std::error_code ec;
        std::filesystem::copy_file(path, unfinished,
                                   std::filesystem::copy_options::overwrite_existing, ec);
        if (ec) return false;
    }
    return wr->finish();
}

}  // namespace

int main(int argc, char **argv) {
    const std::string dir = argc > 1 ? std::string(argv[1]) + "/" : "";
    const std::string rep = argc > 2 ? std::string(argv[2]) + "/" : "";
    const bool ok = _write(dir + "depth_16zt.oni", oni::k_codec_16zt, 8, 6, 3, true,
                           rep.empty() ? "" : rep + "depth_16zt.oni") &&
                    _write(dir + "depth_none.oni", oni::k_codec_none, 4, 3, 2, false,
                           rep.empty() ? "" : rep + "depth_none.oni") &&
                    _write(dir + "no_frames.oni", oni::k_codec_16zt, 4, 4, 0, true, "");
    if (!ok) std::fprintf(stderr, "oni_corpus_gen: writing failed\n");
    return ok ? 0 : 1;
}
