// The page that `orvanta serve` gives to browsers: the files of page/, embedded by the build.
#pragma once

#include <span>
#include <string_view>

namespace tools {

struct PageFile {
  std::string_view name;  // "main.js"
  std::string_view text;
};

std::span<const PageFile> PageFiles();

}  // namespace tools
