// What CIPCAM_Config_Utility reads and changes over the parameter CGI.
#include <utility>

#include "cms/ipcam/capability_tables.h"
#include "cms/ipcam/config_utility.h"
#include "cms/ipcam/internal/param_requests.h"
#include "cms/runtime/wide_text.h"

bool CIPCAM_Config_Utility::GetByCgi(std::wstring_view operation, std::wstring path,
                                     std::wstring& answer) {
  if (!IsSiteComplete()) {
    return false;
  }
  _SEND_HTTP_COMMAND_PARAM param;
  InitialHTTPCommandParam(param);
  param.objectPath = std::move(path);
  const std::string name = cms::Utf8FromWide(operation);
  return Ask(param, name, kAnswerCapacity, answer) &&
         (!cms::IsInvalidValueAnswer(answer) || Fail(name + ": the camera refused a value"));
}

bool CIPCAM_Config_Utility::GetProdShortName(std::wstring& name) {
  std::wstring answer;
  if (!GetByCgi(L"product name", cms::ListPath({L"Brand"}), answer)) {
    return false;
  }
  std::wstring found;
  if (ONVIF_GetStrInBrace(answer, L"ProdShortName", L'=', L'\n', found) < 0) {
    return Fail("the camera does not tell its product name");
  }
  if (found.ends_with(L'\r')) {
    found.pop_back();
  }
  name = std::move(found);
  return true;
}

bool CIPCAM_Config_Utility::GetParameters(const std::vector<std::wstring>& groups,
                                          std::vector<cms::stCameraParameter>& parameters) {
  std::wstring answer;
  if (!GetByCgi(L"parameters", cms::ListPath(groups), answer)) {
    return false;
  }
  parameters = cms::ParseParameters(answer);
  return !parameters.empty() || Fail("no such parameters");
}

bool CIPCAM_Config_Utility::GetParameterOptions(std::vector<cms::stCameraParameter>& options) {
  std::wstring answer;
  if (!GetByCgi(L"parameter options", L"/cgi-bin/admin/param.cgi?action=options", answer)) {
    return false;
  }
  options = cms::ParseParameters(answer);
  return true;
}

bool CIPCAM_Config_Utility::SetParameters(const std::vector<cms::stCameraParameter>& parameters) {
  std::string error;
  std::optional<std::wstring> path = cms::UpdatePath(parameters, error);
  std::wstring answer;
  return path ? GetByCgi(L"setting parameters", std::move(*path), answer) : Fail(error);
}

bool CIPCAM_Config_Utility::GetVideoResolutionAPIConfig() {
  std::wstring answer;
  return GetByCgi(L"resolutions", cms::ResolutionListPath(), answer) &&
         ParserResolutionAPIData(answer);
}

bool CIPCAM_Config_Utility::ParserResolutionAPIData(const std::wstring& answer) {
  std::optional<cms::stResolutionConfiguration> read = cms::ParseResolutions(answer);
  if (!read) {
    return Fail("the camera does not tell its streams' resolutions");
  }
  resolution_ = std::move(*read);
  return true;
}

bool CIPCAM_Config_Utility::SetVideoResolutionAPIConfig(const std::wstring& combination) {
  if (!IsSiteComplete()) {
    return false;
  }
  if (combination == resolution_.combination && !combination.empty()) {
    return Succeed();
  }
  std::string error;
  std::optional<std::wstring> path = cms::ResolutionUpdatePath(combination, error);
  if (!path) {
    return Fail(error);
  }
  std::wstring answer;
  return GetByCgi(L"setting resolutions", std::move(*path), answer) &&
         GetVideoResolutionAPIConfig() &&
         (resolution_.combination == combination ||
          Fail("the camera kept the resolutions " + cms::Utf8FromWide(resolution_.combination)));
}

bool CIPCAM_Config_Utility::SetTVSystem(int index) {
  if (index < 0 || static_cast<std::size_t>(index) >= cms::VideoSystemNames().size()) {
    return Fail("video systems are 0 to " + std::to_string(cms::VideoSystemNames().size() - 1));
  }
  std::wstring answer;
  return GetByCgi(L"video system", L"/cgi-bin/tvsystem.cgi?tvsystem=" + std::to_wstring(index),
                  answer);
}
