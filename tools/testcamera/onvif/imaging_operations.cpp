// The imaging service.
#include "tools/testcamera/onvif/operations.h"

namespace testcamera {
namespace {

constexpr double kHighest = 100;
constexpr double kHighestGain = 255;
const std::vector<std::string> kOnOff = {"OFF", "ON"};
const std::vector<std::string> kOnOffAuto = {"ON", "OFF", "AUTO"};
const std::vector<std::string> kBalances = {"AUTO", "MANUAL"};

void CheckSource(const Call& call) {
  if (TextAt(call.request, "VideoSourceToken") != kVideoSource) {
    throw SoapFault{"ter:InvalidArgVal", "ter:NoSource", "There is no such video source"};
  }
}

// The order is the schema's (ImagingSettings20).
void GetImagingSettings(Call& call) {
  CheckSource(call);
  const Imaging& imaging = call.camera.settings.imaging;
  Element settings = call.answer.Add("timg:ImagingSettings");
  settings.Add("tt:BacklightCompensation").Add("tt:Mode", imaging.backlight);
  settings.Add("tt:Brightness", imaging.brightness);
  settings.Add("tt:ColorSaturation", imaging.saturation);
  settings.Add("tt:Contrast", imaging.contrast);
  settings.Add("tt:IrCutFilter", imaging.irCutFilter);
  settings.Add("tt:Sharpness", imaging.sharpness);
  settings.Add("tt:WideDynamicRange").Add("tt:Mode", imaging.wideDynamicRange);
  Element balance = settings.Add("tt:WhiteBalance");
  balance.Add("tt:Mode", imaging.whiteBalance);
  balance.Add("tt:CrGain", imaging.crGain);
  balance.Add("tt:CbGain", imaging.cbGain);
}

void SetImagingSettings(Call& call) {
  CheckSource(call);
  const xmlNode* settings = Child(call.request, "ImagingSettings");
  Imaging imaging = call.camera.settings.imaging;
  ReadWord(settings, "BacklightCompensation/Mode", kOnOff, &imaging.backlight);
  ReadNumber(settings, "Brightness", 0, kHighest, &imaging.brightness);
  ReadNumber(settings, "ColorSaturation", 0, kHighest, &imaging.saturation);
  ReadNumber(settings, "Contrast", 0, kHighest, &imaging.contrast);
  ReadWord(settings, "IrCutFilter", kOnOffAuto, &imaging.irCutFilter);
  ReadNumber(settings, "Sharpness", 0, kHighest, &imaging.sharpness);
  ReadWord(settings, "WideDynamicRange/Mode", kOnOff, &imaging.wideDynamicRange);
  ReadWord(settings, "WhiteBalance/Mode", kBalances, &imaging.whiteBalance);
  ReadNumber(settings, "WhiteBalance/CrGain", 0, kHighestGain, &imaging.crGain);
  ReadNumber(settings, "WhiteBalance/CbGain", 0, kHighestGain, &imaging.cbGain);
  call.camera.settings.imaging = imaging;
}

void AddRangeFromZero(Element parent, const char* name, double highest) {
  Element range = parent.Add(name);
  range.Add("tt:Min", 0);
  range.Add("tt:Max", highest);
}

void AddWords(Element parent, const char* name, const std::vector<std::string>& words) {
  for (const std::string& word : words) {
    parent.Add(name, word);
  }
}

void GetOptions(Call& call) {
  CheckSource(call);
  Element options = call.answer.Add("timg:ImagingOptions");
  AddWords(options.Add("tt:BacklightCompensation"), "tt:Mode", kOnOff);
  AddRangeFromZero(options, "tt:Brightness", kHighest);
  AddRangeFromZero(options, "tt:ColorSaturation", kHighest);
  AddRangeFromZero(options, "tt:Contrast", kHighest);
  AddWords(options, "tt:IrCutFilterModes", kOnOffAuto);
  AddRangeFromZero(options, "tt:Sharpness", kHighest);
  AddWords(options.Add("tt:WideDynamicRange"), "tt:Mode", kOnOff);
  Element balance = options.Add("tt:WhiteBalance");
  AddWords(balance, "tt:Mode", kBalances);
  AddRangeFromZero(balance, "tt:YrGain", kHighestGain);
  AddRangeFromZero(balance, "tt:YbGain", kHighestGain);
}

}  // namespace

void AddImagingOperations(Operations* operations) {
  const auto add = [operations](const char* name, void (*run)(Call&)) {
    (*operations)[{kImagingSpace, name}] = {false, run};
  };
  add("GetImagingSettings", GetImagingSettings);
  add("SetImagingSettings", SetImagingSettings);
  add("GetOptions", GetOptions);
}

}  // namespace testcamera
