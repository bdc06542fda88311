// OnvifMedia: what a camera streams, by whichever media service it has, and single pictures.
#pragma once

#include <string>
#include <vector>

#include "cms/ipcam/onvif_connection.h"
#include "cms/ipcam/onvif_types.h"
#include "cms/runtime/api.h"

namespace cms {

// Asks the second version of the media service ("Media2", with H.265 and AAC) where the camera
// offers it, and the first one where it does not or does not do it; the results are the same. UTF-8
// texts but in the records.
class CMS_API OnvifMedia : public OnvifConnection {
 public:
  explicit OnvifMedia(const OnvifAccess& access);

  // Encodings are "H264", "H265", "JPEG", "MPEG4"; of sound "AAC", "G711", "G726". The URIs stay
  // empty.
  bool ReadProfiles(std::vector<stVideoProfile>& profiles);
  // What the encoder of that configuration can be set to, each encoding for itself.
  bool ReadEncoderOptions(const std::string& configurationToken, stVideoEncoderOptions& options);
  // Both with the host that was asked in place of one of another network, which is what a camera
  // behind a router knows of itself. The port of a stream is as the camera gives it, that of a
  // picture the one that was asked.
  bool ReadStreamUri(const std::string& profileToken, std::string& uri);
  bool ReadSnapshotUri(const std::string& profileToken, std::string& uri);
  // A picture of that moment, mostly JPEG, of at most 16 MiB.
  bool FetchSnapshot(const std::string& profileToken, std::string& picture);
};

}  // namespace cms
