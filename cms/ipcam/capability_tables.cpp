#include "cms/ipcam/capability_tables.h"

#include <algorithm>
#include <cstddef>

namespace cms {
namespace {

constexpr stResolutionRow kResolutions[] = {
    {0, 0, 0, L"disable", L"", L""},
    {1, 176, 144, L"qcif", L"176 X 144", L"176 X 144"},
    {2, 176, 144, L"qcif50", L"176 X 144(50FPS)", L"176 X 144(50FPS)"},
    {3, 176, 144, L"qcif60", L"176 X 144(60FPS)", L"176 X 144(60FPS)"},
    {4, 320, 240, L"qvga", L"320 X 240", L"320 X 240"},
    {5, 320, 240, L"qvga60", L"320 X 240(60FPS)", L"320 X 240(60FPS)"},
    {6, 320, 240, L"qvga_baseline", L"320 X 240", L"320 X 240(60FPS)"},
    {7, 352, 240, L"cif", L"352 X 240", L"352 X 288"},
    {8, 352, 240, L"cif50", L"352 X 240(50FPS)", L"352 X 288(50FPS)"},
    {9, 352, 240, L"cif60", L"352 X 240(60FPS)", L"352 X 288(60FPS)"},
    {10, 640, 480, L"vga", L"640 X 480", L"640 X 480"},
    {11, 640, 480, L"vga50", L"640 X 480(50FPS)", L"640 X 480(50FPS)"},
    {12, 640, 480, L"vga60", L"640 X 480(60FPS)", L"640 X 480(60FPS)"},
    {13, 720, 480, L"d1", L"720 X 480", L"720 X 576"},
    {14, 720, 480, L"d150", L"720 X 480(50FPS)", L"720 X 576(50FPS)"},
    {15, 720, 480, L"d160", L"720 X 480(60FPS)", L"720 X 576(60FPS)"},
    {16, 720, 720, L"720x720", L"720 X 720", L"720 X 720"},
    {17, 800, 600, L"svga", L"800 X 600", L"800 X 600"},
    {18, 800, 600, L"svga50", L"800 X 600(50FPS)", L"800 X 600(50FPS)"},
    {19, 800, 600, L"svga60", L"800 X 600(60FPS)", L"800 X 600(60FPS)"},
    {20, 960, 544, L"960x54420", L"960 X 544(20FPS)", L"960 X 544(20FPS)"},
    {21, 960, 544, L"960x544", L"960 X 544", L"960 X 544"},
    {22, 960, 720, L"960x72020", L"960 X 720(20FPS)", L"960 X 720(20FPS)"},
    {23, 960, 720, L"960x720", L"960 X 720", L"960 X 720"},
    {24, 960, 960, L"960x96020", L"960 X 960(20FPS)", L"960 X 960(20FPS)"},
    {25, 960, 960, L"960x960", L"960 X 960", L"960 X 960"},
    {26, 1024, 768, L"xga", L"1024 X 768", L"1024 X 768"},
    {27, 1024, 768, L"xga50", L"1024 X 768(50FPS)", L"1024 X 768(50FPS)"},
    {28, 1024, 768, L"xga60", L"1024 X 768(60FPS)", L"1024 X 768(60FPS)"},
    {29, 1280, 720, L"720p", L"1280 X 720", L"1280 X 720"},
    {30, 1280, 720, L"720p50", L"1280 X 720(50FPS)", L"1280 X 720(50FPS)"},
    {31, 1280, 720, L"720p60", L"1280 X 720(60FPS)", L"1280 X 720(60FPS)"},
    {32, 1280, 960, L"quadvga", L"1280 X 960", L"1280 X 960"},
    {33, 1280, 1024, L"sxga", L"1280 X 1024", L"1280 X 1024"},
    {34, 1280, 1024, L"sxga50", L"1280 X 1024(50FPS)", L"1280 X 1024(50FPS)"},
    {35, 1280, 1024, L"sxga60", L"1280 X 1024(60FPS)", L"1280 X 1024(60FPS)"},
    {36, 1408, 1408, L"1408x140820", L"1408 X 1408(20FPS)", L"1408 X 1408(20FPS)"},
    {37, 1408, 1408, L"1408x1408", L"1408 X 1408", L"1408 X 1408"},
    {38, 1600, 1200, L"1600x120020", L"1600 X 1200(20FPS)", L"1600 X 1200(20FPS)"},
    {39, 1600, 1200, L"1600x1200", L"1600 X 1200", L"1600 X 1200"},
    {40, 1856, 1856, L"1856x1856", L"1856 X 1856", L"1856 X 1856"},
    {41, 1920, 1080, L"1080p20", L"1920 X 1080(20FPS)", L"1920 X 1080(20FPS)"},
    {42, 1920, 1080, L"1080p", L"1920 X 1080", L"1920 X 1080"},
    {43, 1920, 1080, L"1080p50", L"1920 X 1080(50FPS)", L"1920 X 1080(50FPS)"},
    {44, 1920, 1080, L"1080p60", L"1920 X 1080(60FPS)", L"1920 X 1080(60FPS)"},
    {45, 1920, 1080, L"l1080p", L"1920 X 1080", L"1920 X 1080"},
    {46, 2048, 1152, L"2048x1152", L"2048 X 1152", L"2048 X 1152"},
    {47, 2048, 1536, L"3m15", L"2048 X 1536(15FPS)", L"2048 X 1536(15FPS)"},
    {48, 2048, 1536, L"3m", L"2048 X 1536", L"2048 X 1536"},
    {49, 2048, 2048, L"2048x204815", L"2048 X 2048(15FPS)", L"2048 X 2048(15FPS)"},
    {50, 2048, 2048, L"2048x204820", L"2048 X 2048(20FPS)", L"2048 X 2048(20FPS)"},
    {51, 2048, 2048, L"2048x2048", L"2048 X 2048", L"2048 X 2048"},
    {52, 2688, 1520, L"2688x152015", L"2688 X 1520(15FPS)", L"2688 X 1520(15FPS)"},
    {53, 2688, 1520, L"2688x152020", L"2688 X 1520(20FPS)", L"2688 X 1520(20FPS)"},
    {54, 2592, 1944, L"5m", L"2592 X 1944", L"2592 X 1944"},
    {55, 3072, 2048, L"3072x2048", L"3072 X 2048", L"3072 X 2048"},
};

constexpr std::wstring_view kCodecs[] = {L"H264", L"JPEG", L"MPEG4"};

constexpr std::wstring_view kVideoSystems[] = {
    L"ntsc_60_autoiris",     L"pal_50_autoiris",     L"ntsc_60",     L"pal_50",
    L"ntsc_wdr_30_autoiris", L"pal_wdr_25_autoiris", L"ntsc_wdr_30", L"pal_wdr_25",
};

constexpr std::wstring_view kStreamingCapabilities[] = {L"RTPMulticast", L"RTP_TCP",
                                                        L"RTP_RTSP_TCP"};

constexpr std::wstring_view kAudioEncodings[] = {L"alaw",  L"ulaw",  L"16000",
                                                 L"24000", L"32000", L"40000"};

}  // namespace

std::span<const stResolutionRow> ResolutionTable() {
  return kResolutions;
}

std::span<const std::wstring_view> CodecNames() {
  return kCodecs;
}

std::span<const std::wstring_view> VideoSystemNames() {
  return kVideoSystems;
}

std::span<const std::wstring_view> StreamingCapabilities() {
  return kStreamingCapabilities;
}

std::span<const std::wstring_view> AudioEncodings() {
  return kAudioEncodings;
}

const stResolutionRow* FindResolution(std::wstring_view key) {
  const auto* row = std::ranges::find(kResolutions, key, &stResolutionRow::key);
  return row != std::end(kResolutions) ? row : nullptr;
}

const stResolutionRow* FindResolution(std::int32_t id) {
  return id >= 0 && static_cast<std::size_t>(id) < std::size(kResolutions) ? &kResolutions[id]
                                                                           : nullptr;
}

bool IsPalSystem(int index) {
  return index >= 0 && static_cast<std::size_t>(index) < std::size(kVideoSystems) &&
         kVideoSystems[index].starts_with(L"pal");
}

}  // namespace cms
