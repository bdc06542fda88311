#include "cms/recording/record_param.h"

#include <algorithm>
#include <iterator>

#include "cms/runtime/native_path.h"

bool stRecordParam::SetPath(const std::string& nativePath) {
  std::fill(std::begin(path), std::end(path), L'\0');
  const std::wstring text = cms::SystemPath(nativePath);
  const bool fits = text.size() < std::size(path);
  if (fits) {
    text.copy(path, text.size());
  }
  return fits;
}
