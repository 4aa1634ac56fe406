// The palettes are piecewise-linear ramps through a few control rows, expanded to 256 rows at
// compile time. A control row's colour is reproduced exactly.
#include "algo/palettes.h"

#include <array>
#include <cstddef>
#include <span>

namespace tevix::cmap {
namespace {

struct stop {
    int row;
    float r, g, b;
};

constexpr stop hx(int row, uint32_t rgb) {
    return {row, static_cast<float>((rgb >> 16) & 0xFF) / 255.0f,
            static_cast<float>((rgb >> 8) & 0xFF) / 255.0f,
            static_cast<float>(rgb & 0xFF) / 255.0f};
}

// N colours spread evenly from row 0 to row 255.
template <size_t N>
constexpr std::array<stop, N> even(const uint32_t (&rgb)[N]) {
    std::array<stop, N> s{};
    for (size_t i = 0; i < N; ++i)
        s[i] = hx(static_cast<int>((255 * i + (N - 1) / 2) / (N - 1)), rgb[i]);
    return s;
}

// Palettes 0-2 pass through fixed rows 0, 64, 128, 192 and 255.
constexpr stop rainbow[] = {
    {0, 0.5f, 0.0f, 0.0f},     {28, 1.0f, 0.0f, 0.0f},      {64, 1.0f, 0.596f, 0.0f},
    {96, 1.0f, 1.0f, 0.0f},    {128, 0.478f, 1.0f, 0.490f}, {160, 0.0f, 1.0f, 1.0f},
    {192, 0.0f, 0.488f, 1.0f}, {224, 0.0f, 0.0f, 1.0f},     {255, 0.0f, 0.0f, 0.5f}};
constexpr stop hue[] = {
    {0, 1.0f, 0.0f, 0.0f},     {43, 1.0f, 1.0f, 0.0f},    {64, 0.518f, 1.0f, 0.0f},
    {85, 0.0f, 1.0f, 0.0f},    {128, 0.0f, 1.0f, 0.965f}, {171, 0.0f, 0.0f, 1.0f},
    {192, 0.447f, 0.0f, 1.0f}, {213, 1.0f, 0.0f, 1.0f},   {255, 1.0f, 0.0f, 0.094f}};
constexpr stop bwr[] = {{0, 0.0f, 0.0f, 1.0f},
                        {64, 0.502f, 0.502f, 1.0f},
                        {128, 1.0f, 0.996f, 0.996f},
                        {192, 1.0f, 0.494f, 0.494f},
                        {255, 1.0f, 0.0f, 0.0f}};

constexpr auto viridis = even({0x440154u, 0x482878u, 0x3E4A89u, 0x31688Eu, 0x26828Eu, 0x1F9E89u,
                               0x35B779u, 0x6DCD59u, 0xB4DE2Cu, 0xFDE725u});
constexpr auto magma = even({0x000004u, 0x180F3Eu, 0x451077u, 0x721F81u, 0x9F2F7Fu, 0xCD4071u,
                             0xF1605Du, 0xFD9567u, 0xFEC98Du, 0xFCFDBFu});
constexpr auto inferno = even({0x000004u, 0x1B0C42u, 0x4B0C6Bu, 0x781C6Du, 0xA52C60u, 0xCF4446u,
                               0xED6925u, 0xFB9A06u, 0xF7D03Cu, 0xFCFFA4u});
constexpr auto plasma = even({0x0D0887u, 0x47039Fu, 0x7301A8u, 0x9C179Eu, 0xBD3786u, 0xD8576Bu,
                              0xED7953u, 0xFA9E3Bu, 0xFDC926u, 0xF0F921u});
constexpr auto cividis = even({0x00204Du, 0x00336Fu, 0x39486Bu, 0x575C6Du, 0x707173u, 0x8A8779u,
                               0xA69D75u, 0xC4B56Cu, 0xE4CF5Bu, 0xFFEA46u});
constexpr auto turbo = even({0x30123Bu, 0x4662D7u, 0x36AAF9u, 0x1AE4B6u, 0x72FE5Eu, 0xC7EF34u,
                             0xFABA39u, 0xF66B19u, 0xCB2A04u, 0x7A0403u});
constexpr stop hot[] = {hx(0, 0x0A0000u), hx(96, 0xFF0000u), hx(191, 0xFFFF00u),
                        hx(255, 0xFFFFFFu)};
constexpr auto cool = even({0x00FFFFu, 0xFF00FFu});
constexpr auto spring = even({0xFF00FFu, 0xFFFF00u});
constexpr auto summer = even({0x008066u, 0xFFFF66u});
constexpr auto autumn = even({0xFF0000u, 0xFFFF00u});
constexpr auto winter = even({0x0000FFu, 0x00FF80u});
constexpr stop bone[] = {hx(0, 0x000000u), hx(96, 0x545474u), hx(191, 0xA7C7C7u),
                         hx(255, 0xFFFFFFu)};
constexpr stop copper[] = {hx(0, 0x000000u), hx(204, 0xFF9F65u), hx(255, 0xFFC77Fu)};
constexpr auto pink = even({0x1E0000u, 0xB97A7Au, 0xDCDCB4u, 0xFFFFFFu});
constexpr auto parula = even({0x352A87u, 0x0F5CDDu, 0x1481D4u, 0x06A4CAu, 0x2EB7A4u, 0x87BF77u,
                              0xD1BB59u, 0xFEC832u, 0xF9FB0Eu});
constexpr auto ocean = even({0x008000u, 0x000055u, 0x0080AAu, 0xFFFFFFu});
constexpr stop terrain[] = {hx(0, 0x333399u),   hx(38, 0x0099FFu),  hx(64, 0x00CC66u),
                            hx(128, 0xFFFF99u), hx(191, 0x806050u), hx(255, 0xFFFFFFu)};
constexpr auto cubehelix = even({0x000000u, 0x1A1530u, 0x163D4Eu, 0x1F6642u, 0x54792Fu, 0xA07949u,
                                 0xD07E93u, 0xCF9CDAu, 0xC1CAF3u, 0xFFFFFFu});
constexpr auto twilight = even({0xE2D9E2u, 0x9EB8CBu, 0x6C85BEu, 0x5E4FA6u, 0x42215Eu, 0x2F1436u,
                                0x5D1E4Bu, 0x9B3A4Fu, 0xC4765Eu, 0xD8B19Eu, 0xE2D9E2u});
constexpr auto coolwarm =
    even({0x3B4CC0u, 0x6A8BEFu, 0x9ABBFFu, 0xC9D7F0u, 0xEDD1C2u, 0xF7A889u, 0xE26952u, 0xB40426u});
constexpr auto rdbu = even({0x67001Fu, 0xB2182Bu, 0xD6604Du, 0xF4A582u, 0xFDDBC7u, 0xF7F7F7u,
                            0xD1E5F0u, 0x92C5DEu, 0x4393C3u, 0x2166ACu, 0x053061u});
constexpr auto brbg = even({0x543005u, 0x8C510Au, 0xBF812Du, 0xDFC27Du, 0xF6E8C3u, 0xF5F5F5u,
                            0xC7EAE5u, 0x80CDC1u, 0x35978Fu, 0x01665Eu, 0x003C30u});
constexpr auto piyg = even({0x8E0152u, 0xC51B7Du, 0xDE77AEu, 0xF1B6DAu, 0xFDE0EFu, 0xF7F7F7u,
                            0xE6F5D0u, 0xB8E186u, 0x7FBC41u, 0x4D9221u, 0x276419u});
constexpr auto prgn = even({0x40004Bu, 0x762A83u, 0x9970ABu, 0xC2A5CFu, 0xE7D4E8u, 0xF7F7F7u,
                            0xD9F0D3u, 0xA6DBA0u, 0x5AAE61u, 0x1B7837u, 0x00441Bu});
constexpr auto puor = even({0x7F3B08u, 0xB35806u, 0xE08214u, 0xFDB863u, 0xFEE0B6u, 0xF7F7F7u,
                            0xD8DAEBu, 0xB2ABD2u, 0x8073ACu, 0x542788u, 0x2D004Bu});
constexpr auto spectral = even({0x9E0142u, 0xD53E4Fu, 0xF46D43u, 0xFDAE61u, 0xFEE08Bu, 0xFFFFBFu,
                                0xE6F598u, 0xABDDA4u, 0x66C2A5u, 0x3288BDu, 0x5E4FA2u});
constexpr auto rdylgn = even({0xA50026u, 0xD73027u, 0xF46D43u, 0xFDAE61u, 0xFEE08Bu, 0xFFFFBFu,
                              0xD9EF8Bu, 0xA6D96Au, 0x66BD63u, 0x1A9850u, 0x006837u});
constexpr auto rdylbu = even({0xA50026u, 0xD73027u, 0xF46D43u, 0xFDAE61u, 0xFEE090u, 0xFFFFBFu,
                              0xE0F3F8u, 0xABD9E9u, 0x74ADD1u, 0x4575B4u, 0x313695u});
constexpr auto seismic = even({0x00004Du, 0x0000FFu, 0xFFFFFFu, 0xFF0000u, 0x800000u});
constexpr auto icefire = even({0xB2E3E0u, 0x5FA8D6u, 0x3D64C0u, 0x30337Au, 0x1E1E24u, 0x5A1F33u,
                               0xA42B3Cu, 0xE4643Au, 0xF6C27Du});
constexpr auto greys = even({0x000000u, 0xFFFFFFu});
constexpr auto reds = even({0xFFF5F0u, 0xFEE0D2u, 0xFCBBA1u, 0xFC9272u, 0xFB6A4Au, 0xEF3B2Cu,
                            0xCB181Du, 0xA50F15u, 0x67000Du});
constexpr auto greens = even({0xF7FCF5u, 0xE5F5E0u, 0xC7E9C0u, 0xA1D99Bu, 0x74C476u, 0x41AB5Du,
                              0x238B45u, 0x006D2Cu, 0x00441Bu});
constexpr auto blues = even({0xF7FBFFu, 0xDEEBF7u, 0xC6DBEFu, 0x9ECAE1u, 0x6BAED6u, 0x4292C6u,
                             0x2171B5u, 0x08519Cu, 0x08306Bu});
constexpr auto oranges = even({0xFFF5EBu, 0xFEE6CEu, 0xFDD0A2u, 0xFDAE6Bu, 0xFD8D3Cu, 0xF16913u,
                               0xD94801u, 0xA63603u, 0x7F2704u});
constexpr auto purples = even({0xFCFBFDu, 0xEFEDF5u, 0xDADAEBu, 0xBCBDDCu, 0x9E9AC8u, 0x807DBAu,
                               0x6A51A3u, 0x54278Fu, 0x3F007Du});
constexpr auto ylorrd = even({0xFFFFCCu, 0xFFEDA0u, 0xFED976u, 0xFEB24Cu, 0xFD8D3Cu, 0xFC4E2Au,
                              0xE31A1Cu, 0xBD0026u, 0x800026u});
constexpr auto ylgnbu = even({0xFFFFD9u, 0xEDF8B1u, 0xC7E9B4u, 0x7FCDBBu, 0x41B6C4u, 0x1D91C0u,
                              0x225EA8u, 0x253494u, 0x081D58u});
constexpr auto gnbu = even({0xF7FCF0u, 0xE0F3DBu, 0xCCEBC5u, 0xA8DDB5u, 0x7BCCC4u, 0x4EB3D3u,
                            0x2B8CBEu, 0x0868ACu, 0x084081u});
constexpr auto bupu = even({0xF7FCFDu, 0xE0ECF4u, 0xBFD3E6u, 0x9EBCDAu, 0x8C96C6u, 0x8C6BB1u,
                            0x88419Du, 0x810F7Cu, 0x4D004Bu});
constexpr auto blackbody = even({0x000000u, 0x801818u, 0xD83C00u, 0xFF9500u, 0xFFE040u, 0xFFFFFFu});
constexpr auto rocket =
    even({0x03051Au, 0x35193Eu, 0x701F57u, 0xAE1759u, 0xE13342u, 0xF37651u, 0xF6B48Eu, 0xFAEBDDu});
constexpr auto mako =
    even({0x0B0405u, 0x2E1E3Cu, 0x413D7Bu, 0x37659Eu, 0x348FA7u, 0x40B7ADu, 0x8AD9B1u, 0xDEF5E5u});
constexpr auto afmhot = even({0x000000u, 0x800000u, 0xFF8000u, 0xFFFF80u, 0xFFFFFFu});
constexpr auto gnuplot = even({0x000000u, 0x5A00B5u, 0x8004FFu, 0x9C0DB5u, 0xB52000u, 0xC93D00u,
                               0xDE6B00u, 0xEFAB00u, 0xFFFF00u});
constexpr auto pastel =
    even({0xFFB3B3u, 0xFFFFB3u, 0xB3FFB3u, 0xB3FFFFu, 0xB3B3FFu, 0xFFB3FFu, 0xFFB3B3u});
constexpr auto dark_hue =
    even({0x800000u, 0x808000u, 0x008000u, 0x008080u, 0x000080u, 0x800080u, 0x800000u});
constexpr auto bright_rainbow = even({0x0000FFu, 0x00FFFFu, 0x00FF00u, 0xFFFF00u, 0xFF0000u});
constexpr auto earth = even({0x0C1E6Bu, 0x1F5C8Au, 0x2E8A6Eu, 0x4FA24Au, 0x8FAE4Eu, 0xB9A85Bu,
                             0xD2B48Cu, 0xE8D5C0u, 0xFFFFFFu});
constexpr auto night = even({0x000000u, 0x10B010u, 0xD0FFD0u});
constexpr auto amber = even({0x000000u, 0xC07000u, 0xFFE8A0u});
constexpr auto sepia = even({0x2B1A0Eu, 0x8C6A48u, 0xF5E6C8u});
constexpr auto ice = even({0x000000u, 0x0A1E5Au, 0x2878B4u, 0x64D2E6u, 0xFFFFFFu});
constexpr auto berlin = even({0x9EB0FFu, 0x5A9BD6u, 0x25587Du, 0x11202Bu, 0x190C09u, 0x4F1D0Au,
                              0x8E3E23u, 0xCB7A6Bu, 0xFFADADu});

struct ramp {
    std::span<const stop> stops;
    bool reversed = false;
};

constexpr ramp ramps[palette_count] = {
    {rainbow},       {hue},         {bwr},         {viridis},        {magma},     {inferno},
    {plasma},        {cividis},     {turbo},       {rainbow, true},  {hot},       {cool},
    {spring},        {summer},      {autumn},      {winter},         {bone},      {copper},
    {pink},          {parula},      {ocean},       {terrain},        {cubehelix}, {twilight},
    {coolwarm},      {rdbu},        {brbg},        {piyg},           {prgn},      {puor},
    {spectral},      {rdylgn},      {rdylbu},      {seismic},        {icefire},   {greys},
    {greys, true},   {reds},        {greens},      {blues},          {oranges},   {purples},
    {ylorrd},        {ylgnbu},      {gnbu},        {bupu},           {blackbody}, {rocket},
    {mako},          {afmhot},      {gnuplot},     {hue, true},      {pastel},    {dark_hue},
    {viridis, true}, {turbo, true}, {magma, true}, {bright_rainbow}, {earth},     {night},
    {amber},         {sepia},       {ice},         {berlin}};

constexpr size_t palette_floats = palette_rows * 3;
using table_t = std::array<float, palette_count * palette_floats>;

constexpr table_t expand() {
    table_t t{};
    for (size_t p = 0; p < palette_count; ++p) {
        const ramp &rp = ramps[p];
        for (size_t s = 0; s + 1 < rp.stops.size(); ++s) {
            const stop &a = rp.stops[s];
            const stop &b = rp.stops[s + 1];
            for (int row = a.row; row <= b.row; ++row) {
                const float f = static_cast<float>(row - a.row) / static_cast<float>(b.row - a.row);
                const int out = rp.reversed ? palette_rows - 1 - row : row;
                float *dst = &t[p * palette_floats + static_cast<size_t>(out) * 3];
                const bool end = row == b.row;
                dst[0] = end ? b.r : a.r + (b.r - a.r) * f;
                dst[1] = end ? b.g : a.g + (b.g - a.g) * f;
                dst[2] = end ? b.b : a.b + (b.b - a.b) * f;
            }
        }
    }
    return t;
}

constexpr bool covers_all_rows() {
    for (const ramp &rp : ramps) {
        if (rp.stops.front().row != 0 || rp.stops.back().row != palette_rows - 1) return false;
        for (size_t s = 0; s + 1 < rp.stops.size(); ++s)
            if (rp.stops[s + 1].row <= rp.stops[s].row) return false;
    }
    return true;
}
static_assert(covers_all_rows(), "every palette runs from row 0 to row 255 in rising rows");

constexpr table_t table = expand();

}  // namespace

const float *palette(uint32_t id) noexcept {
    return &table[static_cast<size_t>(id < palette_count ? id : 0) * palette_floats];
}

}  // namespace tevix::cmap
