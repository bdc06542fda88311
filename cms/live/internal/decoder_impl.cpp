#include "cms/live/internal/decoder_impl.h"

#include "cms/live/media/input_padding.h"

static_assert(cms::kInputPadding >= AV_INPUT_BUFFER_PADDING_SIZE,
              "the codec reads further behind the data than callers provide for");

CMSDecoder::Impl::~Impl() {
  EndThread();
}

int CMSDecoder::Impl::Create(cms::CMSCodecID codec) {
  const ScopeLock guard(lock_);
  const ScopeLock codecGuard(codecLock_);
  if (codec != cms::CMS_CODEC_NONE && codec_.Codec() == codec) {
    return 0;
  }
  Close();
  return codec_.Open(codec) ? 0 : 1;
}

int CMSDecoder::Impl::Reset(cms::CMSCodecID codec, bool sameCodec) {
  const ScopeLock guard(lock_);
  const ScopeLock codecGuard(codecLock_);
  const cms::CMSCodecID open = codec_.Codec();
  if (open == cms::CMS_CODEC_NONE) {
    return 1;
  }
  Close();
  return codec_.Open(sameCodec ? open : codec) ? 0 : 1;
}

void CMSDecoder::Impl::Release() {
  const ScopeLock guard(lock_);
  const ScopeLock codecGuard(codecLock_);
  Close();
}

void CMSDecoder::Impl::Close() {
  codec_.Close();
  ++opening_;
  queue_.Clear();  // its frames refer to pictures that are gone
  decoded_ = {};
}

int CMSDecoder::Impl::IsResetNeeded(tagSIZE size) {
  const ScopeLock guard(lock_);
  const ScopeLock codecGuard(codecLock_);
  const tagSIZE codec{codec_.Width(), codec_.Height()};
  if (decoded_.cx != 0 && decoded_.cx != size.cx && codec.cx != 0 && codec.cx != size.cx) {
    return 0;
  }
  const bool agrees =
      decoded_.cy == 0 || decoded_.cy == size.cy || codec.cy == 0 || codec.cy == size.cy;
  return agrees ? 1 : 0;
}

DECODE_RESULT CMSDecoder::Impl::Decode(const unsigned char* data, int length, int* used) {
  DECODE_RESULT result = DECODE_RESULT_ERROR;
  DisplayCallback callback = nullptr;
  {
    const ScopeLock guard(decodeLock_);
    switch (Run(data, length, used)) {
      case cms::VideoCodec::Result::kPicture:
        result = Show(callback);
        av_frame_unref(frame_.get());  // its memory goes back to the codec while it is still warm
        break;
      case cms::VideoCodec::Result::kNoPicture:
        result = DECODE_RESULT_NO_PICTURE;
        break;
      case cms::VideoCodec::Result::kError:
        break;
    }
  }
  if (callback != nullptr) {
    callback(nullptr);
  }
  return result;
}

// A picture lies in frame_ then.
cms::VideoCodec::Result CMSDecoder::Impl::Run(const unsigned char* data, int length, int* used) {
  const ScopeLock guard(codecLock_);
  const bool taken =
      frame_ != nullptr && codec_.Codec() != cms::CMS_CODEC_NONE && data != nullptr && length > 0;
  if (used != nullptr) {
    *used = taken ? length : 0;
  }
  const cms::VideoCodec::Result result =
      taken ? codec_.Decode(data, length) : cms::VideoCodec::Result::kError;
  if (result == cms::VideoCodec::Result::kPicture) {
    codec_.TakePicture(frame_.get());
    frameOpening_ = opening_.load(std::memory_order_relaxed);
  }
  return result;
}

DECODE_RESULT CMSDecoder::Impl::Show(DisplayCallback& callback) {
  const tagSIZE size{frame_->width, frame_->height};
  const ScopeLock guard(lock_);
  if (frameOpening_ == opening_) {  // else it is the last of a stream that was closed meanwhile
    const bool first = decoded_.cx == 0;
    const bool changed = !first && (decoded_.cx != size.cx || decoded_.cy != size.cy);
    decoded_ = size;
    if (changed) {
      return DECODE_RESULT_ERROR;
    }
  }
  const tagSIZE target = display_.cx > 0 && display_.cy > 0 ? display_ : size;
  if (!Convert(*frame_, target)) {
    return DECODE_RESULT_ERROR;
  }
  callback = displayCallback_;
  return DECODE_RESULT_PICTURE;
}

