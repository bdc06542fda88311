#include "cms/ipcam/onvif_media.h"

#include "cms/ipcam/internal/media_answers.h"
#include "cms/ipcam/internal/onvif_bodies.h"
#include "cms/ipcam/internal/onvif_client.h"
#include "cms/ipcam/internal/soap_operation.h"
#include "cms/runtime/wide_text.h"

namespace cms {
namespace {

bool AskMedia2(OnvifClient& client, std::wstring_view operation, std::wstring_view elements,
               std::wstring& answer) {
  return client.Call(kMedia2Wsdl, operation, Media2Body(operation, elements), answer);
}

// Some cameras list the second version and answer it with faults, or not at all. The first one is
// asked then, and from then on where it knew better.
template <typename Second, typename First>
bool AskEither(OnvifClient& client, Second second, First first) {
  if (!client.Offers(kMedia2Wsdl)) {
    return first();
  }
  if (second()) {
    return true;
  }
  if (client.IsRefused() || !client.Offers(kMediaWsdl)) {
    return false;
  }
  const std::string why = client.Error();
  if (!first()) {
    return client.FailBoth(why);
  }
  client.Dismiss(kMedia2Wsdl);
  return true;
}

bool TakeUri(OnvifClient& client, std::wstring_view answer, std::string_view operation,
             std::wstring& uri) {
  return ParseStreamUri(answer, uri) || client.Unreadable(operation);
}

bool AskUri(OnvifClient& client, std::wstring_view operation, std::wstring_view elements2,
            std::wstring_view body1, std::wstring& uri) {
  const std::string name = Utf8FromWide(operation);
  std::wstring answer;
  return AskEither(
      client,
      [&] {
        return AskMedia2(client, operation, elements2, answer) &&
               TakeUri(client, answer, name, uri);
      },
      [&] {
        return client.Call(kMediaWsdl, operation, body1, answer) &&
               TakeUri(client, answer, name, uri);
      });
}

}  // namespace

OnvifMedia::OnvifMedia(const OnvifAccess& access) : OnvifConnection(access) {}

bool OnvifMedia::ReadProfiles(std::vector<stVideoProfile>& profiles) {
  constexpr std::wstring_view kOperation = L"GetProfiles";
  OnvifClient& client = Client();
  std::wstring answer;
  return AskEither(
      client,
      [&] {
        return AskMedia2(client, kOperation, L"<tr2:Type>All</tr2:Type>", answer) &&
               (ParseMedia2Profiles(answer, profiles) || client.Unreadable("GetProfiles"));
      },
      [&] {
        return client.Call(kMediaWsdl, kOperation, L"<trt:GetProfiles></trt:GetProfiles>",
                           answer) &&
               (ParseProfiles(answer, profiles) || client.Unreadable("GetProfiles"));
      });
}

bool OnvifMedia::ReadEncoderOptions(const std::string& configurationToken,
                                    stVideoEncoderOptions& options) {
  constexpr std::wstring_view kOperation = L"GetVideoEncoderConfigurationOptions";
  OnvifClient& client = Client();
  const std::wstring token = WideFromUtf8(configurationToken);
  std::wstring answer;
  const bool read = AskEither(
      client,
      [&] {
        return AskMedia2(client, kOperation, Element(L"tr2:ConfigurationToken", token), answer) &&
               (ParseMedia2EncoderOptions(answer, options) ||
                client.Unreadable(Utf8FromWide(kOperation)));
      },
      [&] {
        return client.Call(kMediaWsdl, kOperation,
                           L"<trt:GetVideoEncoderConfigurationOptions>" +
                               Element(L"trt:ConfigurationToken", token) +
                               L"</trt:GetVideoEncoderConfigurationOptions>",
                           answer) &&
               (ParseVideoEncoderOptions(answer, options) ||
                client.Unreadable(Utf8FromWide(kOperation)));
      });
  if (read) {
    options.configurationToken = token;
  }
  return read;
}

bool OnvifMedia::ReadStreamUri(const std::string& profileToken, std::string& uri) {
  const std::wstring token = WideFromUtf8(profileToken);
  std::wstring found;
  if (!AskUri(Client(), L"GetStreamUri",
              L"<tr2:Protocol>RTSP</tr2:Protocol>" + Element(L"tr2:ProfileToken", token),
              StreamUriBody(token), found)) {
    return false;
  }
  uri = Client().Device().StreamUrlOf(found);
  return true;
}

bool OnvifMedia::ReadSnapshotUri(const std::string& profileToken, std::string& uri) {
  const std::wstring token = WideFromUtf8(profileToken);
  std::wstring found;
  if (!AskUri(
          Client(), L"GetSnapshotUri", Element(L"tr2:ProfileToken", token),
          L"<trt:GetSnapshotUri>" + Element(L"trt:ProfileToken", token) + L"</trt:GetSnapshotUri>",
          found)) {
    return false;
  }
  uri = Client().Device().UrlOf(found);
  return true;
}

bool OnvifMedia::FetchSnapshot(const std::string& profileToken, std::string& picture) {
  std::string uri;
  return ReadSnapshotUri(profileToken, uri) && Client().Fetch(uri, picture);
}

}  // namespace cms
