#include "cms/live/decoder.h"

#include <new>

#include "cms/live/internal/decoder_impl.h"
#include "cms/live/media/internal/codec_map.h"

CMSDecoder::CMSDecoder() : impl_(new (std::nothrow) Impl) {}
CMSDecoder::~CMSDecoder() = default;

int CMSDecoder::Create(DECODE_CODEC codec, tagSIZE) {
  return impl_ ? impl_->Create(cms::ToCodecID(codec)) : 1;
}

int CMSDecoder::Reset() {
  return impl_ ? impl_->Reset(cms::CMS_CODEC_NONE, true) : 1;
}

int CMSDecoder::Reset(DECODE_CODEC codec, tagSIZE) {
  return impl_ ? impl_->Reset(cms::ToCodecID(codec), false) : 1;
}

void CMSDecoder::Release() {
  if (impl_) {
    impl_->Release();
  }
}

int CMSDecoder::IsResetNeeded(DECODE_CODEC, tagSIZE size) {
  return impl_ ? impl_->IsResetNeeded(size) : 0;
}

DECODE_RESULT CMSDecoder::Decode(const unsigned char* data, int length, int* used) {
  return impl_ ? impl_->Decode(data, length, used) : DECODE_RESULT_ERROR;
}

void CMSDecoder::SetDisplaySize(tagSIZE size, DisplayCallback callback) {
  if (impl_) {
    impl_->SetDisplaySize(size, callback);
  }
}

unsigned char* CMSDecoder::LockDecodedImage(tagSIZE* size) {
  return impl_ ? impl_->LockImage(size) : nullptr;
}

void CMSDecoder::UnlockDecodedImage() {
  if (impl_) {
    impl_->UnlockImage();
  }
}

void CMSDecoder::LockDisplayImage(unsigned char** image, int* length, tagSIZE* size) {
  tagSIZE shown;
  unsigned char* const pixels = LockDecodedImage(&shown);
  if (image != nullptr) {
    *image = pixels;
  }
  if (length != nullptr) {
    *length = static_cast<int>(shown.cx * shown.cy * 4);
  }
  if (size != nullptr) {
    *size = shown;
  }
}

void CMSDecoder::UnlockDisplayImage() {
  UnlockDecodedImage();
}

void CMSDecoder::SetPlanar(bool planar) {
  if (impl_) {
    impl_->SetPlanar(planar);
  }
}

bool CMSDecoder::LockDecodedPlanes(cms::PlanarPicture* picture) {
  return impl_ && impl_->LockPlanes(picture);
}

tagSIZE CMSDecoder::GetDecodeImageSize() {
  return impl_ ? impl_->DecodedSize() : tagSIZE{};
}

int CMSDecoder::StartThread() {
  return impl_ ? impl_->StartThread() : 1;
}

int CMSDecoder::PutBuffer(const unsigned char* data, int length) {
  return impl_ ? impl_->PutBuffer(data, length) : 0;
}

void CMSDecoder::EndThread() {
  if (impl_) {
    impl_->EndThread();
  }
}

int CMSDecoder::IsThreadAlive() {
  return impl_ ? impl_->IsThreadAlive() : 1;
}

void CMSDecoder::SetResultCallback(ResultCallback callback, void* context) {
  if (impl_) {
    impl_->SetResultCallback(callback, context);
  }
}

int CMSDecoder::CreateFishEyeManager(const stFisheyeParameter& parameter) {
  if (!impl_) {
    return 1;
  }
  impl_->ChangeFisheye(
      [&parameter](cms::FisheyeSettings& settings) { settings.parameter = parameter; });
  return 0;
}

void CMSDecoder::ReleaseFishEyeManager() {
  if (impl_) {
    impl_->ChangeFisheye([](cms::FisheyeSettings& settings) { settings = {}; });
  }
}

void CMSDecoder::SetViewMode(int mode) {
  if (impl_) {
    impl_->ChangeFisheye(
        [mode](cms::FisheyeSettings& settings) { settings.parameter.viewMode = mode; });
  }
}

void CMSDecoder::SetDewarpPosition(float pan, float tilt) {
  if (impl_) {
    impl_->ChangeFisheye([pan, tilt](cms::FisheyeSettings& settings) {
      settings.positions[0] = cms::stDewarpPosition{pan, tilt};
    });
  }
}

void CMSDecoder::SetDewarpZoom(float zoom) {
  if (impl_) {
    impl_->ChangeFisheye([zoom](cms::FisheyeSettings& settings) { settings.zooms[0] = zoom; });
  }
}

void CMSDecoder::SetDewarpCamera(const cms::stDewarpCamera& camera) {
  if (impl_) {
    impl_->ChangeFisheye([&camera](cms::FisheyeSettings& settings) { settings.Move(camera); });
  }
}

int CMSDecoder::GetDewarpMode() {
  return impl_ ? impl_->DewarpMode() : 0;
}