bool CMSDecoder::Impl::Convert(AVFrame& frame, const tagSIZE& size) {
  const auto width = static_cast<int>(size.cx);
  const auto height = static_cast<int>(size.cy);
  planes_ = nullptr;  // what they were may be written over
  const AVFrame* const seen = look_.Look(frame, width, height);
  if (seen == nullptr || !planar_) {
    return seen != nullptr && picture_.Convert(*seen, width, height);
  }
  planes_ = look_.In420(*seen);
  if (planes_ == &frame && kept_ != nullptr) {
    av_frame_unref(kept_.get());
    av_frame_move_ref(kept_.get(), &frame);
    planes_ = kept_.get();
  }
  return planes_ != nullptr;
}

void CMSDecoder::Impl::SetPlanar(bool planar) {
  const ScopeLock guard(lock_);
  planar_ = planar;
}

// As LockImage.
bool CMSDecoder::Impl::LockPlanes(cms::PlanarPicture* picture) CMS_NO_THREAD_SAFETY_ANALYSIS {
  lock_.Lock();
  if (planes_ == nullptr || picture == nullptr) {
    return false;
  }
  picture->width = planes_->width;
  picture->height = planes_->height;
  for (int i = 0; i < 3; ++i) {
    picture->planes[i] = planes_->data[i];
    picture->strides[i] = planes_->linesize[i];
  }
  picture->fullRange = cms::IsFullRange(*planes_);
  picture->bt709 = planes_->colorspace == AVCOL_SPC_BT709;
  return true;
}

void CMSDecoder::Impl::SetDisplaySize(tagSIZE size, DisplayCallback callback) {
  const ScopeLock guard(lock_);
  display_ = size;
  displayCallback_ = callback;
}

// The hold passes to the caller, who ends it with UnlockImage.
unsigned char* CMSDecoder::Impl::LockImage(tagSIZE* size) CMS_NO_THREAD_SAFETY_ANALYSIS {
  lock_.Lock();
  if (size != nullptr) {
    *size = {picture_.Width(), picture_.Height()};
  }
  return picture_.Pixels();
}

void CMSDecoder::Impl::UnlockImage() CMS_NO_THREAD_SAFETY_ANALYSIS {
  lock_.UnLock();
}

tagSIZE CMSDecoder::Impl::DecodedSize() {
  const ScopeLock guard(lock_);
  return decoded_;
}

int CMSDecoder::Impl::StartThread() {
  const ScopeLock guard(controlLock_);
  {
    const ScopeLock codecGuard(codecLock_);
    if (codec_.Codec() == cms::CMS_CODEC_NONE) {
      return 1;
    }
  }
  if (thread_.IsStarted()) {
    return 0;
  }
  queue_.Start();
  if (!thread_.Start("cms-decode", [this, callback = resultCallback_, context = resultContext_] {
        DecodeQueued(callback, context);
      })) {
    queue_.Stop();
    return 1;
  }
  running_.store(true, std::memory_order_relaxed);
  return 0;
}

void CMSDecoder::Impl::EndThread() {
  const ScopeLock guard(controlLock_);
  if (!thread_.IsStarted()) {
    return;
  }
  queue_.Stop();
  thread_.Join();
  running_.store(false, std::memory_order_relaxed);
}

void CMSDecoder::Impl::SetResultCallback(ResultCallback callback, void* context) {
  const ScopeLock guard(controlLock_);
  resultCallback_ = callback;
  resultContext_ = context;
}

void CMSDecoder::Impl::DecodeQueued(ResultCallback callback, void* context) {
  cms::DecodeQueue::Frame frame{};
  while (queue_.Take(frame)) {
    const DECODE_RESULT result = Decode(frame.data, frame.length, nullptr);
    queue_.Done();
    if (callback != nullptr) {
      callback(context, result);
    }
  }
}

int CMSDecoder::Impl::DewarpMode() {
  const ScopeLock guard(lock_);
  return fisheye_.parameter.viewMode;
}
